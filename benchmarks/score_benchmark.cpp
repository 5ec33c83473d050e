// Pair scores, item lists and the sampled hit rate. The floor of pairs is reading their rows, that
// of a list reading as many bytes in a row.

#include "data.hpp"
#include "floors.hpp"
#include "report.hpp"

#include <algorithm>
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
        state,
        zxbench::row_pair_seconds(model->user_embeddings->data, model->item_embeddings->data, kDim,
                                  pairs.users, pairs.pos_items),
        kPairs);
    for (auto _ : state) {
        const zxbench::TensorPtr scores(
            zx_model_score(model.get(), pairs.users.data(), pairs.pos_items.data(), kPairs));
        benchmark::DoNotOptimize(scores->data);
    }
    report.finish();
}
BENCHMARK(score_pairs)->ArgName("rows")->Arg(2000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

// All items, in the table's order or in a random one.
void score_items(benchmark::State& state) {
    constexpr std::uint32_t kItems = 10000;
    const zxbench::ModelPtr model = zxbench::make_model(64, kItems, kDim, false);
    std::vector<std::uint32_t> ids(kItems);
    std::iota(ids.begin(), ids.end(), 0U);
    if (state.range(0) == 0) {
        const zxbench::Triples random = zxbench::uniform_triples(kItems, kItems, kItems);
        for (std::uint32_t i = 0; i < kItems; ++i) std::swap(ids[i], ids[random.users[i]]);
    }
    std::vector<float> scores(kItems);
    const std::size_t bytes = std::size_t{kItems} * kDim * sizeof(float);
    zxbench::Report report(state, zxbench::read_seconds(model->item_embeddings->data, bytes),
                           kItems);
    for (auto _ : state)
        if (zx_model_score_items(model.get(), 1, ids.data(), kItems, scores.data()) != ZX_OK)
            state.SkipWithError("scoring failed");
    report.finish();
}
BENCHMARK(score_items)->ArgName("identity")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

// In the library's order of additions, for rows of a multiple of four.
float dot(const float* a, const float* b, std::uint32_t d) {
    float sums[4] = {};
    for (std::uint32_t k = 0; k < d; ++k) sums[k % 4] += a[k] * b[k];
    return (sums[0] + sums[2]) + (sums[1] + sums[3]);
}

// The hit rate with a tensor for every draw, through the public lookups.
float hit_rate_by_lookups(const zx_model_t& model, const zxbench::Triples& pairs,
                          std::uint32_t count, std::uint32_t k) {
    std::uint32_t hits = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const zxbench::TensorPtr user(zx_model_forward_user(&model, &pairs.users[i], 1));
        const auto score = [&](std::uint32_t id) {
            const zxbench::TensorPtr item(zx_model_forward_item(&model, &id, 1));
            return dot(user->data, item->data, model.embedding_dim);
        };
        const float target = score(pairs.pos_items[i]);
        std::uint32_t rank = 1;
        for (std::uint32_t draw = 0; draw < 10 * k && rank <= k; ++draw) {
            const float place = static_cast<float>(model.num_items) * zx_rng_uniform();
            const auto id = static_cast<std::uint32_t>(place);
            if (id < model.num_items && score(id) > target) ++rank;
        }
        if (rank <= k) ++hits;
    }
    return static_cast<float>(hits) / static_cast<float>(count);
}

// Compared, in time and in its result, with the same metric that makes a tensor for every draw.
void hit_rate(benchmark::State& state) {
    constexpr std::uint32_t kRows = 10000;
    constexpr std::uint32_t kCount = 1000;
    constexpr std::uint32_t kBest = 10;
    const zxbench::ModelPtr model = zxbench::make_model(kRows, kRows, kDim, false);
    const zxbench::Triples pairs = zxbench::uniform_triples(kRows, kRows, kCount);

    zx_rng_seed(3);
    const double start = zxbench::processor_seconds();
    const float expected = hit_rate_by_lookups(*model, pairs, kCount, kBest);
    const double by_lookups = zxbench::processor_seconds() - start;
    const float next_draw = zx_rng_uniform();

    float rate = 0.0f;
    const double timed_from = zxbench::processor_seconds();
    for (auto _ : state) {
        zx_rng_seed(3);
        rate = zx_metric_hit_rate(model.get(), pairs.users.data(), pairs.pos_items.data(), kCount,
                                  kBest);
    }
    const double elapsed = zxbench::processor_seconds() - timed_from;
    if (rate != expected || zx_rng_uniform() != next_draw)
        state.SkipWithError("the hit rate differs from the one with a tensor for every draw");
    const double seconds = elapsed / static_cast<double>(state.iterations());
    state.counters["ns_each"] = seconds / kCount * 1e9;
    state.counters["by_lookups_ns_each"] = by_lookups / kCount * 1e9;
    state.counters["times_faster"] = by_lookups / seconds;
}
BENCHMARK(hit_rate)->Unit(benchmark::kMicrosecond);

}  // namespace
