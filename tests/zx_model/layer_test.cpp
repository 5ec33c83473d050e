// Layers: what each maker sets and draws, and what freeing one releases.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "generator_state.hpp"
#include "model_records.hpp"
#include "owned.hpp"
#include "zorvex.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {
namespace {

// Hosts look into the record, so its layout is part of the interface.
static_assert(offsetof(zx_layer_t, params) == 4);
static_assert(sizeof(zx_layer_params_t) == 12);
static_assert(offsetof(zx_dense_params_t, use_bias) == 8);
static_assert(offsetof(zx_layer_t, weight) == 16);
static_assert(offsetof(zx_layer_t, bias) == 24);
static_assert(offsetof(zx_layer_t, running_mean) == 32);
static_assert(offsetof(zx_layer_t, running_var) == 40);
static_assert(offsetof(zx_layer_t, extra_tensors) == 48);
static_assert(offsetof(zx_layer_t, trainable) == 88);
static_assert(offsetof(zx_layer_t, training) == 89);
static_assert(sizeof(zx_layer_t) == 96);

using Words = std::array<std::uint32_t, 3>;

void expect_record(const LayerPtr& layer, zx_layer_type_t type, const Words& words,
                   std::uint8_t trainable) {
    ASSERT_NE(layer, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(layer.get()) % 128, 0u);
    EXPECT_EQ(layer->type, type);
    Words actual;
    std::memcpy(actual.data(), &layer->params, sizeof(actual));
    EXPECT_EQ(actual, words);
    EXPECT_EQ(layer->trainable, trainable);
    EXPECT_EQ(layer->training, 1);
    for (const zx_tensor_t* extra : layer->extra_tensors) EXPECT_EQ(extra, nullptr);
}

void expect_shape(const zx_tensor_t* tensor, const std::vector<std::uint32_t>& dims) {
    ASSERT_NE(tensor, nullptr);
    EXPECT_EQ(tensor->refcount, 1u);
    ASSERT_EQ(tensor->ndim, dims.size());
    for (std::size_t axis = 0; axis < dims.size(); ++axis)
        EXPECT_EQ(tensor->dims[axis], dims[axis]);
}

void expect_no_tensors(const zx_layer_t& layer) {
    EXPECT_EQ(layer.weight, nullptr);
    EXPECT_EQ(layer.bias, nullptr);
    EXPECT_EQ(layer.running_mean, nullptr);
    EXPECT_EQ(layer.running_var, nullptr);
}

TEST(LayerKinds, HaveTheirNumbers) {
    EXPECT_EQ(ZX_LAYER_EMBEDDING, 0);
    EXPECT_EQ(ZX_LAYER_DENSE, 1);
    EXPECT_EQ(ZX_LAYER_BATCH_NORM, 2);
    EXPECT_EQ(ZX_LAYER_DROPOUT, 4);
    EXPECT_EQ(ZX_ACT_RELU, 5);
    EXPECT_EQ(ZX_ACT_LEAKY_RELU, 6);
    EXPECT_EQ(ZX_ACT_GELU, 7);
    EXPECT_EQ(ZX_ACT_SIGMOID, 8);
    EXPECT_EQ(ZX_ACT_TANH, 9);
}

TEST(LayerCreate, MakesABareLayerOfAnyType) {
    plant_record();
    for (const zx_layer_type_t type : {0u, 1u, 2u, 3u, 4u, 9u, 10u, 11u, 0xffffffffu}) {
        SCOPED_TRACE(type);
        const LayerPtr layer(zx_layer_create(type));
        expect_record(layer, type, {0, 0, 0}, 1);
        expect_no_tensors(*layer);
    }
    expect_untouched();
}

TEST(LayerActivation, TakesTheKindsFromFiveToTen) {
    plant_record();
    for (const zx_activation_t kind : {5, 6, 7, 8, 9, 10}) {
        SCOPED_TRACE(kind);
        const LayerPtr layer(zx_layer_activation(kind));
        const std::uint32_t alpha = kind == 6 ? 0x3c23d70a : 0;
        expect_record(layer, static_cast<zx_layer_type_t>(kind), {alpha, 0, 0}, 0);
        expect_no_tensors(*layer);
    }
    for (const zx_activation_t kind : {4, 11, 0, 1, -1, INT32_MIN, INT32_MAX}) {
        SCOPED_TRACE(kind);
        EXPECT_EQ(zx_layer_activation(kind), nullptr);
    }
    expect_untouched();
}

TEST(LayerDropout, TakesAnyRate) {
    plant_record();
    for (const float rate : {0.0f, 0.5f, 1.0f, -3.0f, 2.0f, kInfinity}) {
        SCOPED_TRACE(rate);
        const LayerPtr layer(zx_layer_dropout(rate));
        expect_record(layer, 4, {std::bit_cast<std::uint32_t>(rate), 0, 0}, 0);
        expect_no_tensors(*layer);
    }
    expect_untouched();
}

TEST(LayerEmbedding, DrawsItsTableByItsTwoExtents) {
    zx_rng_seed(1);
    ReferenceRng reference(generator_state());
    plant_record();
    const LayerPtr layer(zx_layer_embedding(5, 3));
    expect_record(layer, 0, {5, 3, 0xbf800000}, 1);
    expect_shape(layer->weight, {5, 3});
    EXPECT_EQ(layer->bias, nullptr);
    EXPECT_EQ(layer->running_mean, nullptr);
    EXPECT_EQ(layer->running_var, nullptr);
    const float bound = std::sqrt(6.0f / 8.0f);
    std::vector<float> expected(15);
    for (float& x : expected) x = reference.uniform_range(-bound, bound);
    EXPECT_TRUE(same_numbers(contents(layer->weight), expected));
    EXPECT_EQ(generator_state(), reference.state());
    expect_untouched();
}

TEST(LayerDense, DrawsAWeightRowForEachOutputByItsInputs) {
    for (const bool use_bias : {false, true}) {
        SCOPED_TRACE(use_bias);
        zx_rng_seed(2);
        ReferenceRng reference(generator_state());
        plant_record();
        const LayerPtr layer(zx_layer_dense(8, 3, use_bias));
        expect_record(layer, 1, {8, 3, use_bias ? 1u : 0u}, 1);
        EXPECT_EQ(layer->params.dense.use_bias, use_bias ? 1 : 0);
        expect_shape(layer->weight, {3, 8});
        EXPECT_EQ(layer->running_mean, nullptr);
        EXPECT_EQ(layer->running_var, nullptr);
        std::vector<float> expected(24);
        for (float& x : expected) x = reference.normal() * 0.5f;  // the square root of 2 / 8
        EXPECT_TRUE(same_numbers(contents(layer->weight), expected));
        EXPECT_EQ(generator_state(), reference.state());
        EXPECT_EQ(layer->bias != nullptr, use_bias);
        if (use_bias) {
            expect_shape(layer->bias, {3});
            EXPECT_TRUE(same_numbers(contents(layer->bias), {0, 0, 0}));
        }
        expect_untouched();
    }
}

TEST(LayerBatchNorm, BeginsAsTheIdentity) {
    zx_rng_seed(3);
    const ReferenceRng reference(generator_state());
    plant_record();
    const LayerPtr layer(zx_layer_batch_norm(3));
    expect_record(layer, 2, {3, 0x3727c5ac, 0x3dcccccd}, 1);
    const struct {
        const char* name;
        const zx_tensor_t* tensor;
        float value;
    } cases[] = {
        {"scale", layer->weight, 1.0f},
        {"shift", layer->bias, 0.0f},
        {"running mean", layer->running_mean, 0.0f},
        {"running variance", layer->running_var, 1.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expect_shape(c.tensor, {3});
        EXPECT_TRUE(same_numbers(contents(c.tensor), std::vector<float>(3, c.value)));
    }
    EXPECT_EQ(generator_state(), reference.state());
    expect_untouched();
}

// Each maker with the allocations it makes: a record, and two for each tensor.
struct Maker {
    const char* name;
    std::uint64_t tensors;
    std::function<zx_layer_t*()> make;
};

const Maker kMakers[] = {
    {"bare", 0, [] { return zx_layer_create(1); }},
    {"activation", 0, [] { return zx_layer_activation(6); }},
    {"dropout", 0, [] { return zx_layer_dropout(0.5f); }},
    {"embedding", 1, [] { return zx_layer_embedding(4, 2); }},
    {"dense", 1, [] { return zx_layer_dense(4, 2, false); }},
    {"dense with bias", 2, [] { return zx_layer_dense(4, 2, true); }},
    {"batch normalisation", 4, [] { return zx_layer_batch_norm(4); }},
};

TEST(Layer, IsNotMadeWhenMemoryIsShort) {
    for (const Maker& maker : kMakers) {
        SCOPED_TRACE(maker.name);
        const std::uint64_t allocations = 1 + 2 * maker.tensors;
        for (std::uint64_t failing = 1; failing <= allocations + 1; ++failing) {
            SCOPED_TRACE(failing);
            plant_record();
            const FailingAllocator allocator(failing);
            const LayerPtr layer(maker.make());
            EXPECT_EQ(layer == nullptr, failing <= allocations);
            EXPECT_EQ(allocator.failed(), failing <= allocations);
            if (failing == 1 || failing > allocations)
                expect_untouched();
            else
                expect_recorded(100, "src/zx_memory",
                                failing % 2 == 0 ? "Failed to allocate tensor"
                                                 : "Failed to allocate tensor data");
        }
    }
}

TEST(LayerBatchNorm, AsksForAllItsTensorsBeforeItGivesUp) {
    const FailingAllocator allocator(2);
    EXPECT_EQ(zx_layer_batch_norm(4), nullptr);
    EXPECT_EQ(allocator.requests(), 8u) << "the record, a record that fails, three whole tensors";
}

TEST(Layer, IsNotMadeWithoutExtents) {
    const Maker makers[] = {
        {"no rows", 0, [] { return zx_layer_embedding(0, 4); }},
        {"no dimension", 0, [] { return zx_layer_embedding(4, 0); }},
        {"no inputs", 0, [] { return zx_layer_dense(0, 4, true); }},
        {"no outputs", 0, [] { return zx_layer_dense(4, 0, true); }},
        {"no features", 0, [] { return zx_layer_batch_norm(0); }},
    };
    zx_rng_seed(4);
    const ReferenceRng reference(generator_state());
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        plant_record();
        EXPECT_EQ(maker.make(), nullptr);
        expect_recorded(5, "src/zx_memory", "Tensor size overflow");
    }
    EXPECT_EQ(generator_state(), reference.state());
}

TEST(LayerFree, ReleasesEveryTensor) {
    const TensorPtr tensor(zx_tensor_create_1d(2));
    LayerPtr layer(zx_layer_create(7));
    layer->weight = zx_tensor_retain(tensor.get());
    layer->bias = zx_tensor_retain(tensor.get());
    layer->running_mean = zx_tensor_retain(tensor.get());
    layer->running_var = zx_tensor_retain(tensor.get());
    for (zx_tensor_t*& extra : layer->extra_tensors) extra = zx_tensor_retain(tensor.get());
    EXPECT_EQ(tensor->refcount, 10u);
    layer.reset();
    EXPECT_EQ(tensor->refcount, 1u);
}

TEST(LayerFree, IgnoresNull) {
    plant_record();
    zx_layer_free(nullptr);
    expect_untouched();
}

}  // namespace
}  // namespace zx::test
