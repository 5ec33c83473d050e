#include "quote.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace zxtool {

namespace {

constexpr std::size_t kMaxQuoted = 40;

bool continues_character(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

}  // namespace

std::size_t control_bytes(std::string_view text) {
    const auto byte = [text](std::size_t at) {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
    };
    if (text.empty()) return 0;
    if (byte(0) < 0x20 || byte(0) == 0x7F) return 1;
    return byte(0) == 0xC2 && byte(1) >= 0x80 && byte(1) <= 0x9F ? 2 : 0;
}

std::string quote(std::string_view text) {
    std::size_t length = text.size();
    if (length > kMaxQuoted) {
        length = kMaxQuoted;
        // A character is shown whole or not at all; it has at most three bytes after the first.
        for (int i = 0; i < 3 && continues_character(text[length]); ++i) --length;
    }
    std::string quoted = "\"";
    for (std::size_t at = 0; at < length;) {
        const char c = text[at];
        const std::size_t control = control_bytes(text.substr(at));
        const std::size_t next = at + std::max<std::size_t>(control, 1);
        if (control != 0)
            for (; at < next; ++at)
                quoted += fmt::format("\\x{:02X}", static_cast<unsigned char>(text[at]));
        else if (c == '"' || c == '\\')
            (quoted += '\\') += c;
        else
            quoted += c;
        at = next;
    }
    quoted += length < text.size() ? "...\"" : "\"";
    return quoted;
}

}  // namespace zxtool
