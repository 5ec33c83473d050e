// zorvex verify: whether a model file is in order, to the byte.
#include "commands.hpp"
#include "model_store.hpp"
#include "output.hpp"
#include "signals.hpp"

#include <memory>

namespace zxtool {
namespace {

struct VerifyOptions {
    std::string model;
};

void verify(const VerifyOptions& options, const GlobalOptions& global) {
    const StoredModel stored = load_checked_model(options.model, stop_if_interrupted);

    const Json summary{{"model", options.model},
                       {"ok", true},
                       {"file_bytes", stored.file_bytes},
                       {"ids_file", stored.has_ids}};
    Output output;
    output.write(global.json ? json_text(summary) + "\n" : printable(options.model) + ": ok\n");
    output.close();
}

}  // namespace

void add_verify(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App* command = app.add_subcommand(
        "verify",
        "Checks a model file to the byte. It is stricter than the commands that use a model: every "
        "field of the head has the value that the library writes, sizes fit shapes, the data of "
        "the tensors stand in order without gap or overlap, all padding is 0, the file is as long "
        "as it says, all numbers are finite, and an ids file, if there is one, belongs to it. The "
        "first fault is named with its offset in bytes and ends the command with status 4.");
    command->add_option("MODEL", options->model, "Model file")->required()->type_name("");
    command->callback([options, &global] { verify(*options, global); });
}

}  // namespace zxtool
