#include "console.hpp"

#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

namespace zxtool {
namespace {

void write_error_line(std::string line) {
    line += '\n';
    // Nothing is left to be told if standard error itself cannot be written.
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
}

}  // namespace

bool is_terminal(std::FILE* stream) {
    return isatty(fileno(stream)) == 1;
}

bool may_colour(std::FILE* stream) {
    const char* no_color = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    return is_terminal(stream) && (no_color == nullptr || *no_color == '\0') &&
           (term == nullptr || std::string_view(term) != "dumb");
}

Console::Console(const GlobalOptions& options)
    : quiet_(options.quiet),
      verbose_(options.verbose && !options.quiet),
      draws_(!options.quiet && is_terminal(stderr)),
      colours_(may_colour(stderr)) {}

void Console::note(std::string_view text) const {
    if (!quiet_) write_error_line(std::string(text));
}

void Console::detail(std::string_view text) const {
    if (verbose_) write_error_line(std::string(text));
}

void Console::warn(std::string_view text) const {
    if (!quiet_) write_error_line(fmt::format("zorvex: warning: {}", text));
}

void say_error(std::string_view text) {
    write_error_line(fmt::format("zorvex: {}", text));
}

}  // namespace zxtool
