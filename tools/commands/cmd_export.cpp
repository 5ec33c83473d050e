// zorvex export: a model in a format that other programs read.
#include "arguments.hpp"
#include "commands.hpp"
#include "embedding_csv.hpp"
#include "error.hpp"
#include "folder_files.hpp"
#include "library_files.hpp"
#include "model_inputs.hpp"
#include "output.hpp"
#include "signals.hpp"
#include "trainer.hpp"

#include <filesystem>
#include <fmt/format.h>
#include <memory>

namespace zxtool {
namespace {

enum class ExportFormat { kNpy, kSafetensors, kJson, kSchema, kCsv };

const std::map<std::string, ExportFormat> kFormats{{"npy", ExportFormat::kNpy},
                                                   {"safetensors", ExportFormat::kSafetensors},
                                                   {"json", ExportFormat::kJson},
                                                   {"schema", ExportFormat::kSchema},
                                                   {"csv", ExportFormat::kCsv}};

struct ExportOptions {
    std::string model;
    ExportFormat format = ExportFormat::kNpy;
    std::string path;
};

// The library's export of a folder forms the names of its files in this many bytes, the last of
// which is 0, and cuts what is longer.
constexpr std::size_t kPathBytes = 512;
constexpr std::string_view kUserTable = "user_embeddings.npy";

// What an export of a folder may consist of.
const std::vector<std::string> kNpyNames{std::string(kUserTable), "item_embeddings.npy",
                                         "user_biases.npy",       "item_biases.npy",
                                         "user_ids.csv",          "item_ids.csv"};
const std::vector<std::string> kCsvNames{"users.csv", "items.csv"};

constexpr const char* kFolders =
    "What a folder holds:\n"
    "  npy  user_embeddings.npy and item_embeddings.npy; with biases, user_biases.npy and\n"
    "       item_biases.npy; with an ids file, user_ids.csv and item_ids.csv, an id for each row\n"
    "  csv  users.csv and items.csv: an id, its embedding and, with biases, its bias\n"
    "In a folder that is there, files of these names are replaced or, if the model has nothing for "
    "them, removed.";

std::string path_in(const std::string& folder, const std::string& name) {
    return (std::filesystem::path(folder) / name).string();
}

// The paths that an export may write to, whatever the model holds.
std::vector<std::string> paths_of(const ExportOptions& options) {
    if (options.format != ExportFormat::kNpy && options.format != ExportFormat::kCsv)
        return {options.path};
    std::vector<std::string> paths;
    for (const std::string& name : options.format == ExportFormat::kNpy ? kNpyNames : kCsvNames)
        paths.push_back(path_in(options.path, name));
    return paths;
}

// So the library could not write into such a folder what the tool does, and would write elsewhere.
void refuse_long_folder(const std::string& folder) {
    const std::size_t most = kPathBytes - 1 - kUserTable.size() - 1;
    if (folder.size() > most)
        throw Error(Exit::kUsage, fmt::format("{}: the path of a folder of npy files is {} bytes "
                                              "long, expected at most {}",
                                              folder, folder.size(), most));
}

// The names of the files that were written.
std::vector<std::string> export_npy(const StoredModel& stored, const std::string& folder) {
    const zx_model_t& model = *stored.model;
    const zx_tensor_t* const tensors[] = {model.user_embeddings, model.item_embeddings,
                                          model.user_biases, model.item_biases};
    FolderFiles files(folder);
    std::vector<std::string> written;
    std::vector<std::string> others;
    for (std::size_t i = 0; i < std::size(tensors); ++i) {
        stop_if_interrupted();
        (tensors[i] != nullptr ? written : others).push_back(kNpyNames[i]);
        if (tensors[i] != nullptr)
            write_npy(*tensors[i], files.add(kNpyNames[i]), path_in(folder, kNpyNames[i]));
    }
    const struct {
        std::string_view what;
        const IdMap& ids;
        const std::string& name;
    } ids_files[] = {{"user", stored.users, kNpyNames[4]}, {"item", stored.items, kNpyNames[5]}};
    for (const auto& [what, ids, name] : ids_files) {
        (stored.has_ids ? written : others).push_back(name);
        if (stored.has_ids) write_ids(what, ids, files.add(name));
    }
    stop_if_interrupted();
    files.commit(others);
    return written;
}

std::vector<std::string> export_csv(const StoredModel& stored, const std::string& folder) {
    const zx_model_t& model = *stored.model;
    FolderFiles files(folder);
    write_embeddings("user", stored.users, *model.user_embeddings, model.user_biases,
                     files.add(kCsvNames[0]));
    write_embeddings("item", stored.items, *model.item_embeddings, model.item_biases,
                     files.add(kCsvNames[1]));
    stop_if_interrupted();
    files.commit({});
    return kCsvNames;
}

void export_file(const zx_model_t& model, ExportFormat format, const std::string& path) {
    AtomicFile file(path);
    if (format == ExportFormat::kSafetensors)
        write_safetensors(model, file, path);
    else if (format == ExportFormat::kJson)
        write_metadata(model, file, path);
    else
        write_schema(model, file, path);
    stop_if_interrupted();
    file.place();
}

void export_model(const ExportOptions& options, const GlobalOptions& global) {
    const Console console(global);
    if (options.format == ExportFormat::kNpy) refuse_long_folder(options.path);
    refuse_overwriting(paths_of(options), model_inputs(options.model));
    const StoredModel stored = load_model(options.model);
    if (!all_finite(*stored.model))
        console.warn(options.model + ": the model holds numbers that are not finite");

    std::vector<std::string> files;
    if (options.format == ExportFormat::kNpy)
        files = export_npy(stored, options.path);
    else if (options.format == ExportFormat::kCsv)
        files = export_csv(stored, options.path);
    else
        export_file(*stored.model, options.format, options.path);

    Json summary{{"model", options.model}, {"path", options.path}};
    if (!files.empty()) summary["files"] = files;
    Output output;
    output.write(global.json ? json_text(summary) + "\n" : summary_text(summary));
    output.close();
}

}  // namespace

void add_export(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<ExportOptions>();
    CLI::App* command = app.add_subcommand(
        "export",
        "Writes a model in a format that other programs read. npy and csv make a folder, the "
        "others "
        "a file. A model with numbers that are not finite is exported as it is, with a warning.");
    command->add_option("MODEL", options->model, "Model file")->required()->type_name("");
    add_choice(*command, "--to", options->format, kFormats,
               "npy: an array for each tensor, and the ids. csv: users and items with their ids, "
               "embeddings and biases. safetensors: all tensors in a file. json: what the model "
               "is. schema: what scoring takes and gives")
        ->required();
    command->add_option("PATH", options->path, "The folder or file to write")
        ->required()
        ->type_name("");
    command->footer(kFolders + ("\n\n" + app.get_footer()));
    command->callback([options, &global] { export_model(*options, global); });
}

}  // namespace zxtool
