// The tool's own random numbers, whose stream is the same on every machine and with every standard
// library, and which leave the generator of the library alone.
// Method: Steele, Lea, Flood, "Fast Splittable Pseudorandom Number Generators", OOPSLA 2014.
#pragma once

#include <cstdint>

namespace zxtool {

class SplitMix64 {
  public:
    explicit SplitMix64(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        state_ += 0x9E3779B97F4A7C15U;
        std::uint64_t z = state_;
        z = (z ^ z >> 30U) * 0xBF58476D1CE4E5B9U;
        z = (z ^ z >> 27U) * 0x94D049BB133111EBU;
        return z ^ z >> 31U;
    }
    // Uniform in 0 to bound - 1; the bias is below bound / 2^32.
    std::uint32_t below(std::uint32_t bound) {
        return static_cast<std::uint32_t>((next() >> 32U) * bound >> 32U);
    }
    // Uniform in [0, 1), a multiple of 2^-53.
    double uniform() { return static_cast<double>(next() >> 11U) * 0x1p-53; }

  private:
    std::uint64_t state_;
};

}  // namespace zxtool
