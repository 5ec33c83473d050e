// The held-out part of a data set during training: figures after each epoch, over full rankings
// with the training items excluded.
#pragma once

#include "dataset.hpp"
#include "metrics.hpp"
#include "ranking.hpp"

#include <cstdint>
#include <vector>

namespace zxtool {

class HeldOut {
  public:
    HeldOut(const Dataset& data, std::uint32_t k, unsigned num_threads);

    // Whether nothing is held out; then there is nothing to measure.
    [[nodiscard]] bool empty() const { return users_.empty(); }
    [[nodiscard]] std::size_t users() const { return users_.size(); }

    // Figures of the model over all users with held-out items.
    [[nodiscard]] Figures measure(const zx_model_t& model) const;
    // The same over at most ten thousand of them, evenly spread, which is enough to see a trend and
    // keeps the measuring of a large data set from outlasting its training.
    [[nodiscard]] Figures measure_some(const zx_model_t& model) const;
    // Figures of the popularity ranking over all of them.
    [[nodiscard]] Figures measure_popularity() const;

  private:
    std::uint32_t k_;
    unsigned num_threads_;
    ItemLists train_;
    ItemLists held_out_;
    Popularity popularity_;
    std::vector<std::uint32_t> users_;
    std::vector<std::uint32_t> some_users_;
};

// "hit rate@10 0.1234  recall@10 0.1234  NDCG@10 0.0678"
std::string held_out_text(const Figures& figures);

}  // namespace zxtool
