// Top-K recommendation: every item is scored in one pass over the item table, and the K best are
// kept in a binary min-heap (Knuth, "The Art of Computer Programming", volume 3, 5.2.3). The order
// of equal scores is the one this heap gives them up in; there is no second key.
//
// Scores that all differ come out of the heap in descending order, whatever went through it before.
// So for larger k the few candidates above a threshold are sorted, which takes a quarter of the
// time, and the heap decides where that shows equal scores.

#include "common/module.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_model/scratch.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
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

// Leaves the k best of the scores in the heap; an item that only equals the k-th best so far is not
// taken.
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

// For fewer the heap is as fast; for more, the threshold of so many groups lets too many scores by.
constexpr std::uint32_t kMinSorted = 24;
constexpr std::uint32_t kMaxSorted = 128;
constexpr std::uint32_t kGroups = 8 * kMaxSorted;
constexpr std::uint32_t kMaxCandidates = 2 * kMaxSorted;
// For more the second pass over the scores takes longer than the heap.
constexpr std::uint32_t kMaxScores = 1 << 18;

// Places the numbers from minus to plus infinity in their order, and takes them back.
std::int64_t place_of(float x) {
    const auto bits = std::bit_cast<std::int32_t>(x);
    return bits < 0 ? bits ^ INT32_MAX : bits;
}
float number_at(std::int64_t place) {
    const auto bits = static_cast<std::int32_t>(place);
    return std::bit_cast<float>(bits < 0 ? bits ^ INT32_MAX : bits);
}

// A number that at least k scores are greater than, and not many more: the k-th of the greatest
// scores of many groups, or what separates it from the next. Minus infinity if there is none.
float threshold_of(const float* scores, std::uint32_t count, std::uint32_t k) {
    const zx::simd::Operations& ops = zx::simd::operations();
    float maxima[kGroups];
    ops.group_maxima(scores, count, kGroups, maxima);
    std::int64_t low = place_of(-HUGE_VALF);
    std::int64_t high = place_of(HUGE_VALF);
    while (high - low > 1) {
        const std::int64_t middle = low + (high - low) / 2;
        const std::uint64_t above = ops.count_greater(maxima, kGroups, number_at(middle));
        if (above == k) return number_at(middle);
        (above > k ? low : high) = middle;
    }
    return number_at(low);
}

// Collects the scores above the threshold; 0 when there is no room for all of them.
std::uint32_t collect(const float* scores, std::uint32_t count, float threshold,
                      zx_scored_item_t* candidates) {
    const zx::simd::Operations& ops = zx::simd::operations();
    std::uint32_t found = 0;
    for (std::uint64_t i = 0;; ++i) {
        i = ops.find_greater(scores, i, count, threshold);
        if (i == count) return found;
        if (found == kMaxCandidates) return 0;
        candidates[found++] = {scores[i], static_cast<std::uint32_t>(i)};
    }
}

// Writes the k best, best first, if no two of them are equal and no other score equals the last;
// false if the heap must decide. Among the first k a NaN may stay in the heap.
bool sort_distinct_best(const float* scores, std::uint32_t count, std::uint32_t k,
                        std::uint32_t* out_items, float* out_scores) {
    if (k < kMinSorted || k > kMaxSorted || count < kGroups || count > kMaxScores) return false;
    if (std::any_of(scores, scores + k, [](float score) { return std::isnan(score); }))
        return false;

    zx_scored_item_t candidates[kMaxCandidates];
    const std::uint32_t found = collect(scores, count, threshold_of(scores, count, k), candidates);
    if (found < k) return false;
    const auto better = [](const zx_scored_item_t& a, const zx_scored_item_t& b) {
        return a.score > b.score;
    };
    std::sort(candidates, candidates + found, better);
    for (std::uint32_t j = 1; j < std::min(k + 1, found); ++j)
        if (!better(candidates[j - 1], candidates[j])) return false;

    for (std::uint32_t j = 0; j < k; ++j) {
        out_items[j] = candidates[j].item;
        out_scores[j] = candidates[j].score;
    }
    return true;
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
    if (sort_distinct_best(model->score_buf, model->num_items, kept, out_items, out_scores))
        return ZX_OK;
    keep_best(model->score_buf, model->num_items, model->heap_buf, kept);
    drain_best_first(model->heap_buf, kept, out_items, out_scores);
    return ZX_OK;
}
