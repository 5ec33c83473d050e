// Numbers of a few digits, eight bytes of text at a time. The text is in the order of a machine on
// which the first byte is the lowest; kReadsDigits says whether this is one.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace zxtool {

inline constexpr bool kReadsDigits = std::endian::native == std::endian::little;

inline std::uint64_t load_eight(const char* text) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, text, sizeof bytes);
    return bytes;
}

// How many of eight bytes, from the first, are digits. A byte is none if it differs from '0' by
// more than 9: adding 0x76 then sets its upper bit. A carry out of such a byte only reaches those
// behind it.
inline std::uint32_t count_digits(std::uint64_t bytes) {
    const std::uint64_t values = bytes ^ 0x3030303030303030U;
    const std::uint64_t others = ((values + 0x7676767676767676U) | values) & 0x8080808080808080U;
    return static_cast<std::uint32_t>(std::countr_zero(others)) / 8;
}

// The value of the first `count` digits, 1 to 8. With the missing ones as zeros in front,
// neighbours are joined to numbers of two, four and eight digits.
inline std::uint32_t value_of_digits(std::uint64_t bytes, std::uint32_t count) {
    std::uint64_t digits = (bytes ^ 0x3030303030303030U) << (64 - 8 * count);
    digits = (digits * 10 + (digits >> 8U)) & 0x00FF00FF00FF00FFU;
    digits = (digits * 100 + (digits >> 16U)) & 0x0000FFFF0000FFFFU;
    return static_cast<std::uint32_t>(digits * 10000 + (digits >> 32U));
}

}  // namespace zxtool
