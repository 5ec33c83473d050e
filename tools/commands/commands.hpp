// The subcommands. Each function adds one to the command line; it runs after the whole line has
// been read, and throws Error when it fails.
#pragma once

#include "console.hpp"

#include <CLI/CLI.hpp>

namespace zxtool {

void add_train(CLI::App& app, const GlobalOptions& global);
void add_evaluate(CLI::App& app, const GlobalOptions& global);
void add_recommend(CLI::App& app, const GlobalOptions& global);
void add_similar(CLI::App& app, const GlobalOptions& global);
void add_export(CLI::App& app, const GlobalOptions& global);
void add_convert(CLI::App& app, const GlobalOptions& global);
void add_inspect(CLI::App& app, const GlobalOptions& global);
void add_verify(CLI::App& app, const GlobalOptions& global);
void add_info(CLI::App& app, const GlobalOptions& global);
void add_generate(CLI::App& app, const GlobalOptions& global);
void add_devices(CLI::App& app, const GlobalOptions& global);

}  // namespace zxtool
