// Reading and writing elements, rows and fields of tensors.

#include "error_record.hpp"
#include "owned.hpp"
#include "zorvex.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace {

using zx::test::TensorPtr;

// Nothing here is recorded.
class TensorAccess : public testing::Test {
  protected:
    void SetUp() override { zx::test::plant_record(); }
    void TearDown() override { zx::test::expect_untouched(); }
};

TensorPtr counting_tensor(const std::vector<std::uint32_t>& dims) {
    TensorPtr tensor(zx_tensor_create(static_cast<int>(dims.size()), dims.data()));
    for (std::uint64_t i = 0; i < tensor->size; ++i) tensor->data[i] = static_cast<float>(i + 1);
    return tensor;
}

TEST_F(TensorAccess, IsRowMajor) {
    const TensorPtr tensor = counting_tensor({3, 5});
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 0, 0), 1.0f);
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 0, 4), 5.0f);
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 1, 0), 6.0f);
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 2, 4), 15.0f);
    EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 2, 1, -8.0f), ZX_OK);
    EXPECT_EQ(tensor->data[11], -8.0f);
    EXPECT_EQ(zx_tensor_row_ptr(tensor.get(), 0), tensor->data);
    EXPECT_EQ(zx_tensor_row_ptr(tensor.get(), 2), tensor->data + 10);
}

TEST_F(TensorAccess, SeesTheFirstTwoAxesOnly) {
    for (const std::vector<std::uint32_t>& dims :
         {std::vector<std::uint32_t>{2, 3, 4}, std::vector<std::uint32_t>{2, 3, 4, 5}}) {
        const TensorPtr tensor = counting_tensor(dims);
        EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 0, 2), 3.0f);
        EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 1, 0), 4.0f);
        EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 1, 2), 6.0f);
        EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 1, 3), 0.0f);
        EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 1, 1, 50.0f), ZX_OK);
        EXPECT_EQ(tensor->data[4], 50.0f);
        EXPECT_EQ(zx_tensor_row_ptr(tensor.get(), 1), tensor->data + 3);
    }
}

TEST_F(TensorAccess, StaysWithinRowsAndColumns) {
    const TensorPtr tensor = counting_tensor({3, 5});
    const struct {
        std::uint32_t row, col;
    } outside[] = {{3, 0}, {0, 5}, {3, 5}, {UINT32_MAX, 0}, {0, UINT32_MAX}};
    for (const auto& at : outside) {
        EXPECT_EQ(zx_tensor_get_2d(tensor.get(), at.row, at.col), 0.0f);
        EXPECT_EQ(zx_tensor_set_2d(tensor.get(), at.row, at.col, 9.0f), ZX_ERR_INDEX_OUT_OF_BOUNDS);
    }
    for (std::uint64_t i = 0; i < 15; ++i) EXPECT_EQ(tensor->data[i], static_cast<float>(i + 1));
    EXPECT_EQ(zx_tensor_row_ptr(tensor.get(), 3), nullptr);
    EXPECT_EQ(zx_tensor_row_ptr(tensor.get(), UINT32_MAX), nullptr);
}

TEST_F(TensorAccess, NeedsTwoAxes) {
    const TensorPtr line = counting_tensor({7});
    EXPECT_EQ(zx_tensor_get_2d(line.get(), 0, 0), 0.0f);
    // A null pointer and no index out of bounds, whatever the index.
    EXPECT_EQ(zx_tensor_set_2d(line.get(), 0, 0, 9.0f), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_tensor_set_2d(line.get(), 7, 1, 9.0f), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_tensor_row_ptr(line.get(), 0), nullptr);
    EXPECT_EQ(line->data[0], 1.0f);
}

TEST_F(TensorAccess, NeedsData) {
    const TensorPtr tensor = counting_tensor({3, 5});
    float* const data = tensor->data;
    tensor->data = nullptr;
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 0, 0), 0.0f);
    EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 0, 0, 9.0f), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 9, 9, 9.0f), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_tensor_row_ptr(tensor.get(), 0), nullptr);
    EXPECT_EQ(zx_tensor_data(tensor.get()), nullptr);
    tensor->data = data;
}

