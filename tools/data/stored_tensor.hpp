// A tensor in a file of whatever format: what it is called, what its numbers are and where they
// are.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zxtool {

struct StoredTensor {
    std::string name;   // empty in formats without names
    std::string dtype;  // in the words of the format
    // Whether the numbers are little-endian 32-bit floats, which are the ones that can be read.
    bool is_float32 = false;
    std::vector<std::uint64_t> shape;
    std::uint64_t offset = 0;  // of the numbers, from the start of the file
    std::uint64_t bytes = 0;
};

// The bytes of the numbers in a shape; nothing if no 64-bit number can say them.
inline std::optional<std::uint64_t> bytes_of(const std::vector<std::uint64_t>& shape,
                                             std::uint64_t element_bytes) {
    // An extent of 0 settles it, whatever the others are.
    if (std::find(shape.begin(), shape.end(), 0) != shape.end()) return 0;
    std::uint64_t bytes = element_bytes;
    for (const std::uint64_t extent : shape)
        if (__builtin_mul_overflow(bytes, extent, &bytes)) return std::nullopt;
    return bytes;
}

// "3x4"; empty for a single number without axes.
inline std::string shape_text(const std::vector<std::uint64_t>& shape) {
    std::string text;
    for (const std::uint64_t extent : shape) {
        if (!text.empty()) text += 'x';
        text += std::to_string(extent);
    }
    return text;
}

}  // namespace zxtool
