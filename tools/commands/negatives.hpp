// Lists of sampled negatives, one line for each held-out pair, as protocols that rank the held-out
// item among, say, 99 others hand them out.
#pragma once

#include "interactions.hpp"
#include "metrics.hpp"
#include "ranking.hpp"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace zxtool {

// Held-out pairs in file order, and the negatives listed for each: ascending, without repeats and
// without the held-out item itself.
struct ListedPairs {
    std::vector<std::uint32_t> users;
    std::vector<std::uint32_t> items;
    std::vector<std::uint32_t> negatives;  // of all pairs, one list behind the other
    std::vector<std::size_t> ends;         // where each list ends

    [[nodiscard]] std::size_t size() const { return users.size(); }
    [[nodiscard]] std::span<const std::uint32_t> negatives_of(std::size_t pair) const;
};

// Reads lines "user item negative negative ..." or "(user,item) negative negative ...", separated
// by white space; "-" is standard input, gzip when the name ends in .gz. A line whose pair has an
// unknown id, and an unknown negative, is left out and counted. Throws as read_interactions().
ListedPairs read_negatives(const std::string& path, const IdMap& users, const IdMap& items,
                           const std::function<void(std::uint64_t)>& on_block, UnknownIds& unknown);

// Figures over the pairs, each ranked among its own list. The result does not depend on the number
// of threads.
Figures rank_listed(const MakeScorer& make_scorer, const ListedPairs& pairs,
                    std::span<const std::uint32_t> ks, unsigned num_threads);

}  // namespace zxtool
