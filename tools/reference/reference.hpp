// What is written from the tool's command line.
#pragma once

#include "command_list.hpp"

#include <string>

namespace zxtool {

// The manual page zorvex(1), for man.
std::string manual_page(const CommandList& list);

// Completions, for bash and zsh.
std::string bash_completion(const CommandList& list);
std::string zsh_completion(const CommandList& list);

}  // namespace zxtool
