// Denormal numbers count as zero in the thread that loads the library and in those it starts.
// Valgrind computes without these modes, so under it, as the variable ZORVEX_VALGRIND tells, the
// tests stand aside.

#include "zorvex.h"

#include <bit>
#include <cfloat>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

namespace {

class FlushToZero : public testing::Test {
  protected:
    void SetUp() override {
        if (std::getenv("ZORVEX_VALGRIND"))
            GTEST_SKIP() << "Valgrind does not emulate flush-to-zero";
    }
};

// The operands are volatile, so that the processor computes and not the compiler.
void expect_denormals_to_be_zero() {
    const volatile float smallest_normal = FLT_MIN;
    const volatile float half = 0.5f;
    const volatile float flushed_result = smallest_normal * half;
    EXPECT_EQ(std::bit_cast<std::uint32_t>(static_cast<float>(flushed_result)), 0U);

    const volatile float kept_result = smallest_normal * 1.0f;
    EXPECT_EQ(std::bit_cast<std::uint32_t>(static_cast<float>(kept_result)), 0x00800000U);

    // 2^-127 times 2^127 is 1, unless the denormal operand counts as zero.
    const volatile float denormal = std::bit_cast<float>(std::uint32_t{0x00400000});
    const volatile float large = 0x1p127f;
    const volatile float product = denormal * large;
    EXPECT_EQ(std::bit_cast<std::uint32_t>(static_cast<float>(product)), 0U);

    const volatile double smallest_double = DBL_MIN;
    const volatile double flushed_double = smallest_double * 0.5;
    EXPECT_EQ(std::bit_cast<std::uint64_t>(static_cast<double>(flushed_double)), 0U);
}

TEST_F(FlushToZero, HoldsInTheThreadThatLoadedTheLibrary) {
    expect_denormals_to_be_zero();
}

TEST_F(FlushToZero, HoldsInThreadsStartedLater) {
    std::thread([] {
        expect_denormals_to_be_zero();
        std::thread(expect_denormals_to_be_zero).join();
    }).join();
}

TEST_F(FlushToZero, ReachesTheLibrarysOwnArithmetic) {
    // The bounds of the range differ by a denormal number, which counts as zero.
    const float min = 0x1.000002p-126f;
    const float max = 0x1.000004p-126f;
    for (int i = 0; i < 100; ++i) EXPECT_EQ(zx_rng_uniform_range(min, max), min);
}

}  // namespace
