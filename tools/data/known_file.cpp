#include "known_file.hpp"

#include "container.hpp"
#include "error.hpp"
#include "json_shape.hpp"
#include "npy_file.hpp"
#include "safetensors_file.hpp"
#include "zorvex.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zxtool {

namespace {

constexpr std::uint64_t kMaxJsonBytes = 1U << 20U;

[[noreturn]] void refuse(const RegularFile& file, const std::string& what) {
    throw Error(Exit::kBadInput, fmt::format("{}: {}", file.path(), what));
}

KnownFile known_container(const RegularFile& file) {
    Container container = read_container(file);
    const ContainerHeader& header = container.header;
    const std::uint64_t data_at = padded(descriptor_at(header.num_tensors));
    if (header.data_offset != data_at)
        refuse_at(
            file, offsetof(ContainerHeader, data_offset),
            fmt::format("the offset of the data is {}, expected {}", header.data_offset, data_at));
    if (header.file_size != file.size())
        refuse_at(
            file, offsetof(ContainerHeader, file_size),
            fmt::format("the size of the file is {}, expected {}", header.file_size, file.size()));
    for (std::uint32_t i = 0; i < header.num_tensors; ++i)
        if (container.tensors[i].offset < data_at)
            refuse_at(file, descriptor_at(i) + offsetof(ContainerDescriptor, offset),
                      fmt::format("the data begins at {}, in front of all data",
                                  container.tensors[i].offset));
    return {header.model_type == kNoModel ? "tensor" : "model", std::move(container.tensors)};
}

KnownFile known_raw(const RegularFile& file) {
    if (file.size() % sizeof(float) != 0)
        refuse(file, fmt::format("is {} bytes long, which are no 32-bit floats", file.size()));
    return {"raw",
            {{.name = {},
              .dtype = "float32",
              .is_float32 = true,
              .shape = {file.size() / sizeof(float)},
              .offset = 0,
              .bytes = file.size()}}};
}

// The library's metadata name tensors of the model that they describe; other JSON names none.
std::vector<StoredTensor> tensors_described_in(const nlohmann::json& text) {
    std::vector<StoredTensor> tensors;
    const nlohmann::json* const entries = entry_of(&text, "tensors");
    if (entries == nullptr) return tensors;
    for (const auto& [name, entry] : entries->items()) {
        const nlohmann::json* const shape = entry_of(&entry, "shape");
        const nlohmann::json* const dtype = entry_of(&entry, "dtype");
        if (!is_list_of_numbers(shape) || dtype == nullptr || !dtype->is_string()) continue;
        tensors.push_back({.name = name,
                           .dtype = dtype->get<std::string>(),
                           .shape = shape->get<std::vector<std::uint64_t>>()});
    }
    return tensors;
}

KnownFile known_json(const RegularFile& file) {
    if (file.size() > kMaxJsonBytes)
        refuse(file,
               fmt::format("is {} bytes of JSON, expected at most {}", file.size(), kMaxJsonBytes));
    const auto text = nlohmann::json::parse(file.start(kMaxJsonBytes), nullptr, false);
    if (text.is_discarded()) refuse(file, "is no valid JSON");
    return {"json", tensors_described_in(text)};
}

}  // namespace

KnownFile read_known_file(const RegularFile& file) {
    switch (zx_detect_format(file.path().c_str())) {
        case ZX_FORMAT_NATIVE:
            return known_container(file);
        case ZX_FORMAT_NPY:
            return {"npy", {read_npy(file)}};
        case ZX_FORMAT_SAFETENSORS:
            return {"safetensors", read_safetensors(file)};
        case ZX_FORMAT_RAW:
            return known_raw(file);
        case ZX_FORMAT_JSON:
            return known_json(file);
        default:
            refuse(file,
                   "is of no format that is known: neither its first bytes nor its name, such as "
                   ".zxm, .npy, .safetensors, .json, .bin or .raw, tell one");
    }
}

}  // namespace zxtool
