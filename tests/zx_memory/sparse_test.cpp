// The sparse matrix: making it, reading entries and rows, expanding it; and that a matrix that is
// none leads nobody out of its arrays.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "owned.hpp"
#include "random_numbers.hpp"
#include "sparse_matrices.hpp"
#include "zorvex.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

namespace {

using zx::test::example_matrix;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::FailingAllocator;
using zx::test::plant_record;
using zx::test::sparse_of;
using zx::test::SparsePtr;
using zx::test::TensorPtr;
using Numbers = std::vector<float>;
using Ids = std::vector<std::uint32_t>;

constexpr const char* kModule = "src/zx_memory";

bool is_aligned(const void* block) {
    return reinterpret_cast<std::uintptr_t>(block) % 128 == 0;
}

// A row as zx_sparse_get_row() gives it; the outputs have a guard behind the entries expected.
struct Row {
    zx_status_t status;
    std::uint32_t count;
    Ids cols;
    Numbers vals;
};

Row row_of(const zx_sparse_t* matrix, std::uint32_t row) {
    Row result{ZX_OK, 99, Ids(20, 77), Numbers(20, 77.0f)};
    result.status =
        zx_sparse_get_row(matrix, row, result.cols.data(), result.vals.data(), &result.count);
    return result;
}

void expect_row(const Row& row, const Ids& cols, const Numbers& vals) {
    EXPECT_EQ(row.status, ZX_OK);
    ASSERT_EQ(row.count, cols.size());
    Ids expected_cols = cols;
    Numbers expected_vals = vals;
    expected_cols.resize(20, 77);
    expected_vals.resize(20, 77.0f);
    EXPECT_EQ(row.cols, expected_cols);
    EXPECT_EQ(row.vals, expected_vals);
}

TEST(Sparse, IsCreatedWithZeroedArrays) {
    plant_record();
    const SparsePtr matrix(zx_sparse_create(3, 4, 5));
    ASSERT_TRUE(matrix);
    EXPECT_EQ(matrix->refcount, 1U);
    EXPECT_EQ(matrix->rows, 3U);
    EXPECT_EQ(matrix->cols, 4U);
    EXPECT_EQ(matrix->nnz, 5U);
    EXPECT_EQ(matrix->capacity, 5U);
    EXPECT_EQ(matrix->device_values, nullptr);
    EXPECT_EQ(matrix->device_col_idx, nullptr);
    EXPECT_EQ(matrix->device_row_ptr, nullptr);
    EXPECT_EQ(matrix->on_device, 0);
    EXPECT_TRUE(is_aligned(matrix->values));
    EXPECT_TRUE(is_aligned(matrix->col_idx));
    EXPECT_TRUE(is_aligned(matrix->row_ptr));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(matrix->values[i], 0.0f);
        EXPECT_EQ(matrix->col_idx[i], 0U);
    }
    for (int i = 0; i < 4; ++i) EXPECT_EQ(matrix->row_ptr[i], 0U);
    expect_untouched();
}

TEST(Sparse, IsRefusedWithoutRowsOrColumns) {
    const struct {
        std::uint32_t rows, cols, nnz;
    } cases[] = {{0, 4, 5}, {3, 0, 5}, {0, 0, 5}, {0, 4, 0}, {3, 0, 0}, {UINT32_MAX, 0, 1}};
    for (const auto& c : cases) {
        const FailingAllocator failing(1);
        plant_record();
        EXPECT_EQ(zx_sparse_create(c.rows, c.cols, c.nnz), nullptr);
        expect_recorded(2, kModule, "Invalid sparse matrix dimensions");
        EXPECT_FALSE(failing.failed());
    }
}

TEST(Sparse, CannotBeMadeWithoutEntries) {
    plant_record();
    EXPECT_EQ(zx_sparse_create(3, 4, 0), nullptr);
    expect_recorded(100, kModule, "Failed to allocate sparse matrix arrays");
}

TEST(Sparse, CannotHaveTheLargestNumberOfRows) {
    // One more row start than that wraps to none.
    plant_record();
    EXPECT_EQ(zx_sparse_create(UINT32_MAX, 4, 1), nullptr);
    expect_recorded(100, kModule, "Failed to allocate sparse matrix arrays");
}

TEST(Sparse, MayHaveTheLargestNumberOfColumns) {
    const SparsePtr matrix = sparse_of(UINT32_MAX, {0, 2}, {0, UINT32_MAX - 1}, {1.0f, 2.0f});
    EXPECT_EQ(zx_sparse_validate(matrix.get()), ZX_OK);
    EXPECT_EQ(zx_sparse_get(matrix.get(), 0, UINT32_MAX - 1), 2.0f);
    EXPECT_EQ(zx_sparse_get(matrix.get(), 0, UINT32_MAX), 0.0f);
}

