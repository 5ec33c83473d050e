// BPR triples and negative samples. The floor of a step is its memory side alone: reading and
// writing the same rows in the same order.

#include "data.hpp"
#include "floors.hpp"
#include "report.hpp"

#include <benchmark/benchmark.h>

namespace {

bool train_step(zx_model_t& model, const zxbench::Triples& triples) {
    const auto count = static_cast<std::uint32_t>(triples.users.size());
    return zx_model_train_step_bpr(&model, triples.users.data(), triples.pos_items.data(),
                                   triples.neg_items.data(), count, 0.05f, 0.01f) == ZX_OK;
}

void sample_negatives_of(zxbench::Triples& triples, const zx_sparse_t& positives) {
    zx_sample_negatives_uniform(&positives, triples.users.data(), triples.neg_items.data(),
                                static_cast<std::uint32_t>(triples.users.size()), positives.cols);
}

double floor_of(zx_model_t& model, const zxbench::Triples& triples) {
    return zxbench::row_update_seconds(model.user_embeddings->data, model.item_embeddings->data,
                                       model.embedding_dim, triples.users, triples.pos_items,
                                       triples.neg_items);
}

void run_bpr(benchmark::State& state, const zxbench::Triples& triples, zx_model_t& model) {
    zxbench::Report report(state, floor_of(model, triples),
                           static_cast<double>(triples.users.size()));
    for (auto _ : state)
        if (!train_step(model, triples)) state.SkipWithError("step failed");
    report.finish();
}

void bpr_random_order(benchmark::State& state) {
    const zx_sparse_t& matrix = zxbench::zipf_interactions();
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const zxbench::ModelPtr model = zxbench::make_model(matrix.rows, matrix.cols, d, false);
    run_bpr(state, zxbench::zipf_triples(), *model);
}
BENCHMARK(bpr_random_order)->ArgName("d")->Arg(64)->Arg(128)->Unit(benchmark::kMillisecond);

void bpr_million(benchmark::State& state) {
    constexpr std::uint32_t kRows = 1000000;
    const zxbench::ModelPtr model = zxbench::make_model(kRows, kRows, 64, false);
    run_bpr(state, zxbench::uniform_triples(kRows, kRows, kRows), *model);
}
BENCHMARK(bpr_million)->Unit(benchmark::kMillisecond);

// The same number of triples on a few rows that stay in the first cache: the arithmetic and the
// latencies of the step, without the memory.
void bpr_few_rows(benchmark::State& state) {
    constexpr std::uint32_t kRows = 32;
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const zxbench::ModelPtr model = zxbench::make_model(kRows, 2 * kRows, d, false);
    zxbench::Triples triples;
    for (std::uint32_t i = 0; i < zxbench::zipf_interactions().nnz; ++i) {
        triples.users.push_back(i % kRows);
        triples.pos_items.push_back(i % kRows);
        triples.neg_items.push_back(kRows + i % kRows);
    }
    run_bpr(state, triples, *model);
}
BENCHMARK(bpr_few_rows)->ArgName("d")->Arg(64)->Arg(128)->Unit(benchmark::kMillisecond);

// The negatives of an epoch and its step.
void bpr_with_sampling(benchmark::State& state) {
    const zx_sparse_t& matrix = zxbench::zipf_interactions();
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const zxbench::ModelPtr model = zxbench::make_model(matrix.rows, matrix.cols, d, false);
    zxbench::Triples triples = zxbench::zipf_triples();
    const double count = matrix.nnz;
    const double draws = zxbench::draw_seconds(matrix.nnz);
    zxbench::Report report(state, draws + floor_of(*model, triples), count);
    for (auto _ : state) {
        sample_negatives_of(triples, matrix);
        if (!train_step(*model, triples)) state.SkipWithError("step failed");
    }
    report.finish();
}
BENCHMARK(bpr_with_sampling)->ArgName("d")->Arg(64)->Arg(128)->Unit(benchmark::kMillisecond);

// Floor: a draw of the generator for each.
void sample_negatives(benchmark::State& state) {
    const zx_sparse_t& matrix = zxbench::zipf_interactions();
    zxbench::Triples triples = zxbench::zipf_triples();
    zxbench::Report report(state, zxbench::draw_seconds(matrix.nnz), matrix.nnz);
    for (auto _ : state) sample_negatives_of(triples, matrix);
    report.finish();
}
BENCHMARK(sample_negatives)->Unit(benchmark::kMillisecond);

}  // namespace
