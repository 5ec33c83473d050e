// The completion for zsh, in the notation that its function _arguments reads.
#include "reference.hpp"

#include <fmt/format.h>

namespace zxtool {
namespace {

// The text within a pair of single quotes.
std::string quoted(const std::string& text) {
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'')
            result += "'\\''";
        else
            result += c;
    }
    return result + "'";
}

// A description without the characters that end one in a specification.
std::string described(const std::string& text) {
    std::string result;
    for (const char c : first_clause(text)) {
        if (c == '[' || c == ']' || c == ':' || c == '\\') result += '\\';
        result += c;
    }
    return result;
}

// What follows an option or is an argument, as the end of its specification.
std::string action(const OptionTexts& option, const std::string& what) {
    if (option.takes_file()) return fmt::format(":{}:_files", what);
    if (!option.words().empty()) return fmt::format(":{}:({})", what, joined(option.words(), " "));
    return fmt::format(":{}: ", what);
}

// One specification for each name of an option, none of which is offered when another was typed,
// unless the option may be repeated.
void add_option(const OptionTexts& option, std::vector<std::string>& specifications) {
    const std::string value = option.value.empty() ? "" : action(option, "value");
    std::string others;
    if (option.repeats)
        others = "*";
    else if (option.names.size() > 1)
        others = fmt::format("({})", joined(option.names, " "));
    for (const std::string& name : option.names)
        specifications.push_back(
            quoted(fmt::format("{}{}[{}]{}", others, name, described(option.description), value)));
}

std::string command_case(const CommandTexts& command) {
    std::vector<std::string> specifications{R"("${program[@]}")"};
    int place = 0;
    for (const OptionTexts& argument : command.arguments)
        specifications.push_back(
            quoted(fmt::format("{}{}", ++place, action(argument, argument.names.front()))));
    for (const OptionTexts& option : command.options) add_option(option, specifications);
    return fmt::format("        {})\n            _arguments -s {}\n            ;;\n", command.name,
                       joined(specifications, " \\\n                "));
}

}  // namespace

std::string zsh_completion(const CommandList& list) {
    std::vector<std::string> program_options;
    for (const OptionTexts& option : list.program.options) add_option(option, program_options);
    std::vector<std::string> commands;
    std::string cases;
    for (const CommandTexts& command : list.commands) {
        commands.push_back(
            quoted(fmt::format("{}:{}", command.name, described(command.description))));
        cases += command_case(command);
    }
    return fmt::format(R"(#compdef zorvex
# Completion of zorvex for zsh, made from its command line.

_zorvex() {{
    local curcontext=$curcontext context state state_descr line
    typeset -A opt_args
    local -a program=(
        {}
    )
    _arguments -C -s "${{program[@]}}" '1: :->command' '*:: :->arguments'
    case $state in
    command)
        local -a commands=(
            {}
        )
        _describe -t commands command commands
        ;;
    arguments)
        case $words[1] in
{}        esac
        ;;
    esac
}}

_zorvex "$@"
)",
                       joined(program_options, "\n        "), joined(commands, "\n            "),
                       cases);
}

}  // namespace zxtool
