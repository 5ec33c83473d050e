// One ALS epoch. The floor counts the operations that any exact method with a dense solve for each
// row needs: half of each symmetric matrix for the Gram product and the corrections, and a Cholesky
// factorisation with two triangular solves for each row.

#include "data.hpp"
#include "floors.hpp"
#include "report.hpp"

#include <benchmark/benchmark.h>

namespace {

double epoch_operations(const zx_sparse_t& matrix, double d) {
    const double rows = matrix.rows + matrix.cols;
    const double gram = rows * d * (d + 1);
    const double corrections = 2.0 * matrix.nnz * d * (d + 1);
    const double solves = rows * (d * d * d / 3.0 + 2.0 * d * d);
    return gram + corrections + solves;
}

void als_epoch(benchmark::State& state) {
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const zx_sparse_t& matrix = zxbench::zipf_interactions();
    const zxbench::ModelPtr model = zxbench::make_model(matrix.rows, matrix.cols, d, false);
    zxbench::Report report(state, epoch_operations(matrix, d) / zxbench::multiply_add_peak());
    for (auto _ : state)
        if (zx_model_train_als_epoch(model.get(), &matrix, 1, 40.0f, 10.0f) != ZX_OK)
            state.SkipWithError("epoch failed");
    report.finish();
}
BENCHMARK(als_epoch)->ArgName("d")->Arg(16)->Arg(64)->Arg(128)->Arg(256)->Unit(
    benchmark::kMillisecond);

}  // namespace
