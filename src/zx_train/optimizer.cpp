// Optimiser configurations, and the optimiser object that keeps books of steps and state but leaves
// the updates to the training functions.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"

namespace {

constexpr zx::Module kModule{"src/zx_train"};

bool has_first_moment(zx_optimizer_type_t type) {
    return type == ZX_OPT_SGD_MOMENTUM || type == ZX_OPT_ADAM || type == ZX_OPT_ADAMW;
}

bool has_second_moment(zx_optimizer_type_t type) {
    return type == ZX_OPT_ADAM || type == ZX_OPT_ADAMW;
}

// An array for tensors to come; null, which is tolerated, if memory is short.
zx_tensor_t** make_state(std::uint32_t count) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the elements are pointers
    return static_cast<zx_tensor_t**>(zx_calloc_aligned(count, sizeof(zx_tensor_t*)));
}

void free_state(zx_tensor_t** tensors, std::uint32_t count) {
    if (!tensors) return;
    for (std::uint32_t i = 0; i < count; ++i) zx_tensor_release(tensors[i]);
    zx_free_aligned(tensors);
}

}  // namespace

zx_optimizer_config_t zx_optimizer_sgd(float learning_rate) {
    zx_optimizer_config_t config = {};
    config.type = ZX_OPT_SGD;
    config.learning_rate = learning_rate;
    config.epsilon = 1e-8f;
    return config;
}

zx_optimizer_config_t zx_optimizer_sgd_momentum(float learning_rate, float momentum) {
    zx_optimizer_config_t config = zx_optimizer_sgd(learning_rate);
    config.type = ZX_OPT_SGD_MOMENTUM;
    config.momentum = momentum;
    return config;
}

zx_optimizer_config_t zx_optimizer_adam(float learning_rate) {
    zx_optimizer_config_t config = {};
    config.type = ZX_OPT_ADAM;
    config.learning_rate = learning_rate;
    config.beta1 = 0.9f;
    config.beta2 = 0.999f;
    config.epsilon = 1e-8f;
    return config;
}

zx_optimizer_config_t zx_optimizer_adamw(float learning_rate, float weight_decay) {
    zx_optimizer_config_t config = zx_optimizer_adam(learning_rate);
    config.type = ZX_OPT_ADAMW;
    config.weight_decay = weight_decay;
    return config;
}

zx_optimizer_config_t zx_optimizer_als(float regularization) {
    zx_optimizer_config_t config = {};
    config.type = ZX_OPT_ALS;
    config.epsilon = 1e-8f;
    config.regularization = regularization;
    return config;
}

zx_optimizer_t* zx_optimizer_create(const zx_model_t* model, zx_optimizer_config_t config) {
    zx::AlignedPtr<zx_optimizer_t> optimizer = zx::make_zeroed<zx_optimizer_t>();
    if (!optimizer) return nullptr;
    optimizer->config = config;
    if (!has_first_moment(config.type) || !model || model->type != ZX_MODEL_MF)
        return optimizer.release();

    // A state tensor for each of the model's: two tables and, with biases, two vectors.
    optimizer->num_state = model->use_bias ? 4 : 2;
    optimizer->first_moment = make_state(optimizer->num_state);
    if (has_second_moment(config.type)) optimizer->second_moment = make_state(optimizer->num_state);
    return optimizer.release();
}

void zx_optimizer_free(zx_optimizer_t* optimizer) {
    if (!optimizer) return;
    free_state(optimizer->first_moment, optimizer->num_state);
    free_state(optimizer->second_moment, optimizer->num_state);
    zx_free_aligned(optimizer);
}

zx_status_t zx_optimizer_step(zx_optimizer_t* optimizer, zx_model_t* model) {
    if (!optimizer || !model) return ZX_ERR_NULL_POINTER;
    ++optimizer->step_count;
    return kModule.fail(ZX_ERR_MODEL_NOT_CONFIGURED,
                        "Use zx_model_train_step_bpr for BPR training");
}

void zx_optimizer_zero_grad(zx_optimizer_t* /*optimizer*/) {}
