// How a case reports itself beside its floor.
#pragma once

#include "floors.hpp"

#include <benchmark/benchmark.h>

namespace zxbench {

// Times the iterations of a case, from its construction to finish(), to compare them with their
// floor: the least time in seconds that one iteration could take.
class Report {
  public:
    Report(benchmark::State& state, double floor) : state_(state), floor_(floor) {}

    void finish() {
        const double elapsed = processor_seconds() - start_;
        const double iteration = elapsed / static_cast<double>(state_.iterations());
        state_.counters["floor_us"] = floor_ * 1e6;
        state_.counters["times_floor"] = iteration / floor_;
    }

  private:
    benchmark::State& state_;
    const double floor_;
    double start_ = processor_seconds();
};

}  // namespace zxbench
