// The sampled hit rate. The scores are read straight from the tables; what a lookup of an id that
// the model does not have would record is recorded all the same, by that lookup.

#include "common/owned.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_engine/rng.hpp"

namespace {

// The user's embedding row; null, with the lookup's record, if there is none.
const float* user_row(const zx_model_t& model, std::uint32_t user) {
    if (model.type == ZX_MODEL_MF && model.embedding_dim != 0 && user < model.num_users)
        return model.user_embeddings->data + std::uint64_t{user} * model.embedding_dim;
    const zx::TensorPtr refused(zx_model_forward_user(&model, &user, 1));
    return nullptr;
}

const float* item_row(const zx_model_t& model, std::uint64_t item) {
    if (item < model.num_items) return model.item_embeddings->data + item * model.embedding_dim;
    // An index of 2^32 is out of range as well, and so is the number that stands for it.
    const std::uint32_t beyond = model.num_items;
    const zx::TensorPtr refused(zx_model_forward_item(&model, &beyond, 1));
    return nullptr;
}

}  // namespace

float zx_metric_hit_rate(const zx_model_t* model, const uint32_t* users, const uint32_t* items,
                         uint32_t count, uint32_t k) {
    if (!model || !users || !items || count == 0) return 0.0f;
    const std::uint32_t max_draws = k * 10;  // wraps in 32 bits, deliberately
    const bool samples = max_draws != 0 && k != 0;
    const auto num_items = static_cast<float>(model->num_items);
    const std::uint64_t d = model->embedding_dim;
    const zx::simd::Operations& ops = zx::simd::operations();
    zx::Rng rng = zx::thread_rng();

    std::uint32_t hits = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const float* const user = user_row(*model, users[i]);
        if (!user) continue;
        const float* const held_out = item_row(*model, items[i]);
        const float target = held_out ? ops.dot(user, held_out, d) : 0.0f;

        std::uint64_t rank = 1;
        if (samples)
            for (std::uint32_t draws = 0; draws < max_draws && rank <= k; ++draws) {
                const float* const item = item_row(*model, zx::uniform_index(rng, num_items));
                if (item && ops.dot(user, item, d) > target) ++rank;
            }
        if (rank <= k) ++hits;
    }
    zx::thread_rng() = rng;
    return static_cast<float>(hits) / static_cast<float>(count);
}
