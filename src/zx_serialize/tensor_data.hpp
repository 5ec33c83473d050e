// What the writers of tensors share: a tensor's elements as a file holds them, 32-bit floats in
// row-major order, exactly as they stand in host memory.
#pragma once

#include "zorvex.h"

#include <cstdint>
#include <cstdio>

namespace zx {

// The record of a tensor is public; one that was made by hand may have more axes than extents.
inline constexpr std::uint32_t kMaxAxes = 4;

// Elements are announced, but nobody holds them.
inline bool lacks_data(const zx_tensor_t& tensor) {
    return !tensor.data && tensor.size > 0;
}

// Whether they arrive is not tested, deliberately: a full disk makes a short file.
inline void write_data(std::FILE* file, const zx_tensor_t& tensor) {
    if (tensor.data) (void)std::fwrite(tensor.data, sizeof(float), tensor.size, file);
}

}  // namespace zx
