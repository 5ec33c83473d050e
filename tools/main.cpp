// The program: reads the command line, runs one subcommand, and turns what went wrong into one line
// on standard error and an exit status.
#include "command_line.hpp"
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

Exit run(int argc, const char* const* argv) {
    const InterruptGuard guard;
    GlobalOptions global;
    CLI::App app("", "zorvex");
    add_command_line(app, global);
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