TEST_F(TensorAccess, HasNoElementsWhenAnExtentIsZero) {
    float number = 3.0f;
    const std::uint32_t dims[2] = {1, 0};
    const TensorPtr tensor(zx_tensor_wrap(&number, 2, dims));
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 0, 0), 0.0f);
    EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 0, 0, 9.0f), ZX_ERR_INDEX_OUT_OF_BOUNDS);
    EXPECT_EQ(zx_tensor_row_ptr(tensor.get(), 0), &number);
    EXPECT_EQ(number, 3.0f);
}

// Extents whose product wraps to 0 make a tensor without elements, whose rows are addresses that
// nobody may follow.
TEST_F(TensorAccess, WorksOutTheRowsOfExtentsThatWrap) {
    float number = 3.0f;
    const std::uint32_t dims[4] = {UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX};
    const TensorPtr tensor(zx_tensor_wrap(&number, 4, dims));
    ASSERT_NE(tensor, nullptr);
    const std::uint32_t row = 548159546;
    const std::uint64_t offset = std::uint64_t{row} * UINT32_MAX * sizeof(float);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(zx_tensor_row_ptr(tensor.get(), row)),
              reinterpret_cast<std::uintptr_t>(&number) + offset);
}

TEST_F(TensorAccess, IndexesWrapAt32Bits) {
    float numbers[3] = {10.0f, 11.0f, 12.0f};
    const std::uint32_t dims[2] = {65537, 65536};
    const TensorPtr tensor(zx_tensor_wrap(numbers, 2, dims));
    // 65536 * 65536 is 2^32.
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 65536, 0), 10.0f);
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 65536, 2), 12.0f);
    EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 65536, 1, -1.0f), ZX_OK);
    EXPECT_EQ(numbers[1], -1.0f);
}

TEST_F(TensorAccess, MakesTheHostCopyCurrentByAWriteOnly) {
    const TensorPtr tensor = counting_tensor({3, 5});
    tensor->on_device = 1;
    (void)zx_tensor_get_2d(tensor.get(), 0, 0);
    zx_tensor_row_ptr(tensor.get(), 0)[0] = 7.0f;
    zx_tensor_data(tensor.get())[1] = 7.0f;
    EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 3, 0, 1.0f), ZX_ERR_INDEX_OUT_OF_BOUNDS);
    EXPECT_EQ(tensor->on_device, 1);
    EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 0, 0, 1.0f), ZX_OK);
    EXPECT_EQ(tensor->on_device, 0);
}

TEST_F(TensorAccess, GivesTheFields) {
    const TensorPtr tensor = counting_tensor({2, 3, 4});
    EXPECT_EQ(zx_tensor_data(tensor.get()), tensor->data);
    EXPECT_EQ(zx_tensor_size(tensor.get()), 24U);
    EXPECT_EQ(zx_tensor_ndim(tensor.get()), 3);
    EXPECT_EQ(zx_tensor_dim(tensor.get(), 0), 2U);
    EXPECT_EQ(zx_tensor_dim(tensor.get(), 1), 3U);
    EXPECT_EQ(zx_tensor_dim(tensor.get(), 2), 4U);
    // Axis 3 has an extent of 1, but the tensor does not have it.
    EXPECT_EQ(zx_tensor_dim(tensor.get(), 3), 0U);
    EXPECT_EQ(zx_tensor_dim(tensor.get(), 4), 0U);
    EXPECT_EQ(zx_tensor_dim(tensor.get(), UINT32_MAX), 0U);
}

TEST_F(TensorAccess, GivesNothingForNull) {
    EXPECT_EQ(zx_tensor_get_2d(nullptr, 0, 0), 0.0f);
    EXPECT_EQ(zx_tensor_set_2d(nullptr, 0, 0, 1.0f), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_tensor_row_ptr(nullptr, 0), nullptr);
    EXPECT_EQ(zx_tensor_data(nullptr), nullptr);
    EXPECT_EQ(zx_tensor_size(nullptr), 0U);
    EXPECT_EQ(zx_tensor_ndim(nullptr), 0);
    EXPECT_EQ(zx_tensor_dim(nullptr, 0), 0U);
}

}  // namespace
