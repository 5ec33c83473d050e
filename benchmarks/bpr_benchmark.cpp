// BPR triples and negative samples. The floor of a step is its memory side alone: reading and
// writing the same rows in the same order.

#include "data.hpp"
#include "floors.hpp"
#include "report.hpp"

#include <benchmark/benchmark.h>

namespace {

void run_bpr(benchmark::State& state, const zxbench::Triples& triples, zx_model_t& model) {
    const auto count = static_cast<std::uint32_t>(triples.users.size());
    zxbench::Report report(
        state, zxbench::row_update_seconds(model.user_embeddings->data, model.item_embeddings->data,
                                           model.embedding_dim, triples.users, triples.pos_items,
                                           triples.neg_items));
    for (auto _ : state)
        if (zx_model_train_step_bpr(&model, triples.users.data(), triples.pos_items.data(),
                                    triples.neg_items.data(), count, 0.05f, 0.01f) != ZX_OK)
            state.SkipWithError("step failed");
    state.counters["triples"] =
        benchmark::Counter(count, benchmark::Counter::kIsIterationInvariantRate);
    report.finish();
}

void bpr_zipf(benchmark::State& state) {
    const zx_sparse_t& matrix = zxbench::zipf_interactions();
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const zxbench::ModelPtr model = zxbench::make_model(matrix.rows, matrix.cols, d, false);
    run_bpr(state, zxbench::zipf_triples(), *model);
}
BENCHMARK(bpr_zipf)->ArgName("d")->Arg(64)->Arg(128)->Unit(benchmark::kMillisecond);

void bpr_million(benchmark::State& state) {
    constexpr std::uint32_t kRows = 1000000;
    const zxbench::ModelPtr model = zxbench::make_model(kRows, kRows, 64, false);
    run_bpr(state, zxbench::uniform_triples(kRows, kRows, kRows), *model);
}
BENCHMARK(bpr_million)->Unit(benchmark::kMillisecond);

void sample_negatives(benchmark::State& state) {
    const zx_sparse_t& matrix = zxbench::zipf_interactions();
    zxbench::Triples triples = zxbench::zipf_triples();
    const auto count = static_cast<std::uint32_t>(triples.users.size());
    for (auto _ : state)
        zx_sample_negatives_uniform(&matrix, triples.users.data(), triples.neg_items.data(), count,
                                    matrix.cols);
    state.counters["samples"] =
        benchmark::Counter(count, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(sample_negatives)->Unit(benchmark::kMillisecond);

}  // namespace
