// A data set with a known hidden structure, for trying the tool, for tests and for benchmarks.
//
// The items belong to `rank` groups. Every user has a favourite group and a second one, and draws
// from a mixture of three distributions over the items: the favourite group's, the second group's,
// and, with the probability `noise`, that of all items. Within each of them an item's probability
// is proportional to 1 / (r + 3), where r is its place in a random order of all items by
// popularity, so that a few items are known to everybody. The matrix of probabilities is thus a
// product of two non-negative matrices of inner dimension rank + 1: what a factorisation model can
// learn and a popularity ranking cannot.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>

namespace zxtool {

struct GenerateOptions {
    std::uint32_t num_users = 2000;
    std::uint32_t num_items = 1000;
    std::uint64_t num_interactions = 60000;
    std::uint32_t rank = 10;  // groups of items
    double noise = 0.15;      // share of the draws that ignore the user's taste, 0 to 1
    std::uint64_t seed = 1;
    // Called with the rows written so far every few thousand rows; may be empty. What it throws
    // ends the generating.
    std::function<void(std::uint64_t rows)> on_block = {};
};

// Writes a CSV file with the header user,item,rating,timestamp. Users and items are numbered from
// 1, a user's rows stand together, no pair comes twice, timestamps increase from row to row. The
// rating, 1 to 5 in halves, is higher in the groups that the user likes. Integers and correctly
// rounded operations only, so the bytes are the same on every machine. Throws Error(kUsage) for
// options that no data set has, Error(kInputOutput) when the output cannot be written.
void generate(const GenerateOptions& options, std::FILE* output);

}  // namespace zxtool
