// Neural layers: the record, its makers, and the forward pass of dense, dropout and activation
// layers. They stand beside the matrix-factorisation model, which does not use them.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_engine/rng.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace {

constexpr zx::Module kModule{"src/zx_model"};

// The last of the activation kinds; it has no name and no forward rule.
constexpr zx_activation_t kLastActivation = 10;

zx::LayerPtr make_layer(zx_layer_type_t type) {
    return zx::LayerPtr(zx_layer_create(type));
}

void fill_with_ones(zx_tensor_t& tensor) {
    std::fill_n(tensor.data, tensor.size, 1.0f);
}

// Whether the element accessors keep within a tensor: a wrapped one may have extents and no
// elements to go with them. What is not there is read as 0.
bool holds_its_rows(const zx_tensor_t* tensor) {
    return !tensor || std::uint64_t{tensor->dims[0]} * tensor->dims[1] <= tensor->size;
}

// Element by element through the accessors, which take whatever shape the tensors have.
zx_tensor_t* dense(const zx_layer_t& layer, const zx_tensor_t& input) {
    const zx_dense_params_t& params = layer.params.dense;
    if (params.in_features != input.dims[1] || !holds_its_rows(&input) ||
        !holds_its_rows(layer.weight))
        return kModule.fail_null(ZX_ERR_DIMENSION_MISMATCH, "Dense layer input dimension mismatch");
    const std::uint32_t batch = input.dims[0];
    const float* const bias = zx_tensor_data(layer.bias);
    const std::uint64_t biased = bias ? zx_tensor_size(layer.bias) : 0;
    zx_tensor_t* const output = zx_tensor_create_2d(batch, params.out_features);
    if (!output) return nullptr;
    for (std::uint32_t b = 0; b < batch; ++b) {
        for (std::uint32_t o = 0; o < params.out_features; ++o) {
            float sum = 0.0f;
            for (std::uint32_t k = 0; k < params.in_features; ++k)
                sum += zx_tensor_get_2d(layer.weight, o, k) * zx_tensor_get_2d(&input, b, k);
            if (o < biased) sum += bias[o];
            (void)zx_tensor_set_2d(output, b, o, sum);
        }
    }
    return output;
}

// Inverted dropout: what is kept is scaled up, so that the expected sum stays.
zx_tensor_t* dropout(float rate, const zx_tensor_t& input) {
    zx_tensor_t* const output = zx_tensor_clone(&input);
    if (!output) return nullptr;
    const float scale = 1.0f / (1.0f - rate);
    zx::Rng rng = zx::thread_rng();
    for (std::uint64_t i = 0; i < output->size; ++i) {
        float& x = output->data[i];
        x = zx::uniform(rng) >= rate ? x * scale : 0.0f;
    }
    zx::thread_rng() = rng;
    return output;
}

float gelu(float x) {
    const float t = (x * x) * (0.044715f * x) + x;
    return (std::tanh(0.7978846f * t) + 1.0f) * 0.5f * x;
}

float sigmoid(float x) {
    return 1.0f / (std::exp(-x) + 1.0f);
}

// Replaces each element by the function of it.
template <typename Function>
void apply(zx_tensor_t& tensor, Function function) {
    for (std::uint64_t i = 0; i < tensor.size; ++i) tensor.data[i] = function(tensor.data[i]);
}

zx_tensor_t* activation(const zx_layer_t& layer, const zx_tensor_t& input) {
    zx_tensor_t* const output = zx_tensor_clone(&input);
    if (!output) return nullptr;
    switch (layer.type) {
        case ZX_ACT_RELU:
            zx::simd::operations().relu(output->data, output->size);
            break;
        case ZX_ACT_LEAKY_RELU:
            apply(*output, [alpha = layer.params.leaky_relu.alpha](float x) {
                return x < 0.0f ? x * alpha : x;
            });
            break;
        case ZX_ACT_GELU:
            apply(*output, gelu);
            break;
        case ZX_ACT_SIGMOID:
            apply(*output, sigmoid);
            break;
        default:
            apply(*output, [](float x) { return std::tanh(x); });
    }
    return output;
}

}  // namespace

