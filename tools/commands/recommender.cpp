#include "recommender.hpp"

#include "library.hpp"

#include <algorithm>
#include <cmath>

namespace zxtool {
namespace {

bool better(const zx_scored_item_t& a, const zx_scored_item_t& b) {
    return ranks_before(a.score, a.item, b.score, b.item);
}

bool is_nan(float score) {
    return std::isnan(score);
}

// Leaves the k best, best first.
void keep_best(std::vector<zx_scored_item_t>& items, std::uint32_t k) {
    const auto kept = static_cast<std::ptrdiff_t>(std::min<std::size_t>(k, items.size()));
    std::partial_sort(items.begin(), items.begin() + kept, items.end(), better);
    items.resize(static_cast<std::size_t>(kept));
}

double dot(const float* a, const float* b, std::uint32_t d) {
    double sum = 0.0;
    for (std::uint32_t k = 0; k < d; ++k) sum += static_cast<double>(a[k]) * b[k];
    return sum;
}

}  // namespace

Recommender::Recommender(const zx_model_t& model, const ItemLists& excluded, Device* device)
    : model_(light_copy(model)),
      device_scorer_(device != nullptr ? model_scorer(model, device) : nullptr),
      excluded_(excluded) {}

void Recommender::ask(std::uint32_t user, std::uint32_t count) {
    items_.resize(count);
    scores_.resize(count);
    check(zx_recommend(model_.get(), user, count, items_.data(), scores_.data()), "recommending");
}

void Recommender::take_from_library(std::uint32_t user, std::uint32_t k) {
    // However many of the best are excluded, K allowed ones are among that many more.
    const std::span<const std::uint32_t> excluded = excluded_.of(user);
    const std::uint64_t wanted = std::uint64_t{k} + excluded.size();
    if (wanted >= model_->num_items) {
        ask(user, model_->num_items);
    } else {
        // One more shows whether the last ones tie. Which of them the library keeps depends on what
        // came later, and it never lets go of a score that is not a number; the whole ranking has
        // all of them.
        ask(user, static_cast<std::uint32_t>(wanted) + 1);
        const bool clear = scores_[wanted - 1] > scores_[wanted];
        if (!clear || std::any_of(scores_.begin(), scores_.end(), is_nan))
            ask(user, model_->num_items);
    }

    for (std::size_t i = 0; i < items_.size(); ++i) {
        if (!std::binary_search(excluded.begin(), excluded.end(), items_[i]))
            best_.push_back({.score = scores_[i], .item = items_[i]});
    }
}

void Recommender::take_from_device(std::uint32_t user) {
    const std::span<const float> scores = device_scorer_->scores(user);
    const std::span<const std::uint32_t> excluded = excluded_.of(user);
    auto next_excluded = excluded.begin();
    for (std::uint32_t item = 0; item < model_->num_items; ++item) {
        if (next_excluded != excluded.end() && *next_excluded == item)
            ++next_excluded;
        else
            best_.push_back({.score = scores[item], .item = item});
    }
}

const std::vector<zx_scored_item_t>& Recommender::best(std::uint32_t user, std::uint32_t k) {
    best_.clear();
    if (device_scorer_)
        take_from_device(user);
    else
        take_from_library(user, k);
    keep_best(best_, k);
    return best_;
}

std::vector<zx_scored_item_t> most_similar(const zx_model_t& model, std::uint32_t item,
                                           std::uint32_t k) {
    const std::uint32_t d = model.embedding_dim;
    const float* const own = zx_tensor_row_ptr(model.item_embeddings, item);
    const double own_length = std::sqrt(dot(own, own, d));
    std::vector<zx_scored_item_t> all;
    all.reserve(model.num_items);
    for (std::uint32_t other = 0; other < model.num_items; ++other) {
        if (other == item) continue;
        const float* const row = zx_tensor_row_ptr(model.item_embeddings, other);
        const double lengths = own_length * std::sqrt(dot(row, row, d));
        const double cosine = lengths > 0.0 ? dot(own, row, d) / lengths : 0.0;
        all.push_back({.score = static_cast<float>(cosine), .item = other});
    }
    keep_best(all, k);
    return all;
}

}  // namespace zxtool
