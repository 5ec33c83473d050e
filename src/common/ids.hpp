// Tests of id lists.
#pragma once

#include <algorithm>
#include <cstdint>

namespace zx {

// Whether every id is below the limit. One pass without a branch, which vectorises.
inline bool all_below(const std::uint32_t* ids, std::uint32_t count, std::uint32_t limit) {
    std::uint32_t largest = 0;
    for (std::uint32_t j = 0; j < count; ++j) largest = std::max(largest, ids[j]);
    return count == 0 || largest < limit;
}

}  // namespace zx
