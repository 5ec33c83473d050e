// The manual page in the macros of man(7).
#include "arguments.hpp"
#include "reference.hpp"
#include "zorvex.h"

#include <cctype>
#include <fmt/format.h>
#include <sstream>

namespace zxtool {
namespace {

constexpr std::size_t kColumns = 100;  // of the page's source

// The text so that no character of it is taken for markup. A plain - is a hyphen, which nobody
// could paste into a shell.
std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '\\')
            result += "\\e";
        else if (c == '-')
            result += "\\-";
        else
            result += c;
    }
    return result;
}

// Lines of running text; one that begins with a control character is kept from being a macro.
std::string running(const std::string& text) {
    std::istringstream lines(wrapped(text, kColumns));
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('.') || line.starts_with('\'')) result += "\\&";
        result += escaped(line) + "\n";
    }
    return result;
}

// Paragraphs, with the lines that are laid out by hand left as they are.
std::string paragraphs(const std::string& text) {
    std::istringstream lines(text);
    std::string result;
    bool by_hand = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) continue;
        if (line.starts_with(' ') != by_hand) result += by_hand ? ".EE\n" : ".PP\n.EX\n";
        by_hand = line.starts_with(' ');
        result += by_hand ? escaped(line) + "\n" : ".PP\n" + running(line);
    }
    return result + (by_hand ? ".EE\n" : "");
}

std::string option_entry(const OptionTexts& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.names) names.push_back("\\fB" + escaped(name) + "\\fR");
    const std::string value = option.value.empty() ? "" : " \\fI" + escaped(option.value) + "\\fR";
    return fmt::format(".TP\n{}{}{}\n{}", joined(names, ", "), value,
                       option.required ? " (required)" : "", running(option.description));
}

std::string argument_entry(const OptionTexts& argument) {
    return fmt::format(".TP\n\\fI{}\\fR\n{}", escaped(argument.names.front()),
                       running(argument.description));
}

std::string command_section(const CommandTexts& command) {
    std::string usage = command.name;
    for (const OptionTexts& argument : command.arguments) usage += " " + argument.names.front();
    std::string text = fmt::format(".SS {}\n{}", escaped(usage), running(command.description));
    for (const OptionTexts& argument : command.arguments) text += argument_entry(argument);
    for (const OptionTexts& option : command.options) text += option_entry(option);
    return text + paragraphs(command.footer);
}

// The description of the program as what stands behind a name: no capital, no full stop.
std::string purpose(const CommandTexts& program) {
    std::string text = first_clause(program.description);
    text.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(text.front())));
    return text;
}

constexpr const char* kExamples = R"(.SH EXAMPLES
A data set, a model with one interaction of each user held back, its figures, one user's best items:
.PP
.EX
zorvex generate \-o ratings.csv
zorvex train ratings.csv \-o movies.zxm \-\-holdout leave\-one\-out \e
    \-\-write\-train train.csv \-\-write\-test test.csv
zorvex evaluate movies.zxm \-\-test test.csv \-\-train train.csv
zorvex recommend movies.zxm \-\-user 1 \-\-exclude train.csv
.EE
)";

}  // namespace

std::string manual_page(const CommandList& list) {
    std::string text = fmt::format(
        ".TH ZORVEX 1 \"\" \"zorvex {}.{}.{}\" \"User Commands\"\n"
        ".SH NAME\nzorvex \\- {}\n"
        ".SH SYNOPSIS\n\\fBzorvex\\fR \\fICOMMAND\\fR [\\fIOPTION\\fR]... [\\fIFILE\\fR]\n"
        ".SH DESCRIPTION\n{}",
        ZX_VERSION_MAJOR, ZX_VERSION_MINOR, ZX_VERSION_PATCH, escaped(purpose(list.program)),
        running(list.program.footer));
    text += ".SH OPTIONS OF EVERY COMMAND\n";
    for (const OptionTexts& option : list.program.options) text += option_entry(option);
    text += ".SH COMMANDS\n";
    for (const CommandTexts& command : list.commands) text += command_section(command);
    return text + kExamples + ".SH SEE ALSO\n\\fBzorvex\\fR(3)\n";
}

}  // namespace zxtool
