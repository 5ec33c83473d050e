// The distinct (user, item) pairs of a file's rows, grouped by user and sorted by item.
#pragma once

#include "interactions.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zxtool {

// A pair of one user: its item and the row that stands for it, the latest of those that name it.
// Packed into one number, so that sorting by number is sorting by item, then row.
class PairEntry {
  public:
    PairEntry() = default;
    PairEntry(std::uint32_t item, std::uint32_t row) : packed_(std::uint64_t{item} << 32U | row) {}
    [[nodiscard]] std::uint32_t item() const { return static_cast<std::uint32_t>(packed_ >> 32U); }
    [[nodiscard]] std::uint32_t row() const { return static_cast<std::uint32_t>(packed_); }
    bool operator<(const PairEntry& other) const { return packed_ < other.packed_; }

  private:
    std::uint64_t packed_ = 0;
};

struct PairTable {
    std::vector<PairEntry> entries;
    std::vector<float> strengths;     // one per entry, or empty: all 1
    std::vector<std::size_t> starts;  // [users + 1] where each user's entries begin
};

// Groups, sorts and merges. With `weighted`, the strengths of the rows of a pair are summed, a row
// of a file without ratings counting 1. Throws Error(kBadInput) for a strength that is negative
// or a sum beyond a float; the message names the pair.
PairTable make_pairs(const Interactions& rows, const IdMap& users, const IdMap& items,
                     bool weighted);

// Leaves out users and items with fewer than `core` pairs until none is left.
void keep_core(PairTable& table, std::uint32_t num_items, std::uint32_t core);

}  // namespace zxtool
