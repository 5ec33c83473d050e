// Tests of id lists.
#pragma once

#include <cstdint>

namespace zx {

// Whether every id is below the limit. One pass without a branch, which vectorises; the comparisons
// do not wait for one another, as a running maximum would.
inline bool all_below(const std::uint32_t* ids, std::uint32_t count, std::uint32_t limit) {
    std::uint32_t beyond = 0;
    for (std::uint32_t j = 0; j < count; ++j) beyond |= static_cast<std::uint32_t>(ids[j] >= limit);
    return beyond == 0;
}

}  // namespace zx
