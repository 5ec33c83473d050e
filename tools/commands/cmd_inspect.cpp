// zorvex inspect: what a file of any of the library's formats holds.
#include "commands.hpp"
#include "known_file.hpp"
#include "output.hpp"
#include "signals.hpp"
#include "statistics.hpp"

#include <fmt/format.h>
#include <memory>
#include <optional>

namespace zxtool {
namespace {

struct InspectOptions {
    std::string file;
};

// A tensor, and what its numbers are like unless they are of a kind that is not read.
struct InspectedTensor {
    StoredTensor place;
    std::optional<Statistics> statistics;

    // Whether there are numbers that a smallest one could be found among.
    [[nodiscard]] bool has_finite() const { return statistics && statistics->finite != 0; }
};

std::vector<InspectedTensor> inspected(const RegularFile& file,
                                       const std::vector<StoredTensor>& tensors) {
    std::vector<InspectedTensor> result;
    for (const StoredTensor& tensor : tensors) {
        InspectedTensor& added = result.emplace_back(InspectedTensor{tensor, std::nullopt});
        if (tensor.is_float32)
            added.statistics =
                statistics_of(file, tensor.offset, tensor.bytes, stop_if_interrupted);
    }
    return result;
}

Json tensor_json(const InspectedTensor& tensor) {
    Json json{{"name", tensor.place.name},
              {"dtype", tensor.place.dtype},
              {"shape", tensor.place.shape},
              {"offset", tensor.place.offset},
              {"bytes", tensor.place.bytes}};
    if (!tensor.statistics) return json;
    const Statistics& statistics = *tensor.statistics;
    const bool known = tensor.has_finite();
    json["count"] = statistics.finite + statistics.not_finite;
    json["min"] = known ? json_number(statistics.min) : Json();
    json["max"] = known ? json_number(statistics.max) : Json();
    json["mean"] = known ? Json(statistics.mean) : Json();
    json["std"] = known ? Json(statistics.deviation) : Json();
    json["not_finite"] = statistics.not_finite;
    return json;
}

Table table_of(const std::vector<InspectedTensor>& tensors, bool for_people) {
    Table table({{"tensor"},
                 {"dtype"},
                 {"shape", true},
                 {"offset", true},
                 {"bytes", true},
                 {"count", true},
                 {"min", true},
                 {"max", true},
                 {"mean", true},
                 {"std", true},
                 {"not_finite", true}});
    const auto shown = [for_people](double value) {
        return for_people ? fmt::format("{:.6g}", value) : fmt::format("{}", value);
    };
    for (const InspectedTensor& tensor : tensors) {
        const StoredTensor& place = tensor.place;
        std::vector<std::string> cells{place.name, place.dtype, shape_text(place.shape),
                                       std::to_string(place.offset), std::to_string(place.bytes)};
        const Statistics statistics = tensor.statistics.value_or(Statistics{});
        cells.push_back(
            tensor.statistics ? std::to_string(statistics.finite + statistics.not_finite) : "");
        if (tensor.has_finite())
            cells.insert(cells.end(), {shortest(statistics.min), shortest(statistics.max),
                                       shown(statistics.mean), shown(statistics.deviation)});
        else
            cells.insert(cells.end(), 4, "");
        cells.push_back(tensor.statistics ? std::to_string(statistics.not_finite) : "");
        table.add(std::move(cells));
    }
    return table;
}

void inspect(const InspectOptions& options, const GlobalOptions& global) {
    const RegularFile file(options.file);
    const KnownFile known = read_known_file(file);
    const std::vector<InspectedTensor> tensors = inspected(file, known.tensors);

    Json summary{{"file", options.file}, {"format", known.format}, {"file_bytes", file.size()}};
    Output output;
    if (global.json) {
        Json list = Json::array();
        for (const InspectedTensor& tensor : tensors) list.push_back(tensor_json(tensor));
        summary["tensors"] = std::move(list);
        output.write(json_text(summary) + "\n");
    } else {
        output.write(summary_text(summary));
        if (!tensors.empty()) {
            output.write("\n");
            table_of(tensors, output.is_terminal()).write_to(output);
        }
    }
    output.close();
}

}  // namespace

void add_inspect(CLI::App& app, const GlobalOptions& global) {
    const auto options = std::make_shared<InspectOptions>();
    CLI::App* command = app.add_subcommand(
        "inspect",
        "Prints what a file holds. It may be a model file, a tensor file, an npy, safetensors or "
        "JSON file, or raw floats, told apart by the end of its name or else its first bytes. A "
        "line for each tensor says its type, shape, place in the file and size and, for 32-bit "
        "floats, their number, the least, the greatest, mean and standard deviation of the finite "
        "ones, and how many are not finite.");
    command->add_option("FILE", options->file, "A file of any of these formats")
        ->required()
        ->type_name("");
    command->callback([options, &global] { inspect(*options, global); });
}

}  // namespace zxtool
