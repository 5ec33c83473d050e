// The program: reads the command line, runs one subcommand, and turns what went wrong into one line
// on standard error and an exit status.
#include "arguments.hpp"
#include "commands.hpp"
#include "console.hpp"
#include "error.hpp"
#include "output.hpp"
#include "signals.hpp"
#include "zorvex.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <fcntl.h>
#include <fmt/format.h>
#include <new>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace zxtool {
namespace {

std::string version_text() {
    return fmt::format("zorvex {}.{}.{}", ZX_VERSION_MAJOR, ZX_VERSION_MINOR, ZX_VERSION_PATCH);
}

constexpr const char* kFooter =
    "Results go to standard output, everything else to standard error. Exit status: 0 done, "
    "1 other failure, 2 usage, 3 bad input data, 4 bad model file, 5 out of memory, 6 input or "
    "output failed, 130 interrupted. --quiet, --verbose and --json may stand before or behind a "
    "command; \"zorvex COMMAND --help\" explains a command and its defaults.";

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

Exit run(int argc, const char* const* argv) {
    const InterruptGuard guard;
    GlobalOptions global;
    CLI::App app("", "zorvex");
    add_global_options(app, global);
    add_train(app, global);
    add_evaluate(app, global);
    add_recommend(app, global);
    add_similar(app, global);
    add_info(app, global);
    add_generate(app, global);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& wanted) {  // --help and --version
        std::ostringstream text;
        app.exit(wanted, text, text);
        Output output;
        output.write(text.str());
        output.close();
    } catch (const CLI::ParseError& wrong) {
        throw Error(Exit::kUsage, fmt::format("{} (see --help)", wrong.what()));
    }
    return Exit::kDone;
}

// A standard descriptor that the starter closed would be given to the next file that is opened, and
// messages would end up in it. It is taken here by one that refuses what it is used for.
void take_closed_descriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) != -1) continue;
        // The lowest free descriptor is this one; failing to open it leaves it as it was.
        static_cast<void>(open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY));
    }
}

// Runs the program and says what went wrong.
Exit guarded_run(int argc, const char* const* argv) {
    try {
        return run(argc, argv);
    } catch (const OutputClosed&) {
        return Exit::kDone;  // the reader has seen enough
    } catch (const Error& error) {
        say_error(error.what());
        return error.status();
    } catch (const std::bad_alloc&) {
        say_error("out of memory");
        return Exit::kOutOfMemory;
    } catch (const std::length_error&) {  // a container larger than any memory
        say_error("out of memory");
        return Exit::kOutOfMemory;
    } catch (const std::exception& error) {
        say_error(error.what());
        return Exit::kFailure;
    }
}

}  // namespace
}  // namespace zxtool

int main(int argc, char** argv) {
    zxtool::take_closed_descriptors();
    // The library's information lines go to standard output, which is for results.
    zx_set_verbosity(0);
    // A reader that goes away shows as a failed write.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    // So does a file that grows beyond what its owner is allowed.
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    return static_cast<int>(zxtool::guarded_run(argc, argv));
}
