#include "id_map.hpp"

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace zxtool {
namespace {

TEST(IdMap, NumbersIdsInOrderOfFirstAppearance) {
    IdMap ids;
    EXPECT_EQ(ids.size(), 0U);
    EXPECT_EQ(ids.add("anna"), 0U);
    EXPECT_EQ(ids.add("7"), 1U);
    EXPECT_EQ(ids.add("anna"), 0U);
    EXPECT_EQ(ids.add("a user with a long name"), 2U);
    EXPECT_EQ(ids.add("7"), 1U);
    EXPECT_EQ(ids.size(), 3U);
    EXPECT_EQ(ids.name(0), "anna");
    EXPECT_EQ(ids.name(1), "7");
    EXPECT_EQ(ids.name(2), "a user with a long name");
}

TEST(IdMap, KeepsIdsApartThatLookAlike) {
    // Numbers are looked up by their value, but only as they are written without leading zeros; the
    // largest such number is 1048575.
    const std::vector<std::string> alike = {
        "0",        "00", "7", "07",       "7 ",      " 7",       "7.0",
        "-7",       "+7", "",  "1048575",  "1048576", "9999999",  "10000000",
        "01048575", "a",  "A", "\xC3\xA9", "e",       "12345678", "123456789"};
    IdMap ids;
    for (std::uint32_t i = 0; i < alike.size(); ++i) {
        EXPECT_EQ(ids.find(alike[i]), std::nullopt) << alike[i];
        EXPECT_EQ(ids.add(alike[i]), i) << alike[i];
    }
    for (std::uint32_t i = 0; i < alike.size(); ++i) {
        EXPECT_EQ(ids.add(alike[i]), i) << alike[i];
        EXPECT_EQ(ids.find(alike[i]), i) << alike[i];
        EXPECT_EQ(ids.name(i), alike[i]);
    }
}

TEST(IdMap, KnowsASmallNumberWrittenEitherWay) {
    IdMap ids;
    EXPECT_EQ(ids.add_small(42), 0U);
    EXPECT_EQ(ids.add("42"), 0U);
    EXPECT_EQ(ids.find("42"), 0U);
    EXPECT_EQ(ids.add("0"), 1U);
    EXPECT_EQ(ids.add_small(0), 1U);
    EXPECT_EQ(ids.add_small(IdMap::kEndOfSmall - 1), 2U);
    EXPECT_EQ(ids.name(2), "1048575");
}

TEST(IdMap, FindsNothingInAnEmptyMap) {
    const IdMap ids;
    EXPECT_EQ(ids.find("1"), std::nullopt);
    EXPECT_EQ(ids.find("one"), std::nullopt);
}

TEST(IdMap, HoldsManyIdsOfEachKind) {
    IdMap ids;
    constexpr std::uint32_t kCount = 100'000;
    for (std::uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(ids.add(std::to_string(i)), 2 * i);
        ASSERT_EQ(ids.add("id-" + std::to_string(i)), 2 * i + 1);
    }
    for (std::uint32_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(ids.find(std::to_string(i)), 2 * i);
        ASSERT_EQ(ids.find("id-" + std::to_string(i)), 2 * i + 1);
        ASSERT_EQ(ids.name(2 * i + 1), "id-" + std::to_string(i));
    }
    EXPECT_EQ(ids.find("id-100000"), std::nullopt);
    EXPECT_EQ(ids.find("100000"), std::nullopt);
}

TEST(IdMap, CanBeMoved) {
    IdMap ids;
    ids.add("1");
    ids.add("one");
    const IdMap moved = std::move(ids);
    EXPECT_EQ(moved.find("1"), 0U);
    EXPECT_EQ(moved.find("one"), 1U);
}

}  // namespace
}  // namespace zxtool
