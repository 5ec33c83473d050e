// The state of the calling thread's generator. Compared with the state of a ReferenceRng that ran
// beside the library, it shows how many draws the library made.
#pragma once

#include "reference_rng.hpp"
#include "zx_engine/rng.hpp"

#include <bit>
#include <cstddef>
#include <cstdint>

namespace zx::test {

inline ReferenceRng::State generator_state() {
    const zx::Rng& rng = zx::thread_rng();
    return {rng.s[0], rng.s[1], rng.s[2], rng.s[3]};
}

inline void set_generator_state(const ReferenceRng::State& state) {
    zx::Rng& rng = zx::thread_rng();
    for (std::size_t i = 0; i < state.size(); ++i) rng.s[i] = state[i];
}

// A state whose next output is the given one: the output's two products are undone with the
// inverses of 9 and 5 modulo 2^64. An output of all ones is a uniform number of exactly 1.
inline ReferenceRng::State state_that_draws(std::uint64_t output) {
    const std::uint64_t rotated = output * 0x8e38e38e38e38e39;
    const std::uint64_t word = std::rotr(rotated, 7) * 0xcccccccccccccccd;
    return {0x0123456789abcdef, word, 0xfedcba9876543210, 0x0f1e2d3c4b5a6978};
}

}  // namespace zx::test
