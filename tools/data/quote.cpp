#include "quote.hpp"

#include <fmt/format.h>

namespace zxtool {

namespace {

constexpr std::size_t kMaxQuoted = 40;

bool continues_character(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

}  // namespace

std::string quote(std::string_view text) {
    std::size_t length = text.size();
    if (length > kMaxQuoted) {
        length = kMaxQuoted;
        // A character is shown whole or not at all; it has at most three bytes after the first.
        for (int i = 0; i < 3 && continues_character(text[length]); ++i) --length;
    }
    std::string quoted = "\"";
    for (const char c : text.substr(0, length)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F)
            quoted += fmt::format("\\x{:02X}", byte);
        else if (c == '"' || c == '\\')
            (quoted += '\\') += c;
        else
            quoted += c;
    }
    quoted += length < text.size() ? "...\"" : "\"";
    return quoted;
}

}  // namespace zxtool
