// From rows of a file to what training and evaluation need: filters, the held-out part, CSR.
#pragma once

#include "interactions.hpp"
#include "zorvex.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace zxtool {

struct Holdout {
    enum class Kind { kNone, kLeaveOneOut, kFraction };
    Kind kind = Kind::kNone;
    double fraction = 0.0;  // kFraction: of each user's interactions, 0 < fraction < 1
};

struct Preparation {
    std::optional<float> min_rating;  // rows with a lower rating are left out
    std::uint32_t core = 0;           // drop users and items with fewer until nothing changes
    bool weighted = false;            // sum the strengths of repeated pairs, else one entry of 1
    Holdout holdout;
    std::uint64_t seed = 0;
};

// Leaves the columns of a file out that such a preparation has no use for.
void leave_out_unused(const Preparation& preparation, ReadOptions& read);

using Pairs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // (user, item)

struct Dataset {
    IdMap users;  // only those that are left, numbered anew in the file's order of appearance
    IdMap items;
    // One entry per training pair, sorted by user, then item; in parallel.
    std::vector<std::uint32_t> train_users;
    std::vector<std::uint32_t> train_items;
    std::vector<float> train_strengths;  // empty: all 1
    Pairs test;                          // held-out pairs, sorted by user, then item
    std::uint64_t read_rows = 0;         // before any filter
};

// Applies, in this order: the rating threshold, the merging of repeated pairs (the latest time
// stands), the core filter, the split. Leave-one-out holds out each user's latest pair (by time,
// ties and files without times: the later line); a user with one pair keeps it for training. Throws
// Error(kBadInput) when nothing is left, when min_rating is asked of a file without ratings, or
// when a strength is negative or beyond a float. With `weighted`, a row of a file without ratings
// has strength 1, so that a pair's strength is how often it appears.
Dataset prepare(InteractionFile&& file, const Preparation& preparation);

struct SparseRelease {
    void operator()(zx_sparse_t* matrix) const { zx_sparse_release(matrix); }
};
using SparsePtr = std::unique_ptr<zx_sparse_t, SparseRelease>;

// A validated CSR matrix of pairs sorted by user, then item. `strengths` may be empty: all 1.
// Throws Error(kOutOfMemory), and Error(kBadInput) when there are no pairs or more than 2^32 - 1.
SparsePtr make_csr(std::uint32_t num_users, std::uint32_t num_items,
                   const std::vector<std::uint32_t>& users, const std::vector<std::uint32_t>& items,
                   const std::vector<float>& strengths);

}  // namespace zxtool
