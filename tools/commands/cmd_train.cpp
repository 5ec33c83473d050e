// zorvex train: from a file of interactions to a model.
#include "arguments.hpp"
#include "atomic_file.hpp"
#include "commands.hpp"
#include "dataset.hpp"
#include "device.hpp"
#include "error.hpp"
#include "evaluation.hpp"
#include "held_out.hpp"
#include "model_inputs.hpp"
#include "output.hpp"
#include "progress.hpp"
#include "signals.hpp"
#include "trainer.hpp"

#include <charconv>
#include <chrono>
#include <fmt/format.h>
#include <memory>
#include <optional>

namespace zxtool {
namespace {

// Defaults of the number of epochs; the reasons stand in --help.
constexpr std::uint32_t kAlsEpochs = 10;
constexpr std::uint32_t kBprEpochs = 60;
constexpr float kBprRegularization = 0.01f;

struct TrainCommand {
    std::string input;
    std::string model;
    std::string algorithm = "als";
    TrainerOptions trainer{
        .dim = 64, .alpha = 10.0f, .learning_rate = 0.05f, .batch = 2048, .seed = 42};
    std::optional<std::uint32_t> epochs;
    std::optional<float> regularization;
    Preparation preparation;
    std::string holdout;
    std::uint32_t k = 10;
    std::uint32_t checkpoint = 0;
    std::string write_train;
    std::string write_test;
    DeviceChoice device = DeviceChoice::kAuto;
    ReadOptions read;
};

// "leave-one-out", or a fraction above 0 and below 1.
Holdout parse_holdout(const std::string& text) {
    if (text.empty()) return {};
    if (text == "leave-one-out") return {.kind = Holdout::Kind::kLeaveOneOut};
    double fraction = 0.0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, fraction);
    if (error != std::errc() || stop != end || !(fraction > 0.0 && fraction < 1.0))
        throw Error(Exit::kUsage,
                    fmt::format("--holdout: {} is neither leave-one-out nor a fraction above 0 "
                                "and below 1",
                                text));
    return {.kind = Holdout::Kind::kFraction, .fraction = fraction};
}

// Writes pairs in the user's ids, with ratings if there are strengths.
class SplitWriter {
  public:
    SplitWriter(const Dataset& data, const std::string& path, bool rated)
        : data_(data), file_(path), rated_(rated) {
        file_.write(rated ? "user,item,rating\n" : "user,item\n");
    }
    void add(std::uint32_t user, std::uint32_t item, float strength = 1.0f) {
        line_ = csv_field(data_.users.name(user));
        line_ += ',';
        line_ += csv_field(data_.items.name(item));
        if (rated_) line_ += ',' + shortest(strength);
        line_ += '\n';
        file_.write(line_);
    }
    void close() { file_.commit(); }

