// What the tool says beside its results: notes and warnings on standard error.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace zxtool {

// Options that stand before or behind any subcommand.
struct GlobalOptions {
    bool quiet = false;
    bool verbose = false;
    bool json = false;
};

// Whether a stream is a terminal.
bool is_terminal(std::FILE* stream);
// Whether colours may be used on a stream: only on a terminal, and not when the environment says
// NO_COLOR (set and not empty) or TERM=dumb.
bool may_colour(std::FILE* stream);

// Writes lines to standard error. A closed standard error is no failure: the results count.
class Console {
  public:
    explicit Console(const GlobalOptions& options);
    // One that says nothing, for a bar that would tear results on the same terminal apart.
    static Console silent() { return Console(GlobalOptions{.quiet = true}); }

    // Said unless --quiet.
    void note(std::string_view text) const;
    // Said only with --verbose.
    void detail(std::string_view text) const;
    // Said unless --quiet, after "zorvex: warning: ".
    void warn(std::string_view text) const;

    [[nodiscard]] bool quiet() const { return quiet_; }
    // Whether progress may be drawn in place.
    [[nodiscard]] bool draws() const { return draws_; }
    [[nodiscard]] bool colours() const { return colours_; }

  private:
    bool quiet_;
    bool verbose_;
    bool draws_;
    bool colours_;
};

// An error's line, said even with --quiet: "zorvex: " and the text.
void say_error(std::string_view text);

}  // namespace zxtool
