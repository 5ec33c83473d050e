// Random initial values, bit by bit against the generator's stream.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "owned.hpp"
#include "reference_rng.hpp"
#include "zorvex.h"
#include "zx_engine/rng.hpp"

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

namespace {

using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::plant_record;
using zx::test::ReferenceRng;
using zx::test::TensorPtr;

constexpr std::uint64_t kSeed = 20240229;

// Expects the tensor to hold these draws of a stream that began with kSeed, and that the thread's
// generator stands behind them.
void expect_draws(const zx_tensor_t& tensor, const std::function<float(ReferenceRng&)>& draw) {
    ReferenceRng reference(kSeed);
    for (std::uint64_t i = 0; i < tensor.size; ++i)
        ASSERT_EQ(std::bit_cast<std::uint32_t>(tensor.data[i]),
                  std::bit_cast<std::uint32_t>(draw(reference)))
            << i;
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(zx::thread_rng().s[i], reference.state()[i]);
}

void expect_no_draws() {
    const ReferenceRng reference(kSeed);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(zx::thread_rng().s[i], reference.state()[i]);
}

TEST(FillUniform, WritesAllElementsOfAnyRankInOrder) {
    const std::vector<std::vector<std::uint32_t>> shapes = {
        {1}, {7}, {3, 5}, {2, 3, 4}, {2, 3, 4, 5}};
    const struct {
        float min, max;
    } ranges[] = {{0.0f, 1.0f}, {-0.3f, 0.7f}, {2.0f, 2.0f}, {5.0f, -1.5f}};
    plant_record();
    for (const auto& shape : shapes)
        for (const auto& range : ranges) {
            const TensorPtr tensor(zx_tensor_create(static_cast<int>(shape.size()), shape.data()));
            zx_rng_seed(kSeed);
            zx_rng_fill_uniform(tensor.get(), range.min, range.max);
            expect_draws(*tensor, [&](ReferenceRng& reference) {
                return reference.uniform_range(range.min, range.max);
            });
        }
    expect_untouched();
}

TEST(FillUniform, StaysWithinAReversedInterval) {
    const TensorPtr tensor(zx_tensor_create_1d(1000));
    zx_rng_fill_uniform(tensor.get(), 4.0f, -2.0f);
    bool below = false;
    bool above = false;
    for (std::uint64_t i = 0; i < tensor->size; ++i) {
        ASSERT_GE(tensor->data[i], -2.0f);
        ASSERT_LE(tensor->data[i], 4.0f);
        below = below || tensor->data[i] < 1.0f;
        above = above || tensor->data[i] > 1.0f;
    }
    EXPECT_TRUE(below && above);
}

TEST(Initialisers, IgnoreTensorsWithoutElements) {
    zx_rng_seed(kSeed);
    plant_record();
    zx_rng_fill_uniform(nullptr, 0.0f, 1.0f);
    zx_rng_fill_xavier(nullptr, 1, 1);
    zx_rng_fill_xavier(nullptr, 0, 0);
    zx_rng_fill_he(nullptr, 1);
    zx_rng_fill_he(nullptr, 0);

    const TensorPtr hollow(zx_tensor_create_1d(3));
    float* const data = hollow->data;
    hollow->data = nullptr;
    zx_rng_fill_uniform(hollow.get(), 0.0f, 1.0f);
    zx_rng_fill_xavier(hollow.get(), 1, 1);
    zx_rng_fill_he(hollow.get(), 1);
    hollow->data = data;

    float number = 9.0f;
    const std::uint32_t dims[1] = {0};
    const TensorPtr empty(zx_tensor_wrap(&number, 1, dims));
    zx_rng_fill_uniform(empty.get(), 0.0f, 1.0f);
    zx_rng_fill_xavier(empty.get(), 1, 1);
    zx_rng_fill_he(empty.get(), 1);

    EXPECT_EQ(number, 9.0f);
    EXPECT_EQ(data[0], 0.0f);
    expect_no_draws();
    expect_untouched();
}

TEST(FillXavier, DrawsUniformlyWithinTheBound) {
    const struct {
        const char* when;
        std::uint32_t fan_in, fan_out;
        float bound;
    } cases[] = {
        {"4 and 6", 4, 6, std::sqrt(0.6f)},
        {"6 and 0", 6, 0, 1.0f},
        {"0 and 24", 0, 24, 0.5f},
        {"32 and 32", 32, 32, std::sqrt(6.0f / 64.0f)},
        {"a sum that wraps to 6", UINT32_MAX, 7, 1.0f},
        {"a sum above 2^31", 1U << 31, 1U << 30, std::sqrt(6.0f / 3221225472.0f)},
        {"the largest sum", UINT32_MAX, 0, std::sqrt(6.0f / 4294967296.0f)},
    };
    plant_record();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const TensorPtr tensor(zx_tensor_create_2d(4, 6));
        zx_rng_seed(kSeed);
        zx_rng_fill_xavier(tensor.get(), c.fan_in, c.fan_out);
        expect_draws(*tensor, [&](ReferenceRng& reference) {
            return reference.uniform_range(-c.bound, c.bound);
        });
        for (std::uint64_t i = 0; i < tensor->size; ++i) {
            EXPECT_GE(tensor->data[i], -c.bound);
            EXPECT_LE(tensor->data[i], c.bound);
        }
    }
    expect_untouched();
}

