// Ctrl-C as a flag: while a guard lives, SIGINT, SIGTERM and SIGHUP are noted instead of ending
// the program, so that long work ends in good order between two steps and temporary files are
// removed on the way out. A second signal ends the program at once.
#pragma once

namespace zxtool {

class InterruptGuard {
  public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;
};

// Whether such a signal arrived under a guard.
bool interrupted();

// Throws Error(kInterrupted, "interrupted") if one did.
void stop_if_interrupted();

}  // namespace zxtool
