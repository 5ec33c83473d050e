// Draws from a fixed distribution in constant time.
// Method: Vose, "A Linear Algorithm for Generating Random Numbers with a Given Distribution", IEEE
// Transactions on Software Engineering 1991.
#pragma once

#include "random.hpp"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace zxtool {

class AliasTable {
  public:
    // The numbers 0 to weights.size() - 1 with probabilities proportional to their weights, which
    // are above 0. The arithmetic is plain, so the table is the same on every machine.
    explicit AliasTable(const std::vector<double>& weights) : cells_(weights.size()) {
        double total = 0.0;
        for (const double weight : weights) total += weight;
        const double scale = static_cast<double>(weights.size()) / total;
        std::vector<std::pair<std::uint32_t, double>> below;  // a number and its share of a cell
        std::vector<std::pair<std::uint32_t, double>> above;
        for (std::uint32_t i = 0; i < weights.size(); ++i)
            (weights[i] * scale < 1.0 ? below : above).emplace_back(i, weights[i] * scale);
        while (!below.empty() && !above.empty()) {
            const auto [small, share] = below.back();
            below.pop_back();
            auto& [large, large_share] = above.back();
            cells_[small] = {share, large};
            large_share -= 1.0 - share;
            if (large_share >= 1.0) continue;
            below.push_back(above.back());
            above.pop_back();
        }
        // What rounding leaves over is full cells.
        for (const auto& [i, share] : below) cells_[i] = {1.0, i};
        for (const auto& [i, share] : above) cells_[i] = {1.0, i};
    }

    std::uint32_t draw(SplitMix64& random) const {
        const std::uint32_t i = random.below(static_cast<std::uint32_t>(cells_.size()));
        return random.uniform() < cells_[i].share ? i : cells_[i].other;
    }

  private:
    struct Cell {
        double share = 1.0;  // of the cell that belongs to its own number
        std::uint32_t other = 0;
    };
    std::vector<Cell> cells_;
};

}  // namespace zxtool
