#include "random.hpp"

#include "alias_table.hpp"

#include <array>
#include <gtest/gtest.h>
#include <vector>

namespace zxtool {
namespace {

TEST(SplitMix64, GivesThePublishedNumbers) {
    SplitMix64 random(1234567);
    EXPECT_EQ(random.next(), 6457827717110365317U);
    EXPECT_EQ(random.next(), 3203168211198807973U);
    EXPECT_EQ(random.next(), 9817491932198370423U);
    EXPECT_EQ(random.next(), 4593380528125082431U);
    EXPECT_EQ(random.next(), 16408922859458223821U);
}

TEST(SplitMix64, StaysBelowABound) {
    SplitMix64 random(1);
    std::array<int, 5> counts{};
    for (int i = 0; i < 50'000; ++i) ++counts.at(random.below(5));
    // Five standard deviations of a fair draw are 447.
    for (const int count : counts) EXPECT_NEAR(count, 10'000, 447);
    EXPECT_EQ(random.below(1), 0U);
}

TEST(SplitMix64, GivesItsUpperBitsAsAFraction) {
    SplitMix64 random(1234567);
    // 6457827717110365317 / 2^64 and 3203168211198807973 / 2^64
    EXPECT_NEAR(random.uniform(), 0.35007954, 1e-8);
    EXPECT_NEAR(random.uniform(), 0.17364410, 1e-8);
}

TEST(AliasTable, DrawsInProportionToTheWeights) {
    const std::vector<double> weights = {1.0, 5.0, 0.5, 3.5};
    const AliasTable table(weights);
    SplitMix64 random(1);
    std::array<int, 4> counts{};
    constexpr int kDraws = 1'000'000;
    for (int i = 0; i < kDraws; ++i) ++counts.at(table.draw(random));
    // Five standard deviations of the largest share are 0.0025.
    for (std::size_t i = 0; i < weights.size(); ++i)
        EXPECT_NEAR(static_cast<double>(counts.at(i)) / kDraws, weights[i] / 10.0, 0.0025);
}

TEST(AliasTable, DrawsTheOnlyNumber) {
    const AliasTable table({3.0});
    SplitMix64 random(1);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(table.draw(random), 0U);
}

}  // namespace
}  // namespace zxtool
