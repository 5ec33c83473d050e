// Text from a file or a command line, made fit for a message of one line.
#pragma once

#include <string>
#include <string_view>

namespace zxtool {

// The text in double quotes, with control bytes as \xNN and cut after 40 bytes.
std::string quote(std::string_view text);

}  // namespace zxtool
