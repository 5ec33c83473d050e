// The library's engine, running for as long as this object lives.
#pragma once

#include <string>

namespace zxtool {

// One at a time. Starting it seeds this thread's generator from the clock: who draws afterwards
// seeds it first.
class Engine {
  public:
    // Starts the engine from the program's folder, so that nothing in the user's is ever compiled.
    Engine();
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Why no device work is possible; empty when it is.
    [[nodiscard]] const std::string& why_not() const { return why_not_; }

  private:
    std::string why_not_;
};

}  // namespace zxtool
