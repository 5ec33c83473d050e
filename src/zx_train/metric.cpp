// The sampled hit rate. The scores are read straight from the tables; what a lookup of an id that
// the model does not have would record is recorded all the same, by that lookup.

#include "common/owned.hpp"
#include "common/prefetch.hpp"
#include "simd/simd.hpp"
#include "zorvex.h"
#include "zx_engine/rng.hpp"

#include <algorithm>

namespace {

// The user's embedding row; null, with the lookup's record, if there is none.
const float* user_row(const zx_model_t& model, std::uint32_t user) {
    if (model.type == ZX_MODEL_MF && model.embedding_dim != 0 && user < model.num_users)
        return model.user_embeddings->data + std::uint64_t{user} * model.embedding_dim;
    const zx::TensorPtr refused(zx_model_forward_user(&model, &user, 1));
    return nullptr;
}

const float* row_in_table(const zx_model_t& model, std::uint64_t item) {
    return model.item_embeddings->data + item * model.embedding_dim;
}

// Leaves the record of a lookup of an item that the model does not have. An index of 2^32 is one
// too, and so is the number that stands for it.
void refuse_item(const zx_model_t& model) {
    const std::uint32_t beyond = model.num_items;
    const zx::TensorPtr refused(zx_model_forward_item(&model, &beyond, 1));
}

// The items that are drawn, known ahead of their use so that their rows are on their way by then.
// What is drawn does not depend on the pairs: a pair goes on where the one before it stopped.
class Draws {
  public:
    explicit Draws(const zx_model_t& model)
        : model_(model), num_items_(static_cast<float>(model.num_items)) {}

    // The item of the j-th draw after those that were taken; j is below the batch of a dot product.
    std::uint64_t peek(std::uint64_t j) {
        while (drawn_count_ <= taken_count_ + j + zx::kRowsAhead) draw();
        return items_[(taken_count_ + j) % kKept];
    }

    void take() {
        (void)zx::next(taken_);
        ++taken_count_;
    }

    // The generator behind the draws that were taken, and not behind those ahead of them.
    [[nodiscard]] const zx::Rng& taken() const { return taken_; }

  private:
    static constexpr std::uint64_t kKept = 2 * zx::kRowsAhead;
    static_assert(kKept > zx::kRowsAhead + zx::simd::kGatherBatch);

    void draw() {
        const std::uint64_t item = zx::uniform_index(drawn_, num_items_);
        if (item < model_.num_items)
            zx::prefetch_row<zx::Fetch::kToRead>(row_in_table(model_, item), model_.embedding_dim);
        items_[drawn_count_++ % kKept] = item;
    }

    const zx_model_t& model_;
    const float num_items_;
    zx::Rng drawn_ = zx::thread_rng();
    zx::Rng taken_ = zx::thread_rng();
    std::uint64_t drawn_count_ = 0;
    std::uint64_t taken_count_ = 0;
    std::uint64_t items_[kKept];
};

// The rank of a score among up to max_draws drawn items; the draws stop as soon as it exceeds k.
std::uint64_t sampled_rank(const zx_model_t& model, const float* user, float target,
                           std::uint32_t k, std::uint32_t max_draws, Draws& draws) {
    constexpr std::uint32_t kBatch = zx::simd::kGatherBatch;
    const zx::simd::Operations& ops = zx::simd::operations();
    std::uint64_t rank = 1;
    for (std::uint32_t left = max_draws; left > 0 && rank <= k;) {
        const std::uint32_t batch = std::min(kBatch, left);
        std::uint64_t items[kBatch];
        const float* rows[kBatch];
        for (std::uint32_t j = 0; j < batch; ++j) {
            items[j] = draws.peek(j);
            rows[j] = items[j] < model.num_items ? row_in_table(model, items[j]) : user;
        }
        float scores[kBatch];
        ops.dot_gathered(rows, batch, user, model.embedding_dim, scores);
        for (std::uint32_t j = 0; j < batch && rank <= k; ++j, --left) {
            draws.take();
            if (items[j] >= model.num_items)
                refuse_item(model);
            else
                rank += static_cast<std::uint64_t>(scores[j] > target);
        }
    }
    return rank;
}

}  // namespace

float zx_metric_hit_rate(const zx_model_t* model, const uint32_t* users, const uint32_t* items,
                         uint32_t count, uint32_t k) {
    if (!model || !users || !items || count == 0) return 0.0f;
    const std::uint32_t max_draws = k * 10;  // wraps in 32 bits, deliberately
    const bool samples = max_draws != 0 && k != 0;
    Draws draws(*model);
    std::uint32_t hits = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const float* const user = user_row(*model, users[i]);
        if (!user) continue;
        float target = 0.0f;
        if (items[i] < model->num_items)
            target = zx::simd::operations().dot(user, row_in_table(*model, items[i]),
                                                model->embedding_dim);
        else
            refuse_item(*model);
        const std::uint64_t rank =
            samples ? sampled_rank(*model, user, target, k, max_draws, draws) : 1;
        if (rank <= k) ++hits;
    }
    zx::thread_rng() = draws.taken();
    return static_cast<float>(hits) / static_cast<float>(count);
}
