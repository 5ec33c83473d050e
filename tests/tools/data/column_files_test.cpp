// The formats with a row per line, and how a file's format is told.
#include "files.hpp"

namespace zxtool::test {
namespace {

const Rows kTwoRatings = {{"1", "10", 4.0F, 978300760}, {"2", "20", 3.5F, 978302109}};

TEST(ColumnFiles, AreReadInEveryFormat) {
    const struct {
        const char* what;
        Format format;
        const char* text;
    } cases[] = {
        {"commas", Format::kCsv, "1,10,4,978300760\n2,20,3.5,978302109\n"},
        {"tabs", Format::kTsv, "1\t10\t4\t978300760\n2\t20\t3.5\t978302109\n"},
        {"one blank", Format::kSpace, "1 10 4 978300760\n2 20 3.5 978302109\n"},
        {"any white space", Format::kSpace, "  1 \t10   4\t978300760 \n2\t\t20 3.5 978302109\n"},
        {"two colons", Format::kColons, "1::10::4::978300760\n2::20::3.5::978302109\n"},
        {"carriage returns", Format::kCsv, "1,10,4,978300760\r\n2,20,3.5,978302109\r\n"},
        {"no final line end", Format::kCsv, "1,10,4,978300760\n2,20,3.5,978302109"},
        {"a final carriage return", Format::kCsv, "1,10,4,978300760\n2,20,3.5,978302109\r"},
        {"blank lines", Format::kCsv, "\n\n1,10,4,978300760\n \t\n\r\n2,20,3.5,978302109\n\n"},
        {"a byte-order mark", Format::kCsv,
         "\xEF\xBB\xBF"
         "1,10,4,978300760\n2,20,3.5,978302109\n"},
        {"blanks around fields", Format::kCsv, " 1 ,10, 4 ,\t978300760\n2 , 20,3.5,978302109 \n"},
        {"quoted fields", Format::kCsv,
         "\"1\",\"10\",\"4\",\"978300760\"\n2,\"20\", \"3.5\" ,978302109\n"},
        {"a fraction of a second", Format::kCsv, "1,10,4.0,978300760.0\n2,20,3.5,978302109.75\n"},
        {"blanks in a file of colons", Format::kColons,
         "1 :: 10::4::978300760\n2::20::3.5::978302109\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const InteractionFile file = read_text(c.text, "x", {c.format, Header::kNo, {}});
        EXPECT_EQ(rows_of(file), kTwoRatings);
        EXPECT_EQ(file.rows.timestamps.size(), 2U);
    }
}

TEST(ColumnFiles, HaveTwoToFourColumns) {
    const InteractionFile pairs = read_text("a,x\nb,y\n");
    EXPECT_EQ(rows_of(pairs), (Rows{{"a", "x"}, {"b", "y"}}));
    EXPECT_TRUE(pairs.rows.ratings.empty());
    EXPECT_TRUE(pairs.rows.timestamps.empty());

    const InteractionFile ratings = read_text("a,x,1\nb,y,2.5\n");
    EXPECT_EQ(rows_of(ratings), (Rows{{"a", "x", 1.0F}, {"b", "y", 2.5F}}));
    EXPECT_TRUE(ratings.rows.timestamps.empty());

    const InteractionFile times = read_text("a,x,1,-7\nb,y,2.5,8\n");
    EXPECT_EQ(rows_of(times), (Rows{{"a", "x", 1.0F, -7}, {"b", "y", 2.5F, 8}}));
}

TEST(ColumnFiles, KeepTheirRowsInOrderAndNumberIdsByFirstAppearance) {
    const InteractionFile file = read_text("b,y\na,x\nb,x\nb,y\n");
    EXPECT_EQ(file.rows.users, (std::vector<std::uint32_t>{0, 1, 0, 0}));
    EXPECT_EQ(file.rows.items, (std::vector<std::uint32_t>{0, 1, 1, 0}));
    EXPECT_EQ(file.users.name(0), "b");
    EXPECT_EQ(file.items.name(1), "x");
}

TEST(ColumnFiles, CountTheirLinesAndBytes) {
    const InteractionFile file = read_text("user,item\n\n1,2\r\n3,4");
    EXPECT_EQ(file.lines, 4U);
    EXPECT_EQ(file.bytes, 19U);
}

TEST(ColumnFiles, TakeAnyStringAsAnId) {
    const Rows rows = rows_of(
        read_text("caf\xC3\xA9,\"x, y\"\n\"say \"\"hi\"\"\", \" kept \"\nu-1/2,a b\n007,7\n"));
    EXPECT_EQ(
        rows,
        (Rows{{"caf\xC3\xA9", "x, y"}, {"say \"hi\"", " kept "}, {"u-1/2", "a b"}, {"007", "7"}}));
}

TEST(ColumnFiles, LeaveQuotesAloneWithinAField) {
    EXPECT_EQ(rows_of(read_text("5\" pipe,a\"b\n")), (Rows{{"5\" pipe", "a\"b"}}));
}

TEST(ColumnFiles, LeaveQuotesAloneWhereTabsSeparate) {
    EXPECT_EQ(rows_of(read_text("\"w\" band\tx\n\"\ty\n", "x.tsv")),
              (Rows{{"\"w\" band", "x"}, {"\"", "y"}}));
}

TEST(ColumnFiles, MixPlainAndOtherRowsFreely) {
    std::string text;
    Rows expected;
    for (int i = 0; i < 1000; ++i) {
        const std::string number = std::to_string(i);
        text += number + ",7,3.5,978300760\n";
        expected.push_back({number, "7", 3.5F, 978300760});
        text += "u" + number + ",7,\"4.25\",-1\n";
        expected.push_back({"u" + number, "7", 4.25F, -1});
    }
    EXPECT_EQ(rows_of(read_text(text)), expected);
}

TEST(Detection, GoesByTheNameAndThenByTheFirstLine) {
    const Rows pair = {{"1", "2", 3.0F}};
    const struct {
        const char* what;
        const char* name;
        const char* text;
    } cases[] = {
        {"name of a CSV file", "x.csv", "1,2,3\n"},
        {"name of a TSV file", "x.tsv", "1\t2\t3\n"},
        {"tab", "u.data", "1\t2\t3\n"},
        {"colons", "ratings.dat", "1::2::3\n"},
        {"comma", "ratings.txt", "1,2,3\n"},
        {"white space", "ratings.txt", "1 2 3\n"},
        {"blank lines first", "ratings.txt", "\n  \n1::2::3\n"},
        {"Matrix Market", "m", "%%MatrixMarket matrix coordinate real general\n1 2 1\n1 2 3\n"},
        {"name of a Matrix Market file", "m.mtx",
         "%%matrixmarket matrix coordinate real general\n1 2 1\n1 2 3\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(rows_of(read_text(c.text, c.name)), pair);
    }
}

TEST(Detection, TakesTheRarerSeparatorOfTheFirstLine) {
    EXPECT_EQ(rows_of(read_text("a,b\tc::d\n", "x")), (Rows{{"a,b", "c::d"}}));
    EXPECT_EQ(rows_of(read_text("a,b::c d\n", "x")), (Rows{{"a,b", "c d"}}));
    EXPECT_EQ(rows_of(read_text("a b,c d\n", "x")), (Rows{{"a b", "c d"}}));
}

TEST(Detection, GivesWayToAStatedFormat) {
    EXPECT_EQ(rows_of(read_text("a,b c\n", "x.csv", {Format::kSpace, Header::kDetect, {}})),
              (Rows{{"a,b", "c"}}));
}

TEST(Detection, NeverTakesAFileForLists) {
    EXPECT_EQ(refusal_of("1 2 3 4 5\n", "train.txt"),
              "3: train.txt:1: expected 2 to 4 fields (user,item[,rating[,timestamp]]) separated "
              "by white space, found 5");
}

}  // namespace
}  // namespace zxtool::test