TEST(Sparse, IsOutOfMemoryInFourSteps) {
    for (const std::uint64_t nth : {1U, 2U, 3U, 4U}) {
        SCOPED_TRACE(nth);
        const FailingAllocator failing(nth);
        plant_record();
        EXPECT_EQ(zx_sparse_create(3, 4, 5), nullptr);
        EXPECT_TRUE(failing.failed());
        expect_recorded(100, kModule,
                        nth == 1 ? "Failed to allocate sparse matrix"
                                 : "Failed to allocate sparse matrix arrays");
    }
    const FailingAllocator failing(5);
    const SparsePtr matrix(zx_sparse_create(3, 4, 5));
    EXPECT_TRUE(matrix);
    EXPECT_FALSE(failing.failed());
}

TEST(Sparse, GivesItsArrays) {
    const SparsePtr matrix = example_matrix();
    EXPECT_EQ(zx_sparse_row_ptr(matrix.get()), matrix->row_ptr);
    EXPECT_EQ(zx_sparse_col_idx(matrix.get()), matrix->col_idx);
    EXPECT_EQ(zx_sparse_values(matrix.get()), matrix->values);
}

TEST(Sparse, FindsEveryEntryAndNoOther) {
    constexpr float kDense[4][5] = {
        {0, 1, 0, 2, 0}, {0, 0, 0, 0, 0}, {3, 0, 4, 0, 5}, {0, 0, 0, 0, 6}};
    const SparsePtr matrix = example_matrix();
    plant_record();
    for (std::uint32_t row = 0; row < 4; ++row)
        for (std::uint32_t col = 0; col < 5; ++col)
            EXPECT_EQ(zx_sparse_get(matrix.get(), row, col), kDense[row][col])
                << row << ", " << col;
    expect_untouched();
}

TEST(Sparse, FindsEntriesInRowsOfAnyLength) {
    for (std::uint32_t length = 1; length <= 33; ++length) {
        Ids cols;
        Numbers vals;
        for (std::uint32_t i = 0; i < length; ++i) {
            cols.push_back(2 * i + 1);
            vals.push_back(static_cast<float>(i + 1));
        }
        const SparsePtr matrix = sparse_of(2 * length + 1, {0, length}, cols, vals);
        for (std::uint32_t i = 0; i < length; ++i) {
            EXPECT_EQ(zx_sparse_get(matrix.get(), 0, 2 * i + 1), static_cast<float>(i + 1));
            EXPECT_EQ(zx_sparse_get(matrix.get(), 0, 2 * i), 0.0f);
        }
    }
}

TEST(Sparse, GivesNothingOutOfRange) {
    const SparsePtr matrix = example_matrix();
    plant_record();
    EXPECT_EQ(zx_sparse_get(matrix.get(), 4, 4), 0.0f);
    EXPECT_EQ(zx_sparse_get(matrix.get(), 3, 5), 0.0f);
    EXPECT_EQ(zx_sparse_get(matrix.get(), UINT32_MAX, UINT32_MAX), 0.0f);
    EXPECT_EQ(zx_sparse_row_nnz(matrix.get(), 4), 0U);
    EXPECT_EQ(zx_sparse_row_nnz(matrix.get(), UINT32_MAX), 0U);
    for (const std::uint32_t row : {4U, UINT32_MAX}) {
        const Row got = row_of(matrix.get(), row);
        EXPECT_EQ(got.status, ZX_ERR_INDEX_OUT_OF_BOUNDS);
        EXPECT_EQ(got.count, 99U);
        EXPECT_EQ(got.cols[0], 77U);
    }
    expect_untouched();
}

TEST(Sparse, GivesNothingForNull) {
    plant_record();
    EXPECT_EQ(zx_sparse_get(nullptr, 0, 0), 0.0f);
    EXPECT_EQ(zx_sparse_row_ptr(nullptr), nullptr);
    EXPECT_EQ(zx_sparse_col_idx(nullptr), nullptr);
    EXPECT_EQ(zx_sparse_values(nullptr), nullptr);
    EXPECT_EQ(zx_sparse_row_nnz(nullptr, 0), 0U);
    EXPECT_EQ(zx_sparse_to_dense(nullptr), nullptr);
    // An index out of bounds and no null pointer.
    const Row got = row_of(nullptr, 0);
    EXPECT_EQ(got.status, ZX_ERR_INDEX_OUT_OF_BOUNDS);
    EXPECT_EQ(got.count, 99U);
    expect_untouched();
}

