// Row solves of alternating least squares for implicit feedback (Hu, Koren, Volinsky, ICDM 2008):
// the Gram matrix shared by all rows of a side, a rank-one correction for each of a row's entries,
// and a Gauss-Jordan elimination with partial pivoting.
//
// The systems are symmetric, so only the upper triangle is accumulated and then mirrored. The
// right-hand side is one more column of the system, and columns that nobody reads again are left
// out of the elimination.

#include "zx_train/als_elimination.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace zx::als {

bool Elimination::allocate(std::uint32_t d) {
    if (d == 0) return false;
    d_ = d;
    stride_ = padded(std::uint64_t{d} + 1);
    const std::uint64_t columns = padded(d);
    const std::uint64_t floats = (columns + 1) * stride_ + std::uint64_t{2} * kPanelRows * columns;
    block_ = make_zeroed_array<float>(floats);
    if (!block_) return false;
    system_ = block_.get();
    right_hand_side_ = system_ + columns * stride_;
    panel_ = right_hand_side_ + stride_;
    scaled_panel_ = panel_ + kPanelRows * columns;
    return true;
}

// Adds the entries [first, last) of the row to its system: confidence - 1 = alpha * strength weighs
// the outer product, the confidence the right-hand side.
void Elimination::add_panel(const FixedSide& fixed, const Row& row, std::uint32_t first,
                            std::uint32_t last) {
    const simd::Operations& ops = simd::operations();
    const std::uint64_t columns = padded(d_);
    const float* rows[kPanelRows];
    float confidences[kPanelRows];
    for (std::uint32_t i = first; i < last; ++i) {
        const float* const y = fixed.table + std::uint64_t{row.ids[i]} * d_;
        float* const copy = panel_ + std::uint64_t{i - first} * columns;
        float* const scaled = scaled_panel_ + std::uint64_t{i - first} * columns;
        for (std::uint32_t k = 0; k < d_; ++k) {
            copy[k] = y[k];
            scaled[k] = y[k] * row.weight(i);
        }
        rows[i - first] = copy;
        confidences[i - first] = 1.0f + row.weight(i);
    }
    ops.add_scaled_rows(right_hand_side_, rows, confidences, last - first, columns);
    ops.add_upper_products({.c = system_,
                            .c_stride = stride_,
                            .left = scaled_panel_,
                            .left_stride = columns,
                            .right = panel_,
                            .right_stride = columns,
                            .count = last - first,
                            .rows = columns,
                            .columns = columns,
                            .first_row = 0});
}

std::uint32_t Elimination::pivot_row(std::uint32_t k) const {
    std::uint32_t best_row = k;
    float best = std::fabs(system_[k * stride_ + k]);
    for (std::uint32_t r = k + 1; r < d_; ++r) {
        const float magnitude = std::fabs(system_[r * stride_ + k]);
        if (magnitude > best) {  // strictly: ties keep the earlier row
            best = magnitude;
            best_row = r;
        }
    }
    return best_row;
}

// Solves the system in place; the solution is its column d afterwards.
void Elimination::eliminate() {
    constexpr float kSmallestPivot = 1e-10f;
    const simd::Operations& ops = simd::operations();
    for (std::uint32_t k = 0; k < d_; ++k) {
        float* const row = system_ + k * stride_;
        const std::uint32_t best = pivot_row(k);
        if (best != k) std::swap_ranges(row + k, row + d_ + 1, system_ + best * stride_ + k);

        // A column without a pivot is skipped, so that a singular system ends as well; its unknown
        // keeps what the elimination leaves.
        const float pivot = row[k];
        if (std::fabs(pivot) < kSmallestPivot) continue;
        const float reciprocal = 1.0f / pivot;
        const float right_hand_side = row[d_] / pivot;  // a true division, unlike the row's
        for (std::uint32_t m = k + 1; m < d_; ++m) row[m] *= reciprocal;
        row[d_] = right_hand_side;
        ops.eliminate(system_, k, d_, stride_);
    }
}

void Elimination::solve(const FixedSide& fixed, const Row& row, float* solution) {
    const std::uint64_t columns = padded(d_);
    std::fill_n(system_, columns * stride_, 0.0f);
    for (std::uint32_t k = 0; k < d_; ++k)
        std::memcpy(system_ + k * stride_, fixed.gram + k * columns, d_ * sizeof(float));
    std::fill_n(right_hand_side_, stride_, 0.0f);
    for (std::uint32_t i = 0; i < row.count;) {
        const std::uint32_t panel_end = i + std::min(row.count - i, kPanelRows);
        add_panel(fixed, row, i, panel_end);
        i = panel_end;
    }
    for (std::uint64_t k = 0; k < d_; ++k) {
        for (std::uint64_t l = 0; l < k; ++l) system_[k * stride_ + l] = system_[l * stride_ + k];
        system_[k * stride_ + d_] = right_hand_side_[k];
    }

    eliminate();
    for (std::uint32_t k = 0; k < d_; ++k) solution[k] = system_[k * stride_ + d_];
}

}  // namespace zx::als
