// Losses between two tensors and the gradient of the squared error, bit by bit against the sums
// written out.

#include "error_record.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"
#include "owned.hpp"
#include "random_numbers.hpp"
#include "zorvex.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {
namespace {

static_assert(offsetof(zx_loss_config_t, reserved) == 4);
static_assert(offsetof(zx_loss_config_t, margin) == 8);
static_assert(offsetof(zx_loss_config_t, reserved_flag) == 12);
static_assert(sizeof(zx_loss_config_t) == 16);

constexpr float kUntouched = -4711.5f;

TensorPtr tensor_of(const std::vector<float>& values) {
    TensorPtr tensor(zx_tensor_create_1d(static_cast<std::uint32_t>(values.size())));
    fill(tensor.get(), values);
    return tensor;
}

// Creating a tensor without elements is refused, wrapping one is not.
TensorPtr empty_tensor() {
    static float number = 0.0f;
    const std::uint32_t dims[1] = {0};
    return TensorPtr(zx_tensor_wrap(&number, 1, dims));
}

float computed(zx_loss_config_t config, const std::vector<float>& a, const std::vector<float>& b) {
    const TensorPtr first = tensor_of(a);
    const TensorPtr second = tensor_of(b);
    return zx_loss_compute(config, first.get(), second.get());
}

TEST(LossConfig, NamesTheLossAndSetsItsNumbers) {
    EXPECT_EQ(ZX_LOSS_MSE, 0);
    EXPECT_EQ(ZX_LOSS_BPR, 1);
    EXPECT_EQ(ZX_LOSS_CONTRASTIVE, 6);
    const struct {
        const char* loss;
        zx_loss_config_t config;
        zx_loss_type_t type;
        float margin;
    } cases[] = {
        {"MSE", zx_loss_mse(), 0, 1.0f},
        {"BPR", zx_loss_bpr(), 1, 1.0f},
        {"contrastive", zx_loss_contrastive(0.5f), 6, 0.5f},
        {"contrastive with any margin", zx_loss_contrastive(kNaN), 6, kNaN},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.loss);
        EXPECT_EQ(c.config.type, c.type);
        EXPECT_EQ(c.config.reserved, 0u);
        EXPECT_TRUE(same_number(c.config.margin, c.margin));
        EXPECT_EQ(c.config.reserved_flag, 1);
    }
}

TEST(Loss, IsTheMeanSquaredError) {
    plant_record();
    EXPECT_EQ(computed(zx_loss_mse(), {1, 3}, {0, 0}), 5.0f);
    EXPECT_EQ(computed(zx_loss_mse(), {1, 3}, {1, 3}), 0.0f);
    EXPECT_EQ(computed(zx_loss_mse(), {-2}, {1}), 9.0f);
    EXPECT_EQ(computed(zx_loss_mse(), {1, 2, 3, 4}, {4, 3, 2, 1}), 5.0f);
    expect_untouched();
}

TEST(Loss, IsTheMeanLogarithmOfTheRankingProbability) {
    const float ln2 = 0.6931472f;
    const struct {
        const char* when;
        std::vector<float> a, b;
        float expected;
    } cases[] = {
        {"a tie", {0}, {0}, ln2},
        {"two ties", {3, -1}, {3, -1}, ln2},
        {"far above", {40}, {0}, 0.0f},
        {"far below", {0}, {40}, 40.0f},
        {"far above and far below", {40, 0}, {0, 40}, 20.0f},
        {"above where the exponential overflows", {1000}, {0}, 0.0f},
        {"below where the exponential overflows", {-100}, {0}, 100.0f},
        {"far below that", {0}, {1000}, 1000.0f},
        {"infinitely above", {kInfinity}, {0}, 0.0f},
        {"infinitely below", {-kInfinity}, {0}, kInfinity},
        {"a NaN", {kNaN, 1}, {0, 0}, kNaN},
        {"infinities that cancel", {kInfinity}, {kInfinity}, kNaN},
    };
    plant_record();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        EXPECT_TRUE(same_number(computed(zx_loss_bpr(), c.a, c.b), c.expected));
    }
    expect_untouched();
}

float reference_mse(const std::vector<float>& a, const std::vector<float>& b) {
    float sum = 0.0f;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const float difference = a[i] - b[i];
        const float square = difference * difference;
        sum = sum + square;
    }
    return sum / static_cast<float>(a.size());
}

