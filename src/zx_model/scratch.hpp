// The model's scratch arrays: grown to exactly what a call needs, never shrunk, so that repeated
// calls allocate nothing.
#pragma once

#include "zorvex.h"

#include <cstdint>

namespace zx {

// Makes room for `need` elements. False if memory is short, the array then being as it was, or if
// there is room on paper only.
template <typename T>
bool grow(T*& buffer, std::uint64_t& capacity, std::uint64_t need) {
    if (need > capacity) {
        if (need > INT64_MAX / sizeof(T)) return false;
        void* const grown = zx_realloc_aligned(buffer, capacity * sizeof(T), need * sizeof(T));
        if (!grown) return false;
        buffer = static_cast<T*>(grown);
        capacity = need;
    }
    return buffer != nullptr;
}

}  // namespace zx
