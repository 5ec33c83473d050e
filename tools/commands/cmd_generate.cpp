// zorvex generate: a data set with a known hidden structure.
#include "arguments.hpp"
#include "commands.hpp"
#include "error.hpp"
#include "generate.hpp"
#include "output.hpp"
#include "progress.hpp"
#include "signals.hpp"

#include <fmt/format.h>
#include <memory>

namespace zxtool {
namespace {

struct GenerateCommand {
    GenerateOptions data;
    std::string output;
};

void generate_into(Output& output, GenerateOptions data, const Console& console) {
    const Console silent = Console::silent();
    Progress progress(output.is_terminal() ? silent : console, data.num_interactions, "rows");
    std::uint64_t shown = 0;
    data.on_block = [&](std::uint64_t rows) {
        stop_if_interrupted();
        progress.advance(rows - shown);
        shown = rows;
    };
    try {
        generate(data, output.stream());
    } catch (const Error&) {
        if (output.reader_is_gone()) throw OutputClosed{};
        throw;
    }
}

void run_generate(const GenerateCommand& options, const GlobalOptions& global) {
    const Console console(global);
    if (options.output.empty()) {
        if (global.json)
            throw Error(Exit::kUsage,
                        "--json needs --output: without it, standard output carries the data");
        Output output;
        generate_into(output, options.data, console);
        output.close();
        return;
    }
    Output file(options.output);
    generate_into(file, options.data, console);
    file.close();

    const Json summary{
        {"file", options.output},          {"users", options.data.num_users},
        {"items", options.data.num_items}, {"interactions", options.data.num_interactions},
        {"rank", options.data.rank},       {"noise", options.data.noise},
        {"seed", options.data.seed}};
    Output output;
    output.write(global.json ? json_text(summary) + "\n" : summary_text(summary));
    output.close();
}

}  // namespace

void add_generate(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<GenerateCommand>();
    CLI::App* command = app.add_subcommand(
        "generate",
        "Writes a data set with a known hidden structure. It is CSV with the heading "
        "user,item,rating,timestamp. Items belong to groups; every user has a favourite group and "
        "a second one and draws items from a mixture of those two groups' distributions and, with "
        "the probability --noise, of all items' distribution, without repeats. Within each, an "
        "item's probability falls with its place r in a random order of popularity as 1 / (r + 3). "
        "So the matrix of probabilities is a product of two non-negative matrices of inner "
        "dimension RANK + 1: a factorisation can learn it, a popularity ranking cannot. Ratings, 1 "
        "to 5 in halves, are higher in the groups that the user likes; timestamps increase. The "
        "same options and seed give the same bytes on every machine.");
    GenerateOptions& data = options->data;
    command->add_option("--users", data.num_users, "Users (default 2000: trains in a second)")
        ->check(at_least_one())
        ->type_name("N");
    command->add_option("--items", data.num_items, "Items (default 1000)")
        ->check(at_least_one())
        ->type_name("N");
    command
        ->add_option("--interactions", data.num_interactions,
                     "Rows (default 60000: 30 a user, as data sets that are filtered have)")
        ->check(whole_number())
        ->type_name("N");
    command->add_option("--rank", data.rank, "Groups of items (default 10)")
        ->check(at_least_one())
        ->type_name("N");
    command
        ->add_option("--noise", data.noise,
                     "Share of the draws that ignore the user's taste (default 0.15)")
        ->check(CLI::Range(0.0, 1.0).description(""))
        ->type_name("X");
    command->add_option("--seed", data.seed, "Seed (default 1)")
        ->check(whole_number())
        ->type_name("N");
    command
        ->add_option("-o,--output", options->output,
                     "File, there whole or not at all (default: standard output)")
        ->type_name("FILE");
    command->callback([options, &global] { run_generate(*options, global); });
}

}  // namespace zxtool
