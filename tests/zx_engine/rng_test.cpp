// The per-thread random generator: published vectors, the whole stream against an independent
// implementation, and the corners of the distributions.

#include "zx_engine/rng.hpp"

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "generator_state.hpp"
#include "reference_rng.hpp"
#include "zorvex.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <thread>
#include <vector>

namespace {

using zx::test::generator_state;
using zx::test::ReferenceRng;
using zx::test::set_generator_state;
using zx::test::state_that_draws;

std::uint32_t bits(float value) {
    return std::bit_cast<std::uint32_t>(value);
}

// How many outputs lie between a state and the present one; at most ten are tried.
int draws_since(const ReferenceRng::State& before) {
    ReferenceRng reference(before);
    for (int draws = 0; draws <= 10; ++draws) {
        if (reference.state() == generator_state()) return draws;
        (void)reference.next();
    }
    return -1;
}

TEST(Rng, SeedsBySplitMix64) {
    const struct {
        std::uint64_t seed;
        ReferenceRng::State state;
    } cases[] = {
        // The first outputs that are published for this seed.
        {1234567,
         {6457827717110365317U, 3203168211198807973U, 9817491932198370423U, 4593380528125082431U}},
        {0, {0xe220a8397b1dcdaf, 0x6e789e6aa1b965f4, 0x06c45d188009454f, 0xf88bb8a8724c81ec}},
        {1, {0x910a2dec89025cc1, 0xbeeb8da1658eec67, 0xf893a2eefb32555e, 0x71c18690ee42c90b}},
        {UINT64_MAX,
         {0xe4d971771b652c20, 0xe99ff867dbf682c9, 0x382ff84cb27281e9, 0x6d1db36ccba982d2}},
    };
    for (const auto& c : cases) {
        zx_rng_seed(c.seed);
        EXPECT_EQ(generator_state(), c.state) << c.seed;
    }
}

TEST(Rng, StepsByXoshiro256StarStar) {
    // The outputs that are published for the state 1, 2, 3, 4.
    constexpr std::uint64_t kPublished[] = {11520,
                                            0,
                                            1509978240,
                                            1215971899390074240U,
                                            1216172134540287360U,
                                            607988272756665600U,
                                            16172922978634559625U,
                                            8476171486693032832U,
                                            10595114339597558777U,
                                            2904607092377533576U};
    set_generator_state({1, 2, 3, 4});
    for (const std::uint64_t output : kPublished) EXPECT_EQ(zx::next(zx::thread_rng()), output);
}

TEST(Rng, DrawsUniformNumbersFromTheUpperBitsOfThePublishedOutputs) {
    set_generator_state({1, 2, 3, 4});
    EXPECT_EQ(zx_rng_uniform(), 0x5p-53f);  // 11520 is 5 * 2^11 + 1280
    EXPECT_EQ(zx_rng_uniform(), 0.0f);
    EXPECT_EQ(zx_rng_uniform(), 737294.0f * 0x1p-53f);  // 1509978240 / 2048 is 737294.06
}

TEST(Rng, StartsEveryThreadWithTheSameStream) {
    constexpr std::uint32_t kUniforms[] = {0x3e409004, 0x3e758918, 0x3f435801, 0x3e10dec8,
                                           0x3e68529e, 0x3f05c231, 0x3f236e43, 0x3e1cd583};
    zx_rng_seed(99);  // of no concern to other threads
    for (int thread = 0; thread < 2; ++thread)
        std::thread([&] {
            EXPECT_EQ(generator_state(), ReferenceRng::kInitial);
            for (const std::uint32_t expected : kUniforms)
                EXPECT_EQ(bits(zx_rng_uniform()), expected);
        }).join();
    EXPECT_EQ(generator_state(), ReferenceRng(99).state());
}

TEST(Rng, DrawsInOneThreadLeaveTheOthersAlone) {
    std::vector<std::vector<float>> streams(4);
    std::vector<std::thread> threads(streams.size());
    for (std::size_t i = 0; i < streams.size(); ++i)
        threads[i] = std::thread([&stream = streams[i]] {
            stream.resize(5000);
            for (float& number : stream) number = zx_rng_uniform();
        });
    for (std::thread& thread : threads) thread.join();
    ReferenceRng reference(ReferenceRng::kInitial);
    for (const float expected : streams[0]) EXPECT_EQ(expected, reference.uniform());
    for (const auto& stream : streams) EXPECT_EQ(stream, streams[0]);
}

TEST(Rng, FollowsTheReferenceBitByBit) {
    for (const std::uint64_t seed : {0ULL, 1ULL, 42ULL, 1234567ULL, ~0ULL, 1ULL << 63}) {
        SCOPED_TRACE(seed);
        zx_rng_seed(seed);
        ReferenceRng reference(seed);
        for (int i = 0; i < 2000; ++i) {
            ASSERT_EQ(bits(zx_rng_uniform()), bits(reference.uniform())) << i;
            ASSERT_EQ(bits(zx_rng_normal()), bits(reference.normal())) << i;
            ASSERT_EQ(bits(zx_rng_uniform_range(-0.7f, 1.9f)),
                      bits(reference.uniform_range(-0.7f, 1.9f)))
                << i;
        }
        EXPECT_EQ(generator_state(), reference.state());
    }
}

TEST(Rng, RepeatsItselfAfterTheSameSeed) {
    const auto draw = [](std::vector<float>& numbers) {
        zx_rng_seed(2024);
        for (std::size_t i = 0; i < numbers.size(); ++i)
            numbers[i] = i % 2 == 0 ? zx_rng_uniform() : zx_rng_normal();
    };
    std::vector<float> first(100);
    std::vector<float> second(100);
    draw(first);
    draw(second);
    EXPECT_EQ(first, second);
    EXPECT_NE(first[0], first[2]);
}

TEST(Rng, GivesTheRoundedUpperBitsOfAnOutput) {
    const struct {
        const char* when;
        std::uint64_t output;
        float uniform;
    } cases[] = {
        {"all bits are ones", ~0ULL, 1.0f},
        {"the upper 53 bits are ones", ~0ULL << 11, 1.0f},
        {"the value is 1 - 2^-25, a tie", ((1ULL << 53) - (1ULL << 28)) << 11, 1.0f},
        {"the value is one below the tie", (((1ULL << 53) - (1ULL << 28)) << 11) - 1,
         1.0f - 0x1p-24f},
        {"the value is 1/2", 1ULL << 63, 0.5f},
        {"the value is one below 1/2, which rounds", (1ULL << 63) - 1, 0.5f},
        {"the lowest bit that counts is set", 2048, 0x1p-53f},
        {"only bits below it are set", 2047, 0.0f},
        {"no bit is set", 0, 0.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        set_generator_state(state_that_draws(c.output));
        EXPECT_EQ(zx_rng_uniform(), c.uniform);
    }
}

TEST(Rng, StaysWithinZeroAndOne) {
    zx_rng_seed(7);
    for (int i = 0; i < 100000; ++i) {
        const float u = zx_rng_uniform();
        ASSERT_GE(u, 0.0f);
        ASSERT_LE(u, 1.0f);
    }
}

TEST(RngRange, MapsTheUnitIntervalOntoTheBounds) {
    const struct {
        const char* when;
        std::uint64_t output;
        float min, max, value;
    } cases[] = {
        {"the lower end", 0, -2.0f, 6.0f, -2.0f},
        {"the middle", 1ULL << 63, -2.0f, 6.0f, 2.0f},
        {"the upper end, which belongs to it", ~0ULL, -2.0f, 6.0f, 6.0f},
        {"equal bounds", 0x0123456789abcdef, 3.5f, 3.5f, 3.5f},
        {"equal bounds at the upper end", ~0ULL, -3.5f, -3.5f, -3.5f},
        {"reversed bounds at the lower end", 0, 6.0f, -2.0f, 6.0f},
        {"reversed bounds in between", 1ULL << 62, 6.0f, -2.0f, 4.0f},
        {"reversed bounds at the upper end", ~0ULL, 6.0f, -2.0f, -2.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        set_generator_state(state_that_draws(c.output));
        EXPECT_EQ(zx_rng_uniform_range(c.min, c.max), c.value);
    }
}

TEST(RngRange, RoundsTheProductBeforeTheSum) {
    // A fused multiply-add rounds once and differs now and then.
    zx_rng_seed(5);
    ReferenceRng reference(5);
    int distinguishing = 0;
    for (int i = 0; i < 1000; ++i) {
        ReferenceRng copy = reference;
        const float fused = std::fma(3.1f - -1.3f, copy.uniform(), -1.3f);
        const float expected = reference.uniform_range(-1.3f, 3.1f);
        ASSERT_EQ(bits(zx_rng_uniform_range(-1.3f, 3.1f)), bits(expected)) << i;
        if (fused != expected) ++distinguishing;
    }
    EXPECT_GT(distinguishing, 0);
}

TEST(RngRange, TakesOneDraw) {
    set_generator_state({1, 2, 3, 4});
    (void)zx_rng_uniform_range(4.0f, 4.0f);
    EXPECT_EQ(draws_since({1, 2, 3, 4}), 1);
}

TEST(RngNormal, TakesTwoDraws) {
    zx_rng_seed(3);
    for (int i = 0; i < 1000; ++i) {
        const ReferenceRng::State before = generator_state();
        (void)zx_rng_normal();
        ASSERT_EQ(draws_since(before), 2) << i;
    }
}

TEST(RngNormal, DrawsAZeroFirstUniformAgain) {
    // With a second word of 0 the first output is 0; equal first and last words make the third one
    // 0 too.
    const struct {
        const char* when;
        ReferenceRng::State state;
        int draws;
    } cases[] = {
        {"once", {11, 0, 22, 33}, 3},
        {"twice", {5, 0, 9, 5}, 4},
        {"for the largest output that counts as 0", state_that_draws(2047), 3},
        {"not for the smallest one that does not", state_that_draws(2048), 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        set_generator_state(c.state);
        const float value = zx_rng_normal();
        EXPECT_TRUE(std::isfinite(value));
        EXPECT_EQ(bits(value), bits(ReferenceRng(c.state).normal()));
        EXPECT_EQ(draws_since(c.state), c.draws);
    }
}

TEST(RngNormal, KeepsTheSecondUniformOfTheFirstRound) {
    const ReferenceRng::State state = {11, 0, 22, 33};
    ReferenceRng reference(state);
    EXPECT_EQ(reference.uniform(), 0.0f);
    const float u2 = reference.uniform();
    const float u1 = reference.uniform();
    set_generator_state(state);
    EXPECT_EQ(zx_rng_normal(), std::cos(u2 * 6.2831855f) * std::sqrt(-2.0f * std::log(u1)));
}

TEST(RngNormal, AllowsOneAsTheFirstUniformAndZeroAsTheSecond) {
    set_generator_state(state_that_draws(~0ULL));
    EXPECT_EQ(zx_rng_normal(), 0.0f);

    // In this state the second output is 0: the second word becomes the XOR of the first three.
    ReferenceRng::State state = state_that_draws(1ULL << 63);
    state[2] = state[0] ^ state[1];
    set_generator_state(state);
    EXPECT_EQ(zx_rng_normal(), std::sqrt(-2.0f * std::log(0.5f)));
}

TEST(RngNormal, HasMeanZeroAndVarianceOne) {
    zx_rng_seed(11);
    constexpr int kCount = 200000;
    double sum = 0.0;
    double squares = 0.0;
    for (int i = 0; i < kCount; ++i) {
        const double value = zx_rng_normal();
        sum += value;
        squares += value * value;
    }
    EXPECT_NEAR(sum / kCount, 0.0, 0.02);
    EXPECT_NEAR(squares / kCount, 1.0, 0.02);
}

TEST(Rng, NeitherAllocatesNorRecords) {
    zx::test::plant_record();
    const std::uint64_t before = zx::test::allocation_requests();
    zx_rng_seed(1);
    (void)zx_rng_uniform();
    (void)zx_rng_uniform_range(0.0f, std::numeric_limits<float>::infinity());
    (void)zx_rng_normal();
    EXPECT_EQ(zx::test::allocation_requests(), before);
    zx::test::expect_untouched();
}

}  // namespace
