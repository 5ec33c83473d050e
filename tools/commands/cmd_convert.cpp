// zorvex convert: a tensor, or the tensors of a model, from one file format to another.
#include "arguments.hpp"
#include "commands.hpp"
#include "container.hpp"
#include "error.hpp"
#include "library_files.hpp"
#include "model_inputs.hpp"
#include "output.hpp"
#include "signals.hpp"
#include "stored_tensor.hpp"
#include "tensor_source.hpp"

#include <fmt/format.h>
#include <memory>

namespace zxtool {
namespace {

enum class TensorFormat { kNpy, kSafetensors, kRaw };

struct Part {
    const char* name = nullptr;  // null stands for all
    zx_tensor_t* zx_model_t::*tensor = nullptr;
};

const std::map<std::string, TensorFormat> kFormats{{"npy", TensorFormat::kNpy},
                                                   {"safetensors", TensorFormat::kSafetensors},
                                                   {"raw", TensorFormat::kRaw}};
const std::map<std::string, Part> kParts{
    {"user_embeddings", {"user_embeddings", &zx_model_t::user_embeddings}},
    {"item_embeddings", {"item_embeddings", &zx_model_t::item_embeddings}},
    {"user_biases", {"user_biases", &zx_model_t::user_biases}},
    {"item_biases", {"item_biases", &zx_model_t::item_biases}}};

struct ConvertOptions {
    std::string source;
    TensorFormat format = TensorFormat::kNpy;
    std::string path;
    bool is_raw = false;  // which is said by a shape
    std::string shape;
    Part part;
};

NamedTensor part_of(const zx_model_t& model, const ConvertOptions& options) {
    zx_tensor_t* const tensor = model.*options.part.tensor;
    if (tensor == nullptr)
        throw Error(Exit::kBadInput,
                    fmt::format("{}: the model has no {}", options.source, options.part.name));
    return {TensorPtr(zx_tensor_retain(tensor)), options.part.name};
}

// The tensor to be written; none when it is the whole of `stored`.
NamedTensor load_source(const ConvertOptions& options, StoredModel& stored) {
    if (options.is_raw) {
        const std::vector<std::uint32_t> shape = parse_shape(options.shape);
        return load_raw(RegularFile(options.source), shape);
    }
    const RegularFile file(options.source);
    if (!is_container(file))
        throw Error(
            Exit::kBadInput,
            fmt::format("{}: is no model or tensor file; raw floats need --shape", options.source));
    const Container container = read_container(file);
    const bool is_model = container.header.model_type != kNoModel;
    if (options.part.name != nullptr && !is_model)
        throw Error(Exit::kUsage, "--tensor is for models; this is a file of one tensor");
    if (!is_model) return load_tensor(file, container.tensors.front());

    if (options.part.name == nullptr && options.format != TensorFormat::kSafetensors)
        throw Error(Exit::kUsage,
                    "a file of this format holds one tensor; --tensor says which of the model's, "
                    "and zorvex export --to npy writes all of them");
    stored = load_model(options.source);
    return options.part.name != nullptr ? part_of(*stored.model, options) : NamedTensor{};
}

void write(const NamedTensor& source, const StoredModel& stored, const ConvertOptions& options,
           AtomicFile& file) {
    if (!source.tensor)
        write_safetensors(*stored.model, file, options.path);
    else if (options.format == TensorFormat::kSafetensors)
        write_safetensors(*source.tensor, source.name, file, options.path);
    else if (options.format == TensorFormat::kNpy)
        write_npy(*source.tensor, file, options.path);
    else
        write_raw(*source.tensor, file, options.path);
}

void convert(const ConvertOptions& options, const GlobalOptions& global) {
    if (options.is_raw && options.part.name != nullptr)
        throw Error(Exit::kUsage, "--shape is for raw floats and --tensor for models");
    refuse_overwriting({options.path}, model_inputs(options.source));
    StoredModel stored;
    const NamedTensor source = load_source(options, stored);
    AtomicFile file(options.path);
    write(source, stored, options, file);
    stop_if_interrupted();
    file.place();

    Json summary{{"source", options.source}, {"path", options.path}};
    if (source.tensor) {
        const std::vector<std::uint64_t> shape(source.tensor->dims,
                                               source.tensor->dims + source.tensor->ndim);
        summary["tensor"] = source.name;
        summary["shape"] = global.json ? Json(shape) : Json(shape_text(shape));
    }
    Output output;
    output.write(global.json ? json_text(summary) + "\n" : summary_text(summary));
    output.close();
}

}  // namespace

void add_convert(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<ConvertOptions>();
    CLI::App* command = app.add_subcommand(
        "convert",
        "Writes a tensor in another format. It is read from a tensor file, from raw floats with "
        "--shape, or from a model with --tensor; without that, all tensors of a model go into one "
        "safetensors file.");
    command->add_option("FILE", options->source, "Tensor file, model file, or raw 32-bit floats")
        ->required()
        ->type_name("");
    add_choice(
        *command, "--to", options->format, kFormats,
        "npy: an array of NumPy. safetensors: under its name in the file, or else \"tensor\". "
        "raw: its floats and nothing else")
        ->required();
    CLI::Option* const shape =
        command
            ->add_option("--shape", options->shape,
                         "The file is raw floats; its extents, 1 to 4 of them, such as 3,4")
            ->type_name("N,N");
    add_choice(*command, "--tensor", options->part, kParts, "The tensor of a model");
    command->add_option("PATH", options->path, "The file to write")->required()->type_name("");
    command->callback([options, shape, &global] {
        options->is_raw = shape->count() != 0;
        convert(*options, global);
    });
}

}  // namespace zxtool
