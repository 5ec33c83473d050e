// What the solvers of an ALS row work on.
#pragma once

#include "simd/simd.hpp"

#include <cstdint>

namespace zx::als {

// Rows of matrices are padded with zeros to whole vectors.
constexpr std::uint64_t padded(std::uint64_t count) {
    return (count + simd::kRowUnit - 1) / simd::kRowUnit * simd::kRowUnit;
}

// Rows that are gathered at a time; two panels of d = 64 take 32 KiB.
inline constexpr std::uint32_t kPanelRows = 64;

// The side held fixed: its embedding rows and their Gram matrix with the regularised diagonal.
struct FixedSide {
    const float* table;  // [rows x d]
    std::uint32_t rows;
    std::uint32_t d;       // embedding dimension
    float regularization;  // on the Gram matrix's diagonal
    const float* gram;     // [padded(d) x padded(d)]
};

// The entries of one row of the side to solve. Each stands for a confidence of 1 + alpha *
// strength in its row of the fixed side.
struct Row {
    const std::uint32_t* ids;  // rows of the fixed side's table
    const float* strengths;
    std::uint32_t count;
    float alpha;

    [[nodiscard]] float weight(std::uint32_t i) const { return alpha * strengths[i]; }
};

}  // namespace zx::als
