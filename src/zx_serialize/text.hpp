// Text of file headers, put together piece by piece. Numbers are plain digits in every locale.
#pragma once

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace zx {

// Appends to memory that has room for all of it; without memory the text is only measured.
class Text {
  public:
    explicit Text(char* out) : out_(out) {}

    void add(std::string_view piece) {
        if (out_) std::memcpy(out_ + length_, piece.data(), piece.size());
        length_ += piece.size();
    }
    void add_number(std::uint64_t number) {
        char digits[21];  // the largest number, and the terminator
        const int length = std::snprintf(digits, sizeof(digits), "%" PRIu64, number);
        add({digits, static_cast<std::size_t>(length)});
    }
    void add_spaces_up_to(std::uint64_t length) {
        while (length_ < length) add(" ");
    }

    [[nodiscard]] std::uint64_t length() const { return length_; }

  private:
    char* out_;
    std::uint64_t length_ = 0;
};

}  // namespace zx
