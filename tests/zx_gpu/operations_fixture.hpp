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
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {

inline TensorPtr tensor_of(const std::vector<std::uint32_t>& dims,
                           const std::vector<float>& values) {
    TensorPtr tensor(zx_tensor_create(static_cast<int>(dims.size()), dims.data()));
    EXPECT_NE(tensor, nullptr);
    fill(tensor.get(), values);
    return tensor;
}

// Contents that no operation produces, for results that are to be overwritten.
inline TensorPtr blank(const std::vector<std::uint32_t>& dims) {
    std::size_t size = 1;
    for (const std::uint32_t extent : dims) size *= extent;
    return tensor_of(dims, std::vector<float>(size, -777.0f));
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
