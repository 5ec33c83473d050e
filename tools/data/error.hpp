// How the tool fails: one clear line and an exit status that tells the kind of failure.
#pragma once

#include <stdexcept>
#include <string>

namespace zxtool {

enum class Exit : int {
    kDone = 0,
    kFailure = 1,
    kUsage = 2,
    kBadInput = 3,
    kBadModel = 4,
    kOutOfMemory = 5,
    kInputOutput = 6,
    kNoDevice = 7,
    kInterrupted = 130,
};

// Carries the exit status up to main(), which prints the text after "zorvex: ".
class Error : public std::runtime_error {
  public:
    Error(Exit status, const std::string& text) : std::runtime_error(text), status_(status) {}
    [[nodiscard]] Exit status() const { return status_; }

  private:
    Exit status_;
};

}  // namespace zxtool
