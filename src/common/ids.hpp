// Tests of id lists.
#pragma once

#include "simd/simd.hpp"

#include <cstdint>

namespace zx {

inline bool all_below(const std::uint32_t* ids, std::uint32_t count, std::uint32_t limit) {
    return simd::operations().all_below(ids, count, limit);
}

}  // namespace zx
