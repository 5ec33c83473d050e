// Pair scores, item lists and the sampled hit rate. The floor of pairs is reading their rows.

#include "data.hpp"
#include "floors.hpp"
#include "report.hpp"

#include <benchmark/benchmark.h>
#include <numeric>
#include <vector>

namespace {

constexpr std::uint32_t kDim = 64;
constexpr std::uint32_t kPairs = 100000;

void score_pairs(benchmark::State& state) {
    const auto rows = static_cast<std::uint32_t>(state.range(0));
    const zxbench::ModelPtr model = zxbench::make_model(rows, rows, kDim, false);
    const zxbench::Triples pairs = zxbench::uniform_triples(rows, rows, kPairs);
    zxbench::Report report(
        state, zxbench::row_pair_seconds(model->user_embeddings->data, model->item_embeddings->data,
                                         kDim, pairs.users, pairs.pos_items));
    for (auto _ : state) {
        const zxbench::TensorPtr scores(
            zx_model_score(model.get(), pairs.users.data(), pairs.pos_items.data(), kPairs));
        benchmark::DoNotOptimize(scores->data);
    }
    state.counters["pairs"] =
        benchmark::Counter(kPairs, benchmark::Counter::kIsIterationInvariantRate);
    report.finish();
}
BENCHMARK(score_pairs)->ArgName("rows")->Arg(2000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

void score_items(benchmark::State& state) {
    constexpr std::uint32_t kItems = 10000;
    const zxbench::ModelPtr model = zxbench::make_model(64, kItems, kDim, false);
    std::vector<std::uint32_t> ids(kItems);
    std::iota(ids.begin(), ids.end(), 0U);
    if (state.range(0) == 0) std::swap(ids.front(), ids.back());
    std::vector<float> scores(kItems);
    const std::size_t bytes = std::size_t{kItems} * kDim * sizeof(float);
    zxbench::Report report(state, static_cast<double>(bytes) / zxbench::read_bandwidth(bytes));
    for (auto _ : state)
        if (zx_model_score_items(model.get(), 1, ids.data(), kItems, scores.data()) != ZX_OK)
            state.SkipWithError("scoring failed");
    report.finish();
}
BENCHMARK(score_items)->ArgName("identity")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

void hit_rate(benchmark::State& state) {
    constexpr std::uint32_t kRows = 10000;
    const zxbench::ModelPtr model = zxbench::make_model(kRows, kRows, kDim, false);
    const zxbench::Triples pairs = zxbench::uniform_triples(kRows, kRows, 1000);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            zx_metric_hit_rate(model.get(), pairs.users.data(), pairs.pos_items.data(), 1000, 10));
}
BENCHMARK(hit_rate)->Unit(benchmark::kMicrosecond);

}  // namespace
