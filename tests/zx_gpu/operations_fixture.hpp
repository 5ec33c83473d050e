// The frame of the tests of the device operations: an engine with the library's own kernel file
// loaded, and tensors with chosen contents.
#pragma once

#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "model_records.hpp"
#include "owned.hpp"
#include "random_numbers.hpp"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string_view>
#include <vector>

namespace zx::test {

// Stands behind the elements that an operation on a matrix takes from a tensor of more axes.
inline constexpr float kBehindTheMatrix = 4711.0f;

// With further axes the values are the leading elements of a larger tensor.
inline TensorPtr tensor_of(std::vector<std::uint32_t> dims, std::vector<float> values,
                           const std::vector<std::uint32_t>& further_axes = {}) {
    for (const std::uint32_t extent : further_axes) {
        dims.push_back(extent);
        values.resize(values.size() * extent, kBehindTheMatrix);
    }
    TensorPtr tensor(zx_tensor_create(static_cast<int>(dims.size()), dims.data()));
    EXPECT_NE(tensor, nullptr);
    fill(tensor.get(), values);
    return tensor;
}

// Whether the device is a simulator, for which large shapes are too slow.
inline bool is_simulated() {
    const char* const mode = std::getenv("ZORVEX_TEST_MODE");
    return mode && std::string_view(mode) == "oclgrind";
}

// An extent from 1 to 130, now and then one of a few that are prime or just above a power of 2.
inline std::uint32_t random_extent(RandomNumbers& random) {
    constexpr std::uint32_t kChosen[] = {2, 31, 61, 127, 257, 513};
    return random.below(5) == 0 ? kChosen[random.below(6)] : 1 + random.below(130);
}

inline constexpr int kRandomShapes = 20;

struct MatrixShape {
    std::uint32_t rows;
    std::uint32_t width;
    std::vector<std::uint32_t> further_axes = {};  // behind those of the matrix
};

// Matrices with single, odd, prime and round extents, on both sides of 512, and with more rows or
// columns than a work-group has items; then random ones, of up to four axes.
inline const std::vector<MatrixShape> kMatrixShapes = [] {
    std::vector<MatrixShape> shapes = {{512, 512}, {512, 31},  {7, 512},  {5003, 1},
                                       {5003, 7},  {5003, 64}, {1, 5003}, {13, 5003}};
    for (const std::uint32_t rows : {1U, 3U, 17U, 64U, 513U})
        for (const std::uint32_t width : {1U, 3U, 17U, 64U, 513U}) shapes.push_back({rows, width});
    RandomNumbers random(41);
    const std::vector<std::uint32_t> axes[] = {{}, {2}, {1, 2}};
    for (int i = 0; i < kRandomShapes; ++i) {
        const std::uint32_t rows = random_extent(random);
        shapes.push_back({rows, random_extent(random), axes[i % 3]});
    }
    if (is_simulated())
        std::erase_if(shapes, [](const MatrixShape& s) { return s.rows * s.width > 10000; });
    return shapes;
}();

// Extents of tensors of one to four axes, in the same variety.
inline const std::vector<std::vector<std::uint32_t>> kTensorShapes = [] {
    std::vector<std::vector<std::uint32_t>> shapes = {
        {1},     {3},         {17},      {64},      {512},         {513},        {5003},
        {7, 73}, {1, 1, 509}, {3, 5, 7}, {8, 8, 8}, {2, 3, 5, 17}, {1, 2, 1, 1},
    };
    RandomNumbers random(42);
    for (int i = 0; i < kRandomShapes; ++i) {
        std::vector<std::uint32_t> dims = {random_extent(random)};
        for (int axis = 0; axis < i % 4; ++axis) dims.push_back(1 + random.below(9));
        shapes.push_back(dims);
    }
    return shapes;
}();

inline std::size_t size_of(const std::vector<std::uint32_t>& dims) {
    std::size_t size = 1;
    for (const std::uint32_t extent : dims) size *= extent;
    return size;
}

// A matrix and behind it what an operation on the matrix must leave alone.
inline std::vector<double> with_what_is_behind(std::vector<double> matrix,
                                               const std::vector<std::uint32_t>& further_axes) {
    matrix.resize(matrix.size() * size_of(further_axes), double{kBehindTheMatrix});
    return matrix;
}

// Contents that no operation produces, for results that are to be overwritten.
inline TensorPtr blank(const std::vector<std::uint32_t>& dims) {
    return tensor_of(dims, std::vector<float>(size_of(dims), -777.0f));
}

// The current contents on the device, fetched to the host.
inline std::vector<float> fetched(const TensorPtr& tensor) {
    EXPECT_EQ(tensor->on_device, 1);
    EXPECT_EQ(zx_tensor_to_host(tensor.get()), ZX_OK);
    return contents(tensor.get());
}

// Expects each number to be within the tolerance, absolute below 1 and relative above it.
inline void expect_close(const std::vector<float>& actual, const std::vector<double>& expected,
                         double tolerance) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const double bound = tolerance * std::fmax(1.0, std::fabs(expected[i]));
        ASSERT_NEAR(static_cast<double>(actual[i]), expected[i], bound) << "element " << i;
    }
}

// Sums of some thousand products of two multiples of 1/8 have no rounding error in any order.
inline void expect_exact(const std::vector<float>& actual, const std::vector<double>& expected) {
    expect_close(actual, expected, 0.0);
}

inline double dot(const float* a, const float* b, std::size_t count) {
    double sum = 0.0;
    for (std::size_t k = 0; k < count; ++k)
        sum += static_cast<double>(a[k]) * static_cast<double>(b[k]);
    return sum;
}

class DeviceOperations : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        start();
        ASSERT_EQ(zx_gpu_init_from_file(ZORVEX_KERNEL_FILE), ZX_OK);
        ASSERT_TRUE(zx_gpu_is_ready());
        plant_record();
        opencl() = {};
    }
};

}  // namespace zx::test
