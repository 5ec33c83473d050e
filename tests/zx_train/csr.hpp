// Matrices of interactions for tests, filled entry by entry in the order given.
#pragma once

#include "owned.hpp"
#include "random_numbers.hpp"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {

struct Entry {
    std::uint32_t row;
    std::uint32_t col;
    float value;
};

// Entries of a row keep their order, sorted or not; rows may come in any order. There must be one.
inline SparsePtr csr(std::uint32_t rows, std::uint32_t cols, std::vector<Entry> entries) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.row < b.row; });
    SparsePtr matrix(zx_sparse_create(rows, cols, static_cast<std::uint32_t>(entries.size())));
    if (!matrix) {
        ADD_FAILURE() << "no matrix of " << entries.size() << " entries";
        return matrix;
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        matrix->col_idx[i] = entries[i].col;
        matrix->values[i] = entries[i].value;
        ++matrix->row_ptr[entries[i].row + 1];
    }
    for (std::uint32_t row = 0; row < rows; ++row) matrix->row_ptr[row + 1] += matrix->row_ptr[row];
    return matrix;
}

// About `per_row` entries for most rows, none for every seventh, with values from [low, high).
inline std::vector<Entry> random_entries(std::uint32_t rows, std::uint32_t cols,
                                         std::uint32_t per_row, double low, double high,
                                         RandomNumbers& random) {
    std::vector<Entry> entries;
    for (std::uint32_t row = 0; row < rows; ++row) {
        if (row % 7 == 3) continue;
        std::vector<std::uint32_t> columns = random.ids(1 + random.below(2 * per_row), cols);
        std::sort(columns.begin(), columns.end());
        columns.erase(std::unique(columns.begin(), columns.end()), columns.end());
        for (const std::uint32_t col : columns)
            entries.push_back({row, col, static_cast<float>(random.between(low, high))});
    }
    return entries;
}

}  // namespace zx::test
