#include "files.hpp"

namespace zxtool::test {
namespace {

const ReadOptions kLists = {Format::kLists, Header::kDetect, {}};

TEST(ListFiles, HaveAUserAndItsItemsPerLine) {
    const InteractionFile file = read_text("0 10 11 12\n\n1 11\n2 a b c d e f g\r\n", "x", kLists);
    EXPECT_EQ(rows_of(file), (Rows{{"0", "10"},
                                   {"0", "11"},
                                   {"0", "12"},
                                   {"1", "11"},
                                   {"2", "a"},
                                   {"2", "b"},
                                   {"2", "c"},
                                   {"2", "d"},
                                   {"2", "e"},
                                   {"2", "f"},
                                   {"2", "g"}}));
    EXPECT_TRUE(file.rows.ratings.empty());
    EXPECT_TRUE(file.rows.timestamps.empty());
    EXPECT_EQ(file.lines, 4U);
}

TEST(ListFiles, TakeNothingFromAUserWithoutItems) {
    const InteractionFile file = read_text("0\n1 5\n2 \n", "x", kLists);
    EXPECT_EQ(rows_of(file), (Rows{{"1", "5"}}));
    EXPECT_EQ(file.users.size(), 1U);
}

TEST(ListFiles, HaveAHeaderOnlyWhenStated) {
    EXPECT_EQ(rows_of(read_text("user items\n1 5\n", "x", kLists)),
              (Rows{{"user", "items"}, {"1", "5"}}));
    EXPECT_EQ(rows_of(read_text("user items\n1 5\n", "x", {Format::kLists, Header::kYes, {}})),
              (Rows{{"1", "5"}}));
}

TEST(ListFiles, MayHaveLinesLongerThanABlock) {
    std::string text = "u";
    constexpr int kItems = 200'000;
    for (int i = 0; i < kItems; ++i) (text += ' ') += std::to_string(i);
    const InteractionFile file = read_text(text + "\nv 7\n", "x", kLists);
    ASSERT_EQ(file.rows.size(), 200'001U);
    EXPECT_EQ(file.items.name(file.rows.items[199'999]), "199999");
    EXPECT_EQ(file.items.name(file.rows.items[200'000]), "7");
    EXPECT_EQ(file.users.name(1), "v");
}

}  // namespace
}  // namespace zxtool::test
