// The limits that the other cases are compared with, as figures of their own.

#include "data.hpp"
#include "floors.hpp"

#include <benchmark/benchmark.h>
#include <vector>

namespace {

constexpr std::size_t kRowDim = 64;

void machine_multiply_add(benchmark::State& state) {
    double rate = 0.0;
    for (auto _ : state)
        rate = zxbench::multiply_add_rate(static_cast<std::size_t>(state.range(0) / 8));
    state.counters["per_second"] = rate;
}
BENCHMARK(machine_multiply_add)->ArgName("bits")->Arg(128)->Arg(256)->Arg(512)->Iterations(1);

void machine_read(benchmark::State& state) {
    const std::vector<char> block(static_cast<std::size_t>(state.range(0)) << 20, 1);
    double seconds = 0.0;
    for (auto _ : state) seconds = zxbench::read_seconds(block.data(), block.size());
    state.counters["per_second"] = static_cast<double>(block.size()) / seconds;
}
BENCHMARK(machine_read)->ArgName("MiB")->Arg(1)->Arg(4)->Arg(16)->Arg(256)->Iterations(1);

// Rows of 256 bytes at random places of 256 MB.
void machine_random_rows(benchmark::State& state) {
    constexpr std::uint32_t kRows = 1000000;
    const std::vector<float> table(kRows * kRowDim, 1.0f);
    const zxbench::Triples ids = zxbench::uniform_triples(kRows, kRows, kRows);
    double seconds = 0.0;
    for (auto _ : state)
        seconds = zxbench::row_read_seconds(table.data(), kRowDim, ids.users,
                                            static_cast<std::size_t>(state.range(0)));
    state.counters["per_second"] = kRows * kRowDim * sizeof(float) / seconds;
}
BENCHMARK(machine_random_rows)->ArgName("ahead")->Arg(0)->Arg(8)->Arg(32)->Iterations(1);

}  // namespace
