// Debian has no well-kept C++ library for progress bars, and what is needed of one is this little.
#include "progress.hpp"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zxtool {
namespace {

constexpr auto kBetweenDraws = std::chrono::milliseconds(100);
constexpr std::size_t kWidestBar = 100;

std::size_t terminal_width() {
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

}  // namespace

std::string duration_text(double seconds) {
    // More than a million hours is as good as unknown, and the conversion stays in range.
    const auto total = static_cast<std::uint64_t>(std::llround(std::clamp(seconds, 0.0, 3.6e9)));
    const std::uint64_t hours = total / 3600;
    const std::uint64_t minutes = total / 60 % 60;
    if (hours == 0) return fmt::format("{}:{:02}", minutes, total % 60);
    return fmt::format("{}:{:02}:{:02}", hours, minutes, total % 60);
}

std::string rate_text(double per_second, std::string_view unit) {
    if (!(per_second > 0.0)) return fmt::format("- {}/s", unit);
    if (per_second >= 1e6) return fmt::format("{:.2f} M {}/s", per_second / 1e6, unit);
    if (per_second >= 1e3) return fmt::format("{:.1f} k {}/s", per_second / 1e3, unit);
    return fmt::format("{:.1f} {}/s", per_second, unit);
}

std::string bar_text(std::uint64_t done, std::uint64_t total, double seconds, std::string_view unit,
                     std::size_t width) {
    const double share = static_cast<double>(done) / static_cast<double>(total);
    const double rate = seconds > 0.0 ? static_cast<double>(done) / seconds : 0.0;
    const std::string left =
        rate > 0.0 ? duration_text(static_cast<double>(total - done) / rate) : "-:--";
    const std::string text = fmt::format(" {:3.0f} %  {}  {} left", std::floor(100.0 * share),
                                         rate_text(rate, unit), left);

    // Where there is no room for a bar worth looking at, the figures stand alone.
    constexpr std::size_t kSmallestBar = 12;
    const std::size_t columns = std::min(width, kWidestBar);
    if (columns < text.size() + kSmallestBar) return text.substr(1, columns);
    const std::size_t cells = columns - text.size() - 2;
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(cells));
    return fmt::format("[{}{}]{}", std::string(filled, '#'), std::string(cells - filled, '-'),
                       text);
}

Progress::Progress(const Console& console, std::uint64_t total, std::string unit)
    : console_(console), total_(total), unit_(std::move(unit)) {
    advance(0);  // work whose first step is long shows that it has begun
}

Progress::~Progress() {
    erase();
}

void Progress::advance(std::uint64_t amount) {
    done_ = std::min(total_, done_ + amount);
    if (!console_.draws() || total_ == 0) return;
    const Clock::time_point now = Clock::now();
    if (now < next_draw_) return;
    next_draw_ = now + kBetweenDraws;
    draw();
}

void Progress::line(std::string_view text) {
    erase();
    console_.note(text);
    if (console_.draws() && total_ != 0) draw();
}

void Progress::draw() {
    const std::chrono::duration<double> seconds = Clock::now() - start_;
    const std::string bar = bar_text(done_, total_, seconds.count(), unit_, terminal_width() - 1);
    const std::string shown = console_.colours() ? fmt::format("\x1b[36m{}\x1b[0m", bar) : bar;
    // The cursor goes back to the first column and the rest of an older, longer bar is cleared.
    static_cast<void>(std::fputs(fmt::format("\r{}\x1b[K", shown).c_str(), stderr));
    drawn_ = true;
}

void Progress::erase() {
    if (!drawn_) return;
    static_cast<void>(std::fputs("\r\x1b[K", stderr));
    drawn_ = false;
}

}  // namespace zxtool