TEST(FillXavier, GivesNothingFiniteWhenTheSumIsZero) {
    const struct {
        std::uint32_t fan_in, fan_out;
    } cases[] = {{0, 0}, {1U << 31, 1U << 31}, {UINT32_MAX, 1}};
    for (const auto& c : cases) {
        const TensorPtr tensor(zx_tensor_create_1d(50));
        zx_rng_seed(kSeed);
        plant_record();
        zx_rng_fill_xavier(tensor.get(), c.fan_in, c.fan_out);
        for (std::uint64_t i = 0; i < tensor->size; ++i)
            EXPECT_FALSE(std::isfinite(tensor->data[i]));
        expect_untouched();
    }
}

TEST(FillHe, DrawsNormallyWithItsDeviation) {
    const struct {
        std::uint32_t fan_in;
        float deviation;
    } cases[] = {{2, 1.0f},
                 {8, 0.5f},
                 {1, std::sqrt(2.0f)},
                 {100, std::sqrt(0.02f)},
                 {UINT32_MAX, std::sqrt(2.0f / 4294967296.0f)}};
    plant_record();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fan_in);
        const TensorPtr tensor(zx_tensor_create_2d(9, 11));
        zx_rng_seed(kSeed);
        zx_rng_fill_he(tensor.get(), c.fan_in);
        expect_draws(*tensor,
                     [&](ReferenceRng& reference) { return reference.normal() * c.deviation; });
    }
    expect_untouched();
}

TEST(FillHe, IsNotBoundedAsAUniformDistributionIs) {
    const TensorPtr tensor(zx_tensor_create_1d(20000));
    zx_rng_seed(kSeed);
    zx_rng_fill_he(tensor.get(), 2);
    int beyond_two = 0;
    for (std::uint64_t i = 0; i < tensor->size; ++i) beyond_two += std::abs(tensor->data[i]) > 2.0f;
    // 4.55 % of a normal distribution lies beyond two deviations; a uniform one of this deviation
    // ends at the square root of three.
    EXPECT_NEAR(beyond_two, 910, 120);
}

TEST(FillHe, GivesNothingFiniteWhenTheFanIsZero) {
    const TensorPtr tensor(zx_tensor_create_1d(50));
    zx_rng_seed(kSeed);
    plant_record();
    zx_rng_fill_he(tensor.get(), 0);
    for (std::uint64_t i = 0; i < tensor->size; ++i) EXPECT_FALSE(std::isfinite(tensor->data[i]));
    expect_untouched();
}

TEST(Initialisers, RepeatThemselvesAfterTheSameSeed) {
    std::vector<float> first;
    for (int round = 0; round < 2; ++round) {
        zx_rng_seed(kSeed);
        const TensorPtr tensor(zx_tensor_create_2d(3, 4));
        zx_rng_fill_xavier(tensor.get(), 3, 4);
        const std::vector<float> values(tensor->data, tensor->data + 12);
        if (round == 0) first = values;
        EXPECT_EQ(values, first);
    }
}

TEST(Initialisers, LeaveTheResidencyFlagAlone) {
    const TensorPtr tensor(zx_tensor_create_1d(5));
    for (const std::uint8_t flag : {std::uint8_t{0}, std::uint8_t{1}}) {
        tensor->on_device = flag;
        zx_rng_fill_uniform(tensor.get(), 0.0f, 1.0f);
        zx_rng_fill_xavier(tensor.get(), 1, 1);
        zx_rng_fill_he(tensor.get(), 1);
        EXPECT_EQ(tensor->on_device, flag);
    }
    tensor->on_device = 0;
}

TEST(RandomTensor, IsAMatrixOfUniformNumbers) {
    zx_rng_seed(kSeed);
    plant_record();
    const TensorPtr tensor(zx_tensor_rand_uniform(3, 4, -1.0f, 3.0f));
    ASSERT_TRUE(tensor);
    EXPECT_EQ(tensor->ndim, 2);
    EXPECT_EQ(tensor->dims[0], 3U);
    EXPECT_EQ(tensor->dims[1], 4U);
    EXPECT_EQ(tensor->owns_data, 1);
    EXPECT_EQ(tensor->on_device, 0);
    expect_draws(*tensor,
                 [](ReferenceRng& reference) { return reference.uniform_range(-1.0f, 3.0f); });
    expect_untouched();
}

TEST(RandomTensor, FailsAsACreatedOneAndDrawsNothing) {
    zx_rng_seed(kSeed);
    plant_record();
    EXPECT_EQ(zx_tensor_rand_uniform(0, 5, 0.0f, 1.0f), nullptr);
    expect_recorded(5, "src/zx_memory", "Tensor size overflow");
    const zx::test::FailingAllocator failing(2);
    plant_record();
    EXPECT_EQ(zx_tensor_rand_uniform(3, 5, 0.0f, 1.0f), nullptr);
    expect_recorded(100, "src/zx_memory", "Failed to allocate tensor data");
    expect_no_draws();
}

}  // namespace
