// The dot product as every score of the library is defined, written for reading: four interleaved
// partial sums over whole groups of four, added crosswise, then the last few products one by one.
// The tests are compiled without contraction, so a product and a sum are two roundings here.
#pragma once

#include <cstddef>

namespace zx::test {

inline float reference_dot(const float* a, const float* b, std::size_t d) {
    float sums[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    const std::size_t grouped = d / 4 * 4;
    for (std::size_t k = 0; k < grouped; ++k) {
        const float product = a[k] * b[k];
        sums[k % 4] = sums[k % 4] + product;
    }
    float sum = (sums[0] + sums[2]) + (sums[1] + sums[3]);
    for (std::size_t k = grouped; k < d; ++k) {
        const float product = a[k] * b[k];
        sum = sum + product;
    }
    return sum;
}

}  // namespace zx::test
