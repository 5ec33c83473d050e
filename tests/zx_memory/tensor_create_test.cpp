// Making tensors: created, wrapped and cloned ones, and every way in which that fails.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "owned.hpp"
#include "zorvex.h"

#include <climits>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace {

using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::FailingAllocator;
using zx::test::plant_record;
using zx::test::TensorPtr;
using Extents = std::vector<std::uint32_t>;

constexpr const char* kModule = "src/zx_memory";

Extents extents(const zx_tensor_t& tensor) {
    return {tensor.dims, tensor.dims + 4};
}

void expect_fresh(const zx_tensor_t& tensor, const Extents& dims, std::uint64_t size) {
    EXPECT_EQ(tensor.refcount, 1U);
    EXPECT_EQ(extents(tensor), dims);
    EXPECT_EQ(tensor.size, size);
    EXPECT_EQ(tensor.capacity, size);
    EXPECT_EQ(tensor.device_buffer, nullptr);
    EXPECT_EQ(tensor.on_device, 0);
    EXPECT_EQ(tensor.owns_data, 1);
    ASSERT_NE(tensor.data, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(tensor.data) % 128, 0U);
    for (std::uint64_t i = 0; i < size; ++i) ASSERT_EQ(tensor.data[i], 0.0f) << i;
}

TEST(Tensor, IsCreatedWithOneToFourAxes) {
    const struct {
        Extents dims;
        Extents stored;
        std::uint64_t size;
    } cases[] = {
        {{7}, {7, 1, 1, 1}, 7},          {{3, 5}, {3, 5, 1, 1}, 15},
        {{2, 3, 4}, {2, 3, 4, 1}, 24},   {{2, 3, 4, 5}, {2, 3, 4, 5}, 120},
        {{1, 1, 1, 1}, {1, 1, 1, 1}, 1},
    };
    plant_record();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dims.size());
        const int ndim = static_cast<int>(c.dims.size());
        const TensorPtr created(zx_tensor_create(ndim, c.dims.data()));
        ASSERT_TRUE(created);
        EXPECT_EQ(created->ndim, ndim);
        expect_fresh(*created, c.stored, c.size);
        const TensorPtr zeros(zx_tensor_zeros(ndim, c.dims.data()));
        ASSERT_TRUE(zeros);
        EXPECT_EQ(zeros->ndim, ndim);
        expect_fresh(*zeros, c.stored, c.size);
    }
    expect_untouched();
}

TEST(Tensor, IsCreatedByTheShorterForms) {
    const TensorPtr line(zx_tensor_create_1d(7));
    ASSERT_TRUE(line);
    EXPECT_EQ(line->ndim, 1);
    expect_fresh(*line, {7, 1, 1, 1}, 7);
    const TensorPtr matrix(zx_tensor_create_2d(3, 5));
    ASSERT_TRUE(matrix);
    EXPECT_EQ(matrix->ndim, 2);
    expect_fresh(*matrix, {3, 5, 1, 1}, 15);
    const TensorPtr zeros(zx_tensor_zeros_2d(5, 3));
    ASSERT_TRUE(zeros);
    EXPECT_EQ(zeros->ndim, 2);
    expect_fresh(*zeros, {5, 3, 1, 1}, 15);
}

TEST(Tensor, IsRefusedWithAnotherNumberOfAxesOrWithoutExtents) {
    const std::uint32_t dims[5] = {1, 1, 1, 1, 1};
    const struct {
        int ndim;
        const std::uint32_t* dims;
    } cases[] = {{0, dims},       {5, dims},    {-1, dims},   {INT_MIN, dims}, {INT_MAX, dims},
                 {256 + 2, dims}, {1, nullptr}, {4, nullptr}, {0, nullptr}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ndim);
        // The check comes before any memory is asked for.
        const FailingAllocator failing(1);
        plant_record();
        EXPECT_EQ(zx_tensor_create(c.ndim, c.dims), nullptr);
        expect_recorded(2, kModule, "Invalid tensor dimensions");
        plant_record();
        EXPECT_EQ(zx_tensor_zeros(c.ndim, c.dims), nullptr);
        expect_recorded(2, kModule, "Invalid tensor dimensions");
        EXPECT_FALSE(failing.failed());
    }
}

