// What counts as a valid sparse matrix, and which fault is named first.

#include "error_record.hpp"
#include "owned.hpp"
#include "sparse_matrices.hpp"
#include "zorvex.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace {

using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::plant_record;
using zx::test::sparse_of;
using zx::test::SparsePtr;
using Ids = std::vector<std::uint32_t>;

constexpr const char* kNotMonotonic = "row_ptr is not monotonic";
constexpr const char* kWrongEnd = "row_ptr[rows] != nnz";
constexpr const char* kOutOfBounds = "Column index out of bounds";
constexpr const char* kNotSorted = "Column indices not sorted";

TEST(SparseValidate, AcceptsMatrices) {
    const struct {
        const char* when;
        Ids row_ptr, col_idx;
    } cases[] = {
        {"one entry", {0, 1}, {0}},
        {"the last column", {0, 1}, {3}},
        {"a full row", {0, 4}, {0, 1, 2, 3}},
        {"empty rows at both ends", {0, 0, 2, 2}, {1, 2}},
        {"a first row start other than 0", {1, 1, 2}, {0, 2}},
        {"only entries that belong to no row", {2, 2}, {9, 9}},
        {"equal columns in different rows", {0, 1, 2}, {2, 2}},
        {"columns that fall from row to row", {0, 1, 2, 3}, {3, 2, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const SparsePtr matrix =
            sparse_of(4, c.row_ptr, c.col_idx, std::vector<float>(c.col_idx.size(), 1.0f));
        plant_record();
        EXPECT_EQ(zx_sparse_validate(matrix.get()), ZX_OK);
        expect_untouched();
    }
}

TEST(SparseValidate, NamesTheFirstFault) {
    const struct {
        const char* when;
        Ids row_ptr, col_idx;
        const char* message;
    } cases[] = {
        {"row starts fall", {0, 2, 1}, {0, 1}, kNotMonotonic},
        {"the first row start is too large", {3, 2}, {0, 1}, kNotMonotonic},
        {"they fall at the end, which is wrong too", {0, 3, 1}, {0, 1}, kNotMonotonic},
        {"they fall, and a column is out of range", {0, 2, 1}, {9, 9}, kNotMonotonic},
        {"the end is too small", {0, 1}, {0, 1}, kWrongEnd},
        {"the end is too large", {0, 3}, {0, 1}, kWrongEnd},
        {"the end is far too large", {0, UINT32_MAX}, {0, 1}, kWrongEnd},
        {"the matrix was never filled", {0, 0, 0}, {0, 0}, kWrongEnd},
        {"the end is wrong, and columns are not sorted", {0, 1}, {1, 0}, kWrongEnd},
        {"a column is one past the last", {0, 1}, {4}, kOutOfBounds},
        {"a column is the largest number", {0, 2}, {0, UINT32_MAX}, kOutOfBounds},
        {"a column repeats", {0, 2}, {2, 2}, kNotSorted},
        {"columns fall", {0, 3}, {0, 2, 1}, kNotSorted},
        {"columns fall in the last row", {0, 1, 3}, {3, 2, 1}, kNotSorted},
        {"columns fall, and the first is out of range", {0, 2}, {5, 1}, kOutOfBounds},
        {"an entry is out of range and falls", {0, 3}, {1, 3, 4}, kOutOfBounds},
        {"a fall comes before a column out of range", {0, 3}, {2, 1, 9}, kNotSorted},
        {"a column out of range comes before a fall", {0, 1, 3}, {9, 2, 1}, kOutOfBounds},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const SparsePtr matrix =
            sparse_of(4, c.row_ptr, c.col_idx, std::vector<float>(c.col_idx.size(), 1.0f));
        plant_record();
        EXPECT_EQ(zx_sparse_validate(matrix.get()), ZX_ERR_INVALID_SPARSE);
        expect_recorded(401, "src/zx_memory", c.message);
    }
}

TEST(SparseValidate, RefusesNullAndMissingArraysSilently) {
    plant_record();
    EXPECT_EQ(zx_sparse_validate(nullptr), ZX_ERR_NULL_POINTER);

    const SparsePtr matrix = zx::test::example_matrix();
    const zx_sparse_t whole = *matrix;
    matrix->values = nullptr;
    EXPECT_EQ(zx_sparse_validate(matrix.get()), ZX_ERR_INVALID_SPARSE);
    *matrix = whole;
    matrix->col_idx = nullptr;
    EXPECT_EQ(zx_sparse_validate(matrix.get()), ZX_ERR_INVALID_SPARSE);
    *matrix = whole;
    matrix->row_ptr = nullptr;
    EXPECT_EQ(zx_sparse_validate(matrix.get()), ZX_ERR_INVALID_SPARSE);
    *matrix = whole;
    EXPECT_EQ(zx_sparse_validate(matrix.get()), ZX_OK);
    expect_untouched();
}

TEST(SparseValidate, DoesNotLookAtTheValues) {
    const SparsePtr matrix = sparse_of(4, {0, 2}, {0, 1}, {0.0f, -1.0f});
    EXPECT_EQ(zx_sparse_validate(matrix.get()), ZX_OK);
}

}  // namespace
