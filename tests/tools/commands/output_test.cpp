// How results are written down: numbers, CSV fields, JSON, tables.
#include "output.hpp"

#include "progress.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>

namespace zxtool {
namespace {

TEST(Output, HasNoControlCharactersOfOneByteOrTwo) {
    EXPECT_EQ(printable("a\n\x1B\x7F"), "a???");
    EXPECT_EQ(printable("\xC2\x80-\xC2\x9F-\xC2\xA0-\xC3\x80"), "?-?-\xC2\xA0-\xC3\x80");
    EXPECT_EQ(printable("cut \xC2"), "cut \xC2");
}

TEST(Output, ShortestNumbersReadBackAsTheSameFloat) {
    EXPECT_EQ(shortest(0.1f), "0.1");
    EXPECT_EQ(shortest(-2.0f), "-2");
    EXPECT_EQ(shortest(16777216.0f), "16777216");
    std::mt19937 random(1);
    for (int round = 0; round < 10000; ++round) {
        const std::uint32_t bits = static_cast<std::uint32_t>(random());
        float value = 0.0f;
        std::memcpy(&value, &bits, sizeof value);
        if (!std::isnormal(value)) continue;
        EXPECT_EQ(std::stof(shortest(value)), value);
        EXPECT_EQ(static_cast<float>(json_number(value).get<double>()), value);
    }
}

TEST(Output, JsonNumbersAreAsShortAsInCsv) {
    EXPECT_EQ(json_text(json_number(0.1f)), "0.1");
    EXPECT_EQ(json_text(json_number(std::numeric_limits<float>::infinity())), "null");
    EXPECT_EQ(json_text(json_number(std::numeric_limits<float>::quiet_NaN())), "null");
}

TEST(Output, JsonTextSurvivesAnyBytes) {
    EXPECT_EQ(json_text("a\"\n\x01"), R"("a\"\n\u0001")");
    EXPECT_EQ(json_text(std::string("caf\xe9")), "\"caf\xef\xbf\xbd\"");
}

TEST(Output, CsvFieldsAreQuotedWhenNeeded) {
    const struct {
        const char* field;
        const char* written;
    } cases[] = {
        {"plain", "plain"},     {"two words", "two words"}, {"a,b", "\"a,b\""},
        {"a\"b", "\"a\"\"b\""}, {"a\nb", "\"a\nb\""},       {"a\rb", "\"a\rb\""},
        {" a", "\" a\""},       {"a\t", "\"a\t\""},         {"", "\"\""},
    };
    for (const auto& c : cases) EXPECT_EQ(csv_field(c.field), c.written);
}

TEST(Output, TablesLineUp) {
    Table table({{"item"}, {"score", true}});
    table.add({"a", "0.5"});
    table.add({"caf\xc3\xa9s and more", "-10.25"});
    table.add({"bell\x07", ""});
    EXPECT_EQ(table.text(false),
              "item             score\n"
              "a                  0.5\n"
              "caf\xc3\xa9s and more  -10.25\n"
              "bell?\n");
    EXPECT_EQ(table.text(true).substr(0, 31), "\x1b[1mitem             score\x1b[0m\n");
    EXPECT_EQ(table.csv(), "item,score\na,0.5\ncaf\xc3\xa9s and more,-10.25\nbell\x07,\n");
}

TEST(Output, SummariesShowWhatIsNoList) {
    const Json summary{
        {"a_name", "x\ty"}, {"n", 3}, {"share", 0.25}, {"yes", true}, {"list", {1, 2}}};
    EXPECT_EQ(summary_text(summary), "a name  x?y\nn       3\nshare   0.2500\nyes     yes\n");
}

TEST(Progress, DurationsAndRates) {
    EXPECT_EQ(duration_text(0.0), "0:00");
    EXPECT_EQ(duration_text(59.6), "1:00");
    EXPECT_EQ(duration_text(725.0), "12:05");
    EXPECT_EQ(duration_text(12000.0), "3:20:00");
    EXPECT_EQ(duration_text(1e300), "1000000:00:00");
    EXPECT_EQ(rate_text(1250000.0, "triples"), "1.25 M triples/s");
    EXPECT_EQ(rate_text(1000.0, "rows"), "1.0 k rows/s");
    EXPECT_EQ(rate_text(999.0, "rows"), "999.0 rows/s");
    EXPECT_EQ(rate_text(0.0, "rows"), "- rows/s");
}

TEST(Progress, BarsFillTheirWidth) {
    EXPECT_EQ(bar_text(50, 200, 5.0, "rows", 60),
              "[#######---------------------]  25 %  10.0 rows/s  0:15 left");
    EXPECT_EQ(bar_text(0, 200, 0.0, "rows", 60).substr(0, 10), "[---------");
    EXPECT_NE(bar_text(0, 200, 0.0, "rows", 60).find("   0 %  - rows/s  -:-- left"),
              std::string::npos);
    EXPECT_EQ(bar_text(200, 200, 5.0, "rows", 60).find('-'), std::string::npos);
    EXPECT_NE(bar_text(199, 200, 5.0, "rows", 60).find(" 99 %"), std::string::npos);
    for (const std::size_t width : {0u, 5u, 20u, 45u, 80u, 100u})
        EXPECT_LE(bar_text(50, 200, 5.0, "rows", width).size(), width);
    EXPECT_EQ(bar_text(50, 200, 5.0, "rows", 500).size(), 100u);
    EXPECT_EQ(bar_text(50, 200, 5.0, "rows", 30), " 25 %  10.0 rows/s  0:15 left");
}

}  // namespace
}  // namespace zxtool