TEST(SparseRow, IsCopied) {
    const SparsePtr matrix = example_matrix();
    plant_record();
    expect_row(row_of(matrix.get(), 0), {1, 3}, {1, 2});
    expect_row(row_of(matrix.get(), 1), {}, {});
    expect_row(row_of(matrix.get(), 2), {0, 2, 4}, {3, 4, 5});
    expect_row(row_of(matrix.get(), 3), {4}, {6});
    EXPECT_EQ(zx_sparse_row_nnz(matrix.get(), 0), 2U);
    EXPECT_EQ(zx_sparse_row_nnz(matrix.get(), 1), 0U);
    EXPECT_EQ(zx_sparse_row_nnz(matrix.get(), 2), 3U);
    EXPECT_EQ(zx_sparse_row_nnz(matrix.get(), 3), 1U);
    expect_untouched();
}

TEST(SparseRow, IsCountedWithoutOutputs) {
    const SparsePtr matrix = example_matrix();
    std::uint32_t count = 99;
    Ids cols(5, 77);
    Numbers vals(5, 77.0f);
    plant_record();
    EXPECT_EQ(zx_sparse_get_row(matrix.get(), 2, nullptr, nullptr, &count), ZX_OK);
    EXPECT_EQ(count, 3U);
    // One output alone is not written either.
    EXPECT_EQ(zx_sparse_get_row(matrix.get(), 0, cols.data(), nullptr, &count), ZX_OK);
    EXPECT_EQ(count, 2U);
    EXPECT_EQ(cols, Ids(5, 77));
    EXPECT_EQ(zx_sparse_get_row(matrix.get(), 3, nullptr, vals.data(), &count), ZX_OK);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(vals, Numbers(5, 77.0f));
    EXPECT_EQ(zx_sparse_get_row(matrix.get(), 2, cols.data(), vals.data(), nullptr), ZX_OK);
    EXPECT_EQ(cols, (Ids{0, 2, 4, 77, 77}));
    EXPECT_EQ(vals, (Numbers{3, 4, 5, 77, 77}));
    EXPECT_EQ(zx_sparse_get_row(matrix.get(), 2, nullptr, nullptr, nullptr), ZX_OK);
    expect_untouched();
}

TEST(SparseRow, MayStartAfterTheFirstEntry) {
    // The first row start is not 0, so the first entry belongs to no row.
    const SparsePtr matrix = sparse_of(4, {1, 1, 2}, {3, 2}, {8, 9});
    expect_row(row_of(matrix.get(), 0), {}, {});
    expect_row(row_of(matrix.get(), 1), {2}, {9});
    EXPECT_EQ(zx_sparse_get(matrix.get(), 0, 3), 0.0f);
    EXPECT_EQ(zx_sparse_get(matrix.get(), 1, 2), 9.0f);
}

TEST(SparseToDense, PutsEveryEntryInItsPlace) {
    const SparsePtr matrix = example_matrix();
    plant_record();
    const TensorPtr dense(zx_sparse_to_dense(matrix.get()));
    ASSERT_TRUE(dense);
    EXPECT_EQ(dense->ndim, 2);
    EXPECT_EQ(dense->dims[0], 4U);
    EXPECT_EQ(dense->dims[1], 5U);
    EXPECT_EQ(dense->on_device, 0);
    EXPECT_EQ(dense->device_buffer, nullptr);
    EXPECT_EQ(Numbers(dense->data, dense->data + 20),
              (Numbers{0, 1, 0, 2, 0, 0, 0, 0, 0, 0, 3, 0, 4, 0, 5, 0, 0, 0, 0, 6}));
    expect_untouched();
}

TEST(SparseToDense, LeavesOutColumnsOutOfRangeAndLetsTheLaterEntryWin) {
    const SparsePtr matrix = sparse_of(3, {0, 5}, {2, 3, UINT32_MAX, 0, 2}, {10, 11, 12, 13, 14});
    plant_record();
    const TensorPtr dense(zx_sparse_to_dense(matrix.get()));
    ASSERT_TRUE(dense);
    EXPECT_EQ(Numbers(dense->data, dense->data + 3), (Numbers{13, 0, 14}));
    expect_untouched();
}

TEST(SparseToDense, FailsAsACreatedTensor) {
    const SparsePtr matrix = example_matrix();
    for (const std::uint64_t nth : {1U, 2U}) {
        const FailingAllocator failing(nth);
        plant_record();
        EXPECT_EQ(zx_sparse_to_dense(matrix.get()), nullptr);
        expect_recorded(100, kModule,
                        nth == 1 ? "Failed to allocate tensor" : "Failed to allocate tensor data");
    }
}

