#include "zx_train/als_rows.hpp"

#include "simd/simd.hpp"

#include <algorithm>
#include <cstring>

namespace zx::als {

bool HalfEpoch::allocate(std::uint32_t d, std::uint32_t max_rows, float regularization) {
    if (!elimination_.allocate(d)) return false;
    gram_ = make_array<float>(padded(d) * padded(d));
    panel_ = make_zeroed_array<float>(kPanelRows * padded(d));
    if (!gram_ || !panel_) return false;
    fixed_ = {
        .table = nullptr, .rows = 0, .d = d, .regularization = regularization, .gram = gram_.get()};
    has_systems_ = PositiveSystems::serves(regularization);
    return !has_systems_ || systems_.allocate(d, max_rows);
}

void HalfEpoch::fill_gram() {
    const std::uint64_t d = fixed_.d;
    const std::uint64_t stride = padded(d);
    float* const gram = gram_.get();
    std::fill_n(gram, stride * stride, 0.0f);
    for (std::uint32_t first = 0; first < fixed_.rows;) {
        const std::uint32_t count = std::min(fixed_.rows - first, kPanelRows);
        for (std::uint64_t i = 0; i < count; ++i)
            std::memcpy(panel_.get() + i * stride, fixed_.table + (first + i) * d,
                        d * sizeof(float));
        simd::operations().add_upper_products({.c = gram,
                                               .c_stride = stride,
                                               .left = panel_.get(),
                                               .left_stride = stride,
                                               .right = panel_.get(),
                                               .right_stride = stride,
                                               .count = count,
                                               .rows = stride,
                                               .columns = stride,
                                               .first_row = 0});
        first += count;
    }
    for (std::uint64_t k = 0; k < d; ++k) {
        for (std::uint64_t l = 0; l < k; ++l) gram[k * stride + l] = gram[l * stride + k];
        gram[k * stride + k] += fixed_.regularization;
    }
}

void HalfEpoch::fix(const float* table, std::uint32_t rows) {
    fixed_.table = table;
    fixed_.rows = rows;
    fill_gram();
    if (has_systems_) systems_.prepare(fixed_);
}

void HalfEpoch::solve_batch(const Row* rows, float** solutions, std::uint32_t count) {
    float* places[PositiveSystems::kBatchRows];
    std::copy_n(solutions, count, places);
    systems_.solve(rows, count, places);
    for (std::uint32_t i = 0; i < count; ++i)
        if (!places[i]) elimination_.solve(fixed_, rows[i], solutions[i]);
}

void HalfEpoch::solve(std::uint32_t first, std::uint32_t last, const Entries& entries, float alpha,
                      float* solved) {
    Row batch[PositiveSystems::kBatchRows];
    float* solutions[PositiveSystems::kBatchRows];
    std::uint32_t count = 0;
    for (std::uint32_t r = first; r < last; ++r) {
        const std::uint32_t start = entries.starts[r];
        const Row row = {entries.ids + start, entries.strengths + start,
                         entries.starts[r + 1] - start, alpha};
        float* const solution = solved + std::uint64_t{r} * fixed_.d;
        if (row.count == 0) {
            // The right-hand side is zero, and so is the solution.
            std::fill_n(solution, fixed_.d, 0.0f);
        } else if (has_systems_ && systems_.accepts(row)) {
            batch[count] = row;
            solutions[count++] = solution;
        } else {
            elimination_.solve(fixed_, row, solution);
        }
        if (count == PositiveSystems::kBatchRows || (r + 1 == last && count > 0)) {
            solve_batch(batch, solutions, count);
            count = 0;
        }
    }
}

}  // namespace zx::als
