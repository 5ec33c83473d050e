// What several subcommands' command lines have in common.
#pragma once

#include "interactions.hpp"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zxtool {

// Help text with long descriptions wrapped.
class HelpFormatter : public CLI::Formatter {
  public:
    HelpFormatter();
    std::string make_option_opts(const CLI::Option* option) const override;
    std::string make_option_desc(const CLI::Option* option) const override;
    // A subcommand's line in the list of them: the first sentence of its description.
    std::string make_subcommand(const CLI::App* command) const override;
    std::string make_description(const CLI::App* app) const override;
    std::string make_footer(const CLI::App* app) const override;
};

// The text with line breaks so that no line is longer than `width`, if its words allow it. Line
// breaks in the text stay.
std::string wrapped(const std::string& text, std::size_t width);

// An option whose value is one of the names of a table, which outlives the parsing.
template <typename Value>
CLI::Option* add_choice(CLI::App& command, const std::string& name, Value& value,
                        const std::map<std::string, Value>& choices,
                        const std::string& description) {
    std::string names;
    for (const auto& [choice, ignored] : choices) names += (names.empty() ? "" : "|") + choice;
    return command
        .add_option(
            name,
            [&value, &choices, name, names](const CLI::results_t& results) {
                const auto found = choices.find(results.front());
                if (found == choices.end())
                    throw CLI::ValidationError(name, results.front() + " is none of " + names);
                value = found->second;
                return true;
            },
            description)
        ->type_name(names);
}

// --format and --header.
void add_read_options(CLI::App& command, ReadOptions& options);

// --threads; 0 stands for as many as the machine runs at once.
void add_threads(CLI::App& command, unsigned& threads);
unsigned threads_to_use(unsigned asked);

// Values of a repeatable option, one each time, taken as they are: nothing in them is special.
CLI::Option* add_strings(CLI::App& command, const std::string& name,
                         std::vector<std::string>& values, const std::string& description);

// An option's value, as a 32-bit number, must be finite and at least 0, above 0, or of any sign.
CLI::Validator finite_not_negative();
CLI::Validator finite_positive();
CLI::Validator finite();
// A whole number from 1 to 2^32 - 1.
CLI::Validator at_least_one();
// A whole number from 0 to 2^64 - 1.
CLI::Validator whole_number();

}  // namespace zxtool
