// A target is a reader that is given any bytes: what the fuzzers, the replay of their corpora and
// the writer of their seeds have in common. A reader that breaks a promise ends the program.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zx::fuzz {

using Random = std::minstd_rand;

struct Target {
    std::string_view name;
    // Hands the bytes to the reader and sees that it does what it promises for them.
    void (*read)(std::string_view bytes);
    // An input like this one, made by somebody who knows the format: most get past the first tests.
    std::string (*mutate)(std::string bytes, Random& random);
    // Inputs to begin with.
    std::vector<std::string> (*seeds)();
};

// The targets of the program: those of the library, or those of the tool.
std::span<const Target> targets();

// The one of this name; without it the program ends.
const Target& target_named(std::string_view name);

// A number from 0 to bound - 1.
inline std::size_t below(Random& random, std::size_t bound) {
    return random() % bound;
}

// Ends the program, so that the input that led here is found, if a promise does not hold.
inline void require(bool holds, const char* promise) {
    if (holds) return;
    (void)std::fprintf(stderr, "Broken promise: %s\n", promise);
    std::abort();
}

}  // namespace zx::fuzz
