// Losses between two tensors, for monitoring: the training functions do not use them.

#include "common/module.hpp"
#include "zorvex.h"

#include <cmath>
#include <cstdint>

namespace {

constexpr zx::Module kModule{"src/zx_train"};

zx_loss_config_t configuration(zx_loss_type_t type, float margin) {
    zx_loss_config_t config = {};
    config.type = type;
    config.margin = margin;
    config.reserved_flag = 1;
    return config;
}

// Only a record made by hand has elements and no data.
bool is_whole(const zx_tensor_t* tensor) {
    return tensor && (tensor->data || tensor->size == 0);
}

bool are_comparable(const zx_tensor_t* a, const zx_tensor_t* b) {
    return is_whole(a) && is_whole(b) && a->size == b->size;
}

float squared_error(float difference) {
    return difference * difference;
}

// -ln sigma(x), cut off where the exponential saturates, as in the BPR step.
float ranking_loss(float x) {
    if (x > 35.0f) return 0.0f;
    if (x < -35.0f) return -x;
    return std::log(std::exp(-x) + 1.0f);
}

// The mean of a term of a[i] - b[i]; without elements 0 / 0, deliberately.
template <typename Term>
float mean_term(const zx_tensor_t& a, const zx_tensor_t& b, Term term) {
    float sum = 0.0f;
    for (std::uint64_t i = 0; i < a.size; ++i) sum += term(a.data[i] - b.data[i]);
    return sum / static_cast<float>(a.size);
}

}  // namespace

zx_loss_config_t zx_loss_mse(void) {
    return configuration(ZX_LOSS_MSE, 1.0f);
}

zx_loss_config_t zx_loss_bpr(void) {
    return configuration(ZX_LOSS_BPR, 1.0f);
}

zx_loss_config_t zx_loss_contrastive(float margin) {
    return configuration(ZX_LOSS_CONTRASTIVE, margin);
}

float zx_loss_compute(zx_loss_config_t config, const zx_tensor_t* a, const zx_tensor_t* b) {
    if (config.type != ZX_LOSS_MSE && config.type != ZX_LOSS_BPR) {
        kModule.fail(ZX_ERR_INVALID_ARGUMENT, "Unknown loss type");
        return 0.0f;
    }
    if (!are_comparable(a, b)) return 0.0f;
    if (config.type == ZX_LOSS_BPR) return mean_term(*a, *b, ranking_loss);
    return mean_term(*a, *b, squared_error);
}

float zx_loss_backward(zx_loss_config_t config, const zx_tensor_t* a, const zx_tensor_t* b,
                       zx_tensor_t* grad) {
    // There is a gradient of the squared error only.
    if (config.type == ZX_LOSS_MSE && grad && grad->data && are_comparable(a, b)) {
        const float scale = 2.0f / static_cast<float>(a->size);
        for (std::uint64_t i = 0; i < a->size; ++i)
            grad->data[i] = (a->data[i] - b->data[i]) * scale;
    }
    return zx_loss_compute(config, a, b);
}
