// The random generator inside the library: loops that draw many numbers fetch the calling thread's
// state once and draw inline. xoshiro256** (Blackman, Vigna, 2021).
#pragma once

#include <bit>
#include <cstdint>

namespace zx {

struct Rng {
    std::uint64_t s[4];
};

// The calling thread's generator.
Rng& thread_rng();

inline std::uint64_t next(Rng& rng) {
    std::uint64_t* const s = rng.s;
    const std::uint64_t result = std::rotl(s[1] * 5, 7) * 9;
    const std::uint64_t t = s[1] << 17;
    s[2] ^= s[0];
    s[3] ^= s[1];
    s[1] ^= s[2];
    s[0] ^= s[3];
    s[2] ^= t;
    s[3] = std::rotl(s[3], 45);
    return result;
}

// In [0, 1]: rounding to a float takes the values from 1 - 2^-25 upward to exactly 1, deliberately.
inline float uniform(Rng& rng) {
    return static_cast<float>(static_cast<double>(next(rng) >> 11) * 0x1p-53);
}

// Two roundings: this library is compiled without contraction to fused multiply-add.
inline float uniform_range(Rng& rng, float min, float max) {
    return (max - min) * uniform(rng) + min;
}

// The integer part of u * count for a uniform u; `count` itself is a possible result, because u
// can be 1 and the product is rounded. The product can be 2^32, so it is taken through 64 bits.
inline std::uint64_t uniform_index(Rng& rng, float count) {
    return static_cast<std::uint64_t>(uniform(rng) * count);
}

float normal(Rng& rng);

}  // namespace zx
