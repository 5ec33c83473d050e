// Fetching a row of a table into the first cache before it is needed.
//
// The compiler takes a function that does nothing but fetch for one without effects and drops the
// calls of it that it has not inlined, so such functions are inlined by order.
#pragma once

#include <cstdint>

namespace zx {

// A row that will be written too is fetched for writing.
enum class Fetch { kToRead, kToWrite };

// How many rows that will be read are fetched ahead: enough to cover a miss, and fetched a few at a
// time, since the processor follows few misses at once.
inline constexpr std::uint64_t kRowsAhead = 16;

template <Fetch kFetch>
[[gnu::always_inline]] inline void prefetch_row(const float* row, std::uint64_t d) {
    constexpr std::uint64_t kLineFloats = 16;
    for (std::uint64_t k = 0; k < d; k += kLineFloats)
        __builtin_prefetch(row + k, kFetch == Fetch::kToWrite);
}

}  // namespace zx
