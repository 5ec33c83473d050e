// Small sparse matrices for the tests.
#pragma once

#include "owned.hpp"
#include "zorvex.h"

#include <cstdint>
#include <vector>

namespace zx::test {

// A matrix with these arrays, valid or not; row_ptr has an entry per row and one more.
inline SparsePtr sparse_of(std::uint32_t cols, const std::vector<std::uint32_t>& row_ptr,
                           const std::vector<std::uint32_t>& col_idx,
                           const std::vector<float>& values) {
    SparsePtr matrix(zx_sparse_create(static_cast<std::uint32_t>(row_ptr.size() - 1), cols,
                                      static_cast<std::uint32_t>(values.size())));
    for (std::size_t i = 0; i < row_ptr.size(); ++i) matrix->row_ptr[i] = row_ptr[i];
    for (std::size_t i = 0; i < col_idx.size(); ++i) matrix->col_idx[i] = col_idx[i];
    for (std::size_t i = 0; i < values.size(); ++i) matrix->values[i] = values[i];
    return matrix;
}

// Four rows of five columns: [0 1 0 2 0], [0 0 0 0 0], [3 0 4 0 5], [0 0 0 0 6].
inline SparsePtr example_matrix() {
    return sparse_of(5, {0, 2, 2, 5, 6}, {1, 3, 0, 2, 4, 4}, {1, 2, 3, 4, 5, 6});
}

}  // namespace zx::test
