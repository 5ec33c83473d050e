// zorvex similar: the items nearest to an item.
#include "arguments.hpp"
#include "commands.hpp"
#include "error.hpp"
#include "model_inputs.hpp"
#include "output.hpp"
#include "recommender.hpp"

#include <fmt/format.h>
#include <memory>

namespace zxtool {
namespace {

struct SimilarOptions {
    std::string model;
    std::vector<std::string> items;
    std::uint32_t k = 10;
    bool skip_unknown = false;
};

Json similar_json(const StoredModel& stored, std::uint32_t item,
                  const std::vector<zx_scored_item_t>& similar) {
    Json list = Json::array();
    for (const zx_scored_item_t& other : similar)
        list.push_back(
            {{"item", stored.items.name(other.item)}, {"similarity", json_number(other.score)}});
    return {{"item", stored.items.name(item)}, {"similar", list}};
}

void similar(const SimilarOptions& options, const GlobalOptions& global) {
    const Console console(global);
    const StoredModel stored = open_model(options.model, console);
    const std::vector<std::uint32_t> items =
        numbers_of(options.items, stored.items, "item", options.skip_unknown, console);

    Output output;
    Json answers = Json::array();
    Table table({{"item"}, {"rank", true}, {"similar"}, {"similarity", true}});
    for (const std::uint32_t item : items) {
        const std::vector<zx_scored_item_t> found = most_similar(*stored.model, item, options.k);
        answers.push_back(similar_json(stored, item, found));
        for (std::size_t i = 0; i < found.size(); ++i)
            table.add({std::string(stored.items.name(item)), std::to_string(i + 1),
                       std::string(stored.items.name(found[i].item)),
                       output.is_terminal() ? fmt::format("{:.4f}", found[i].score)
                                            : shortest(found[i].score)});
    }
    if (global.json) {
        output.write(json_text({{"model", options.model},
                                {"measure", "cosine of the item embeddings"},
                                {"items", answers}}) +
                     "\n");
    } else {
        table.write_to(output);
    }
    output.close();
}

}  // namespace

void add_similar(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<SimilarOptions>();
    CLI::App* command = app.add_subcommand(
        "similar",
        "Lists the items nearest to an item. Near is a small angle between their embeddings, "
        "given as its cosine; the item itself is left out, and biases do not count. Of equal "
        "similarities the item "
        "that the model numbers lower comes first. An embedding of length 0 is similar to "
        "nothing: 0.");
    command->add_option("MODEL", options->model, "Model file")->required()->type_name("");
    add_strings(*command, "--item", options->items, "The item; may be given several times")
        ->required()
        ->type_name("ID");
    command
        ->add_option("-k", options->k,
                     "How many items (default 10: what a person looks through at a glance)")
        ->check(at_least_one())
        ->type_name("K");
    command->add_flag("--skip-unknown", options->skip_unknown,
                      "Leave out items that the model does not know instead of failing");
    command->callback([options, &global] { similar(*options, global); });
}

}  // namespace zxtool
