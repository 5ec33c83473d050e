#include "command_line.hpp"

#include "arguments.hpp"
#include "commands.hpp"
#include "zorvex.h"

#include <fmt/format.h>
#include <memory>

namespace zxtool {
namespace {

std::string version_text() {
    return fmt::format("zorvex {}.{}.{}", ZX_VERSION_MAJOR, ZX_VERSION_MINOR, ZX_VERSION_PATCH);
}

constexpr const char* kFooter =
    "Results go to standard output, everything else to standard error. Exit status: 0 done, "
    "1 other failure, 2 usage, 3 bad input data, 4 bad model file, 5 out of memory, 6 input or "
    "output failed, 7 no device though one was demanded, 130 interrupted. --quiet, --verbose and "
    "--json may stand before or behind a command; \"zorvex COMMAND --help\" explains a command and "
    "its defaults.";

void add_global_options(CLI::App& app, GlobalOptions& global) {
    app.description("Trains recommenders from interactions, measures them and asks them.");
    app.footer(kFooter);
    app.formatter(std::make_shared<HelpFormatter>());
    app.set_version_flag("--version", version_text(), "Print the version and exit");
    app.add_flag("-q,--quiet", global.quiet, "Say nothing but results and errors");
    app.add_flag("-v,--verbose", global.verbose, "Say more about what is read and done");
    app.add_flag("--json", global.json,
                 "Results as one JSON object (recommend: as JSON Lines) instead of a table or CSV");
    app.require_subcommand(1);
    // Subcommands take these options too, and its formatter; options before subcommands are made.
    app.fallthrough();
}

}  // namespace

void add_command_line(CLI::App& app, GlobalOptions& global) {
    add_global_options(app, global);
    add_train(app, global);
    add_evaluate(app, global);
    add_recommend(app, global);
    add_similar(app, global);
    add_info(app, global);
    add_export(app, global);
    add_convert(app, global);
    add_inspect(app, global);
    add_verify(app, global);
    add_generate(app, global);
    add_devices(app, global);
}

}  // namespace zxtool
