#include "files.hpp"

namespace zxtool::test {
namespace {

constexpr const char* kBanner = "%%MatrixMarket matrix coordinate ";

TEST(MatrixMarket, HasRealIntegerOrPatternEntries) {
    const struct {
        std::string text;
        Rows rows;
    } cases[] = {
        {"real general\n3 4 2\n1 4 2.5\n3 1 -1e-1\n", {{"1", "4", 2.5F}, {"3", "1", -0.1F}}},
        {"integer general\n3 4 2\n1 4 2\n3 1 7\n", {{"1", "4", 2.0F}, {"3", "1", 7.0F}}},
        {"pattern general\n3 4 2\n1 4\n3 1\n", {{"1", "4"}, {"3", "1"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const InteractionFile file = read_text(kBanner + c.text, "m.mtx");
        EXPECT_EQ(rows_of(file), c.rows);
        EXPECT_TRUE(file.rows.timestamps.empty());
    }
    EXPECT_TRUE(read_text(kBanner + cases[2].text, "m.mtx").rows.ratings.empty());
}

TEST(MatrixMarket, MayHaveCommentsBlankLinesAndAnyCase) {
    EXPECT_EQ(rows_of(read_text("%%matrixmarket MATRIX Coordinate Real GENERAL\r\n% a comment\n\n"
                                "%another\n 2  2\t1 \n\n  2 1   5 \n% the end\n",
                                "m.mtx")),
              (Rows{{"2", "1", 5.0F}}));
}

TEST(MatrixMarket, HasNumbersForIdsWithoutLeadingZeros) {
    EXPECT_EQ(
        rows_of(read_text(kBanner + std::string("pattern general\n9 9 2\n007 9\n7 09\n"), "m.mtx")),
        (Rows{{"7", "9"}, {"7", "9"}}));
}

TEST(MatrixMarket, IsRefusedWithWhatWasExpected) {
    const struct {
        std::string text;
        const char* message;
    } cases[] = {
        {"",
         "3: m.mtx: is empty, expected \"%%MatrixMarket matrix coordinate "
         "real|integer|pattern general\""},
        {"1 2 3\n",
         "3: m.mtx:1: not a Matrix Market file, expected \"%%MatrixMarket matrix "
         "coordinate real|integer|pattern general\""},
        {"%%MatrixMarket matrix array real general\n",
         "3: m.mtx:1: \"matrix array\" is not supported, expected \"%%MatrixMarket matrix "
         "coordinate real|integer|pattern general\""},
        {"%%MatrixMarket vector coordinate real general\n",
         "3: m.mtx:1: \"vector coordinate\" is not supported, expected \"%%MatrixMarket matrix "
         "coordinate real|integer|pattern general\""},
        {"%%MatrixMarket matrix coordinate complex general\n",
         "3: m.mtx:1: entries of type \"complex\" are not supported, expected \"%%MatrixMarket "
         "matrix coordinate real|integer|pattern general\""},
        {"%%MatrixMarket matrix coordinate real symmetric\n",
         "3: m.mtx:1: symmetry \"symmetric\" is not supported, expected \"%%MatrixMarket matrix "
         "coordinate real|integer|pattern general\""},
        {"%%MatrixMarket matrix coordinate pattern skew-symmetric\n",
         "3: m.mtx:1: symmetry \"skew-symmetric\" is not supported, expected \"%%MatrixMarket "
         "matrix coordinate real|integer|pattern general\""},
        {"%%MatrixMarket matrix coordinate real\n",
         "3: m.mtx:1: symmetry \"\" is not supported, expected \"%%MatrixMarket matrix coordinate "
         "real|integer|pattern general\""},
        {"%%MatrixMarket matrix coordinate real general\n% no more\n",
         "3: m.mtx: ends before its size line, expected \"rows columns entries\""},
        {"%%MatrixMarket matrix coordinate real general\n3 3\n",
         "3: m.mtx:2: bad size line, expected \"rows columns entries\""},
        {"%%MatrixMarket matrix coordinate real general\n3 3 -1\n",
         "3: m.mtx:2: bad size line, expected \"rows columns entries\""},
        {"%%MatrixMarket matrix coordinate real general\n3 3 1 1\n",
         "3: m.mtx:2: bad size line, expected \"rows columns entries\""},
        {"%%MatrixMarket matrix coordinate real general\n3 3 99999999999999999999\n",
         "3: m.mtx:2: bad size line, expected \"rows columns entries\""},
        {"%%MatrixMarket matrix coordinate real general\n3 3 1\n1 1\n",
         "3: m.mtx:3: expected 3 fields (row column value), found 2"},
        {"%%MatrixMarket matrix coordinate pattern general\n3 3 1\n1 1 1\n",
         "3: m.mtx:3: expected 2 fields (row column), found 3"},
        {"%%MatrixMarket matrix coordinate real general\n3 3 1\n0 1 1\n",
         "3: m.mtx:3: row \"0\" is not in the matrix, expected a number from 1 to 3"},
        {"%%MatrixMarket matrix coordinate real general\n3 4 1\n1 5 1\n",
         "3: m.mtx:3: column \"5\" is not in the matrix, expected a number from 1 to 4"},
        {"%%MatrixMarket matrix coordinate real general\n3 4 1\n4 1 1\n",
         "3: m.mtx:3: row \"4\" is not in the matrix, expected a number from 1 to 3"},
        {"%%MatrixMarket matrix coordinate real general\n3 4 1\nx 1 1\n",
         "3: m.mtx:3: row \"x\" is not in the matrix, expected a number from 1 to 3"},
        {"%%MatrixMarket matrix coordinate real general\n3 4 1\n1 1 inf\n",
         "3: m.mtx:3: value \"inf\" is not a finite number, expected one such as 3.5"},
        {"%%MatrixMarket matrix coordinate real general\n3 3 1\n1 1 1\n2 2 2\n",
         "3: m.mtx:4: more entries than the 1 of the size line"},
        {"%%MatrixMarket matrix coordinate real general\n3 3 3\n1 1 1\n2 2 2\n",
         "3: m.mtx: ends after 2 entries, expected the 3 of the size line"},
        {"%%MatrixMarket matrix coordinate real general\n3 3 0\n",
         "3: m.mtx: has no interactions, expected lines such as user,item,rating"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(refusal_of(c.text, "m.mtx"), c.message);
    }
}

}  // namespace
}  // namespace zxtool::test
