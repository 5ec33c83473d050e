// Top-K recommendation with a filter: of the items that are not excluded for the user, exactly the
// K best, or all of them if they are fewer.
#pragma once

#include "model_store.hpp"
#include "ranking.hpp"

#include <cstdint>
#include <memory>
#include <vector>

namespace zxtool {

// One object serves one thread.
class Recommender {
  public:
    // Refers to the lists, and to the device, which scores all items as for model_scorer().
    Recommender(const zx_model_t& model, const ItemLists& excluded, Device* device = nullptr);

    // Best first, see ranks_before(); valid until the next call. k is not 0.
    const std::vector<zx_scored_item_t>& best(std::uint32_t user, std::uint32_t k);

  private:
    // The allowed ones of the library's best, enough of them, into best_.
    void take_from_library(std::uint32_t user, std::uint32_t k);
    // All allowed ones with the device's scores, into best_.
    void take_from_device(std::uint32_t user);
    // The library's `count` best, into items_ and scores_.
    void ask(std::uint32_t user, std::uint32_t count);

    ModelPtr model_;
    std::unique_ptr<Scorer> device_scorer_;  // null without a device
    const ItemLists& excluded_;
    std::vector<std::uint32_t> items_;
    std::vector<float> scores_;
    std::vector<zx_scored_item_t> best_;
};

// The K items nearest to an item by the cosine of the angle between their embeddings, nearest
// first, itself left out. An embedding of length 0 is at a right angle to all: similarity 0.
std::vector<zx_scored_item_t> most_similar(const zx_model_t& model, std::uint32_t item,
                                           std::uint32_t k);

}  // namespace zxtool