TEST(Tensor, IsRefusedWithoutElementsOrWithTooMany) {
    constexpr std::uint32_t kMax = UINT32_MAX;
    const struct {
        const char* when;
        Extents dims;
    } cases[] = {
        {"the only extent is 0", {0}},
        {"the first extent is 0", {0, 5}},
        {"the last extent is 0", {5, 0}},
        {"a 0 stands between large extents", {kMax, kMax, 0, kMax}},
        {"a 0 stands before a product that overflows", {0, kMax, kMax, kMax}},
        {"all extents are 0", {0, 0, 0, 0}},
        {"the product is 2^63", {1U << 31, 1U << 31, 2}},
        {"the product is 2^64", {1U << 16, 1U << 16, 1U << 16, 1U << 16}},
        {"the product wraps to a small number", {1U << 31, 1U << 31, 4, 3}},
        {"every extent is the largest", {kMax, kMax, kMax, kMax}},
        {"a 0 stands after a product that overflows", {kMax, kMax, kMax, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        plant_record();
        EXPECT_EQ(zx_tensor_create(static_cast<int>(c.dims.size()), c.dims.data()), nullptr);
        expect_recorded(5, kModule, "Tensor size overflow");
    }
    plant_record();
    EXPECT_EQ(zx_tensor_create_1d(0), nullptr);
    expect_recorded(5, kModule, "Tensor size overflow");
    plant_record();
    EXPECT_EQ(zx_tensor_create_2d(0, 5), nullptr);
    expect_recorded(5, kModule, "Tensor size overflow");
    plant_record();
    EXPECT_EQ(zx_tensor_zeros_2d(5, 0), nullptr);
    expect_recorded(5, kModule, "Tensor size overflow");
}

TEST(Tensor, IsOutOfMemoryWhenItsBytesCannotBeCounted) {
    const struct {
        const char* when;
        Extents dims;
    } cases[] = {
        // 49 * 859764727 * 218934409 = 2^63 - 1.
        {"the largest product of extents", {49, 859764727, 218934409}},
        {"2^62 elements", {1U << 31, 1U << 31}},
        {"2^61 elements, one more than fit", {1U << 31, 1U << 30}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        plant_record();
        EXPECT_EQ(zx_tensor_create(static_cast<int>(c.dims.size()), c.dims.data()), nullptr);
        expect_recorded(100, kModule, "Failed to allocate tensor data");
    }
}

TEST(Tensor, IsOutOfMemoryInTwoSteps) {
    const struct {
        std::uint64_t failing;
        const char* message;
    } cases[] = {{1, "Failed to allocate tensor"}, {2, "Failed to allocate tensor data"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        const std::uint32_t dims[3] = {2, 3, 4};
        const FailingAllocator failing(c.failing);
        plant_record();
        EXPECT_EQ(zx_tensor_create(3, dims), nullptr);
        EXPECT_TRUE(failing.failed());
        EXPECT_EQ(failing.requests(), c.failing);
        expect_recorded(100, kModule, c.message);
    }
    // The record comes first, even for extents that no record can have.
    const FailingAllocator failing(1);
    plant_record();
    EXPECT_EQ(zx_tensor_create_2d(0, 5), nullptr);
    expect_recorded(100, kModule, "Failed to allocate tensor");
}

TEST(WrappedTensor, BorrowsTheCallersMemory) {
    const struct {
        Extents dims;
        Extents stored;
        std::uint64_t size;
    } cases[] = {
        {{7}, {7, 0, 0, 0}, 7},
        {{3, 5}, {3, 5, 0, 0}, 15},
        {{2, 3, 4}, {2, 3, 4, 0}, 24},
        {{2, 3, 4, 5}, {2, 3, 4, 5}, 120},
        {{0}, {0, 0, 0, 0}, 0},
        {{0, 5}, {0, 5, 0, 0}, 0},
        {{5, 0, 7}, {5, 0, 7, 0}, 0},
        {{1U << 31, 1U << 31}, {1U << 31, 1U << 31, 0, 0}, 1ULL << 62},
        {{49, 859764727, 218934409}, {49, 859764727, 218934409, 0}, INT64_MAX},
        // One more than the largest product, and far more.
        {{1U << 31, 1U << 31, 2}, {1U << 31, 1U << 31, 2, 0}, 0},
        {{UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX},
         {UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX},
         0},
        {{1U << 31, 1U << 31, 4, 3}, {1U << 31, 1U << 31, 4, 3}, 0},
    };
    std::vector<float> numbers(120);
    for (std::size_t i = 0; i < numbers.size(); ++i) numbers[i] = static_cast<float>(i);
    const std::vector<float> before = numbers;
    plant_record();
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.dims));
        const auto ndim = static_cast<std::uint32_t>(c.dims.size());
        TensorPtr tensor(zx_tensor_wrap(numbers.data(), ndim, c.dims.data()));
        ASSERT_TRUE(tensor);
        EXPECT_EQ(tensor->refcount, 1U);
        EXPECT_EQ(tensor->ndim, ndim);
        EXPECT_EQ(extents(*tensor), c.stored);
        EXPECT_EQ(tensor->size, c.size);
        EXPECT_EQ(tensor->capacity, c.size);
        EXPECT_EQ(tensor->data, numbers.data());
        EXPECT_EQ(tensor->device_buffer, nullptr);
        EXPECT_EQ(tensor->on_device, 0);
        EXPECT_EQ(tensor->owns_data, 0);
        tensor.reset();
        EXPECT_EQ(numbers, before);
    }
    expect_untouched();
}

TEST(WrappedTensor, ChangesTheCallersMemory) {
    float numbers[6] = {};
    const std::uint32_t dims[2] = {2, 3};
    const TensorPtr tensor(zx_tensor_wrap(numbers, 2, dims));
    EXPECT_EQ(zx_tensor_set_2d(tensor.get(), 1, 2, 4.5f), ZX_OK);
    EXPECT_EQ(numbers[5], 4.5f);
    numbers[0] = 2.5f;
    EXPECT_EQ(zx_tensor_get_2d(tensor.get(), 0, 0), 2.5f);
}

TEST(WrappedTensor, IsRefusedSilently) {
    float number = 0.0f;
    const std::uint32_t dims[4] = {1, 1, 1, 1};
    plant_record();
    EXPECT_EQ(zx_tensor_wrap(&number, 0, dims), nullptr);
    EXPECT_EQ(zx_tensor_wrap(&number, 5, dims), nullptr);
    EXPECT_EQ(zx_tensor_wrap(&number, UINT32_MAX, dims), nullptr);
    EXPECT_EQ(zx_tensor_wrap(&number, 256 + 2, dims), nullptr);
    EXPECT_EQ(zx_tensor_wrap(nullptr, 1, dims), nullptr);
    EXPECT_EQ(zx_tensor_wrap(&number, 1, nullptr), nullptr);
    const FailingAllocator failing(1);
    EXPECT_EQ(zx_tensor_wrap(&number, 1, dims), nullptr);
    EXPECT_TRUE(failing.failed());
    expect_untouched();
}

TEST(ClonedTensor, OwnsACopy) {
    const std::uint32_t dims[3] = {2, 3, 2};
    const TensorPtr original(zx_tensor_create(3, dims));
    for (int i = 0; i < 12; ++i) original->data[i] = static_cast<float>(i);
    original->on_device = 1;
    plant_record();
    const TensorPtr clone(zx_tensor_clone(original.get()));
    original->on_device = 0;
    ASSERT_TRUE(clone);
    EXPECT_NE(clone->data, original->data);
    EXPECT_EQ(clone->refcount, 1U);
    EXPECT_EQ(clone->ndim, 3);
    EXPECT_EQ(extents(*clone), (Extents{2, 3, 2, 1}));
    EXPECT_EQ(clone->size, 12U);
    EXPECT_EQ(clone->capacity, 12U);
    EXPECT_EQ(clone->device_buffer, nullptr);
    EXPECT_EQ(clone->on_device, 0);
    EXPECT_EQ(clone->owns_data, 1);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(clone->data[i], static_cast<float>(i));
    clone->data[0] = 99.0f;
    EXPECT_EQ(original->data[0], 0.0f);
    expect_untouched();
}

TEST(ClonedTensor, OwnsItsDataWhenTheOriginalDoesNot) {
    float numbers[3] = {1.0f, 2.0f, 3.0f};
    const std::uint32_t dims[1] = {3};
    const TensorPtr wrapped(zx_tensor_wrap(numbers, 1, dims));
    const TensorPtr clone(zx_tensor_clone(wrapped.get()));
    ASSERT_TRUE(clone);
    EXPECT_EQ(clone->owns_data, 1);
    EXPECT_NE(clone->data, numbers);
    EXPECT_EQ(extents(*clone), (Extents{3, 1, 1, 1}));
    EXPECT_EQ(clone->data[2], 3.0f);
}

TEST(ClonedTensor, IsZeroWhenTheOriginalHasNoData) {
    const TensorPtr original(zx_tensor_create_1d(3));
    float* const data = original->data;
    data[1] = 5.0f;
    original->data = nullptr;
    const TensorPtr clone(zx_tensor_clone(original.get()));
    original->data = data;
    ASSERT_TRUE(clone);
    expect_fresh(*clone, {3, 1, 1, 1}, 3);
}

TEST(ClonedTensor, FailsAsACreatedOne) {
    plant_record();
    EXPECT_EQ(zx_tensor_clone(nullptr), nullptr);
    expect_untouched();

    float number = 1.0f;
    const std::uint32_t empty[2] = {3, 0};
    const TensorPtr without_elements(zx_tensor_wrap(&number, 2, empty));
    EXPECT_EQ(zx_tensor_clone(without_elements.get()), nullptr);
    expect_recorded(5, kModule, "Tensor size overflow");

    const std::uint32_t huge[3] = {1U << 31, 1U << 31, 2};
    const TensorPtr too_large(zx_tensor_wrap(&number, 3, huge));
    plant_record();
    EXPECT_EQ(zx_tensor_clone(too_large.get()), nullptr);
    expect_recorded(5, kModule, "Tensor size overflow");

    const TensorPtr original(zx_tensor_create_1d(3));
    for (const std::uint64_t nth : {1U, 2U}) {
        const FailingAllocator failing(nth);
        plant_record();
        EXPECT_EQ(zx_tensor_clone(original.get()), nullptr);
        expect_recorded(100, kModule,
                        nth == 1 ? "Failed to allocate tensor" : "Failed to allocate tensor data");
    }
}

}  // namespace
