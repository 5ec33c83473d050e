// What the numbers in a file are like, read once and in blocks.
#pragma once

#include "regular_file.hpp"

#include <cstdint>
#include <functional>

namespace zxtool {

// Of the finite numbers; without any, everything but the counts is 0.
struct Statistics {
    std::uint64_t finite = 0;
    std::uint64_t not_finite = 0;
    float min = 0.0F;
    float max = 0.0F;
    double mean = 0.0;
    double deviation = 0.0;  // the root of the mean squared distance from the mean
};

// Of `bytes` bytes of little-endian 32-bit floats, a multiple of 4, from `offset` on. `on_block` is
// called after each block and may be empty. Throws what RegularFile::read() throws.
Statistics statistics_of(const RegularFile& file, std::uint64_t offset, std::uint64_t bytes,
                         const std::function<void()>& on_block);

}  // namespace zxtool