// Matrices that are none: whatever their row starts say, only entries that exist are read.
TEST(SparseWithInvalidRows, StaysWithinItsArrays) {
    constexpr std::uint32_t kMax = UINT32_MAX;
    const struct {
        const char* when;
        Ids row_ptr;
        std::vector<Ids> cols;  // of each row, as it is read
    } cases[] = {
        {"a row ends one behind the last entry", {0, 4}, {{0, 1, 2}}},
        {"a row ends far behind the last entry", {1, kMax}, {{1, 2}}},
        {"a row begins behind the last entry", {1000, 2000}, {{}}},
        {"a row begins at the largest number", {kMax, kMax}, {{}}},
        {"a row ends before it begins", {3, 1}, {{}}},
        {"a row ends before it begins, far out", {kMax, 2}, {{}}},
        {"rows overlap", {0, 3, 1, 3}, {{0, 1, 2}, {}, {1, 2}}},
        {"rows go back and leave the matrix", {2, 0, 9}, {{}, {0, 1, 2}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const SparsePtr matrix = sparse_of(3, c.row_ptr, {0, 1, 2}, {10, 11, 12});
        plant_record();
        const TensorPtr dense(zx_sparse_to_dense(matrix.get()));
        ASSERT_TRUE(dense);
        for (std::uint32_t row = 0; row < c.cols.size(); ++row) {
            Numbers vals;
            for (const std::uint32_t col : c.cols[row])
                vals.push_back(10.0f + static_cast<float>(col));
            EXPECT_EQ(zx_sparse_row_nnz(matrix.get(), row), c.cols[row].size());
            expect_row(row_of(matrix.get(), row), c.cols[row], vals);
            Numbers expected(3, 0.0f);
            for (const std::uint32_t col : c.cols[row])
                expected[col] = 10.0f + static_cast<float>(col);
            for (std::uint32_t col = 0; col < 3; ++col) {
                EXPECT_EQ(zx_sparse_get(matrix.get(), row, col), expected[col]);
                EXPECT_EQ(zx_tensor_get_2d(dense.get(), row, col), expected[col]);
            }
        }
        expect_untouched();
    }
}

// The search as it is stated: in a row that is not sorted, or has columns twice, its probes decide.
float stated_search(const zx_sparse_t& matrix, std::uint32_t col) {
    std::uint32_t lo = matrix.row_ptr[0];
    std::uint32_t hi = matrix.row_ptr[1];
    while (lo < hi) {
        const std::uint32_t mid = lo + (hi - lo) / 2;
        if (matrix.col_idx[mid] == col) return matrix.values[mid];
        (matrix.col_idx[mid] < col ? lo : hi) = matrix.col_idx[mid] < col ? mid + 1 : mid;
    }
    return 0.0f;
}

TEST(SparseWithInvalidRows, ProbesRowsOfAnyLengthAsStated) {
    zx::test::RandomNumbers random(31);
    for (const std::uint32_t length : {1u, 15u, 17u, 100u, 255u, 256u, 257u, 700u, 3000u}) {
        for (const std::uint32_t swaps : {0u, 3u, 50u}) {
            SCOPED_TRACE(testing::Message() << length << " entries, " << swaps << " misplaced");
            Ids columns = random.ids(length, length);
            std::sort(columns.begin(), columns.end());
            for (std::uint32_t i = 0; i < swaps; ++i)
                std::swap(columns[random.below(length)], columns[random.below(length)]);
            Numbers values(length);
            for (std::uint32_t i = 0; i < length; ++i) values[i] = static_cast<float>(i + 1);
            const SparsePtr matrix = sparse_of(length, {0, length}, columns, values);
            for (std::uint32_t col = 0; col < length; ++col)
                ASSERT_EQ(zx_sparse_get(matrix.get(), 0, col), stated_search(*matrix, col)) << col;
        }
    }
}

TEST(SparseWithInvalidRows, SearchesUnsortedRowsAsIfTheyWereSorted) {
    // The middle entry is tried first; from it the search goes the way that sorted columns would.
    const SparsePtr matrix = sparse_of(9, {0, 3}, {8, 4, 1}, {10, 11, 12});
    EXPECT_EQ(zx_sparse_get(matrix.get(), 0, 4), 11.0f);
    EXPECT_EQ(zx_sparse_get(matrix.get(), 0, 8), 0.0f);
    EXPECT_EQ(zx_sparse_get(matrix.get(), 0, 1), 0.0f);
}

}  // namespace
