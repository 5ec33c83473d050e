// Fetching a row of a table into the first cache before it is needed.
#pragma once

#include <cstdint>

namespace zx {

// A row that will be written too is fetched for writing.
enum class Fetch { kToRead, kToWrite };

template <Fetch kFetch>
void prefetch_row(const float* row, std::uint64_t d) {
    constexpr std::uint64_t kLineFloats = 16;
    for (std::uint64_t k = 0; k < d; k += kLineFloats)
        __builtin_prefetch(row + k, kFetch == Fetch::kToWrite);
}

}  // namespace zx
