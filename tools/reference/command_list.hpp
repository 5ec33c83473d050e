// The tool's command line as plain texts, for what is written from it: the manual page and the
// completions. They are made from the program's own options and so cannot fall behind them.
#pragma once

#include <string>
#include <vector>

namespace zxtool {

struct OptionTexts {
    std::vector<std::string> names;  // as they are typed, short ones first; of an argument its name
    std::string value;               // FILE, N, a|b|c; empty for a flag
    std::string description;
    bool required = false;
    bool repeats = false;  // may be given more than once, and every value counts

    // Whether a file name follows.
    [[nodiscard]] bool takes_file() const;
    // The words that may follow, where only some may.
    [[nodiscard]] std::vector<std::string> words() const;
};

struct CommandTexts {
    std::string name;
    std::string description;
    std::string footer;  // what --help says below the options, without the program's own footer
    std::vector<OptionTexts> options;
    std::vector<OptionTexts> arguments;
};

struct CommandList {
    CommandTexts program;  // its options stand before or behind any command
    std::vector<CommandTexts> commands;
};

CommandList command_list();

// The text up to the first full stop or bracket, for a line of its own.
std::string first_clause(const std::string& text);

// The items of a list with a separator between each two.
std::string joined(const std::vector<std::string>& items, const std::string& separator);

}  // namespace zxtool
