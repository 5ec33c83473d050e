#include "ranking.hpp"

#include "library.hpp"
#include "parallel.hpp"
#include "signals.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace zxtool {
namespace {

// Users ranked by one thread at a time. Small enough to keep every thread busy to the end.
constexpr std::size_t kUsersPerBlock = 64;

class ModelScorer : public Scorer {
  public:
    explicit ModelScorer(const zx_model_t& model)
        : model_(light_copy(model)), all_items_(model.num_items), scores_(model.num_items) {
        std::iota(all_items_.begin(), all_items_.end(), 0U);
    }

    std::span<const float> scores(std::uint32_t user) override {
        check(zx_model_score_items(model_.get(), user, all_items_.data(), model_->num_items,
                                   scores_.data()),
              "scoring all items");
        return scores_;
    }

    std::span<const float> scores_of(std::uint32_t user,
                                     std::span<const std::uint32_t> items) override {
        list_scores_.resize(items.size());
        check(zx_model_score_items(model_.get(), user, items.data(),
                                   static_cast<std::uint32_t>(items.size()), list_scores_.data()),
              "scoring a list of items");
        return list_scores_;
    }

  private:
    ModelPtr model_;
    std::vector<std::uint32_t> all_items_;
    std::vector<float> scores_;
    std::vector<float> list_scores_;
};

struct TensorRelease {
    void operator()(zx_tensor_t* tensor) const { zx_tensor_release(tensor); }
};
using TensorPtr = std::unique_ptr<zx_tensor_t, TensorRelease>;

TensorPtr make_tensor(std::uint32_t size) {
    zx_clear_error();
    TensorPtr tensor(zx_tensor_create_1d(size));
    if (!tensor) fail_construction("making room for scores");
    return tensor;
}

// All items on the device, the biases added here; what the device is not used for on the host.
class DeviceScorer : public Scorer {
  public:
    DeviceScorer(const zx_model_t& model, Device& device)
        : model_(model),
          device_(device),
          host_(model),
          user_row_(make_tensor(model.embedding_dim)),
          scores_(make_tensor(model.num_items)) {}

    std::span<const float> scores(std::uint32_t user) override {
        const float* const row = zx_tensor_row_ptr(model_.user_embeddings, user);
        std::copy_n(row, model_.embedding_dim, zx_tensor_data(user_row_.get()));
        user_row_->on_device = 0;  // what is there is the user before
        const auto dot_products = [this] {
            const zx_status_t status =
                zx_gpu_score_all_items(scores_.get(), user_row_.get(), model_.item_embeddings);
            return status == ZX_OK ? zx_tensor_to_host(scores_.get()) : status;
        };
        if (!device_.run("scoring", dot_products)) return host_.scores(user);

        const std::span<float> scores(zx_tensor_data(scores_.get()), model_.num_items);
        if (model_.use_bias != 0) {
            const float user_part = zx_tensor_data(model_.user_biases)[user] + model_.global_bias;
            const float* bias = zx_tensor_data(model_.item_biases);
            for (float& score : scores) score = (*bias++ + score) + user_part;
        }
        return scores;
    }

    std::span<const float> scores_of(std::uint32_t user,
                                     std::span<const std::uint32_t> items) override {
        return host_.scores_of(user, items);
    }

  private:
    const zx_model_t& model_;
    Device& device_;
    ModelScorer host_;
    TensorPtr user_row_;
    TensorPtr scores_;
};

class PopularityScorer : public Scorer {
  public:
    explicit PopularityScorer(const std::vector<float>& counts) : counts_(counts) {}
    std::span<const float> scores(std::uint32_t /*user*/) override { return counts_; }

    std::span<const float> scores_of(std::uint32_t /*user*/,
                                     std::span<const std::uint32_t> items) override {
        list_scores_.clear();
        for (const std::uint32_t item : items) list_scores_.push_back(counts_[item]);
        return list_scores_;
    }

  private:
    const std::vector<float>& counts_;
    std::vector<float> list_scores_;
};

// A score that is not a number is ranked with the lowest ones, so that the order is total.
float comparable(float score) {
    return std::isnan(score) ? -std::numeric_limits<float>::infinity() : score;
}

}  // namespace

ItemLists::ItemLists(std::uint32_t num_users, const std::vector<std::uint32_t>& users,
                     const std::vector<std::uint32_t>& items)
    : starts_(num_users + std::size_t{1}), items_(items.size()) {
    for (const std::uint32_t user : users) ++starts_[user + std::size_t{1}];
    std::partial_sum(starts_.begin(), starts_.end(), starts_.begin());
    std::vector<std::uint64_t> cursors(starts_.begin(), starts_.end() - 1);
    for (std::size_t i = 0; i < users.size(); ++i) items_[cursors[users[i]]++] = items[i];

    // Each list is sorted and freed of repeats, and moved up to the end of the one before.
    auto kept = items_.begin();
    for (std::size_t user = 0; user < num_users; ++user) {
        const auto first = items_.begin() + static_cast<std::ptrdiff_t>(starts_[user]);
        const auto last = items_.begin() + static_cast<std::ptrdiff_t>(starts_[user + 1]);
        std::sort(first, last);
        starts_[user] = static_cast<std::uint64_t>(kept - items_.begin());
        kept = std::copy(first, std::unique(first, last), kept);
    }
    starts_[num_users] = static_cast<std::uint64_t>(kept - items_.begin());
    items_.erase(kept, items_.end());
}

