// zorvex info: what a model file holds.
#include "commands.hpp"
#include "model_store.hpp"
#include "output.hpp"
#include "trainer.hpp"

#include <memory>

namespace zxtool {
namespace {

struct InfoOptions {
    std::string model;
};

void info(const InfoOptions& options, const GlobalOptions& global) {
    const StoredModel stored = load_model(options.model);
    const zx_model_t& model = *stored.model;
    const Json summary{{"model", options.model},
                       {"type", model.name},
                       {"users", model.num_users},
                       {"items", model.num_items},
                       {"dim", model.embedding_dim},
                       {"biases", model.use_bias != 0},
                       {"parameters", zx_model_num_parameters(&model)},
                       {"file_bytes", stored.file_bytes},
                       {"ids_file", stored.has_ids},
                       // Loading refuses ids of another model, so a file that is here belongs.
                       {"ids_belong_to_model", stored.has_ids},
                       {"finite", all_finite(model)}};
    Output output;
    output.write(global.json ? json_text(summary) + "\n" : summary_text(summary));
    output.close();
}

}  // namespace

void add_info(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<InfoOptions>();
    CLI::App* command = app.add_subcommand(
        "info",
        "Prints what a model holds. That is users, items, dimension, biases, number of parameters, "
        "bytes "
        "of the file, whether an ids file is there and belongs to it (size and hash), and whether "
        "all numbers are finite.");
    command->add_option("MODEL", options->model, "Model file")->required()->type_name("");
    command->callback([options, &global] { info(*options, global); });
}

}  // namespace zxtool
