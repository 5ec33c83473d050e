// Scores of (user, item) pairs. The rows are read straight from the tables: copying them out first
// would only be read once.

#include "common/ids.hpp"
#include "common/module.hpp"
#include "common/owned.hpp"
#include "common/prefetch.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_gpu/device_batch.hpp"

#include <algorithm>

namespace {

constexpr zx::Module kModule{"src/zx_model"};

// out[j] = dot(user row j, item row j), a batch of pairs at a time while the rows of later ones are
// on their way.
void dot_pairs(const zx_model_t& model, const std::uint32_t* users, const std::uint32_t* items,
               std::uint32_t count, float* out) {
    constexpr std::uint64_t kBatch = zx::simd::kGatherBatch;
    const zx::simd::Operations& ops = zx::simd::operations();
    const std::uint64_t d = model.embedding_dim;
    const float* const user_table = model.user_embeddings->data;
    const float* const item_table = model.item_embeddings->data;
    for (std::uint64_t first = 0; first < count; first += kBatch) {
        const std::uint64_t pairs = std::min(kBatch, count - first);
        const std::uint64_t fetch_end =
            std::min<std::uint64_t>(first + zx::kRowsAhead + kBatch, count);
        for (std::uint64_t j = first + zx::kRowsAhead; j < fetch_end; ++j) {
            zx::prefetch_row<zx::Fetch::kToRead>(user_table + users[j] * d, d);
            zx::prefetch_row<zx::Fetch::kToRead>(item_table + items[j] * d, d);
        }
        const float* user_rows[kBatch];
        const float* item_rows[kBatch];
        for (std::uint64_t j = 0; j < pairs; ++j) {
            user_rows[j] = user_table + users[first + j] * d;
            item_rows[j] = item_table + items[first + j] * d;
        }
        ops.dot_pairs(user_rows, item_rows, pairs, d, out + first);
    }
}

// Null after any failure, which is no news: the host computes the same.
zx_tensor_t* score_on_device(const zx_model_t& model, const std::uint32_t* users,
                             const std::uint32_t* items, std::uint32_t count) {
    zx::TensorPtr scores(zx_tensor_create_1d(count));
    if (!scores) return nullptr;
    if (zx_gpu_batched_score(model.user_embeddings, model.item_embeddings,
                             model.use_bias ? model.item_biases : nullptr, users, items,
                             scores.get(), count, model.use_bias != 0) != ZX_OK)
        return nullptr;
    if (model.use_bias) {
        const float* const user_biases = model.user_biases->data;
        for (std::uint32_t j = 0; j < count; ++j)
            scores->data[j] = (user_biases[users[j]] + scores->data[j]) + model.global_bias;
    }
    return scores.release();
}

zx_tensor_t* score_on_host(const zx_model_t& model, const std::uint32_t* users,
                           const std::uint32_t* items, std::uint32_t count) {
    if (model.type != ZX_MODEL_MF)
        return kModule.fail_null(ZX_ERR_MODEL_TYPE_MISMATCH, "Unsupported model type");
    // Rows without elements are refused as the lookups refuse them.
    if (model.embedding_dim == 0) return zx_tensor_create_2d(count, 0);
    // Both sides are looked at whatever the first one says; the items' record is the one that
    // stays.
    const bool users_known = zx::all_below(users, count, model.num_users);
    if (!users_known) kModule.fail(ZX_ERR_INDEX_OUT_OF_BOUNDS, "User ID out of bounds");
    if (!zx::all_below(items, count, model.num_items))
        return kModule.fail_null(ZX_ERR_INDEX_OUT_OF_BOUNDS, "Item ID out of bounds");
    if (!users_known) return nullptr;

    zx_tensor_t* const scores = zx_tensor_create_1d(count);
    if (!scores) return nullptr;
    float* const out = scores->data;
    dot_pairs(model, users, items, count, out);
    if (model.use_bias) {
        const float* const user_biases = model.user_biases->data;
        const float* const item_biases = model.item_biases->data;
        for (std::uint32_t j = 0; j < count; ++j)
            out[j] = (user_biases[users[j]] + item_biases[items[j]]) + (out[j] + model.global_bias);
    }
    return scores;
}

}  // namespace

zx_tensor_t* zx_model_score(const zx_model_t* model, const uint32_t* users, const uint32_t* items,
                            uint32_t count) {
    if (!model || !users || !items || count == 0) return nullptr;
    if (model->type == ZX_MODEL_MF && zx::gpu::device_takes(count))
        if (zx_tensor_t* const scores = score_on_device(*model, users, items, count)) return scores;
    return score_on_host(*model, users, items, count);
}
