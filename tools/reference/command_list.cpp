#include "command_list.hpp"

#include "command_line.hpp"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <utility>

namespace zxtool {
namespace {

std::vector<std::string> names_of(const CLI::Option& option) {
    if (option.get_positional()) return {option.get_name(true)};
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames()) names.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
    return names;
}

bool keeps_every_value(const CLI::Option& option) {
    return option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll ||
           option.get_items_expected_max() > 1;
}

CommandTexts texts_of(const CLI::App& command) {
    CommandTexts texts{.name = command.get_name(),
                       .description = command.get_description(),
                       .footer = command.get_footer(),
                       .options = {},
                       .arguments = {}};
    for (const CLI::Option* option : command.get_options()) {
        auto& list = option->get_positional() ? texts.arguments : texts.options;
        list.push_back({.names = names_of(*option),
                        .value = option->get_type_name(),
                        .description = option->get_description(),
                        .required = option->get_required(),
                        .repeats = keeps_every_value(*option)});
    }
    return texts;
}

bool names_a_file(const std::string& text) {
    return text == "FILE" || text == "MODEL" || text == "PATH";
}

}  // namespace

bool OptionTexts::takes_file() const {
    return names_a_file(value) || names_a_file(names.front());
}

std::vector<std::string> OptionTexts::words() const {
    std::vector<std::string> words;
    if (value.find('|') == std::string::npos) return words;
    std::istringstream choices(value);
    // Of leave-one-out|X, X stands for a number.
    for (std::string word; std::getline(choices, word, '|');)
        if (std::islower(static_cast<unsigned char>(word.front())) != 0) words.push_back(word);
    return words;
}

CommandList command_list() {
    GlobalOptions ignored;
    CLI::App app("", "zorvex");
    add_command_line(app, ignored);

    CommandList list{.program = texts_of(app), .commands = {}};
    for (const CLI::App* command : std::as_const(app).get_subcommands({})) {
        CommandTexts texts = texts_of(*command);
        // Commands have --help and the footer of the program as well.
        std::erase_if(texts.options, [&list](const OptionTexts& option) {
            return std::ranges::any_of(list.program.options, [&option](const OptionTexts& other) {
                return other.names == option.names;
            });
        });
        if (texts.footer.ends_with(list.program.footer))
            texts.footer.resize(texts.footer.size() - list.program.footer.size());
        list.commands.push_back(std::move(texts));
    }
    return list;
}

std::string first_clause(const std::string& text) {
    return text.substr(0, std::min({text.find(". "), text.find(" ("), text.find("; "),
                                    text.find_last_not_of('.') + 1}));
}

std::string joined(const std::vector<std::string>& items, const std::string& separator) {
    std::string text;
    for (const std::string& item : items) text += (text.empty() ? "" : separator) + item;
    return text;
}

}  // namespace zxtool
