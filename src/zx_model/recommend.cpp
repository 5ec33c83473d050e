// Top-K recommendation: every item is scored in one pass over the item table, and the K best are
// kept in a binary min-heap (Knuth, "The Art of Computer Programming", volume 3, 5.2.3). The order
// of equal scores is the one this heap gives them up in; there is no second key.

#include "common/module.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_model/scratch.hpp"

#include <algorithm>
#include <utility>

namespace {

constexpr zx::Module kModule{"src/zx_model"};

void score_all_items(const zx_model_t& model, std::uint32_t user, float* scores) {
    const std::uint64_t d = model.embedding_dim;
    zx::simd::operations().dot_rows(model.item_embeddings->data, model.num_items,
                                    model.user_embeddings->data + user * d, d, scores);
    if (!model.use_bias) return;
    const float user_part = model.user_biases->data[user] + model.global_bias;
    const float* const item_biases = model.item_biases->data;
    for (std::uint32_t i = 0; i < model.num_items; ++i)
        scores[i] = (item_biases[i] + user_part) + scores[i];
}

// Restores the heap below entry p. Strict comparisons: of two equal children the left one rises,
// and an entry equal to its smaller child stays.
void sift_down(zx_scored_item_t* heap, std::uint32_t p, std::uint32_t size) {
    for (;;) {
        const std::uint64_t left = 2 * std::uint64_t{p} + 1;
        const std::uint64_t right = left + 1;
        std::uint64_t smallest = p;
        if (left < size && heap[left].score < heap[smallest].score) smallest = left;
        if (right < size && heap[right].score < heap[smallest].score) smallest = right;
        if (smallest == p) return;
        std::swap(heap[p], heap[smallest]);
        p = static_cast<std::uint32_t>(smallest);
    }
}

// Leaves the k best of the scores in the heap; an item that only equals the
// k-th best so far is not taken.
void keep_best(const float* scores, std::uint32_t count, zx_scored_item_t* heap, std::uint32_t k) {
    for (std::uint32_t j = 0; j < k; ++j) heap[j] = {scores[j], j};
    for (std::uint32_t p = k / 2; p-- > 0;) sift_down(heap, p, k);

    const zx::simd::Operations& ops = zx::simd::operations();
    for (std::uint64_t i = k;; ++i) {
        i = ops.find_greater(scores, i, count, heap[0].score);
        if (i == count) return;
        heap[0] = {scores[i], static_cast<std::uint32_t>(i)};
        sift_down(heap, 0, k);
    }
}

void drain_best_first(zx_scored_item_t* heap, std::uint32_t k, std::uint32_t* out_items,
                      float* out_scores) {
    for (std::uint32_t pos = k; pos-- > 0;) {
        out_items[pos] = heap[0].item;
        out_scores[pos] = heap[0].score;
        if (pos > 0) {
            heap[0] = heap[pos];
            sift_down(heap, 0, pos);
        }
    }
}

}  // namespace

zx_status_t zx_recommend(zx_model_t* model, uint32_t user_id, uint32_t k, uint32_t* out_items,
                         float* out_scores) {
    if (!model || !out_items || !out_scores || k == 0) return ZX_ERR_NULL_POINTER;
    if (model->type != ZX_MODEL_MF)
        return kModule.fail(ZX_ERR_MODEL_TYPE_MISMATCH, "zx_recommend only supports MF models");
    if (user_id >= model->num_users) return ZX_ERR_INDEX_OUT_OF_BOUNDS;

    if (!zx::grow(model->score_buf, model->score_buf_cap, model->num_items))
        return ZX_ERR_OUT_OF_MEMORY;
    const std::uint32_t kept = std::min(k, model->num_items);
    score_all_items(*model, user_id, model->score_buf);

    if (!zx::grow(model->heap_buf, model->heap_buf_cap, kept)) return ZX_ERR_OUT_OF_MEMORY;
    keep_best(model->score_buf, model->num_items, model->heap_buf, kept);
    drain_best_first(model->heap_buf, kept, out_items, out_scores);
    return ZX_OK;
}
