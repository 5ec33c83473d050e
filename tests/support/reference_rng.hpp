// The random generator once more, written from its publications and sharing nothing with the
// library: what the library draws is compared with it bit by bit.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>

namespace zx::test {

class ReferenceRng {
  public:
    using State = std::array<std::uint64_t, 4>;

    // The state that every thread starts with.
    static constexpr State kInitial = {0x75c31992e62e41b5, 0x72e5b1f4a9d5c913, 0x8c7ea7d897f0b2a1,
                                       0x3d5e8f6c2b1a9047};

    explicit ReferenceRng(const State& state) : state_(state) {}

    explicit ReferenceRng(std::uint64_t seed) {
        for (std::uint64_t& word : state_) {
            std::uint64_t z = (seed += 0x9e3779b97f4a7c15ULL);
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
            z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
            word = z ^ (z >> 31);
        }
    }

    [[nodiscard]] const State& state() const { return state_; }

    std::uint64_t next() {
        auto& [s0, s1, s2, s3] = state_;
        const std::uint64_t result = rotated_left(s1 * 5, 7) * 9;
        const std::uint64_t shifted = s1 << 17;
        s2 ^= s0;
        s3 ^= s1;
        s1 ^= s2;
        s0 ^= s3;
        s2 ^= shifted;
        s3 = rotated_left(s3, 45);
        return result;
    }

    float uniform() {
        const auto top = static_cast<double>(next() >> 11);
        return static_cast<float>(std::ldexp(top, -53));
    }

    float uniform_range(float min, float max) {
        const float product = (max - min) * uniform();
        return product + min;
    }

    float normal() {
        float u1 = uniform();
        const float u2 = uniform();
        while (u1 == 0.0f) u1 = uniform();
        const float radius = std::sqrt(-2.0f * std::log(u1));
        return std::cos(u2 * 6.2831855f) * radius;
    }

  private:
    static std::uint64_t rotated_left(std::uint64_t x, int by) {
        return (x << by) | (x >> (64 - by));
    }

    State state_{};
};

}  // namespace zx::test
