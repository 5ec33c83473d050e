// One ALS epoch. The floor counts the operations of the cheapest exact method known for each row,
// at the measured peak of multiply-adds: a row of m entries is solved through its own d x d system,
// or, with the shared Gram matrix factorised once per half-epoch and the fixed table transformed by
// the factor, through an m x m system.

#include "data.hpp"
#include "floors.hpp"
#include "report.hpp"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <vector>

namespace {

// Half of each symmetric matrix, and Cholesky factorisations with two triangular solves.
double factorise(double n) {
    return n * n * n / 3.0;
}
double direct_row(double m, double d) {
    return m * d * (d + 1) + factorise(d) + 2.0 * d * d;
}
double short_row(double m, double d) {
    return m * (m + 1) * d + factorise(m) + 2.0 * m * m + 2.0 * m * d + d * d;
}

// A row without entries is zero and costs nothing.
double half_epoch_operations(const std::vector<std::uint32_t>& row_lengths, double fixed_rows,
                             double d) {
    double direct = 0.0;
    double best = factorise(d) + fixed_rows * d * d;
    for (const double m : row_lengths) {
        if (m == 0.0) continue;
        direct += direct_row(m, d);
        best += std::min(direct_row(m, d), short_row(m, d));
    }
    const double gram = fixed_rows * d * (d + 1);
    return gram + std::min(direct, best);
}

double epoch_operations(const zx_sparse_t& matrix, double d) {
    std::vector<std::uint32_t> user_lengths(matrix.rows);
    std::vector<std::uint32_t> item_lengths(matrix.cols);
    for (std::uint32_t user = 0; user < matrix.rows; ++user)
        user_lengths[user] = zx_sparse_row_nnz(&matrix, user);
    for (std::uint32_t entry = 0; entry < matrix.nnz; ++entry)
        ++item_lengths[matrix.col_idx[entry]];
    return half_epoch_operations(user_lengths, matrix.cols, d) +
           half_epoch_operations(item_lengths, matrix.rows, d);
}

void run_als(benchmark::State& state, const zx_sparse_t& matrix) {
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const zxbench::ModelPtr model = zxbench::make_model(matrix.rows, matrix.cols, d, false);
    const double operations = epoch_operations(matrix, d);
    zxbench::Report report(state, operations / zxbench::multiply_add_peak());
    for (auto _ : state)
        if (zx_model_train_als_epoch(model.get(), &matrix, 1, 40.0f, 10.0f) != ZX_OK)
            state.SkipWithError("epoch failed");
    report.finish();
    state.counters["operations"] = operations;
}

void als_epoch(benchmark::State& state) {
    run_als(state, zxbench::zipf_interactions());
}
BENCHMARK(als_epoch)->ArgName("d")->Arg(16)->Arg(64)->Arg(128)->Arg(256)->Unit(
    benchmark::kMillisecond);

// The same epoch with the corrections left out: one entry in a user's row, two in an item's.
void als_epoch_few_entries(benchmark::State& state) {
    const zx_sparse_t& whole = zxbench::zipf_interactions();
    const zxbench::SparsePtr matrix(zx_sparse_create(whole.rows, whole.cols, whole.rows));
    for (std::uint32_t user = 0; user < whole.rows; ++user) {
        matrix->row_ptr[user + 1] = user + 1;
        matrix->col_idx[user] = user % whole.cols;
        matrix->values[user] = 1.0f;
    }
    run_als(state, *matrix);
}
BENCHMARK(als_epoch_few_entries)
    ->ArgName("d")
    ->Arg(16)
    ->Arg(64)
    ->Arg(128)
    ->Arg(256)
    ->Unit(benchmark::kMillisecond);

}  // namespace