std::span<const std::uint32_t> ItemLists::of(std::uint32_t user) const {
    if (user + std::size_t{1} >= starts_.size()) return {};
    return std::span(items_).subspan(starts_[user], starts_[user + std::size_t{1}] - starts_[user]);
}

bool ItemLists::contains(std::uint32_t user, std::uint32_t item) const {
    const std::span<const std::uint32_t> list = of(user);
    return std::binary_search(list.begin(), list.end(), item);
}

bool ranks_before(float score, std::uint32_t item, float other_score, std::uint32_t other_item) {
    const float a = comparable(score);
    const float b = comparable(other_score);
    return a > b || (a == b && item < other_item);
}

std::unique_ptr<Scorer> model_scorer(const zx_model_t& model, Device* device) {
    if (device != nullptr && model.num_items >= kMinDeviceBatch)
        return std::make_unique<DeviceScorer>(model, *device);
    return std::make_unique<ModelScorer>(model);
}

DeviceUse device_use(const zx_model_t& model, std::uint64_t num_users) {
    constexpr double kMultiplyAddsPerSecond = 1e10;  // of a core; a device starts in about a second
    return {.work = "full rankings of 512 items or more",
            .possible = num_users != 0 && model.num_items >= kMinDeviceBatch,
            .worthwhile = static_cast<double>(num_users) * model.num_items * model.embedding_dim >=
                          kMultiplyAddsPerSecond};
}

Popularity::Popularity(std::uint32_t num_items, const std::vector<std::uint32_t>& train_items) {
    std::vector<std::uint32_t> counts(num_items);
    for (const std::uint32_t item : train_items) ++counts[item];
    counts_.assign(counts.begin(), counts.end());
}

std::unique_ptr<Scorer> Popularity::scorer() const {
    return std::make_unique<PopularityScorer>(counts_);
}

const Placement& Placer::place(std::span<const float> scores,
                               std::span<const std::uint32_t> excluded,
                               std::span<const std::uint32_t> held_out) {
    const auto num_items = static_cast<std::uint32_t>(scores.size());
    is_other_.assign(num_items, 1);
    for (const std::uint32_t item : excluded) is_other_[item] = 0;
    for (const std::uint32_t item : held_out) is_other_[item] = 0;

    best_first_.assign(held_out.begin(), held_out.end());
    std::sort(best_first_.begin(), best_first_.end(), [scores](std::uint32_t a, std::uint32_t b) {
        return ranks_before(scores[a], a, scores[b], b);
    });
    best_scores_.clear();
    for (const std::uint32_t item : best_first_) best_scores_.push_back(comparable(scores[item]));

    // Every other candidate is put between the held-out items that it is ranked after and those
    // that it is ranked before. Most are ranked after all of them, which one comparison shows.
    const std::size_t num_held_out = best_first_.size();
    newly_beaten_.assign(num_held_out, 0);
    const float worst = best_scores_.back();
    std::uint64_t others = 0;
    double pairs_in_order = 0.0;
    for (std::uint32_t item = 0; item < num_items; ++item) {
        if (is_other_[item] == 0) continue;
        ++others;
        const float score = comparable(scores[item]);
        if (score < worst) {
            pairs_in_order += static_cast<double>(num_held_out);
            continue;
        }
        const auto greater = std::greater<float>();
        const auto above =
            std::lower_bound(best_scores_.begin(), best_scores_.end(), score, greater);
        const auto equal_end = std::upper_bound(above, best_scores_.end(), score, greater);
        pairs_in_order += static_cast<double>(above - best_scores_.begin()) +
                          0.5 * static_cast<double>(equal_end - above);
        auto beaten = static_cast<std::size_t>(above - best_scores_.begin());
        const auto tied_end = static_cast<std::size_t>(equal_end - best_scores_.begin());
        while (beaten < tied_end && best_first_[beaten] < item) ++beaten;
        if (beaten < num_held_out) ++newly_beaten_[beaten];
    }

    placement_.places.clear();
    std::uint32_t before = 0;
    for (std::size_t i = 0; i < num_held_out; ++i) {
        before += newly_beaten_[i];
        placement_.places.push_back(before + static_cast<std::uint32_t>(i) + 1);
    }
    placement_.auc =
        others == 0
            ? -1.0
            : pairs_in_order / (static_cast<double>(others) * static_cast<double>(num_held_out));
    return placement_;
}

Figures rank_users(const MakeScorer& make_scorer, std::span<const std::uint32_t> users,
                   const ItemLists& excluded, const ItemLists& held_out,
                   std::span<const std::uint32_t> ks, unsigned num_threads) {
    struct Worker {
        std::unique_ptr<Scorer> scorer;
        Placer placer;
    };
    std::vector<Worker> workers(num_threads);
    std::vector<Figures> blocks(block_count(users.size(), kUsersPerBlock), Figures(ks));
    for_each_block(users.size(), kUsersPerBlock, num_threads, [&](unsigned w, const Block& block) {
        stop_if_interrupted();
        Worker& worker = workers[w];
        if (!worker.scorer) worker.scorer = make_scorer();
        for (std::size_t i = block.begin; i < block.end; ++i) {
            const Placement& placement = worker.placer.place(
                worker.scorer->scores(users[i]), excluded.of(users[i]), held_out.of(users[i]));
            blocks[block.index].add_user(placement.places, placement.auc);
        }
    });
    Figures total(ks);
    for (const Figures& block : blocks) total.add(block);
    return total;
}

}  // namespace zxtool
