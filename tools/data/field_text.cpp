#include "field_text.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>

namespace zxtool {

NumberText parse_any_rating(std::string_view text, float& rating) {
    const char* const end = text.data() + text.size();
    float value = 0.0F;
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc::invalid_argument || rest != end) return NumberText::kNotANumber;
    if (error == std::errc::result_out_of_range) return NumberText::kOutOfRange;
    if (!std::isfinite(value)) return NumberText::kNotANumber;
    rating = value;
    return NumberText::kGood;
}

NumberText parse_any_timestamp(std::string_view text, std::int64_t& timestamp) {
    const char* const end = text.data() + text.size();
    std::int64_t value = 0;
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc::invalid_argument) return NumberText::kNotANumber;
    const bool has_fraction = rest != end && *rest == '.';
    const bool only_digits = std::all_of(has_fraction ? rest + 1 : rest, end,
                                         [](char c) { return c >= '0' && c <= '9'; });
    if ((rest != end && !has_fraction) || !only_digits) return NumberText::kNotANumber;
    if (error == std::errc::result_out_of_range) return NumberText::kOutOfRange;
    timestamp = value;
    return NumberText::kGood;
}

bool is_number(std::string_view text) {
    const char* const end = text.data() + text.size();
    double value = 0.0;
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    // Words such as "nan" and "info" begin like numbers; written numbers have a digit.
    const bool has_digit =
        std::any_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    return error != std::errc::invalid_argument && rest == end && has_digit;
}

}  // namespace zxtool
