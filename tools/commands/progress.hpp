// How far long work has come: on a terminal a bar with rate and remaining time, redrawn in place;
// elsewhere only the lines that are worth keeping. All of it goes to standard error.
#pragma once

#include "console.hpp"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace zxtool {

// Seconds as "0:42", "12:05" or "3:20:00"; rounded to the second.
std::string duration_text(double seconds);

// A rate such as "1.25 M triples/s"; without a known rate, "- triples/s".
std::string rate_text(double per_second, std::string_view unit);

// One bar, at most `width` columns wide, without its colour. `done` is at most `total`, which is
// not 0.
std::string bar_text(std::uint64_t done, std::uint64_t total, double seconds, std::string_view unit,
                     std::size_t width);

class Progress {
  public:
    Progress(const Console& console, std::uint64_t total, std::string unit);
    // Takes the bar away.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Notes that `amount` more is done. Cheap enough to be called for every batch.
    void advance(std::uint64_t amount);
    // A line that stays, above the bar.
    void line(std::string_view text);

  private:
    using Clock = std::chrono::steady_clock;

    void draw();
    void erase();

    const Console& console_;
    const std::uint64_t total_;
    const std::string unit_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point next_draw_ = start_;
    std::uint64_t done_ = 0;
    bool drawn_ = false;
};

}  // namespace zxtool
