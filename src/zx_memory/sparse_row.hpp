// Rows of a sparse matrix inside the library. The caller fills a matrix's arrays, so it may be
// anything until zx_sparse_validate() has said otherwise: every reader takes a row's range from
// row_range(), which keeps it inside the arrays.
#pragma once

#include "simd/simd.hpp"
#include "zorvex.h"

#include <algorithm>
#include <cstdint>

namespace zx {

struct Range {
    std::uint32_t begin;
    std::uint32_t end;
};

// Where a row's entries stand; the row must be one of the matrix's. A valid matrix's range is
// returned as it is.
inline Range row_range(const zx_sparse_t& matrix, std::uint32_t row) {
    const std::uint32_t end = std::min(matrix.row_ptr[row + 1], matrix.nnz);
    return {std::min(matrix.row_ptr[row], end), end};
}

// The value that a binary search finds among a row's entries; 0 without one.
//
// Most columns that are asked for are not there, and a search for nothing guesses half of its
// branches wrong. So as soon as few entries are left, all of them are compared at once: the search
// cannot find what is not among them, in whatever order they are. If it is among them the search
// goes on, since it decides what it meets in a row that is not sorted.
inline float value_at(const zx_sparse_t& matrix, Range row, std::uint32_t col) {
    constexpr std::uint32_t kFew = 256;
    auto [lo, hi] = row;
    bool may_be_absent = true;
    while (lo < hi) {
        if (may_be_absent && hi - lo <= kFew) {
            if (!simd::operations().contains(matrix.col_idx + lo, hi - lo, col)) return 0.0f;
            may_be_absent = false;
        }
        const std::uint32_t mid = lo + (hi - lo) / 2;
        if (matrix.col_idx[mid] == col) return matrix.values[mid];
        if (matrix.col_idx[mid] < col)
            lo = mid + 1;
        else
            hi = mid;
    }
    return 0.0f;
}

}  // namespace zx
