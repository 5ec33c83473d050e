// What is said of rows that cannot be read: file, line, what is wrong, what was expected.
#include "files.hpp"

namespace zxtool::test {
namespace {

TEST(RefusedRow, IsNamedWithItsLineAndWhatWasExpected) {
    const struct {
        const char* what;
        std::string text;
        const char* message;
    } cases[] = {
        {"too few of four", "1,2,3,4\n5,6,7\n",
         "3: x.csv:2: expected 4 fields (user,item,rating,timestamp), found 3"},
        {"too many of three", "1,2,3\n5,6,7,8\n",
         "3: x.csv:2: expected 3 fields (user,item,rating), found 4"},
        {"too many of two", "1,2\n\n5,6,7,8,9,10\n",
         "3: x.csv:3: expected 2 fields (user,item), found 6"},
        {"a separator at the end", "1,2,3\n5,6,7,\n",
         "3: x.csv:2: expected 3 fields (user,item,rating), found 4"},
        {"one field in the first row", "1;2;3\n",
         "3: x.csv:1: expected 2 to 4 fields (user,item[,rating[,timestamp]]) separated by commas, "
         "found 1"},
        {"five fields in the first row", "1,2,3,4,5\n",
         "3: x.csv:1: expected 2 to 4 fields (user,item[,rating[,timestamp]]) separated by commas, "
         "found 5"},
        {"rating is no number", "1,2,3\n1,2,good\n",
         "3: x.csv:2: rating \"good\" is not a finite number, expected one such as 3.5"},
        {"rating is empty", "1,2,3\n1,2,\n",
         "3: x.csv:2: rating \"\" is not a finite number, expected one such as 3.5"},
        {"rating is not finite", "1,2,nan\n",
         "3: x.csv:1: rating \"nan\" is not a finite number, expected one such as 3.5"},
        {"rating is too large", "1,2,1e39\n",
         "3: x.csv:1: rating \"1e39\" is out of range, expected a 32-bit number"},
        {"timestamp is a date", "1,2,3,4\n1,2,3,2001-01-01\n",
         "3: x.csv:2: timestamp \"2001-01-01\" is not an integer, expected one such as 978300760"},
        {"timestamp is too large", "1,2,3,9223372036854775808\n",
         "3: x.csv:1: timestamp \"9223372036854775808\" is out of range, expected a 64-bit "
         "integer"},
        {"user is empty", "1,2\n,3\n", "3: x.csv:2: user is empty, expected an id"},
        {"item is empty", "1,2\n3,\n", "3: x.csv:2: item is empty, expected an id"},
        {"quoted item is empty", "1,2\n3,\"\"\n", "3: x.csv:2: item is empty, expected an id"},
        {"a zero byte", std::string("1,2\n3,a\0b\n", 10),
         "3: x.csv:2: item \"a\\x00b\" has a zero byte, expected text"},
        {"quote is not closed", "1,2\n\"3,4\n5,6\n",
         "3: x.csv:2: quoted field is not closed, expected a closing quote on the same line"},
        {"line break in quotes", "1,\"a\nb\"\n",
         "3: x.csv:1: quoted field is not closed, expected a closing quote on the same line"},
        {"text behind a quote", "1,\"a\"b\n",
         "3: x.csv:1: text after the closing quote of field 2, expected \",\" or the end of the "
         "line"},
        {"control bytes and a long field", "1,2,\x1B[2J" + std::string(50, 'x') + "\n",
         "3: x.csv:1: rating \"\\x1B[2Jxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx...\" is not a finite "
         "number, expected one such as 3.5"},
        {"line counts go on after plain rows",
         "1,2,3,978300760\n1,2,3,978300760\n\n1,2,3,978300760\n1,2,x,978300760\n",
         "3: x.csv:5: rating \"x\" is not a finite number, expected one such as 3.5"},
        {"carriage returns", "1,2,3\r\n1,2\r\n",
         "3: x.csv:2: expected 3 fields (user,item,rating), found 2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(refusal_of(c.text), c.message);
    }
}

TEST(RefusedRow, SaysWhatSeparatesTheFieldsOfItsFormat) {
    const struct {
        Format format;
        const char* text;
        const char* message;
    } cases[] = {
        {Format::kTsv, "a b\n",
         "3: x:1: expected 2 to 4 fields (user,item[,rating[,timestamp]]) separated by tabs, found "
         "1"},
        {Format::kSpace, "a,b\n",
         "3: x:1: expected 2 to 4 fields (user,item[,rating[,timestamp]]) separated by white "
         "space, found 1"},
        {Format::kColons, "a:b\n",
         "3: x:1: expected 2 to 4 fields (user,item[,rating[,timestamp]]) separated by \"::\", "
         "found 1"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(refusal_of(c.text, "x", {c.format, Header::kDetect, {}}), c.message);
}

TEST(RefusedFile, HasNoRows) {
    for (const char* text : {"", "\n", "\r\n \n", "user,item,rating\n", "\xEF\xBB\xBF"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(refusal_of(text),
                  "3: x.csv: has no interactions, expected lines such as user,item,rating");
        EXPECT_EQ(refusal_of(text, "x.dat").substr(0, 26), "3: x.dat: has no interacti");
    }
}

}  // namespace
}  // namespace zxtool::test
