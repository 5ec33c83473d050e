// Scores of a list of items for one user. A list that is exactly 0, 1, 2, ... is scored in place;
// any other one is gathered first, so that the scoring loop reads memory in sequence.

#include "common/module.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_model/scratch.hpp"

#include <cstring>

namespace {

constexpr zx::Module kModule{"src/zx_model"};

// Shorter lists are gathered without a look.
constexpr std::uint32_t kMinIdentityCount = 16;

bool is_identity(const std::uint32_t* ids, std::uint32_t count) {
    for (std::uint32_t j = 0; j < count; ++j)
        if (ids[j] != j) return false;
    return true;
}

void gather(const zx_model_t& model, const std::uint32_t* ids, std::uint32_t count, float* slots) {
    const std::uint64_t d = model.embedding_dim;
    const float* const table = model.item_embeddings->data;
    for (std::uint64_t j = 0; j < count; ++j) {
        if (ids[j] < model.num_items)
            std::memcpy(slots + j * d, table + ids[j] * d, d * sizeof(float));
        else
            std::memset(slots + j * d, 0, d * sizeof(float));
    }
}

}  // namespace

zx_status_t zx_model_score_items(zx_model_t* model, uint32_t user_id, const uint32_t* item_ids,
                                 uint32_t count, float* out_scores) {
    if (!model || !item_ids || !out_scores || count == 0) return ZX_ERR_NULL_POINTER;
    if (model->type != ZX_MODEL_MF)
        return kModule.fail(ZX_ERR_MODEL_TYPE_MISMATCH,
                            "zx_model_score_items only supports MF models");
    if (user_id >= model->num_users) return ZX_ERR_INDEX_OUT_OF_BOUNDS;

    const std::uint64_t d = model->embedding_dim;
    const float* const user_row = model->user_embeddings->data + user_id * d;
    const float* rows = model->item_embeddings->data;
    // A longer list than the model has items is gathered: its last ids are out of range.
    const bool in_place =
        count >= kMinIdentityCount && count <= model->num_items && is_identity(item_ids, count);
    if (!in_place) {
        if (d != 0 && count > INT64_MAX / d) return ZX_ERR_OVERFLOW;
        if (!zx::grow(model->gather_buf, model->gather_buf_cap, count * d))
            return ZX_ERR_OUT_OF_MEMORY;
        gather(*model, item_ids, count, model->gather_buf);
        rows = model->gather_buf;
    }
    zx::simd::operations().dot_rows(rows, count, user_row, d, out_scores);
    // Zeros times a user row that is not finite would be NaN.
    if (!in_place)
        for (std::uint32_t j = 0; j < count; ++j)
            if (item_ids[j] >= model->num_items) out_scores[j] = 0.0f;

    if (!model->use_bias) return ZX_OK;
    const float user_part = model->user_biases->data[user_id] + model->global_bias;
    const float* const item_biases = model->item_biases->data;
    for (std::uint32_t j = 0; j < count; ++j)
        if (item_ids[j] < model->num_items)
            out_scores[j] = (item_biases[item_ids[j]] + out_scores[j]) + user_part;
    return ZX_OK;
}
