// Top-K of one user. The floor is reading the item table once.

#include "data.hpp"
#include "floors.hpp"
#include "report.hpp"

#include <benchmark/benchmark.h>
#include <map>
#include <vector>

namespace {

constexpr std::uint32_t kUsers = 64;

// Models are kept: filling the largest takes longer than measuring it.
zx_model_t& model_of(std::uint32_t num_items, std::uint32_t d) {
    static std::map<std::pair<std::uint32_t, std::uint32_t>, zxbench::ModelPtr> models;
    zxbench::ModelPtr& model = models[{num_items, d}];
    if (!model) model = zxbench::make_model(kUsers, num_items, d, false);
    return *model;
}

void recommend(benchmark::State& state) {
    const auto num_items = static_cast<std::uint32_t>(state.range(0));
    const auto d = static_cast<std::uint32_t>(state.range(1));
    const auto k = static_cast<std::uint32_t>(state.range(2));
    zx_model_t& model = model_of(num_items, d);
    std::vector<std::uint32_t> items(k);
    std::vector<float> scores(k);
    std::uint32_t user = 0;
    const std::size_t bytes = std::size_t{num_items} * d * sizeof(float);
    zxbench::Report report(state, zxbench::read_seconds(model.item_embeddings->data, bytes));
    for (auto _ : state)
        if (zx_recommend(&model, user++ % kUsers, k, items.data(), scores.data()) != ZX_OK)
            state.SkipWithError("recommendation failed");
    report.finish();
}
BENCHMARK(recommend)
    ->ArgNames({"items", "d", "k"})
    ->ArgsProduct({{10000, 100000, 1000000}, {64, 128}, {10, 100}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