zx_layer_t* zx_layer_create(zx_layer_type_t type) {
    zx::AlignedPtr<zx_layer_t> layer = zx::make_zeroed<zx_layer_t>();
    if (!layer) return nullptr;
    layer->type = type;
    layer->trainable = 1;
    layer->training = 1;
    return layer.release();
}

zx_layer_t* zx_layer_activation(zx_activation_t kind) {
    if (kind < ZX_ACT_RELU || kind > kLastActivation) return nullptr;
    zx_layer_t* const layer = zx_layer_create(static_cast<zx_layer_type_t>(kind));
    if (!layer) return nullptr;
    layer->trainable = 0;
    if (kind == ZX_ACT_LEAKY_RELU) layer->params.leaky_relu.alpha = 0.01f;
    return layer;
}

zx_layer_t* zx_layer_dropout(float rate) {
    zx_layer_t* const layer = zx_layer_create(ZX_LAYER_DROPOUT);
    if (!layer) return nullptr;
    layer->params.dropout.rate = rate;
    layer->trainable = 0;
    return layer;
}

zx_layer_t* zx_layer_embedding(uint32_t num_embeddings, uint32_t embedding_dim) {
    zx::LayerPtr layer = make_layer(ZX_LAYER_EMBEDDING);
    if (!layer) return nullptr;
    layer->params.embedding = {num_embeddings, embedding_dim, -1.0f};
    layer->weight = zx_tensor_create_2d(num_embeddings, embedding_dim);
    if (!layer->weight) return nullptr;
    zx_rng_fill_xavier(layer->weight, num_embeddings, embedding_dim);
    return layer.release();
}

zx_layer_t* zx_layer_dense(uint32_t in_features, uint32_t out_features, bool use_bias) {
    zx::LayerPtr layer = make_layer(ZX_LAYER_DENSE);
    if (!layer) return nullptr;
    layer->params.dense.in_features = in_features;
    layer->params.dense.out_features = out_features;
    layer->params.dense.use_bias = use_bias;
    layer->weight = zx_tensor_create_2d(out_features, in_features);
    if (!layer->weight) return nullptr;
    zx_rng_fill_he(layer->weight, in_features);
    if (!use_bias) return layer.release();
    layer->bias = zx_tensor_create_1d(out_features);
    return layer->bias ? layer.release() : nullptr;
}

zx_layer_t* zx_layer_batch_norm(uint32_t num_features) {
    zx::LayerPtr layer = make_layer(ZX_LAYER_BATCH_NORM);
    if (!layer) return nullptr;
    layer->params.batch_norm = {num_features, 1e-5f, 0.1f};
    layer->weight = zx_tensor_create_1d(num_features);
    layer->bias = zx_tensor_create_1d(num_features);
    layer->running_mean = zx_tensor_create_1d(num_features);
    layer->running_var = zx_tensor_create_1d(num_features);
    if (!layer->weight || !layer->bias || !layer->running_mean || !layer->running_var)
        return nullptr;
    fill_with_ones(*layer->weight);
    fill_with_ones(*layer->running_var);
    return layer.release();
}

zx_tensor_t* zx_layer_forward(const zx_layer_t* layer, zx_tensor_t* input, bool training) {
    if (!layer || !input) return nullptr;
    switch (layer->type) {
        case ZX_LAYER_DENSE:
            return dense(*layer, *input);
        case ZX_LAYER_DROPOUT: {
            const float rate = layer->params.dropout.rate;
            return training && rate > 0.0f ? dropout(rate, *input) : zx_tensor_retain(input);
        }
        case ZX_ACT_RELU:
        case ZX_ACT_LEAKY_RELU:
        case ZX_ACT_GELU:
        case ZX_ACT_SIGMOID:
        case ZX_ACT_TANH:
            return activation(*layer, *input);
        default:  // embeddings and batch normalisation too, deliberately
            return kModule.fail_null(ZX_ERR_INVALID_LAYER, "Unknown layer type");
    }
}

void zx_layer_free(zx_layer_t* layer) {
    if (!layer) return;
    zx_tensor_release(layer->weight);
    zx_tensor_release(layer->bias);
    zx_tensor_release(layer->running_mean);
    zx_tensor_release(layer->running_var);
    for (zx_tensor_t* const tensor : layer->extra_tensors) zx_tensor_release(tensor);
    zx_free_aligned(layer);
}
