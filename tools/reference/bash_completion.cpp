// The completion for bash. It asks for nothing but bash itself.
#include "reference.hpp"

#include <fmt/format.h>
#include <map>

namespace zxtool {
namespace {

// The patterns of a case: each name of the options behind the command's name, such as train:-o.
std::string patterns(const CommandTexts& command, const OptionTexts& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.names)
        names.push_back(fmt::format("{}:{}", command.name, name));
    return joined(names, "|");
}

// What offers the values of an option; nothing does for a number or an id.
std::string offer(const OptionTexts& option) {
    if (option.takes_file()) return "_zorvex_files";
    if (option.words().empty()) return ":";
    return fmt::format("_zorvex_words '{}'", joined(option.words(), " "));
}

// A case for all options whose values are offered alike.
std::string value_cases(const std::vector<CommandTexts>& commands) {
    std::map<std::string, std::vector<std::string>> patterns_of_offer;
    for (const CommandTexts& command : commands)
        for (const OptionTexts& option : command.options)
            if (!option.value.empty())
                patterns_of_offer[offer(option)].push_back(patterns(command, option));
    std::string cases;
    for (const auto& [offered, names] : patterns_of_offer)
        cases += fmt::format("        {}) {}; return ;;\n", joined(names, "|"), offered);
    return cases;
}

std::string names_of(const std::vector<OptionTexts>& options,
                     const std::vector<OptionTexts>& more = {}) {
    std::vector<std::string> names;
    for (const auto* list : {&options, &more})
        for (const OptionTexts& option : *list)
            names.insert(names.end(), option.names.begin(), option.names.end());
    return joined(names, " ");
}

// What may stand where no value is awaited.
std::string word_cases(const CommandTexts& command, const CommandTexts& program) {
    const bool files = !command.arguments.empty() && command.arguments.front().takes_file();
    return fmt::format(
        "        {}:-*) _zorvex_words '{}' ;;\n"
        "        {}:*) {} ;;\n",
        command.name, names_of(command.options, program.options), command.name,
        files ? "_zorvex_files" : ":");
}

constexpr const char* kStart = R"(# Completion of zorvex for bash, made from its command line.

# The words of a list that begin like the one that is typed.
_zorvex_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word")
}

# What bash offers by itself: files.
_zorvex_files() {
    compopt -o default
}

_zorvex() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' i
    COMPREPLY=()
    # --name=value comes as three words.
    if [[ $word == = ]]; then
        word=''
    elif [[ $before == = ]]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
)";

constexpr const char* kEnd = R"(    esac
}
complete -F _zorvex zorvex
)";

}  // namespace

std::string bash_completion(const CommandList& list) {
    std::vector<std::string> commands;
    std::string words;
    for (const CommandTexts& command : list.commands) {
        commands.push_back(command.name);
        words += word_cases(command, list.program);
    }
    return fmt::format(
        "{}    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
        "        case ${{COMP_WORDS[i]}} in\n"
        "            {}) command=${{COMP_WORDS[i]}}; break ;;\n"
        "        esac\n"
        "    done\n"
        "    case $command:$before in\n{}    esac\n"
        "    case $command:$word in\n{}"
        "        :-*) _zorvex_words '{}' ;;\n"
        "        :*) _zorvex_words '{}' ;;\n{}",
        kStart, joined(commands, "|"), value_cases(list.commands), words,
        names_of(list.program.options), joined(commands, " "), kEnd);
}

}  // namespace zxtool