  private:
    const Dataset& data_;
    AtomicFile file_;
    bool rated_;
    std::string line_;
};

void write_split(const Dataset& data, const TrainCommand& options) {
    if (!options.write_train.empty()) {
        SplitWriter writer(data, options.write_train, options.preparation.weighted);
        for (std::size_t i = 0; i < data.train_users.size(); ++i)
            writer.add(data.train_users[i], data.train_items[i],
                       options.preparation.weighted ? data.train_strengths[i] : 1.0f);
        writer.close();
    }
    if (!options.write_test.empty()) {
        SplitWriter writer(data, options.write_test, false);
        for (const auto& [user, item] : data.test) writer.add(user, item);
        writer.close();
    }
}

Dataset read_dataset(const TrainCommand& options, const Console& console) {
    const std::string name = options.input == "-" ? "standard input" : options.input;
    const auto start = std::chrono::steady_clock::now();
    InteractionFile file = read_interactions(options.input, options.read);
    console.detail(fmt::format("{}: {} lines, {} bytes, {} rows", name, file.lines, file.bytes,
                               file.rows.size()));
    Dataset data;
    try {
        data = prepare(std::move(file), options.preparation);
    } catch (const Error& error) {  // which does not know where the rows are from
        throw Error(error.status(), fmt::format("{}: {}", name, error.what()));
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    console.note(fmt::format("{}: {} users, {} items, {} training pairs, {} held out ({:.2f} s)",
                             name, data.users.size(), data.items.size(), data.train_users.size(),
                             data.test.size(), taken.count()));
    return data;
}

// What stands on disk when training ends before its time.
std::string state_of_model(const TrainCommand& options, std::uint32_t saved_epoch) {
    if (saved_epoch == 0) return fmt::format("{} is untouched", options.model);
    return fmt::format("{} holds the checkpoint of epoch {}", options.model, saved_epoch);
}

// The trainer's options once the data are known.
TrainerOptions options_for(const Dataset& data, const TrainCommand& options) {
    TrainerOptions trainer = options.trainer;
    if (trainer.algorithm == Algorithm::kAls && !options.regularization)
        trainer.regularization = suitable_als_regularization(data, trainer.alpha);
    return trainer;
}

struct Result {
    ModelPtr model;
    std::optional<Figures> held_out;
    Json history = Json::array();
};

Result run_training(const Dataset& data, const HeldOut& held_out, const TrainCommand& options,
                    const TrainerOptions& trainer, Device* device, const Console& console) {
    Result result;
    std::uint32_t saved_epoch = 0;
    Progress progress(console, std::uint64_t{data.train_users.size()} * trainer.epochs,
                      trainer.algorithm == Algorithm::kAls ? "pairs" : "triples");
    const auto epoch_done = [&](std::uint32_t epoch, double seconds, const zx_model_t& model) {
        std::string line = fmt::format("epoch {}/{}  {:.2f} s", epoch, trainer.epochs, seconds);
        Json entry{{"epoch", epoch}, {"seconds", seconds}};
        if (!held_out.empty()) {
            const bool last = epoch == trainer.epochs;
            const Figures figures = last ? held_out.measure(model) : held_out.measure_some(model);
            line += "  " + held_out_text(figures);
            entry["held_out"] = figures_json(figures);
            if (last) result.held_out = figures;
        }
        progress.line(line);
        result.history.push_back(std::move(entry));
        if (options.checkpoint != 0 && epoch % options.checkpoint == 0 && epoch < trainer.epochs) {
            save_model(model, data.users, data.items, options.model);
            saved_epoch = epoch;
        }
    };
    try {
        result.model = train(data, trainer,
                             {.advance = [&](std::uint64_t pairs) { progress.advance(pairs); },
                              .epoch_done = epoch_done},
                             device);
        stop_if_interrupted();
    } catch (const Error& error) {
        if (error.status() == Exit::kInputOutput) throw;  // a failed save says what it left
        throw Error(error.status(),
                    fmt::format("{}; {}", error.what(), state_of_model(options, saved_epoch)));
    }
    return result;
}

Json summary_of(const TrainCommand& options, const TrainerOptions& trainer, const Dataset& data,
                Result& result, const std::optional<Figures>& popularity) {
    Json summary{{"model", options.model},
                 {"algorithm", options.algorithm},
                 {"users", data.users.size()},
                 {"items", data.items.size()},
                 {"rows_read", data.read_rows},
                 {"training_pairs", data.train_users.size()},
                 {"held_out_pairs", data.test.size()},
                 {"dim", trainer.dim},
                 {"epochs", trainer.epochs},
                 {"regularization", json_number(trainer.regularization)}};
    if (trainer.algorithm == Algorithm::kAls) {
        summary["alpha"] = json_number(trainer.alpha);
        summary["weighted"] = options.preparation.weighted;
    } else {
        summary["learning_rate"] = json_number(trainer.learning_rate);
        summary["constant_rate"] = trainer.constant_rate;
        summary["batch"] = trainer.batch;
        summary["bias"] = trainer.bias;
    }
    summary["seed"] = trainer.seed;
    if (result.held_out) {
        summary["held_out"] = figures_json(*result.held_out);
        summary["popularity"] = figures_json(*popularity);
    }
    summary["history"] = std::move(result.history);
    return summary;
}

void run_train(const TrainCommand& options, const GlobalOptions& global) {
    const Console console(global);
    std::vector<std::string> outputs = model_outputs(options.model);
    outputs.insert(outputs.end(), {options.write_train, options.write_test});
    refuse_overwriting(outputs, {options.input});
    {
        // A place that cannot be written is found out now and not after the training.
        const AtomicFile probe(options.model);
    }
    const Dataset data = read_dataset(options, console);
    const TrainerOptions trainer = options_for(data, options);
    const std::unique_ptr<Device> device =
        Device::open(options.device, device_use(data, trainer), console);
    write_split(data, options);

    const HeldOut held_out(data, options.k, threads_to_use(0));
    std::optional<Figures> popularity;
    if (!held_out.empty()) {
        popularity = held_out.measure_popularity();
        console.note(fmt::format("popularity  {}", held_out_text(*popularity)));
    } else if (!options.holdout.empty()) {
        console.warn("nothing is held out: no user has enough interactions");
    }
    Result result = run_training(data, held_out, options, trainer, device.get(), console);
    save_model(*result.model, data.users, data.items, options.model);

    const Json summary = summary_of(options, trainer, data, result, popularity);
    Output output;
    if (global.json) {
        output.write(json_text(summary) + "\n");
    } else {
        output.write(summary_text(summary));
        if (result.held_out)
            output.write(fmt::format("{:<14}  {}\n{:<14}  {}\n", "held out",
                                     held_out_text(*result.held_out), "popularity",
                                     held_out_text(*popularity)));
    }
    output.close();
}

// Puts the defaults of the algorithm in and refuses what it does not use. An option that would
// change nothing is more likely a mistake than a wish.
void settle_options(const CLI::App& command, TrainCommand& options) {
    const bool als = options.algorithm == "als";
    const auto refuse_given = [&](const char* name, const std::string& why) {
        if (command.get_option(name)->count() != 0)
            throw Error(Exit::kUsage, fmt::format("{} {}", name, why));
    };
    if (als) {
        for (const char* name : {"--learning-rate", "--constant-rate", "--batch", "--bias"})
            refuse_given(name, "is not used by --algorithm als");
    } else {
        for (const char* name : {"--alpha", "--weighted"})
            refuse_given(name, "is not used by --algorithm bpr");
    }
    if (options.holdout.empty()) {
        for (const char* name : {"-k", "--write-test"}) refuse_given(name, "needs --holdout");
    }
    for (const std::string& path : {options.write_train, options.write_test})
        if (path.ends_with(".gz"))
            throw Error(Exit::kUsage, fmt::format("{}: the split is written uncompressed", path));

    options.trainer.algorithm = als ? Algorithm::kAls : Algorithm::kBpr;
    options.trainer.epochs = options.epochs.value_or(als ? kAlsEpochs : kBprEpochs);
    options.trainer.regularization = options.regularization.value_or(kBprRegularization);
    options.preparation.holdout = parse_holdout(options.holdout);
    options.preparation.seed = options.trainer.seed;
    leave_out_unused(options.preparation, options.read);
}

void add_data_options(CLI::App& command, TrainCommand& options) {
    Preparation& preparation = options.preparation;
    command
        .add_option("--min-rating", preparation.min_rating,
                    "Only rows rated at least this are positives (default: all rows are)")
        ->check(finite())
        ->type_name("X");
    command
        .add_option("--core", preparation.core,
                    "Drop users and items with fewer interactions until nothing changes "
                    "(default: none dropped; 5 is usual in papers)")
        ->check(at_least_one())
        ->type_name("N");
    command.add_flag("--weighted", preparation.weighted,
                     "ALS: keep ratings as strengths, repeated pairs summed (default: every pair "
                     "counts the same, which is right for ratings, where low ones are no weak "
                     "approval)");
    command
        .add_option("--holdout", options.holdout,
                    "Keep interactions back and measure on them after each epoch: "
                    "leave-one-out, each user's latest, or a fraction of each user's, seeded "
                    "(default: none, so the model learns from everything)")
        ->type_name("leave-one-out|X");
    command
        .add_option("-k", options.k, "K of the held-out figures (default 10: what a screen shows)")
        ->check(at_least_one())
        ->type_name("K");
    command
        .add_option("--write-train", options.write_train,
                    "Write the training pairs as CSV, for evaluate and recommend")
        ->type_name("FILE");
    command.add_option("--write-test", options.write_test, "Write the held-out pairs as CSV")
        ->type_name("FILE");
    add_read_options(command, options.read);
}

void add_training_options(CLI::App& command, TrainCommand& options) {
    TrainerOptions& trainer = options.trainer;
    command
        .add_option("--algorithm", options.algorithm,
                    "als: alternating least squares, few epochs and hardly anything to tune; "
                    "bpr: Bayesian personalised ranking, learns the order of items (default "
                    "als)")
        ->check(CLI::IsMember({"als", "bpr"}).description(""))
        ->type_name("als|bpr");
    command
        .add_option("--dim", trainer.dim,
                    "Length of an embedding (default 64: on a million generated interactions "
                    "twice that gained 1 % in NDCG@10 at four times the work of ALS)")
        ->check(at_least_one())
        ->type_name("N");
    command
        .add_option("--epochs", options.epochs,
                    "Passes over the data (default: als 10, by when held-out figures have "
                    "settled; bpr 60, which learns in small steps)")
        ->check(at_least_one())
        ->type_name("N");
    command
        .add_option("--regularization", options.regularization,
                    "L2 weight against overfitting. Default for als: alpha / 3 * S / "
                    "sqrt(users * items), S being the sum of the strengths: the more is known "
                    "of each, the more noise there is to hold down. Default for bpr: 0.01, "
                    "applied at every step")
        ->check(finite_not_negative())
        ->type_name("X");
    command
        .add_option("--alpha", trainer.alpha,
                    "ALS: how much more an interaction counts than its absence (default 10: "
                    "with a regularization to match, 3 to 40 differ little)")
        ->check(finite_not_negative())
        ->type_name("X");
    command
        .add_option("--learning-rate", trainer.learning_rate,
                    "BPR: step size (default 0.05, a usual value; 0.1 does about as well)")
        ->check(finite_positive())
        ->type_name("X");
    command.add_flag("--constant-rate", trainer.constant_rate,
                     "BPR: keep the step size to the end (default: over the second half of the "
                     "epochs it falls towards 0, which settles the noise of the last steps)");
    command.add_flag("--bias", trainer.bias, "BPR: give items a bias, which learns popularity");
    command
        .add_option("--batch", trainer.batch,
                    "BPR: triples per step (default 2048: their ids fit the first-level cache, "
                    "and it is above the 256 under which steps of dimensions over 512 update "
                    "differently; the model does not depend on it otherwise)")
        ->check(at_least_one())
        ->type_name("N");
    command
        .add_option(
            "--seed", trainer.seed,
            "Seed of the start, the order, the negatives and a fraction's choice "
            "(default 42: any will do); the same seed and input give the same bytes on the CPU")
        ->check(whole_number())
        ->type_name("N");
    add_device(command, options.device,
               "BPR batches of 512 triples or more run on a device, ALS never. A device loses some "
               "updates of rows that triples of a batch share, so the same seed does not give the "
               "same bytes there.");
    command
        .add_option("--checkpoint", options.checkpoint,
                    "Save model and ids every N epochs (default: only at the end, so that an "
                    "interrupted training leaves an older model alone)")
        ->check(at_least_one())
        ->type_name("N");
}

}  // namespace

void add_train(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<TrainCommand>();
    CLI::App* command = app.add_subcommand(
        "train",
        "Trains a model from a file of interactions. Rows are user,item[,rating[,timestamp]] in "
        "any of the forms that --format names; the model is written with the ids beside it "
        "(MODEL.ids). Ctrl-C ends the training between two steps and saves nothing. An option that "
        "the algorithm does not use is refused.");
    command->add_option("FILE", options->input, "Interactions; - is standard input")
        ->required()
        ->type_name("");
    command->add_option("-o,--output", options->model, "Model file to write")
        ->required()
        ->type_name("MODEL");
    add_training_options(*command, *options);
    add_data_options(*command, *options);
    command->callback([command, options, &global] {
        options->read.on_block = [](std::uint64_t /*bytes*/) { stop_if_interrupted(); };
        settle_options(*command, *options);
        run_train(*options, global);
    });
}

}  // namespace zxtool
