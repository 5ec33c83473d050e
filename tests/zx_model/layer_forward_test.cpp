// The forward pass of layers, bit by bit against the formulas written out.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "generator_state.hpp"
#include "model_records.hpp"
#include "owned.hpp"
#include "random_numbers.hpp"
#include "zorvex.h"

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <utility>
#include <vector>

namespace zx::test {
namespace {

constexpr zx_activation_t kActivations[] = {5, 6, 7, 8, 9};

TensorPtr matrix_of(std::uint32_t rows, std::uint32_t cols, const std::vector<float>& values) {
    TensorPtr tensor(zx_tensor_create_2d(rows, cols));
    fill(tensor.get(), values);
    return tensor;
}

TensorPtr vector_of(const std::vector<float>& values) {
    TensorPtr tensor(zx_tensor_create_1d(static_cast<std::uint32_t>(values.size())));
    fill(tensor.get(), values);
    return tensor;
}

TensorPtr forward(const LayerPtr& layer, const TensorPtr& input, bool training = false) {
    return TensorPtr(zx_layer_forward(layer.get(), input.get(), training));
}

TEST(LayerForward, IgnoresNull) {
    const LayerPtr layer(zx_layer_create(3));
    const TensorPtr input(zx_tensor_create_1d(2));
    plant_record();
    EXPECT_EQ(zx_layer_forward(nullptr, input.get(), true), nullptr);
    EXPECT_EQ(zx_layer_forward(layer.get(), nullptr, true), nullptr);
    EXPECT_EQ(zx_layer_forward(nullptr, nullptr, false), nullptr);
    expect_untouched();
}

TEST(LayerForward, RefusesKindsWithoutARule) {
    const TensorPtr input = matrix_of(2, 3, {1, 2, 3, 4, 5, 6});
    const LayerPtr layers[] = {
        LayerPtr(zx_layer_embedding(2, 3)),    LayerPtr(zx_layer_batch_norm(3)),
        LayerPtr(zx_layer_create(3)),          LayerPtr(zx_layer_activation(10)),
        LayerPtr(zx_layer_create(11)),         LayerPtr(zx_layer_create(0x80000000)),
        LayerPtr(zx_layer_create(UINT32_MAX)),
    };
    for (const LayerPtr& layer : layers) {
        SCOPED_TRACE(layer->type);
        for (const bool training : {false, true}) {
            plant_record();
            EXPECT_EQ(forward(layer, input, training), nullptr);
            expect_recorded(303, "src/zx_model", "Unknown layer type");
        }
    }
    EXPECT_EQ(input->refcount, 1u);
}

// The rule for one output row, as it is stated: products are added in order, then the bias.
std::vector<float> reference_dense(const zx_layer_t& layer, const std::vector<float>& input,
                                   std::size_t rows) {
    const std::size_t in = layer.params.dense.in_features;
    const std::size_t out = layer.params.dense.out_features;
    std::vector<float> output;
    for (std::size_t b = 0; b < rows; ++b) {
        for (std::size_t o = 0; o < out; ++o) {
            float sum = 0.0f;
            for (std::size_t k = 0; k < in; ++k) {
                const float product = layer.weight->data[o * in + k] * input[b * in + k];
                sum = sum + product;
            }
            if (layer.bias) sum = sum + layer.bias->data[o];
            output.push_back(sum);
        }
    }
    return output;
}

TEST(LayerForwardDense, MultipliesByHand) {
    const LayerPtr layer(zx_layer_dense(3, 2, true));
    fill(layer->weight, {1, 2, 3, -1, 0, 0.5f});
    fill(layer->bias, {10, 20});
    const TensorPtr input = matrix_of(4, 3, {1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1});
    plant_record();
    const TensorPtr output = forward(layer, input);
    expect_untouched();
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(output->refcount, 1u);
    EXPECT_EQ(output->ndim, 2);
    EXPECT_EQ(output->dims[0], 4u);
    EXPECT_EQ(output->dims[1], 2u);
    EXPECT_EQ(output->on_device, 0);
    EXPECT_TRUE(same_numbers(contents(output.get()), {11, 19, 12, 20, 13, 20.5f, 16, 19.5f}));
}

TEST(LayerForwardDense, AddsProductsInOrderAndTheBiasLast) {
    RandomNumbers random(1);
    const struct {
        std::uint32_t rows, in, out;
    } shapes[] = {{1, 1, 1}, {4, 3, 2}, {5, 67, 7}, {1, 130, 33}};
    for (const auto& shape : shapes) {
        for (const bool use_bias : {false, true}) {
            SCOPED_TRACE(testing::Message() << shape.in << " " << use_bias);
            const LayerPtr layer(zx_layer_dense(shape.in, shape.out, use_bias));
            fill(layer->weight, random.floats(layer->weight->size, -1, 1));
            if (use_bias) fill(layer->bias, random.floats(shape.out, -1, 1));
            const std::size_t size = std::size_t{shape.rows} * shape.in;
            const std::vector<float> values = random.floats(size, -1, 1);
            const TensorPtr input = matrix_of(shape.rows, shape.in, values);
            for (const bool training : {false, true}) {
                const TensorPtr output = forward(layer, input, training);
                ASSERT_NE(output, nullptr);
                EXPECT_TRUE(same_numbers(contents(output.get()),
                                         reference_dense(*layer, values, shape.rows)));
            }
            EXPECT_TRUE(same_numbers(contents(input.get()), values));
        }
    }
}

TEST(LayerForwardDense, RefusesAnInputOfAnotherWidth) {
    const LayerPtr layer(zx_layer_dense(3, 2, true));
    for (const std::uint32_t width : {1u, 2u, 4u, 5u}) {
        SCOPED_TRACE(width);
        const TensorPtr input(zx_tensor_create_2d(4, width));
        plant_record();
        EXPECT_EQ(forward(layer, input), nullptr);
        expect_recorded(304, "src/zx_model", "Dense layer input dimension mismatch");
    }
}

TEST(LayerForwardDense, TakesAnInputOfOneAxisForZeros) {
    const LayerPtr layer(zx_layer_dense(1, 2, true));
    fill(layer->weight, {3, 4});
    fill(layer->bias, {0.5f, -0.5f});
    const TensorPtr input = vector_of({7, 8, 9});  // its second extent is 1
    const TensorPtr output = forward(layer, input);
    ASSERT_NE(output, nullptr);
    EXPECT_TRUE(same_numbers(contents(output.get()), {0.5f, -0.5f, 0.5f, -0.5f, 0.5f, -0.5f}));
}

TEST(LayerForwardDense, RefusesExtentsThatTheElementsDoNotFill) {
    float one = 1.0f;
    const std::uint32_t hollow[3] = {64, 3, 0};
    const std::uint32_t wrapping[4] = {64, 3, UINT32_MAX, UINT32_MAX};
    const std::uint32_t flat[1] = {3};
    const LayerPtr layer(zx_layer_dense(3, 2, true));
    const auto expect_refused = [](const LayerPtr& refusing, const TensorPtr& input) {
        plant_record();
        EXPECT_EQ(forward(refusing, input), nullptr);
        expect_recorded(304, "src/zx_model", "Dense layer input dimension mismatch");
    };
    expect_refused(layer, TensorPtr(zx_tensor_wrap(&one, 3, hollow)));
    expect_refused(layer, TensorPtr(zx_tensor_wrap(&one, 4, wrapping)));
    expect_refused(layer, TensorPtr(zx_tensor_wrap(&one, 1, flat)));  // its second extent is 0

    const TensorPtr input = matrix_of(2, 3, {1, 2, 3, 4, 5, 6});
    zx_tensor_release(layer->weight);
    layer->weight = zx_tensor_wrap(&one, 3, hollow);
    expect_refused(layer, input);
}

TEST(LayerForwardDense, ComparesTheWidthsBeforeItMakesAnOutput) {
    float one = 1.0f;
    const std::uint32_t dims[2] = {0, 5};
    const LayerPtr layer(zx_layer_dense(3, 2, true));
    plant_record();
    EXPECT_EQ(forward(layer, TensorPtr(zx_tensor_wrap(&one, 2, dims))), nullptr);
    expect_recorded(304, "src/zx_model", "Dense layer input dimension mismatch");
}

TEST(LayerForwardDense, TakesTensorsWithoutDataForZeros) {
    const LayerPtr layer(zx_layer_dense(2, 2, true));
    fill(layer->weight, {1, 2, 3, 4});
    fill(layer->bias, {0.5f, 0.25f});
    const std::uint32_t dims[2] = {1, 2};
    std::vector<float> values = {1, 1};
    const TensorPtr input(zx_tensor_wrap(values.data(), 2, dims));
    layer->bias->owns_data = 0;
    float* const bias = std::exchange(layer->bias->data, nullptr);
    const TensorPtr unbiased = forward(layer, input);
    ASSERT_NE(unbiased, nullptr);
    EXPECT_TRUE(same_numbers(contents(unbiased.get()), {3, 7}));

    layer->bias->owns_data = 1;
    layer->bias->data = bias;
    input->data = nullptr;
    const TensorPtr output = forward(layer, input);
    ASSERT_NE(output, nullptr);
    EXPECT_TRUE(same_numbers(contents(output.get()), {0.5f, 0.25f}));
}

TEST(LayerForwardDense, ReadsTheHostDataOfWhatIsOnTheDevice) {
    const LayerPtr layer(zx_layer_dense(2, 1, false));
    fill(layer->weight, {1, 10});
    const TensorPtr input = matrix_of(1, 2, {3, 4});
    input->on_device = 1;
    const TensorPtr output = forward(layer, input);
    ASSERT_NE(output, nullptr);
    EXPECT_TRUE(same_numbers(contents(output.get()), {43}));
    EXPECT_EQ(output->on_device, 0);
    EXPECT_EQ(input->on_device, 1);
}

TEST(LayerForwardDense, ReadsTheFirstTwoAxesOfAnInputOfMore) {
    const LayerPtr layer(zx_layer_dense(2, 1, false));
    fill(layer->weight, {1, 10});
    const std::uint32_t dims[3] = {2, 2, 2};
    const TensorPtr input(zx_tensor_create(3, dims));
    fill(input.get(), {1, 2, 3, 4, 5, 6, 7, 8});
    const TensorPtr output = forward(layer, input);
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(output->ndim, 2);
    EXPECT_TRUE(same_numbers(contents(output.get()), {21, 43}));
}

TEST(LayerForwardDense, RecordsAnOutputThatCannotBeMade) {
    const LayerPtr layer(zx_layer_dense(3, 2, true));
    const TensorPtr input(zx_tensor_create_2d(4, 3));
    const char* const messages[] = {"Failed to allocate tensor", "Failed to allocate tensor data"};
    for (std::uint64_t failing = 1; failing <= 2; ++failing) {
        SCOPED_TRACE(failing);
        plant_record();
        const FailingAllocator allocator(failing);
        EXPECT_EQ(forward(layer, input), nullptr);
        expect_recorded(100, "src/zx_memory", messages[failing - 1]);
    }
    float number = 0.0f;
    const std::uint32_t dims[2] = {0, 3};
    const TensorPtr empty(zx_tensor_wrap(&number, 2, dims));
    plant_record();
    EXPECT_EQ(forward(layer, empty), nullptr);
    expect_recorded(5, "src/zx_memory", "Tensor size overflow");
}

// A record that a host filled itself, with less in it than its numbers say.
TEST(LayerForwardDense, TakesWhatABareLayerLacksForZeros) {
    const LayerPtr layer(zx_layer_create(1));
    layer->params.dense.in_features = 2;
    layer->params.dense.out_features = 3;
    const TensorPtr input = matrix_of(1, 2, {1, 2});
    const TensorPtr without = forward(layer, input);
    ASSERT_NE(without, nullptr);
    EXPECT_TRUE(same_numbers(contents(without.get()), {0, 0, 0}));

    layer->weight = zx_tensor_create_2d(2, 1);
    fill(layer->weight, {5, 6});
    layer->bias = zx_tensor_create_1d(1);
    fill(layer->bias, {0.5f});
    const TensorPtr with = forward(layer, input);
    ASSERT_NE(with, nullptr);
    EXPECT_TRUE(same_numbers(contents(with.get()), {5.5f, 6, 0}));
}

TEST(LayerForwardDropout, HandsItsInputOnWhereNothingIsDropped) {
    const struct {
        const char* when;
        float rate;
        bool training;
    } cases[] = {
        {"evaluating", 0.5f, false},       {"evaluating, all dropped", 1.0f, false},
        {"training with rate 0", 0, true}, {"training with rate -0", -0.0f, true},
        {"a negative rate", -0.25f, true}, {"a rate that is not a number", kNaN, true},
    };
    const TensorPtr input = vector_of({1, -2, 3});
    zx_rng_seed(1);
    const ReferenceRng reference(generator_state());
    plant_record();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const LayerPtr layer(zx_layer_dropout(c.rate));
        const TensorPtr output = forward(layer, input, c.training);
        EXPECT_EQ(output.get(), input.get());
        EXPECT_EQ(input->refcount, 2u);
    }
    EXPECT_EQ(input->refcount, 1u);
    EXPECT_TRUE(same_numbers(contents(input.get()), {1, -2, 3}));
    EXPECT_EQ(generator_state(), reference.state());
    expect_untouched();
}

TEST(LayerForwardDropout, DrawsOnceForEachElementInOrder) {
    RandomNumbers random(2);
    const std::vector<float> values = random.floats(200, -3, 3);
    const TensorPtr input = matrix_of(20, 10, values);
    for (const float rate : {0.1f, 0.5f, 0.75f, 1e-6f, 0.999f, 1.0f, 1.5f}) {
        SCOPED_TRACE(rate);
        const LayerPtr layer(zx_layer_dropout(rate));
        zx_rng_seed(3);
        ReferenceRng reference(generator_state());
        plant_record();
        const TensorPtr output = forward(layer, input, true);
        expect_untouched();
        ASSERT_NE(output, nullptr);
        EXPECT_NE(output.get(), input.get());
        EXPECT_EQ(output->dims[0], 20u);
        EXPECT_EQ(output->dims[1], 10u);
        const float scale = 1.0f / (1.0f - rate);
        std::vector<float> expected = values;
        for (float& x : expected) x = reference.uniform() >= rate ? x * scale : 0.0f;
        EXPECT_TRUE(same_numbers(contents(output.get()), expected));
        EXPECT_EQ(generator_state(), reference.state());
        EXPECT_TRUE(same_numbers(contents(input.get()), values));
    }
}

TEST(LayerForwardDropout, DoublesWhatIsKeptAtOneHalf) {
    const TensorPtr input = vector_of(std::vector<float>(1000, 3.0f));
    const LayerPtr layer(zx_layer_dropout(0.5f));
    zx_rng_seed(4);
    const TensorPtr output = forward(layer, input, true);
    ASSERT_NE(output, nullptr);
    int kept = 0;
    for (const float x : contents(output.get())) {
        EXPECT_TRUE(x == 0.0f || x == 6.0f) << x;
        kept += x != 0.0f;
    }
    EXPECT_NEAR(kept, 500, 80);
}

// The draw decides by >=: a draw of exactly 1 keeps an element even at rate 1, scaled by infinity.
TEST(LayerForwardDropout, KeepsAnElementWhoseDrawEqualsTheRate) {
    const TensorPtr input = vector_of({2.0f});
    const LayerPtr layer(zx_layer_dropout(1.0f));
    set_generator_state(state_that_draws(UINT64_MAX));
    const TensorPtr kept = forward(layer, input, true);
    EXPECT_TRUE(same_numbers(contents(kept.get()), {kInfinity}));

    const LayerPtr half(zx_layer_dropout(0.5f));
    set_generator_state(state_that_draws(std::uint64_t{1} << 63));
    EXPECT_TRUE(same_numbers(contents(forward(half, input, true).get()), {4.0f}));
    set_generator_state(state_that_draws((std::uint64_t{1} << 63) - (std::uint64_t{1} << 39)));
    EXPECT_TRUE(same_numbers(contents(forward(half, input, true).get()), {0.0f}));
}

TEST(LayerForward, RecordsACloneThatCannotBeMadeAndDrawsNothing) {
    std::vector<LayerPtr> layers;
    for (const zx_activation_t kind : kActivations) layers.emplace_back(zx_layer_activation(kind));
    layers.emplace_back(zx_layer_dropout(0.5f));
    const TensorPtr input = vector_of({1, 2});
    float number = 0.0f;
    const std::uint32_t dims[2] = {3, 0};
    const TensorPtr empty(zx_tensor_wrap(&number, 2, dims));
    zx_rng_seed(5);
    const ReferenceRng reference(generator_state());
    for (const LayerPtr& layer : layers) {
        SCOPED_TRACE(layer->type);
        for (std::uint64_t failing = 1; failing <= 2; ++failing) {
            plant_record();
            const FailingAllocator allocator(failing);
            EXPECT_EQ(forward(layer, input, true), nullptr);
            expect_recorded(
                100, "src/zx_memory",
                failing == 1 ? "Failed to allocate tensor" : "Failed to allocate tensor data");
        }
        plant_record();
        EXPECT_EQ(forward(layer, empty, true), nullptr);
        expect_recorded(5, "src/zx_memory", "Tensor size overflow");
    }
    EXPECT_EQ(generator_state(), reference.state());
}

// The rule of each activation, one rounding after the other. The rectifiers and everything else
// hand a NaN on.
float reference_activation(zx_activation_t kind, float x) {
    if (kind == 5) return x < 0.0f ? 0.0f : x;
    if (kind == 6) return x < 0.0f ? x * std::bit_cast<float>(0x3c23d70a) : x;
    if (kind == 7) {
        const float square = x * x;
        const float scaled = std::bit_cast<float>(0x3d372713) * x;
        const float cube = square * scaled;
        const float t = cube + x;
        const float inner = std::bit_cast<float>(0x3f4c422a) * t;
        const float shifted = std::tanh(inner) + 1.0f;
        const float halved = shifted * 0.5f;
        return halved * x;
    }
    if (kind == 8) {
        const float below = std::exp(-x) + 1.0f;
        return 1.0f / below;
    }
    return std::tanh(x);
}

TEST(LayerForwardActivation, FollowsItsFormulaBitByBit) {
    RandomNumbers random(3);
    std::vector<float> values = random.floats(500, -6, 6);
    const std::vector<float> wide = random.floats(500, -200, 200);
    values.insert(values.end(), wide.begin(), wide.end());
    for (const float special :
         {0.0f, -0.0f, 1e-20f, -1e-20f, 3e38f, -3e38f, kInfinity, -kInfinity, kNaN, 1.0f, -1.0f})
        values.push_back(special);
    for (const zx_activation_t kind : kActivations) {
        SCOPED_TRACE(kind);
        const LayerPtr layer(zx_layer_activation(kind));
        std::vector<float> expected = values;
        for (float& x : expected) x = reference_activation(kind, x);
        const TensorPtr input = vector_of(values);
        plant_record();
        for (const bool training : {false, true}) {
            const TensorPtr output = forward(layer, input, training);
            ASSERT_NE(output, nullptr);
            EXPECT_TRUE(same_numbers(contents(output.get()), expected));
        }
        expect_untouched();
        EXPECT_TRUE(same_numbers(contents(input.get()), values));
    }
}

TEST(LayerForwardActivation, GivesKnownValues) {
    const struct {
        const char* when;
        zx_activation_t kind;
        float x, expected;
    } cases[] = {
        {"rectifier of a negative number", 5, -3.5f, 0.0f},
        {"rectifier of a positive number", 5, 3.5f, 3.5f},
        {"rectifier of infinity", 5, kInfinity, kInfinity},
        {"rectifier of -infinity", 5, -kInfinity, 0.0f},
        {"rectifier of NaN", 5, kNaN, kNaN},
        {"leaky rectifier of -2", 6, -2.0f, -0.02f},
        {"leaky rectifier of 2", 6, 2.0f, 2.0f},
        {"GELU of 0", 7, 0.0f, 0.0f},
        {"GELU of a large number", 7, 50.0f, 50.0f},
        {"GELU of -infinity", 7, -kInfinity, kNaN},
        {"logistic of 0", 8, 0.0f, 0.5f},
        {"logistic of infinity", 8, kInfinity, 1.0f},
        {"logistic of -infinity", 8, -kInfinity, 0.0f},
        {"hyperbolic tangent of 0", 9, 0.0f, 0.0f},
        {"hyperbolic tangent of infinity", 9, kInfinity, 1.0f},
        {"hyperbolic tangent of -infinity", 9, -kInfinity, -1.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const LayerPtr layer(zx_layer_activation(c.kind));
        const TensorPtr output = forward(layer, vector_of({c.x}));
        ASSERT_NE(output, nullptr);
        EXPECT_TRUE(same_number(output->data[0], c.expected)) << output->data[0];
    }
}

TEST(LayerForwardActivation, UsesTheLayersOwnAlpha) {
    const LayerPtr layer(zx_layer_activation(6));
    layer->params.leaky_relu.alpha = -0.5f;
    const TensorPtr output = forward(layer, vector_of({-2, 2, -0.5f}));
    ASSERT_NE(output, nullptr);
    EXPECT_TRUE(same_numbers(contents(output.get()), {1, 2, 0.25f}));
}

TEST(LayerForwardActivation, KeepsTheShapeAndTakesTheHostData) {
    const std::uint32_t dims[4] = {2, 3, 1, 2};
    std::vector<float> values(12, -1.0f);
    const TensorPtr input(zx_tensor_wrap(values.data(), 4, dims));
    input->on_device = 1;
    for (const zx_activation_t kind : kActivations) {
        SCOPED_TRACE(kind);
        const TensorPtr output = forward(LayerPtr(zx_layer_activation(kind)), input);
        ASSERT_NE(output, nullptr);
        EXPECT_EQ(output->refcount, 1u);
        EXPECT_EQ(output->ndim, 4);
        for (std::size_t axis = 0; axis < 4; ++axis) EXPECT_EQ(output->dims[axis], dims[axis]);
        EXPECT_EQ(output->on_device, 0);
        EXPECT_EQ(output->owns_data, 1);
        const std::vector<float> expected(12, reference_activation(kind, -1.0f));
        EXPECT_TRUE(same_numbers(contents(output.get()), expected));
    }
    input->on_device = 0;
}

TEST(LayerForward, DoesNotLookAtTheLayersOwnMode) {
    const TensorPtr input = vector_of(std::vector<float>(100, 1.0f));
    const LayerPtr layer(zx_layer_dropout(0.5f));
    layer->training = 0;
    const TensorPtr dropped = forward(layer, input, true);
    EXPECT_NE(dropped.get(), input.get());
    layer->training = 1;
    const TensorPtr kept = forward(layer, input, false);
    EXPECT_EQ(kept.get(), input.get());
}

}  // namespace
}  // namespace zx::test
