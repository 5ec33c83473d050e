// Comparing floats for sameness: equal bits, or both not a number. IEEE does not say which of two
// NaNs an operation hands on, so their bits are no result.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace zx::test {

inline constexpr float kInfinity = std::numeric_limits<float>::infinity();
inline constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

inline bool same_number(float a, float b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}

// Reports the first difference only: one wrong row makes thousands of them.
inline testing::AssertionResult same_numbers(const float* actual, const float* expected,
                                             std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        if (!same_number(actual[i], expected[i])) {
            return testing::AssertionFailure()
                   << "number " << i << " of " << count << " is " << std::hexfloat << actual[i]
                   << ", expected " << expected[i];
        }
    }
    return testing::AssertionSuccess();
}

inline testing::AssertionResult same_numbers(const std::vector<float>& actual,
                                             const std::vector<float>& expected) {
    if (actual.size() != expected.size()) {
        return testing::AssertionFailure()
               << actual.size() << " numbers, expected " << expected.size();
    }
    return same_numbers(actual.data(), expected.data(), actual.size());
}

}  // namespace zx::test
