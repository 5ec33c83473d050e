// Numbers as the fields of a text file hold them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zxtool {

enum class NumberText { kGood, kNotANumber, kOutOfRange };

// The general cases of the two functions that follow.
NumberText parse_any_rating(std::string_view text, float& rating);
NumberText parse_any_timestamp(std::string_view text, std::int64_t& timestamp);

// A finite decimal number, such as "4", "3.5" or "1e-3", as the nearest float.
inline NumberText parse_rating(std::string_view text, float& rating) {
    // Nearly all ratings are a few digits with a point: the digits as an integer below 2^24 and the
    // power of ten are exact floats, so their quotient is the nearest float to what is written.
    constexpr float kPowersOfTen[] = {1e0F, 1e1F, 1e2F, 1e3F, 1e4F, 1e5F, 1e6F, 1e7F};
    constexpr std::size_t kMaxDigits = 7;
    std::uint32_t digits_value = 0;
    std::size_t digits = 0;
    std::size_t decimals = 0;
    bool after_point = false;
    if (text.size() > kMaxDigits + 1) return parse_any_rating(text, rating);
    for (const char c : text) {
        const auto digit = static_cast<unsigned>(c) - '0';
        if (digit <= 9) {
            digits_value = digits_value * 10 + digit;
            ++digits;
            decimals += after_point ? 1 : 0;
        } else if (c == '.' && !after_point) {
            after_point = true;
        } else {
            return parse_any_rating(text, rating);
        }
    }
    if (digits == 0 || digits > kMaxDigits) return parse_any_rating(text, rating);
    rating = static_cast<float>(digits_value) / kPowersOfTen[decimals];
    return NumberText::kGood;
}

// An integer of 64 bits; a decimal fraction behind it is cut off.
inline NumberText parse_timestamp(std::string_view text, std::int64_t& timestamp) {
    constexpr std::size_t kMaxDigits = 18;  // any such number fits
    if (text.empty() || text.size() > kMaxDigits) return parse_any_timestamp(text, timestamp);
    std::int64_t value = 0;
    for (const char c : text) {
        const auto digit = static_cast<unsigned>(c) - '0';
        if (digit > 9) return parse_any_timestamp(text, timestamp);
        value = value * 10 + digit;
    }
    timestamp = value;
    return NumberText::kGood;
}

// Whether a text is a number of any size.
bool is_number(std::string_view text);

}  // namespace zxtool
