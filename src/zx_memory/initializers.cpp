// Random initial values for tensors, drawn in element order from the calling thread's generator.

#include "zorvex.h"
#include "zx_engine/rng.hpp"

#include <cmath>

void zx_rng_fill_uniform(zx_tensor_t* tensor, float min, float max) {
    if (!tensor || !tensor->data || tensor->size == 0) return;
    // A local state stays in registers; the stores to data could change the thread's own.
    zx::Rng rng = zx::thread_rng();
    for (std::uint64_t i = 0; i < tensor->size; ++i)
        tensor->data[i] = zx::uniform_range(rng, min, max);
    zx::thread_rng() = rng;
}

zx_tensor_t* zx_tensor_rand_uniform(uint32_t rows, uint32_t cols, float min, float max) {
    zx_tensor_t* const tensor = zx_tensor_create_2d(rows, cols);
    if (tensor) zx_rng_fill_uniform(tensor, min, max);
    return tensor;
}

void zx_rng_fill_xavier(zx_tensor_t* tensor, uint32_t fan_in, uint32_t fan_out) {
    const float bound = std::sqrt(6.0f / static_cast<float>(fan_in + fan_out));
    zx_rng_fill_uniform(tensor, -bound, bound);
}

void zx_rng_fill_he(zx_tensor_t* tensor, uint32_t fan_in) {
    if (!tensor || !tensor->data) return;
    const float deviation = std::sqrt(2.0f / static_cast<float>(fan_in));
    zx::Rng& rng = zx::thread_rng();
    for (std::uint64_t i = 0; i < tensor->size; ++i) tensor->data[i] = zx::normal(rng) * deviation;
}
