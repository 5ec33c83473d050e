// zorvex evaluate: a model's figures on held-out pairs, beside those of a popularity ranking.
#include "arguments.hpp"
#include "commands.hpp"
#include "device.hpp"
#include "error.hpp"
#include "evaluation.hpp"
#include "model_inputs.hpp"
#include "negatives.hpp"
#include "output.hpp"
#include "ranking.hpp"
#include "signals.hpp"

#include <fmt/format.h>
#include <memory>
#include <optional>

namespace zxtool {
namespace {

struct EvaluateOptions {
    std::string model;
    std::string test;
    std::string train;
    std::string negatives;
    std::vector<std::uint32_t> ks{5, 10, 20};
    std::uint64_t seed = 42;
    unsigned threads = 0;
    DeviceChoice device = DeviceChoice::kAuto;
    bool skip_unknown = false;
    ReadOptions read;
};

// The test file against the training file.
struct TestSet {
    Interactions train;
    ItemLists excluded;                    // by user: the training items
    ItemLists held_out;                    // by user: the test items that can be ranked
    std::vector<std::uint32_t> trained;    // test users with training rows; all, without a file
    std::vector<std::uint32_t> untrained;  // test users without
    std::uint64_t pairs = 0;
    std::uint64_t also_in_training = 0;  // test pairs left out: excluded items have no place
};

TestSet make_test_set(const Interactions& test, Interactions train, const StoredModel& stored,
                      bool has_train) {
    const std::uint32_t num_users = stored.users.size();
    TestSet set;
    set.train = std::move(train);
    set.excluded = ItemLists(num_users, set.train.users, set.train.items);
    const ItemLists all(num_users, test.users, test.items);
    std::vector<std::uint32_t> users;
    std::vector<std::uint32_t> items;
    for (std::uint32_t user = 0; user < num_users; ++user) {
        const std::size_t before = users.size();
        for (const std::uint32_t item : all.of(user)) {
            if (set.excluded.contains(user, item)) {
                ++set.also_in_training;
                continue;
            }
            users.push_back(user);
            items.push_back(item);
        }
        if (users.size() == before) continue;
        const bool untrained = has_train && set.excluded.of(user).empty();
        (untrained ? set.untrained : set.trained).push_back(user);
    }
    set.pairs = users.size();
    set.held_out = ItemLists(num_users, users, items);
    return set;
}

std::vector<SampledHitRate> sampled_hit_rates(const zx_model_t& model, const TestSet& set,
                                              const EvaluateOptions& options) {
    std::vector<std::uint32_t> users;
    std::vector<std::uint32_t> items;
    for (std::uint32_t user = 0; user < model.num_users; ++user) {
        for (const std::uint32_t item : set.held_out.of(user)) {
            users.push_back(user);
            items.push_back(item);
        }
    }
    std::vector<SampledHitRate> result;
    for (const std::uint32_t k : options.ks) {
        stop_if_interrupted();
        zx_rng_seed(options.seed);  // so that a figure does not depend on which others are wanted
        result.push_back({k, zx_metric_hit_rate(&model, users.data(), items.data(),
                                                static_cast<std::uint32_t>(users.size()), k)});
    }
    return result;
}

void evaluate(const EvaluateOptions& options, const GlobalOptions& global) {
    const Console console(global);
    if (options.test.empty() && options.negatives.empty())
        throw Error(Exit::kUsage, "--test or --negatives is needed");
    refuse_standard_input_twice({options.test, options.train, options.negatives});
    std::unique_ptr<Device> device;  // outlives the model, of which it may have a copy
    const StoredModel stored = open_model(options.model, console);
    const unsigned num_threads = threads_to_use(options.threads);
    const bool has_train = !options.train.empty();

    Interactions train;
    std::optional<Popularity> popularity;
    if (has_train) {
        train =
            read_in_model_ids(options.train, options.read, stored, options.skip_unknown, console);
        popularity.emplace(stored.items.size(), train.items);
    } else {
        console.note("without --train nothing is excluded and there is no popularity baseline");
    }
    const MakeScorer by_model = [&] { return model_scorer(*stored.model, device.get()); };
    const MakeScorer by_popularity = [&] { return popularity->scorer(); };

    Evaluation evaluation;
    Json report{{"model", options.model},
                {"users", stored.users.size()},
                {"items", stored.items.size()},
                {"training_items_excluded", has_train}};
    if (!options.test.empty()) {
        const Interactions test =
            read_in_model_ids(options.test, options.read, stored, options.skip_unknown, console);
        const TestSet set = make_test_set(test, std::move(train), stored, has_train);
        if (set.pairs == 0)
            throw Error(Exit::kBadInput, fmt::format("{}: no pair is left to test", options.test));
        if (set.also_in_training != 0)
            console.warn(fmt::format("{} test pairs are training pairs too and are left out",
                                     set.also_in_training));
        device = Device::open(options.device,
                              device_use(*stored.model, set.trained.size() + set.untrained.size()),
                              console);
        const auto measure = [&](const char* name, const std::vector<std::uint32_t>& users) {
            if (users.empty()) return;
            GroupFigures group{.name = name,
                               .model = rank_users(by_model, users, set.excluded, set.held_out,
                                                   options.ks, num_threads),
                               .popularity = std::nullopt};
            if (popularity)
                group.popularity = rank_users(by_popularity, users, set.excluded, set.held_out,
                                              options.ks, num_threads);
            evaluation.full.push_back(std::move(group));
        };
        measure(has_train ? "trained" : "all", set.trained);
        measure("untrained", set.untrained);
        if (!set.untrained.empty())
            console.note(fmt::format("{} test users have no training rows: group \"untrained\"",
                                     set.untrained.size()));
        evaluation.sampled = sampled_hit_rates(*stored.model, set, options);
        report["test_pairs"] = set.pairs;
        report["test_pairs_also_in_training"] = set.also_in_training;
        report["test_users_without_training_rows"] = set.untrained.size();
    } else {
        device = Device::open(options.device, device_use(*stored.model, 0), console);
    }
    if (!options.negatives.empty()) {
        UnknownIds unknown;
        const ListedPairs pairs = read_negatives(options.negatives, stored.users, stored.items,
                                                 options.read.on_block, unknown);
        settle_unknown(unknown, options.negatives, options.skip_unknown, console);
        if (pairs.size() == 0)
            throw Error(Exit::kBadInput,
                        fmt::format("{}: no pair is left to test", options.negatives));
        evaluation.listed = {.name = "pairs",
                             .model = rank_listed(by_model, pairs, options.ks, num_threads),
                             .popularity = std::nullopt};
        if (popularity)
            evaluation.listed->popularity =
                rank_listed(by_popularity, pairs, options.ks, num_threads);
    }

    Output output;
    if (global.json) {
        report.update(evaluation_json(evaluation));
        report["sampled_seed"] = options.seed;
        output.write(json_text(report) + "\n");
    } else {
        write_table(evaluation, output);
    }
    output.close();
}

constexpr const char* kDefinitions =
    "Figures are averages over test users. With R a user's test items and a ranking of all items "
    "but the user's training items:\n"
    "  hit_rate@K   1 if any of R is among the first K, else 0\n"
    "  precision@K  share of the first K that is in R\n"
    "  recall@K     share of R that is among the first K\n"
    "  map@K        sum of precision@r over the places r <= K that hold one of R, / min(K, |R|)\n"
    "  ndcg@K       sum of 1 / log2(r + 1) over these places, / its largest possible value\n"
    "               (Jarvelin, Kekalainen, TOIS 2002, gains 0 and 1)\n"
    "  auc          share of (test item, other item) pairs in the right order, ties half\n"
    "               (Rendle et al., UAI 2009)\n"
    "Of equal scores the item that the model numbers lower is ranked first, which for its own "
    "training file is the one that appears first. popularity ranks items by their number of "
    "training rows. \"full\": over all items. \"sampled\": the library's hit rate, each test item "
    "against 10 * K random ones, by dot products without biases; not comparable with full figures "
    "(Krichene, Rendle, KDD 2020). \"listed\": each pair of --negatives against its list. Users "
    "without training rows are the group \"untrained\", the others \"trained\"; \"all\" without "
    "--train.";

}  // namespace

void add_evaluate(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<EvaluateOptions>();
    CLI::App* command = app.add_subcommand(
        "evaluate",
        "Measures a model on held-out pairs. Hit rate, precision, recall, MAP, NDCG at several K "
        "and AUC over full rankings, beside a popularity ranking, and the library's sampled hit "
        "rate. A table on a terminal, CSV elsewhere, one object with --json.");
    command->footer(kDefinitions + ("\n\n" + app.get_footer()));
    command->add_option("MODEL", options->model, "Model file")->required()->type_name("");
    command->add_option("--test", options->test, "Held-out interactions")->type_name("FILE");
    command
        ->add_option("--train", options->train,
                     "Training interactions: their items are excluded from their user's ranking, "
                     "and their counts are the popularity baseline (default: neither)")
        ->type_name("FILE");
    command
        ->add_option("--negatives", options->negatives,
                     "Lines \"user item negative ...\" or \"(user,item) negative ...\": ranks each "
                     "item among its negatives")
        ->type_name("FILE");
    command
        ->add_option("-k", options->ks,
                     "Values of K, separated by commas or repeated (default 5,10,20: what a "
                     "screen shows, and the two values most papers print)")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(at_least_one())
        ->type_name("K");
    command
        ->add_option("--seed", options->seed,
                     "Seed of the sampled figures (default 42: any will do)")
        ->check(whole_number())
        ->type_name("N");
    command->add_flag("--skip-unknown", options->skip_unknown,
                      "Leave out, and count, rows with ids that the model does not know instead "
                      "of failing");
    add_read_options(*command, options->read);
    add_device(
        *command, options->device,
        "A device scores the full rankings, of 512 items or more; their last bits may differ "
        "from the CPU's. For auto, users * items * dimension must be at least 10^10 as well.");
    add_threads(*command, options->threads);
    command->callback([options, &global] {
        options->read.on_block = [](std::uint64_t /*bytes*/) { stop_if_interrupted(); };
        evaluate(*options, global);
    });
}

}  // namespace zxtool
