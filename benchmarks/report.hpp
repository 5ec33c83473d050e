// How a case reports itself beside its floor.
#pragma once

#include "floors.hpp"

#include <benchmark/benchmark.h>

namespace zxbench {

// Times the iterations of a case, from its construction to finish(), to compare them with their
// floor: the least time in seconds that one iteration could take. Each does `units` of its work:
// triples, pairs, users.
class Report {
  public:
    Report(benchmark::State& state, double floor, double units = 1.0)
        : state_(state), floor_(floor), units_(units) {}

    void finish() {
        const double elapsed = processor_seconds() - start_;
        const double iteration = elapsed / static_cast<double>(state_.iterations());
        state_.counters["ns_each"] = iteration / units_ * 1e9;
        state_.counters["floor_ns_each"] = floor_ / units_ * 1e9;
        state_.counters["times_floor"] = iteration / floor_;
    }

  private:
    benchmark::State& state_;
    const double floor_;
    const double units_;
    double start_ = processor_seconds();
};

}  // namespace zxbench
