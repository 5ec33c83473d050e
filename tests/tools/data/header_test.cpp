// Which first lines are taken for headers.
#include "files.hpp"

namespace zxtool::test {
namespace {

ReadOptions with_header(Header header) {
    return {Format::kDetect, header, {}};
}

TEST(Header, IsKnownByItsNames) {
    const struct {
        const char* name;
        const char* text;
    } cases[] = {
        {"x.csv", "userId,movieId\n1,2\n"},
        {"x.csv", "user,item\n1,2\n"},
        {"x.csv", "USER_ID,ITEM_ID\n1,2\n"},
        {"x.csv", "\"User ID\",\"Item ID\"\n1,2\n"},
        {"x.csv", "\xEF\xBB\xBFuserId,movieId\n1,2\n"},
        {"x.csv", "\n\nuserId , movieId\n1,2\n"},
        {"x.txt", "user_id item_id\n1 2\n"},
        {"x.txt", "user-id::book-id\n1::2\n"},
        {"x.inter", "user_id:token\titem_id:token\n1\t2\n"},
        {"x.txt", "#user item\n1 2\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(rows_of(read_text(c.text, c.name)), (Rows{{"1", "2"}}));
    }
}

TEST(Header, IsKnownByHavingNoNumberInThreeOrFourFields) {
    const Rows rows = {{"1", "2", 3.0F, 4}};
    EXPECT_EQ(rows_of(read_text("userId,movieId,rating,timestamp\n1,2,3,4\n")), rows);
    EXPECT_EQ(rows_of(read_text("user_id item_id rating timestamp\n1 2 3 4\n", "x")), rows);
    EXPECT_EQ(rows_of(read_text("wer,was,wie sehr,wann\n1,2,3,4\n")), rows);
    EXPECT_EQ(rows_of(read_text("wer,was,wie sehr\n1,2,3\n")), (Rows{{"1", "2", 3.0F}}));
}

TEST(Header, IsNoTwoColumnsOfOtherNames) {
    EXPECT_EQ(rows_of(read_text("anna,apples\nberta,pears\n")),
              (Rows{{"anna", "apples"}, {"berta", "pears"}}));
    EXPECT_EQ(rows_of(read_text("user,1\nuser,2\n")), (Rows{{"user", "1"}, {"user", "2"}}));
    EXPECT_EQ(rows_of(read_text("user1,item1\nuser2,item2\n")),
              (Rows{{"user1", "item1"}, {"user2", "item2"}}));
}

TEST(Header, IsNoLineWithANumberInIt) {
    EXPECT_EQ(refusal_of("1,2,four\n1,2,3\n"),
              "3: x.csv:1: rating \"four\" is not a finite number, expected one such as 3.5");
    EXPECT_EQ(refusal_of("a,b,four,978300760\na,b,3,4\n"),
              "3: x.csv:1: rating \"four\" is not a finite number, expected one such as 3.5");
}

TEST(Header, IsOnlyTheFirstLine) {
    EXPECT_EQ(refusal_of("user,item,rating\nuser,item,rating\n"),
              "3: x.csv:2: rating \"rating\" is not a finite number, expected one such as 3.5");
}

TEST(Header, SaysHowManyColumnsThereAre) {
    EXPECT_EQ(refusal_of("user,item,rating\n1,2\n"),
              "3: x.csv:2: expected 3 fields (user,item,rating), found 2");
}

TEST(Header, IsRefusedWhenItsColumnsAreInAnotherOrder) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"movieId,userId,rating\n1,2,3\n",
         "3: x.csv:1: column 1 is named \"movieId\", expected the user (columns are "
         "user,item[,rating[,timestamp]])"},
        {"item,user\n1,2\n",
         "3: x.csv:1: column 1 is named \"item\", expected the user (columns are "
         "user,item[,rating[,timestamp]])"},
        {"user,item,timestamp\n1,2,3\n",
         "3: x.csv:1: column 3 is named \"timestamp\", expected the rating (columns are "
         "user,item[,rating[,timestamp]])"},
        {"user,item,time,stars\n1,2,3,4\n",
         "3: x.csv:1: column 3 is named \"time\", expected the rating (columns are "
         "user,item[,rating[,timestamp]])"},
    };
    for (const auto& c : cases) EXPECT_EQ(refusal_of(c.text), c.message);
}

TEST(Header, IsSkippedUnseenWhenStated) {
    const ReadOptions options = with_header(Header::kYes);
    EXPECT_EQ(rows_of(read_text("1,2\n3,4\n", "x.csv", options)), (Rows{{"3", "4"}}));
    EXPECT_EQ(rows_of(read_text("\nitem,user,time,5,6\n3,4\n", "x.csv", options)),
              (Rows{{"3", "4"}}));
}

TEST(Header, IsDataWhenStatedToBeMissing) {
    EXPECT_EQ(rows_of(read_text("user,item\n3,4\n", "x.csv", with_header(Header::kNo))),
              (Rows{{"user", "item"}, {"3", "4"}}));
}

}  // namespace
}  // namespace zxtool::test
