// Numbers in strings of bytes, little-endian.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace zx::fuzz {

// The number at an offset; what is not there counts as zeros.
template <class Number>
Number number_at(std::string_view bytes, std::size_t offset) {
    Number number = 0;
    if (offset < bytes.size()) {
        const std::string_view there = bytes.substr(offset, sizeof(number));
        std::memcpy(&number, there.data(), there.size());
    }
    return number;
}

// Writes over bytes, as far as they are there.
template <class Number>
void put(std::string& bytes, std::size_t offset, Number number) {
    if (offset < bytes.size())
        std::memcpy(bytes.data() + offset, &number,
                    std::min(sizeof(number), bytes.size() - offset));
}

template <class Number>
std::string bytes_of(Number number) {
    std::string bytes(sizeof(number), '\0');
    std::memcpy(bytes.data(), &number, sizeof(number));
    return bytes;
}

}  // namespace zx::fuzz
