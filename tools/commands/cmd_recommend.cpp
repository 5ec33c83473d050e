// zorvex recommend: the best items for users, the excluded ones left out.
#include "arguments.hpp"
#include "commands.hpp"
#include "device.hpp"
#include "error.hpp"
#include "model_inputs.hpp"
#include "output.hpp"
#include "parallel.hpp"
#include "progress.hpp"
#include "recommender.hpp"
#include "signals.hpp"

#include <fmt/format.h>
#include <memory>
#include <numeric>
#include <optional>

namespace zxtool {
namespace {

constexpr std::size_t kUsersPerBlock = 64;
// Answers are held until the users before them are written: so many blocks at a time that threads
// wait little for the last of a round.
constexpr std::size_t kBlocksPerThread = 64;

struct RecommendOptions {
    std::string model;
    std::vector<std::string> users;
    bool all = false;
    std::uint32_t k = 10;
    std::string exclude;
    std::string output;
    unsigned threads = 0;
    DeviceChoice device = DeviceChoice::kAuto;
    bool skip_unknown = false;
    ReadOptions read;
};

using Best = std::vector<zx_scored_item_t>;

// One user's answer in one of the three forms.
using Render = std::function<void(std::uint32_t user, const Best& best, std::string& out)>;

Render csv_renderer(const StoredModel& stored) {
    return [&stored](std::uint32_t user, const Best& best, std::string& out) {
        const std::string id = csv_field(stored.users.name(user));
        for (std::size_t i = 0; i < best.size(); ++i) {
            const fmt::format_int rank(i + 1);
            out += id;
            out += ',';
            out.append(rank.data(), rank.size());
            out += ',';
            append_csv_field(out, stored.items.name(best[i].item));
            out += ',';
            append_shortest(out, best[i].score);
            out += '\n';
        }
    };
}

Render json_renderer(const StoredModel& stored) {
    return [&stored](std::uint32_t user, const Best& best, std::string& out) {
        const std::string id = json_text(stored.users.name(user));
        for (std::size_t i = 0; i < best.size(); ++i)
            fmt::format_to(std::back_inserter(out),
                           R"({{"user":{},"rank":{},"item":{},"score":{}}})"
                           "\n",
                           id, i + 1, json_text(stored.items.name(best[i].item)),
                           json_text(json_number(best[i].score)));
    };
}

// A table for each user, so that none waits for the widest name of all.
Render table_renderer(const StoredModel& stored, bool colours) {
    return [&stored, colours](std::uint32_t user, const Best& best, std::string& out) {
        Table table({{"rank", true}, {"item"}, {"score", true}});
        for (std::size_t i = 0; i < best.size(); ++i)
            table.add({std::to_string(i + 1), std::string(stored.items.name(best[i].item)),
                       fmt::format("{:.4f}", best[i].score)});
        fmt::format_to(std::back_inserter(out), "user {}\n{}\n", printable(stored.users.name(user)),
                       table.text(colours));
    };
}

// Answers for the users, in their order, by as many threads as wanted. While a round of answers is
// found, one of the threads first writes those of the round before.
void write_answers(const StoredModel& stored, const std::vector<std::uint32_t>& users,
                   const ItemLists& excluded, const RecommendOptions& options, Device* device,
                   const Render& render, Output& output, Progress& progress) {
    const unsigned num_threads = threads_to_use(options.threads);
    std::vector<std::optional<Recommender>> recommenders(num_threads);
    const std::size_t blocks_per_round = kBlocksPerThread * num_threads;
    const std::size_t round = kUsersPerBlock * blocks_per_round;
    std::vector<std::string> texts(blocks_per_round);
    std::vector<std::string> finished(blocks_per_round);
    const auto write_finished = [&] {
        for (std::string& text : finished) {
            output.write(text);
            text.clear();
        }
    };
    for (std::size_t first = 0; first < users.size(); first += round) {
        const std::size_t count = std::min(round, users.size() - first);
        const auto answer = [&](unsigned w, std::size_t block) {
            if (!recommenders[w]) recommenders[w].emplace(*stored.model, excluded, device);
            const std::size_t begin = first + block * kUsersPerBlock;
            const std::size_t end = std::min(begin + kUsersPerBlock, first + count);
            for (std::size_t i = begin; i < end; ++i)
                render(users[i], recommenders[w]->best(users[i], options.k), texts[block]);
        };
        const std::size_t tasks = 1 + block_count(count, kUsersPerBlock);
        for_each_block(tasks, 1, num_threads, [&](unsigned w, const Block& task) {
            stop_if_interrupted();
            if (task.index == 0)
                write_finished();
            else
                answer(w, task.index - 1);
        });
        std::swap(texts, finished);
        progress.advance(count);
    }
    write_finished();
}

void recommend(const RecommendOptions& options, const GlobalOptions& global) {
    const Console console(global);
    if (options.all != options.users.empty())
        throw Error(Exit::kUsage, "either --user or --all is needed, and not both");
    std::vector<std::string> inputs = model_inputs(options.model);
    inputs.push_back(options.exclude);
    refuse_overwriting({options.output}, inputs);
    std::unique_ptr<Device> device;  // outlives the model, of which it may have a copy
    const StoredModel stored = open_model(options.model, console);

    std::vector<std::uint32_t> users =
        numbers_of(options.users, stored.users, "user", options.skip_unknown, console);
    if (options.all) {
        users.resize(stored.users.size());
        std::iota(users.begin(), users.end(), 0U);
    }
    ItemLists excluded;
    if (!options.exclude.empty()) {
        const Interactions rows =
            read_in_model_ids(options.exclude, options.read, stored, options.skip_unknown, console);
        excluded = ItemLists(stored.users.size(), rows.users, rows.items);
    }

    device = Device::open(options.device, device_use(*stored.model, users.size()), console);

    std::optional<Output> file;
    if (!options.output.empty()) file.emplace(options.output);
    Output standard;
    Output& output = file ? *file : standard;
    const bool table = output.is_terminal() && !global.json;
    if (!table && !global.json) output.write("user,rank,item,score\n");
    const Render render = global.json ? json_renderer(stored)
                          : table     ? table_renderer(stored, output.colours())
                                      : csv_renderer(stored);
    {
        const Console silent = Console::silent();
        Progress progress(output.is_terminal() ? silent : console, users.size(), "users");
        write_answers(stored, users, excluded, options, device.get(), render, output, progress);
    }
    output.close();
    if (file) console.note(fmt::format("{}: {} users", options.output, users.size()));
}

}  // namespace

void add_recommend(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<RecommendOptions>();
    CLI::App* command = app.add_subcommand(
        "recommend",
        "Lists the best items for users. They stand best first, exactly K for each, or all that "
        "are allowed "
        "if they are fewer, never an excluded one. Of equal scores the item that the model numbers "
        "lower comes first. A table on a terminal; CSV, user,rank,item,score, into a file or pipe; "
        "JSON Lines with --json. Scores outside of a table read back as the same 32-bit number.");
    command->add_option("MODEL", options->model, "Model file")->required()->type_name("");
    add_strings(*command, "--user", options->users, "A user; may be given several times")
        ->type_name("ID");
    command->add_flag("--all", options->all, "All users, in the order of the model");
    command
        ->add_option("-k", options->k,
                     "How many items each (default 10: what a person looks through at a glance)")
        ->check(at_least_one())
        ->type_name("K");
    command
        ->add_option("--exclude", options->exclude,
                     "Interactions whose items are never recommended to that user, such as the "
                     "training file (default: none, so items known to the user come up again)")
        ->type_name("FILE");
    command
        ->add_option("-o,--output", options->output,
                     "File, there whole or not at all (default: standard output)")
        ->type_name("FILE");
    command->add_flag("--skip-unknown", options->skip_unknown,
                      "Leave out, and count, what the model does not know instead of failing");
    add_read_options(*command, options->read);
    add_device(*command, options->device,
               "A device scores all items of a user, if they are 512 or more; the last bits may "
               "differ from the CPU's. For auto, users * items * dimension must be at least 10^10 "
               "as well.");
    add_threads(*command, options->threads);
    command->callback([options, &global] {
        options->read.on_block = [](std::uint64_t /*bytes*/) { stop_if_interrupted(); };
        recommend(*options, global);
    });
}

}  // namespace zxtool
