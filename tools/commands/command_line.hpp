// The whole command line, for the program and for what is written about it.
#pragma once

#include "console.hpp"

#include <CLI/CLI.hpp>

namespace zxtool {

// Adds the options that stand before or behind any subcommand, and the subcommands. Both arguments
// outlive the parsing.
void add_command_line(CLI::App& app, GlobalOptions& global);

}  // namespace zxtool
