// Text from a file or a command line, made fit for a message of one line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zxtool {

// How many bytes a control character takes that the text begins with; 0 if it begins with another.
// Those from U+0080 to U+009F, which take two, rule a terminal like the ones of a single byte.
std::size_t control_bytes(std::string_view text);

// The text in double quotes, with control bytes as \xNN and cut after 40 bytes.
std::string quote(std::string_view text);

}  // namespace zxtool
