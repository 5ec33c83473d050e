#include "statistics.hpp"

#include "files.hpp"

#include <cmath>
#include <cstring>
#include <limits>

namespace zxtool::test {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

Statistics statistics_of(const std::vector<float>& numbers, std::uint64_t* blocks = nullptr) {
    const TemporaryFolder folder;
    std::string contents("head");
    contents.resize(4 + numbers.size() * sizeof(float));
    if (!numbers.empty())
        std::memcpy(contents.data() + 4, numbers.data(), numbers.size() * sizeof(float));
    write_file(folder / "x", contents);
    const auto count_block = [blocks] {
        if (blocks != nullptr) ++*blocks;
    };
    return zxtool::statistics_of(RegularFile(folder / "x"), 4, contents.size() - 4, count_block);
}

TEST(Statistics, AreThoseOfAllNumbers) {
    const Statistics found = statistics_of({3.0F, -1.0F, 4.0F, 2.0F});
    EXPECT_EQ(found.finite, 4U);
    EXPECT_EQ(found.not_finite, 0U);
    EXPECT_EQ(found.min, -1.0F);
    EXPECT_EQ(found.max, 4.0F);
    EXPECT_DOUBLE_EQ(found.mean, 2.0);
    EXPECT_DOUBLE_EQ(found.deviation, std::sqrt(14.0 / 4.0));
}

TEST(Statistics, LeaveOutWhatIsNotFiniteAndCountIt) {
    const Statistics found = statistics_of({kNan, 1.0F, kInfinity, 3.0F, -kInfinity});
    EXPECT_EQ(found.finite, 2U);
    EXPECT_EQ(found.not_finite, 3U);
    EXPECT_EQ(found.min, 1.0F);
    EXPECT_EQ(found.max, 3.0F);
    EXPECT_DOUBLE_EQ(found.mean, 2.0);
    EXPECT_DOUBLE_EQ(found.deviation, 1.0);
}

TEST(Statistics, OfNothingAreZeros) {
    for (const std::vector<float>& numbers : {std::vector<float>{}, std::vector<float>{kNan}}) {
        const Statistics found = statistics_of(numbers);
        EXPECT_EQ(found.finite, 0U);
        EXPECT_EQ(found.not_finite, numbers.size());
        EXPECT_EQ(found.min, 0.0F);
        EXPECT_EQ(found.deviation, 0.0);
    }
}

TEST(Statistics, OfTheLargestNumbersDoNotOverflow) {
    constexpr float kMax = std::numeric_limits<float>::max();
    const Statistics found = statistics_of({kMax, -kMax, kMax, -kMax});
    EXPECT_DOUBLE_EQ(found.mean, 0.0);
    EXPECT_DOUBLE_EQ(found.deviation, double{kMax});
}

// The second block's numbers are others than the first's, and the third has none that are finite.
TEST(Statistics, JoinBlocks) {
    constexpr std::size_t kBlock = 262144;
    std::vector<float> numbers(kBlock, 1.0F);
    numbers.resize(2 * kBlock, 1001.0F);
    numbers.resize(2 * kBlock + 10, kNan);
    std::uint64_t blocks = 0;
    const Statistics found = statistics_of(numbers, &blocks);
    EXPECT_EQ(blocks, 3U);
    EXPECT_EQ(found.finite, 2 * kBlock);
    EXPECT_EQ(found.not_finite, 10U);
    EXPECT_EQ(found.max, 1001.0F);
    EXPECT_DOUBLE_EQ(found.mean, 501.0);
    EXPECT_DOUBLE_EQ(found.deviation, 500.0);
}

}  // namespace
}  // namespace zxtool::test