float reference_bpr(const std::vector<float>& a, const std::vector<float>& b) {
    float sum = 0.0f;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const float x = a[i] - b[i];
        if (x > 35.0f) continue;
        if (x < -35.0f)
            sum = sum + (b[i] - a[i]);
        else
            sum = sum + std::log(std::exp(-x) + 1.0f);
    }
    return sum / static_cast<float>(a.size());
}

TEST(Loss, AddsItsTermsInOrderInSinglePrecision) {
    RandomNumbers random(1);
    for (const std::size_t n : {1u, 2u, 3u, 7u, 64u, 1000u}) {
        SCOPED_TRACE(n);
        const std::vector<float> a = random.floats(n, -30, 30);
        const std::vector<float> b = random.floats(n, -30, 30);
        EXPECT_TRUE(same_number(computed(zx_loss_mse(), a, b), reference_mse(a, b)));
        EXPECT_TRUE(same_number(computed(zx_loss_bpr(), a, b), reference_bpr(a, b)));
    }
}

TEST(Loss, ComparesNumbersOfElementsAndNotShapes) {
    const std::uint32_t dims[3] = {2, 1, 3};
    const TensorPtr a(zx_tensor_create(3, dims));
    const TensorPtr b(zx_tensor_create_2d(3, 2));
    fill(a.get(), {1, 2, 3, 4, 5, 6});
    fill(b.get(), {1, 2, 3, 4, 5, 0});
    EXPECT_EQ(zx_loss_compute(zx_loss_mse(), a.get(), b.get()), 6.0f);
}

TEST(Loss, IgnoresMarginAndFlag) {
    zx_loss_config_t config = zx_loss_mse();
    config.margin = kNaN;
    config.reserved_flag = 0;
    config.reserved = 7;
    EXPECT_EQ(computed(config, {1, 3}, {0, 0}), 5.0f);
}

// Both functions refuse alike; the gradient is touched by neither.
class LossRefusal : public testing::Test {
  protected:
    void expect_result(zx_loss_config_t config, const zx_tensor_t* a, const zx_tensor_t* b,
                       float expected) const {
        EXPECT_TRUE(same_number(zx_loss_compute(config, a, b), expected));
        EXPECT_TRUE(same_number(zx_loss_backward(config, a, b, grad_.get()), expected));
        EXPECT_TRUE(same_number(zx_loss_backward(config, a, b, nullptr), expected));
        EXPECT_TRUE(same_numbers(contents(grad_.get()), std::vector<float>(5, kUntouched)));
    }

    const TensorPtr three_ = tensor_of({1, 2, 3});
    const TensorPtr four_ = tensor_of({1, 2, 3, 4});
    const TensorPtr grad_ = tensor_of(std::vector<float>(5, kUntouched));
};

TEST_F(LossRefusal, TakesMissingAndUnequalTensorsForAPerfectFit) {
    TensorPtr hollow = tensor_of({1, 2, 3});
    float* const data = hollow->data;
    hollow->data = nullptr;
    plant_record();
    for (const zx_loss_config_t config : {zx_loss_mse(), zx_loss_bpr()}) {
        SCOPED_TRACE(config.type);
        expect_result(config, nullptr, three_.get(), 0.0f);
        expect_result(config, three_.get(), nullptr, 0.0f);
        expect_result(config, nullptr, nullptr, 0.0f);
        expect_result(config, three_.get(), four_.get(), 0.0f);
        expect_result(config, four_.get(), three_.get(), 0.0f);
        expect_result(config, hollow.get(), three_.get(), 0.0f);
        expect_result(config, three_.get(), hollow.get(), 0.0f);
    }
    expect_untouched();
    hollow->data = data;
}

TEST_F(LossRefusal, GivesNaNForNoElements) {
    const TensorPtr empty = empty_tensor();
    const TensorPtr other = empty_tensor();
    plant_record();
    for (const zx_loss_config_t config : {zx_loss_mse(), zx_loss_bpr()})
        expect_result(config, empty.get(), other.get(), kNaN);
    const zx_tensor_t zeroed = {};
    expect_result(zx_loss_mse(), &zeroed, &zeroed, kNaN);
    expect_untouched();
}

