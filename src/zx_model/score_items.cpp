// Scores of a list of items for one user. A list that is exactly 0, 1, 2, ... is scored in table
// order; the rows of any other one are read where they stand.

#include "common/module.hpp"
#include "common/prefetch.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_model/scratch.hpp"

#include <algorithm>

namespace {

constexpr zx::Module kModule{"src/zx_model"};

// Shorter lists are not looked at.
constexpr std::uint32_t kMinIdentityCount = 16;

bool is_identity(const std::uint32_t* ids, std::uint32_t count) {
    return ids[0] == 0 && zx::simd::operations().is_identity(ids, count);
}

// A batch of items at a time, while the rows of later ones are on their way. An item that the
// model does not have stands for the user row, which is there to be read, and scores 0 whatever
// that row holds.
void score_listed(const zx_model_t& model, const float* user_row, const std::uint32_t* ids,
                  std::uint32_t count, float* scores) {
    constexpr std::uint64_t kBatch = zx::simd::kGatherBatch;
    const zx::simd::Operations& ops = zx::simd::operations();
    const std::uint64_t d = model.embedding_dim;
    const auto row_of = [&](std::uint32_t id) {
        return id < model.num_items ? model.item_embeddings->data + id * d : user_row;
    };
    for (std::uint64_t first = 0; first < count; first += kBatch) {
        const std::uint64_t items = std::min(kBatch, count - first);
        const std::uint64_t fetch_end =
            std::min<std::uint64_t>(first + zx::kRowsAhead + kBatch, count);
        for (std::uint64_t j = first + zx::kRowsAhead; j < fetch_end; ++j)
            zx::prefetch_row<zx::Fetch::kToRead>(row_of(ids[j]), d);
        const float* rows[kBatch];
        for (std::uint64_t j = 0; j < items; ++j) rows[j] = row_of(ids[first + j]);
        ops.dot_gathered(rows, items, user_row, d, scores + first);
    }
    for (std::uint32_t j = 0; j < count; ++j)
        if (ids[j] >= model.num_items) scores[j] = 0.0f;
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
    // A longer list than the model has items is not: its last ids are out of range.
    if (count >= kMinIdentityCount && count <= model->num_items && is_identity(item_ids, count)) {
        zx::simd::operations().dot_rows(model->item_embeddings->data, count, user_row, d,
                                        out_scores);
    } else {
        if (d != 0 && count > INT64_MAX / d) return ZX_ERR_OVERFLOW;
        // The record promises room for the rows of the longest list, whether or not a list can be
        // scored depends on it, and nothing else needs it: copies would be read only once.
        if (!zx::grow(model->gather_buf, model->gather_buf_cap, count * d))
            return ZX_ERR_OUT_OF_MEMORY;
        score_listed(*model, user_row, item_ids, count, out_scores);
    }

    if (!model->use_bias) return ZX_OK;
    const float user_part = model->user_biases->data[user_id] + model->global_bias;
    const float* const item_biases = model->item_biases->data;
    for (std::uint32_t j = 0; j < count; ++j)
        if (item_ids[j] < model->num_items)
            out_scores[j] = (item_biases[item_ids[j]] + out_scores[j]) + user_part;
    return ZX_OK;
}
