// Full rankings: every item of the model in the order of its score for a user, the excluded items
// left out. Of equal scores the lower item number comes first; a score that is not a number comes
// last.
#pragma once

#include "device.hpp"
#include "metrics.hpp"
#include "model_store.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace zxtool {

// For each user a set of items, ascending and without repeats.
class ItemLists {
  public:
    ItemLists() = default;
    // From parallel arrays of pairs in any order; every user is below num_users.
    ItemLists(std::uint32_t num_users, const std::vector<std::uint32_t>& users,
              const std::vector<std::uint32_t>& items);

    // A user's items; none for a user beyond the lists.
    [[nodiscard]] std::span<const std::uint32_t> of(std::uint32_t user) const;
    [[nodiscard]] bool contains(std::uint32_t user, std::uint32_t item) const;

  private:
    std::vector<std::uint64_t> starts_;  // [num_users + 1]
    std::vector<std::uint32_t> items_;
};

// Whether the first item is ranked before the second.
bool ranks_before(float score, std::uint32_t item, float other_score, std::uint32_t other_item);

// Scores of all items for one user at a time. One object serves one thread.
class Scorer {
  public:
    Scorer() = default;
    Scorer(const Scorer&) = delete;
    Scorer& operator=(const Scorer&) = delete;
    virtual ~Scorer() = default;
    // [num_items] scores, valid until the next call.
    virtual std::span<const float> scores(std::uint32_t user) = 0;
    // Scores of a list of items, not empty, in its order; valid until the next call.
    virtual std::span<const float> scores_of(std::uint32_t user,
                                             std::span<const std::uint32_t> items) = 0;
};

// What the model says, whose current numbers are the host's. With a device, all items are scored
// there, if they are kMinDeviceBatch or more; such scores may differ from the host's in their last
// bits.
std::unique_ptr<Scorer> model_scorer(const zx_model_t& model, Device* device = nullptr);

// What a device would do for the rankings of so many users. It is worthwhile if a processor core
// would be busy for longer than it takes to start a device and build its kernels.
DeviceUse device_use(const zx_model_t& model, std::uint64_t num_users);

// How often each item occurs in the training rows, the same for every user. Counts above 2^24 are
// rounded.
class Popularity {
  public:
    Popularity(std::uint32_t num_items, const std::vector<std::uint32_t>& train_items);
    // Refers to this object.
    [[nodiscard]] std::unique_ptr<Scorer> scorer() const;

  private:
    std::vector<float> counts_;
};

// Where a user's held-out items stand in the ranking.
struct Placement {
    std::vector<std::uint32_t> places;  // counted from 1, ascending
    double auc = -1.0;                  // negative when every candidate is held out
};

// Places a user's held-out items, which are not among the excluded ones; both ascending.
class Placer {
  public:
    const Placement& place(std::span<const float> scores, std::span<const std::uint32_t> excluded,
                           std::span<const std::uint32_t> held_out);

  private:
    Placement placement_;
    std::vector<std::uint8_t> is_other_;       // per item: 1 for candidates that are not held out
    std::vector<std::uint32_t> best_first_;    // the held-out items
    std::vector<float> best_scores_;           // their scores, descending
    std::vector<std::uint32_t> newly_beaten_;  // per held-out item
};

using MakeScorer = std::function<std::unique_ptr<Scorer>()>;

// Figures of the users over full rankings, by as many threads as wanted. The result does not
// depend on their number. Throws Error(kInterrupted) after Ctrl-C.
Figures rank_users(const MakeScorer& make_scorer, std::span<const std::uint32_t> users,
                   const ItemLists& excluded, const ItemLists& held_out,
                   std::span<const std::uint32_t> ks, unsigned num_threads);

}  // namespace zxtool
