// Numbers for test data. They come from a generator of the tests' own, so that making data leaves
// the library's generator alone and gives the same data everywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zx::test {

// SplitMix64 (Steele, Lea, Flood, 2014): small, and good enough for test data.
class RandomNumbers {
  public:
    explicit RandomNumbers(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        state_ += 0x9e3779b97f4a7c15;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }

    // From 0 to bound - 1.
    std::uint32_t below(std::uint32_t bound) {
        return static_cast<std::uint32_t>(((next() >> 32) * bound) >> 32);
    }

    // From [low, high).
    double between(double low, double high) {
        return low + (high - low) * (static_cast<double>(next() >> 11) * 0x1p-53);
    }

    // A multiple of 1/8 from -1 to 1: sums of some thousand products of two such are exact.
    float eighths() { return static_cast<float>(static_cast<int>(below(17)) - 8) / 8.0f; }

    std::vector<float> floats(std::size_t count, double low, double high) {
        std::vector<float> values(count);
        for (float& value : values) value = static_cast<float>(between(low, high));
        return values;
    }

    std::vector<float> all_eighths(std::size_t count) {
        std::vector<float> values(count);
        for (float& value : values) value = eighths();
        return values;
    }

    std::vector<std::uint32_t> ids(std::size_t count, std::uint32_t bound) {
        std::vector<std::uint32_t> values(count);
        for (std::uint32_t& value : values) value = below(bound);
        return values;
    }

  private:
    std::uint64_t state_;
};

}  // namespace zx::test
