#include "arguments.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>
#include <thread>

namespace zxtool {
namespace {

constexpr std::size_t kColumns = 100;
constexpr std::size_t kNameColumns = 28;

const std::map<std::string, Format> kFormats{
    {"detect", Format::kDetect}, {"csv", Format::kCsv},
    {"tsv", Format::kTsv},       {"space", Format::kSpace},
    {"colons", Format::kColons}, {"matrix-market", Format::kMatrixMarket},
    {"lists", Format::kLists}};
const std::map<std::string, Header> kHeaders{
    {"detect", Header::kDetect}, {"yes", Header::kYes}, {"no", Header::kNo}};

// The value as the 32-bit number that it becomes: what is too large for one is not finite, and what
// is too small is 0.
CLI::Validator number_check(const std::string& what, bool (*accepts)(float)) {
    return CLI::Validator(
        [what, accepts](std::string& text) {
            char* end = nullptr;
            const float value = std::strtof(text.c_str(), &end);
            const bool whole = !text.empty() && *end == '\0';
            return whole && accepts(value) ? std::string() : text + " is not " + what;
        },
        "");
}

// A value in digits alone: what reads numbers afterwards would take a negative one modulo 2^n.
template <typename Number>
CLI::Validator whole_number_check(Number least, const std::string& what) {
    return CLI::Validator(
        [least, what](std::string& text) {
            Number value = 0;
            const char* end = text.data() + text.size();
            const auto [stop, error] = std::from_chars(text.data(), end, value);
            const bool good = error == std::errc() && stop == end && value >= least;
            return good ? std::string() : text + " is not " + what;
        },
        "");
}

}  // namespace

std::string wrapped(const std::string& text, std::size_t width) {
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::size_t used = 0;
        if (!result.empty()) result += '\n';
        // A line that begins with spaces is laid out by hand and stays as it is.
        if (line.starts_with(' ')) {
            result += line;
            continue;
        }
        for (std::string word; words >> word;) {
            if (used != 0 && used + 1 + word.size() > width) {
                result += '\n';
                used = 0;
            }
            if (used != 0) result += ' ';
            used += (used != 0 ? 1 : 0) + word.size();
            result += word;
        }
    }
    return result;
}

HelpFormatter::HelpFormatter() {
    column_width(kNameColumns);
}

std::string HelpFormatter::make_option_opts(const CLI::Option* option) const {
    const std::string type = option->get_type_name();
    return (type.empty() ? "" : " " + type) + (option->get_required() ? " (required)" : "");
}

std::string HelpFormatter::make_subcommand(const CLI::App* command) const {
    const std::string description = command->get_description();
    std::ostringstream line;
    CLI::detail::format_help(line, command->get_name(),
                             description.substr(0, description.find('.')), kNameColumns);
    return line.str();
}

std::string HelpFormatter::make_option_desc(const CLI::Option* option) const {
    return wrapped(option->get_description(), kColumns - kNameColumns);
}

std::string HelpFormatter::make_description(const CLI::App* app) const {
    return wrapped(app->get_description(), kColumns) + "\n";
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
    const std::string footer = app->get_footer();
    return footer.empty() ? footer : wrapped(footer, kColumns) + "\n";
}

void add_read_options(CLI::App& command, ReadOptions& options) {
    add_choice(command, "--format", options.format, kFormats,
               "How the interaction files are written (default detect: by name and first lines; "
               "lists, user item item ..., are never detected)");
    add_choice(command, "--header", options.header, kHeaders,
               "Whether the first line is a heading (default detect)");
}

void add_threads(CLI::App& command, unsigned& threads) {
    command
        .add_option("--threads", threads,
                    "Threads (default: as many as the machine runs at once); the results do not "
                    "depend on it")
        ->check(CLI::Range(1U, 1024U).description(""))
        ->type_name("N");
}

unsigned threads_to_use(unsigned asked) {
    return asked != 0 ? asked : std::max(1U, std::thread::hardware_concurrency());
}

CLI::Option* add_strings(CLI::App& command, const std::string& name,
                         std::vector<std::string>& values, const std::string& description) {
    return command
        .add_option(
            name,
            [&values](const CLI::results_t& results) {
                values = results;
                return true;
            },
            description)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false);
}

CLI::Validator finite_not_negative() {
    return number_check("a finite number of 0 or more",
                        [](float value) { return std::isfinite(value) && value >= 0.0f; });
}

CLI::Validator finite_positive() {
    return number_check("a finite number above 0",
                        [](float value) { return std::isfinite(value) && value > 0.0f; });
}

CLI::Validator finite() {
    return number_check("a finite number", [](float value) { return std::isfinite(value); });
}

CLI::Validator at_least_one() {
    return whole_number_check<std::uint32_t>(1, "a whole number from 1 to 4294967295");
}

CLI::Validator whole_number() {
    return whole_number_check<std::uint64_t>(0, "a whole number from 0 to 18446744073709551615");
}

}  // namespace zxtool
