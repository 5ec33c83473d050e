// Row solves of alternating least squares for implicit feedback (Hu, Koren, Volinsky, ICDM 2008):
// the Gram matrix shared by all rows of a side, a rank-one correction for each of a row's entries,
// and a Gauss-Jordan elimination with partial pivoting.
//
// The systems are symmetric, so only the upper triangle is accumulated and then mirrored. The
// right-hand side is one more column of the system, and columns that nobody reads again are left
// out of the elimination.

#include "zx_train/als_rows.hpp"

#include "simd/simd.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace zx::als {
namespace {

void mirror_upper_triangle(float* a, std::uint32_t d, std::uint64_t stride) {
    for (std::uint64_t k = 1; k < d; ++k)
        for (std::uint64_t l = 0; l < k; ++l) a[k * stride + l] = a[l * stride + k];
}

// Adds the entries [first, last) of a row to its system: confidence - 1 = alpha * strength weighs
// the outer product, the confidence the right-hand side.
void add_panel(const Entries& entries, std::uint32_t first, std::uint32_t last,
               const FixedSide& fixed, float alpha, std::uint64_t stride, Workspace& workspace) {
    const simd::Operations& ops = simd::operations();
    const std::uint32_t d = fixed.d;
    for (std::uint32_t i = first; i < last; ++i) {
        const float* const y = fixed.table + std::uint64_t{entries.ids[i]} * d;
        const float weight = alpha * entries.strengths[i];
        float* const row = workspace.panel() + std::uint64_t{i - first} * stride;
        float* const scaled = workspace.scaled_panel() + std::uint64_t{i - first} * stride;
        for (std::uint32_t k = 0; k < d; ++k) {
            row[k] = y[k];
            scaled[k] = y[k] * weight;
        }
        ops.add_scaled(workspace.right_hand_side(), y, 1.0f + weight, d);
    }
    ops.add_outer_products(workspace.system(), workspace.scaled_panel(), workspace.panel(),
                           last - first, d, stride);
}

std::uint32_t pivot_row(const float* a, std::uint32_t k, std::uint32_t d, std::uint64_t stride) {
    std::uint32_t best_row = k;
    float best = std::fabs(a[k * stride + k]);
    for (std::uint32_t r = k + 1; r < d; ++r) {
        const float magnitude = std::fabs(a[r * stride + k]);
        if (magnitude > best) {  // strictly: ties keep the earlier row
            best = magnitude;
            best_row = r;
        }
    }
    return best_row;
}

// Solves the system in place; the solution is its column d afterwards.
void solve_system(float* a, std::uint32_t d, std::uint64_t stride) {
    constexpr float kSmallestPivot = 1e-10f;
    const simd::Operations& ops = simd::operations();
    for (std::uint32_t k = 0; k < d; ++k) {
        float* const row = a + k * stride;
        const std::uint32_t best = pivot_row(a, k, d, stride);
        if (best != k) std::swap_ranges(row + k, row + d + 1, a + best * stride + k);

        // A column without a pivot is skipped, so that a singular system ends as well; its unknown
        // keeps what the elimination leaves.
        const float pivot = row[k];
        if (std::fabs(pivot) < kSmallestPivot) continue;
        const float reciprocal = 1.0f / pivot;
        const float right_hand_side = row[d] / pivot;  // a true division, unlike the row's
        for (std::uint32_t m = k + 1; m < d; ++m) row[m] *= reciprocal;
        row[d] = right_hand_side;
        ops.eliminate(a, k, d, stride);
    }
}

void solve_row(std::uint32_t row, const Entries& entries, const FixedSide& fixed, float alpha,
               std::uint64_t stride, Workspace& workspace, float* solution) {
    const std::uint32_t d = fixed.d;
    const std::uint32_t end = entries.starts[row + 1];
    // Without entries the right-hand side is zero, and so is the solution.
    if (entries.starts[row] == end) {
        std::fill_n(solution, d, 0.0f);
        return;
    }

    float* const a = workspace.system();
    std::memcpy(a, fixed.gram, d * stride * sizeof(float));
    std::fill_n(workspace.right_hand_side(), d, 0.0f);
    for (std::uint32_t i = entries.starts[row]; i < end;) {
        const std::uint32_t panel_end = i + std::min(end - i, Workspace::kPanelRows);
        add_panel(entries, i, panel_end, fixed, alpha, stride, workspace);
        i = panel_end;
    }
    mirror_upper_triangle(a, d, stride);
    for (std::uint32_t k = 0; k < d; ++k) a[k * stride + d] = workspace.right_hand_side()[k];

    solve_system(a, d, stride);
    for (std::uint32_t k = 0; k < d; ++k) solution[k] = a[k * stride + d];
}

}  // namespace

std::uint64_t padded_stride(std::uint32_t d) {
    return (std::uint64_t{d} + 1 + simd::kRowUnit - 1) / simd::kRowUnit * simd::kRowUnit;
}

bool Workspace::allocate(std::uint32_t d) {
    if (d == 0) return false;
    const std::uint64_t stride = padded_stride(d);
    const std::uint64_t rows = std::uint64_t{d} + 1 + std::uint64_t{2} * kPanelRows;
    block_.reset(static_cast<float*>(zx_calloc_aligned(rows, stride * sizeof(float))));
    if (!block_) return false;
    right_hand_side_ = block_.get() + d * stride;
    panel_ = right_hand_side_ + stride;
    scaled_panel_ = panel_ + kPanelRows * stride;
    return true;
}

void fill_gram(const float* table, std::uint32_t rows, std::uint32_t d, float regularization,
               Workspace& workspace, float* gram) {
    const simd::Operations& ops = simd::operations();
    const std::uint64_t stride = padded_stride(d);
    std::memset(gram, 0, d * stride * sizeof(float));
    for (std::uint32_t first = 0; first < rows;) {
        const std::uint32_t count = std::min(rows - first, Workspace::kPanelRows);
        for (std::uint32_t i = 0; i < count; ++i)
            std::memcpy(workspace.panel() + i * stride, table + std::uint64_t{first + i} * d,
                        d * sizeof(float));
        ops.add_outer_products(gram, workspace.panel(), workspace.panel(), count, d, stride);
        first += count;
    }
    mirror_upper_triangle(gram, d, stride);
    for (std::uint64_t k = 0; k < d; ++k) gram[k * stride + k] += regularization;
}

void solve_rows(std::uint32_t first, std::uint32_t last, const Entries& entries,
                const FixedSide& fixed, float alpha, Workspace& workspace, float* solved) {
    const std::uint64_t stride = padded_stride(fixed.d);
    for (std::uint32_t row = first; row < last; ++row)
        solve_row(row, entries, fixed, alpha, stride, workspace,
                  solved + std::uint64_t{row} * fixed.d);
}

}  // namespace zx::als
