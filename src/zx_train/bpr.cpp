// The BPR training step: stochastic gradient ascent on ln sigma(x) over triples, one after the
// other (Rendle, Freudenthaler, Gantner, Schmidt-Thieme, UAI 2009).

#include "common/module.hpp"
#include "common/owned.hpp"
#include "common/prefetch.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_gpu/device_batch.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>

namespace {

constexpr zx::Module kModule{"src/zx_train"};

// Up to this dimension the old user row is kept on the stack; above it, small batches do without.
constexpr std::uint32_t kStackDim = 512;
constexpr std::uint32_t kHeapBatch = 256;

// How many triples ahead their rows are fetched: enough to cover a miss, few enough to stay in the
// first cache.
constexpr std::uint32_t kPrefetchDistance = 8;

struct Batch {
    const std::uint32_t* users;
    const std::uint32_t* pos_items;
    const std::uint32_t* neg_items;
    std::uint32_t count;
};

struct Rows {
    float* w;  // user
    float* p;  // positive item
    float* n;  // negative item
};

// learning_rate * sigma(-x), cut off where the exponential saturates.
float step_factor(float x, float learning_rate) {
    if (x > 35.0f) return 0.0f;
    if (x < -35.0f) return learning_rate;
    return learning_rate * (1.0f / (1.0f + std::exp(x)));
}

bool overlap(const float* a, const float* b, std::uint32_t d) {
    return a < b + d && b < a + d;
}

// The passes one after the other, each over the whole row: what the update means when rows overlap
// (a positive that is its negative, one tensor for users and items) or when there is no copy of the
// old user row, and the user row is then its own, already updated, source.
void update_in_passes(const Rows& rows, std::uint32_t d, float decay, float g, float* old_row) {
    const auto shrink = [&](float* row) {
        for (std::uint32_t k = 0; k < d; ++k) row[k] = row[k] * decay;
    };
    const auto move = [&](float* row, float step, const float* along) {
        for (std::uint32_t k = 0; k < d; ++k) row[k] = row[k] + step * along[k];
    };
    if (old_row) std::memcpy(old_row, rows.w, d * sizeof(float));
    const float* const source = old_row ? old_row : rows.w;
    shrink(rows.w);
    move(rows.w, g, rows.p);
    move(rows.w, -g, rows.n);
    shrink(rows.p);
    move(rows.p, g, source);
    shrink(rows.n);
    move(rows.n, -g, source);
}

class Step {
  public:
    Step(zx_model_t& model, const Batch& batch, float learning_rate, float regularization,
         float* old_row)
        : model_(model),
          batch_(batch),
          learning_rate_(learning_rate),
          decay_(1.0f - learning_rate * regularization),
          old_row_(old_row) {}

    void run() {
        for (std::uint32_t i = 0; i < batch_.count; ++i) {
            if (batch_.count - i > kPrefetchDistance && accepts(i + kPrefetchDistance)) {
                const Rows ahead = rows(i + kPrefetchDistance);
                zx::prefetch_row<zx::Fetch::kToWrite>(ahead.w, model_.embedding_dim);
                zx::prefetch_row<zx::Fetch::kToWrite>(ahead.p, model_.embedding_dim);
                zx::prefetch_row<zx::Fetch::kToWrite>(ahead.n, model_.embedding_dim);
            }
            if (accepts(i)) update(i);
        }
    }

  private:
    bool accepts(std::uint32_t i) const {
        return batch_.users[i] < model_.num_users &&
               std::max(batch_.pos_items[i], batch_.neg_items[i]) < model_.num_items;
    }

    Rows rows(std::uint32_t i) const {
        const std::uint64_t d = model_.embedding_dim;
        float* const items = model_.item_embeddings->data;
        return {model_.user_embeddings->data + batch_.users[i] * d, items + batch_.pos_items[i] * d,
                items + batch_.neg_items[i] * d};
    }

    void update(std::uint32_t i) {
        const std::uint32_t d = model_.embedding_dim;
        const Rows r = rows(i);
        float scores[2];
        ops_.dot_two(r.w, r.p, r.n, d, scores);
        float* const biases = model_.use_bias ? model_.item_biases->data : nullptr;
        if (biases) {
            scores[0] += biases[batch_.pos_items[i]];
            scores[1] += biases[batch_.neg_items[i]];
        }
        const float g = step_factor(scores[0] - scores[1], learning_rate_);

        if (old_row_ && !overlap(r.p, r.n, d) && !overlap(r.w, r.p, d) && !overlap(r.w, r.n, d))
            ops_.bpr_update(r.w, r.p, r.n, d, decay_, g);
        else
            update_in_passes(r, d, decay_, g, old_row_);

        if (biases) {
            biases[batch_.pos_items[i]] += g;
            biases[batch_.neg_items[i]] -= g;
        }
    }

    zx_model_t& model_;
    const Batch& batch_;
    const float learning_rate_;
    const float decay_;
    float* const old_row_;  // null: no copy of the old user row
    const zx::simd::Operations& ops_ = zx::simd::operations();
};

zx_status_t train_on_host(zx_model_t& model, const Batch& batch, float learning_rate,
                          float regularization) {
    alignas(64) float stack_row[kStackDim];
    zx::AlignedPtr<float[]> heap_row;
    float* old_row = stack_row;
    // A batch too small to pay for the allocation updates the item rows from the new user row,
    // deliberately.
    if (model.embedding_dim > kStackDim) {
        if (batch.count >= kHeapBatch) {
            heap_row = zx::make_array<float>(model.embedding_dim);
            if (!heap_row) return ZX_ERR_OUT_OF_MEMORY;
        }
        old_row = heap_row.get();
    }
    Step(model, batch, learning_rate, regularization, old_row).run();
    return ZX_OK;
}

}  // namespace

zx_status_t zx_model_train_step_bpr(zx_model_t* model, const uint32_t* users,
                                    const uint32_t* pos_items, const uint32_t* neg_items,
                                    uint32_t count, float learning_rate, float regularization) {
    if (!model || !users || !pos_items || !neg_items) return ZX_ERR_NULL_POINTER;
    if (model->type != ZX_MODEL_MF)
        return kModule.fail(ZX_ERR_MODEL_TYPE_MISMATCH, "BPR training only supported for MF");
    if (zx::gpu::device_takes(count) &&
        zx_gpu_bpr_batch_update(model->user_embeddings, model->item_embeddings,
                                model->use_bias ? model->item_biases : nullptr, users, pos_items,
                                neg_items, count, model->use_bias != 0, learning_rate,
                                regularization) == ZX_OK)
        return ZX_OK;
    return train_on_host(*model, {users, pos_items, neg_items, count}, learning_rate,
                         regularization);
}
