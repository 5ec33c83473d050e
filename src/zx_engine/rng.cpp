// Per-thread random numbers: xoshiro256** seeded by SplitMix64 (Blackman, Vigna, "Scrambled Linear
// Pseudorandom Number Generators", 2021), uniform floats, and normal ones by Box and Muller (1958).

#include "zx_engine/rng.hpp"

#include "zorvex.h"

#include <cmath>

namespace {

// A fixed start, so that a thread that never seeds gives the same stream in every run.
thread_local zx::Rng rng_state = {
    {0x75c31992e62e41b5, 0x72e5b1f4a9d5c913, 0x8c7ea7d897f0b2a1, 0x3d5e8f6c2b1a9047}};

std::uint64_t mix(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

}  // namespace

namespace zx {

Rng& thread_rng() {
    return rng_state;
}

float normal(Rng& rng) {
    constexpr float kTwoPi = 6.2831855f;
    float u1 = uniform(rng);
    const float u2 = uniform(rng);
    while (u1 == 0.0f) u1 = uniform(rng);  // the logarithm of 0 has no place in a sample
    const float r = std::sqrt(-2.0f * std::log(u1));
    return std::cos(u2 * kTwoPi) * r;
}

}  // namespace zx

void zx_rng_seed(uint64_t seed) {
    constexpr std::uint64_t kGamma = 0x9e3779b97f4a7c15;
    for (std::uint64_t& word : rng_state.s) {
        seed += kGamma;
        word = mix(seed);
    }
}

float zx_rng_uniform(void) {
    return zx::uniform(rng_state);
}

float zx_rng_uniform_range(float min, float max) {
    return zx::uniform_range(rng_state, min, max);
}

float zx_rng_normal(void) {
    return zx::normal(rng_state);
}