TEST_F(LossRefusal, RecordsALossItCannotCompute) {
    zx_loss_config_t config = zx_loss_contrastive(0.5f);
    for (const zx_loss_type_t type : {2u, 3u, 4u, 5u, 6u, 7u, 0xffffffffu}) {
        SCOPED_TRACE(type);
        config.type = type;
        const struct {
            const zx_tensor_t *a, *b;
        } cases[] = {{three_.get(), three_.get()}, {three_.get(), four_.get()}, {nullptr, nullptr}};
        for (const auto& c : cases) {
            plant_record();
            EXPECT_TRUE(same_number(zx_loss_compute(config, c.a, c.b), 0.0f));
            expect_recorded(2, "src/zx_train", "Unknown loss type");
            plant_record();
            expect_result(config, c.a, c.b, 0.0f);
            expect_recorded(2, "src/zx_train", "Unknown loss type");
        }
    }
}

TEST(LossBackward, WritesTheGradientOfTheSquaredError) {
    const TensorPtr a = tensor_of({1, 3});
    const TensorPtr b = tensor_of({0, 0});
    const TensorPtr grad = tensor_of({kUntouched, kUntouched, kUntouched});
    grad->on_device = 1;
    plant_record();
    EXPECT_EQ(zx_loss_backward(zx_loss_mse(), a.get(), b.get(), grad.get()), 5.0f);
    expect_untouched();
    EXPECT_TRUE(same_numbers(contents(grad.get()), {1.0f, 3.0f, kUntouched}));
    EXPECT_EQ(grad->on_device, 1);
    grad->on_device = 0;
    EXPECT_TRUE(same_numbers(contents(a.get()), {1.0f, 3.0f}));
    EXPECT_TRUE(same_numbers(contents(b.get()), {0.0f, 0.0f}));
}

TEST(LossBackward, DividesOnceAndThenMultiplies) {
    RandomNumbers random(2);
    for (const std::size_t n : {1u, 3u, 7u, 49u, 1000u}) {
        SCOPED_TRACE(n);
        const std::vector<float> a = random.floats(n, -3, 3);
        const std::vector<float> b = random.floats(n, -3, 3);
        const TensorPtr first = tensor_of(a);
        const TensorPtr second = tensor_of(b);
        const TensorPtr grad(zx_tensor_create_1d(static_cast<std::uint32_t>(n)));
        const float loss = zx_loss_backward(zx_loss_mse(), first.get(), second.get(), grad.get());
        EXPECT_TRUE(same_number(loss, reference_mse(a, b)));
        const float scale = 2.0f / static_cast<float>(n);
        std::vector<float> expected(n);
        for (std::size_t i = 0; i < n; ++i) {
            const float difference = a[i] - b[i];
            expected[i] = difference * scale;
        }
        EXPECT_TRUE(same_numbers(contents(grad.get()), expected));
    }
}

// A wrapped gradient may claim fewer elements than its memory has.
TEST(LossBackward, DoesNotLookAtTheGradientsSize) {
    std::vector<float> memory(5, kUntouched);
    const std::uint32_t dims[1] = {1};
    const TensorPtr grad(zx_tensor_wrap(memory.data(), 1, dims));
    const TensorPtr a = tensor_of({1, 2, 3, 4});
    const TensorPtr b = tensor_of({0, 0, 0, 0});
    EXPECT_EQ(zx_loss_backward(zx_loss_mse(), a.get(), b.get(), grad.get()), 7.5f);
    EXPECT_TRUE(same_numbers(memory, {0.5f, 1.0f, 1.5f, 2.0f, kUntouched}));
}

TEST(LossBackward, HasAGradientOfTheSquaredErrorOnly) {
    const TensorPtr a = tensor_of({40, 0});
    const TensorPtr b = tensor_of({0, 40});
    const TensorPtr grad = tensor_of({kUntouched, kUntouched});
    plant_record();
    EXPECT_EQ(zx_loss_backward(zx_loss_bpr(), a.get(), b.get(), grad.get()), 20.0f);
    EXPECT_TRUE(same_numbers(contents(grad.get()), {kUntouched, kUntouched}));
    expect_untouched();
}

TEST(LossBackward, NeedsNoGradient) {
    const TensorPtr a = tensor_of({1, 3});
    const TensorPtr b = tensor_of({0, 0});
    const TensorPtr hollow = tensor_of({1, 3});
    float* const data = hollow->data;
    hollow->data = nullptr;
    plant_record();
    EXPECT_EQ(zx_loss_backward(zx_loss_mse(), a.get(), b.get(), nullptr), 5.0f);
    EXPECT_EQ(zx_loss_backward(zx_loss_mse(), a.get(), b.get(), hollow.get()), 5.0f);
    expect_untouched();
    hollow->data = data;
}

}  // namespace
}  // namespace zx::test
