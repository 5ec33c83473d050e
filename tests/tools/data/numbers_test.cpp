#include "digits.hpp"
#include "field_text.hpp"
#include "plain_row.hpp"
#include "quote.hpp"

#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace zxtool {
namespace {

TEST(Rating, IsTheNearestFloat) {
    const struct {
        const char* text;
        float value;
    } cases[] = {
        {"0", 0.0F},
        {"4", 4.0F},
        {"10", 10.0F},
        {"3.5", 3.5F},
        {"0.1", 0.1F},
        {".5", 0.5F},
        {"5.", 5.0F},
        {"4.25", 4.25F},
        {"1234567", 1234567.0F},
        {"0.123456", 0.123456F},
        {"12345678", 12345678.0F},
        {"16777217", 16777216.0F},
        {"-3", -3.0F},
        {"-0.5", -0.5F},
        {"1e3", 1000.0F},
        {"2.5e-1", 0.25F},
        {"3.4e38", 3.4e38F},
        {"0.3333333333333333", 0.33333334F},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        float value = -1.0F;
        EXPECT_EQ(parse_rating(c.text, value), NumberText::kGood);
        EXPECT_EQ(value, c.value);
    }
}

TEST(Rating, RefusesWhatIsNoFiniteNumber) {
    const struct {
        const char* text;
        NumberText result;
    } cases[] = {
        {"", NumberText::kNotANumber},      {".", NumberText::kNotANumber},
        {"abc", NumberText::kNotANumber},   {"4x", NumberText::kNotANumber},
        {"4 5", NumberText::kNotANumber},   {"1.2.3", NumberText::kNotANumber},
        {"3,5", NumberText::kNotANumber},   {"nan", NumberText::kNotANumber},
        {"inf", NumberText::kNotANumber},   {"-inf", NumberText::kNotANumber},
        {"0x10", NumberText::kNotANumber},  {"+4", NumberText::kNotANumber},
        {"4e", NumberText::kNotANumber},    {"1e39", NumberText::kOutOfRange},
        {"-1e39", NumberText::kOutOfRange}, {"1e-60", NumberText::kOutOfRange},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        float value = -1.0F;
        EXPECT_EQ(parse_rating(c.text, value), c.result);
        EXPECT_EQ(value, -1.0F);
    }
}

TEST(Timestamp, IsAnIntegerWithoutItsFraction) {
    const struct {
        const char* text;
        std::int64_t value;
    } cases[] = {
        {"0", 0},
        {"978300760", 978300760},
        {"978300760.0", 978300760},
        {"978300760.999", 978300760},
        {"978300760.", 978300760},
        {"-5", -5},
        {"-5.9", -5},
        {"007", 7},
        {"999999999999999999", 999999999999999999},
        {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::int64_t value = 1;
        EXPECT_EQ(parse_timestamp(c.text, value), NumberText::kGood);
        EXPECT_EQ(value, c.value);
    }
}

TEST(Timestamp, RefusesWhatIsNoIntegerOf64Bits) {
    const struct {
        const char* text;
        NumberText result;
    } cases[] = {
        {"", NumberText::kNotANumber},
        {".5", NumberText::kNotANumber},
        {"x", NumberText::kNotANumber},
        {"12x", NumberText::kNotANumber},
        {"1.5.2", NumberText::kNotANumber},
        {"1.e5", NumberText::kNotANumber},
        {"1e9", NumberText::kNotANumber},
        {"2000-01-01", NumberText::kNotANumber},
        {"9223372036854775808", NumberText::kOutOfRange},
        {"-9223372036854775809", NumberText::kOutOfRange},
        {"99999999999999999999.5", NumberText::kOutOfRange},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::int64_t value = 1;
        EXPECT_EQ(parse_timestamp(c.text, value), c.result);
        EXPECT_EQ(value, 1);
    }
}

TEST(IsNumber, NeedsADigitAndNothingElse) {
    for (const char* text : {"0", "-1.5", "1e400", "978300760", ".5"})
        EXPECT_TRUE(is_number(text)) << text;
    for (const char* text : {"", "-", "nan", "inf", "u1", "1u", "rating", "1 2"})
        EXPECT_FALSE(is_number(text)) << text;
}

TEST(Digits, AreCountedAndValuedAtEveryLength) {
    if (!kReadsDigits) GTEST_SKIP() << "this machine's first byte is not the lowest";
    const struct {
        const char* text;  // eight bytes
        std::uint32_t count;
        std::uint32_t value;
    } cases[] = {
        {"1,......", 1, 1},
        {"12,99999", 2, 12},
        {"123\n4567", 3, 123},
        {"1234/567", 4, 1234},
        {"12345:67", 5, 12345},
        {"123456\xFF"
         "9",
         6, 123456},
        {"1234567 ", 7, 1234567},
        {"98765432", 8, 98765432},
        {"00000000", 8, 0},
        {"0\x80\x30\x30\x30\x30\x30\x30", 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const std::uint64_t bytes = load_eight(c.text);
        EXPECT_EQ(count_digits(bytes), c.count);
        EXPECT_EQ(value_of_digits(bytes, c.count), c.value);
    }
    EXPECT_EQ(count_digits(load_eight(",1234567")), 0U);
}

// The quick way of reading a row may decline one, but must not read it differently.
TEST(PlainRow, IsTakenOnlyInItsExactForm) {
    if (!kReadsDigits) GTEST_SKIP() << "this machine's first byte is not the lowest";
    const struct {
        const char* line;
        bool plain;
    } cases[] = {
        {"1,2,3,978300760", true},         {"1,2,3.5,978300760", true},
        {"0,0,0.0,12345678", true},        {"1048575,1048575,9.9,123456789012345", true},
        {"1048576,2,3,978300760", false},  {"1,01,3,978300760", false},
        {"1,2,3.25,978300760", false},     {"1,2,10,978300760", false},
        {"1,2,3.,978300760", false},       {"1,2,3,1234567", false},
        {"1,2,3,1234567890123456", false}, {"1,2,3,978300760.0", false},
        {"1,2,3,978300760 ", false},       {"1,2,3", false},
        {"1,2,3,978300760,5", false},      {"a,2,3,978300760", false},
        {"1, 2,3,978300760", false},       {"1\t2\t3\t978300760", false},
        {"-1,2,3,978300760", false},
    };
    const PlainRowParser parser(",", 4);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const std::string line(c.line);
        const std::string buffer = line + '\n' + std::string(64, '7');
        PlainRow row;
        EXPECT_EQ(parser.parse({buffer.data(), line.size()}, row), c.plain);
    }
}

TEST(Quote, ShowsAnyBytesOnOneLine) {
    EXPECT_EQ(quote("abc"), "\"abc\"");
    EXPECT_EQ(quote(""), "\"\"");
    EXPECT_EQ(quote("a\tb\n\x7F"), "\"a\\x09b\\x0A\\x7F\"");
    EXPECT_EQ(quote("say \"hi\" \\o/"), "\"say \\\"hi\\\" \\\\o/\"");
    EXPECT_EQ(quote("caf\xC3\xA9"), "\"caf\xC3\xA9\"");
    // Control characters of two bytes, which end at U+009F.
    EXPECT_EQ(quote("\xC2\x80\xC2\x9F\xC2\xA0"), "\"\\xC2\\x80\\xC2\\x9F\xC2\xA0\"");
    EXPECT_EQ(quote(std::string("\x1B[31m", 5)), "\"\\x1B[31m\"");
}

TEST(Quote, CutsALongTextBetweenCharacters) {
    EXPECT_EQ(quote(std::string(40, 'x')), "\"" + std::string(40, 'x') + "\"");
    EXPECT_EQ(quote(std::string(41, 'x')), "\"" + std::string(40, 'x') + "...\"");
    // The fortieth byte is the first of a character of two.
    EXPECT_EQ(quote(std::string(39, 'x') + "\xC3\xA9y"), "\"" + std::string(39, 'x') + "...\"");
}

}  // namespace
}  // namespace zxtool
