#include "safetensors_file.hpp"

#include "error.hpp"
#include "json_shape.hpp"
#include "quote.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <string_view>

namespace zxtool {

namespace {

using Json = nlohmann::json;

constexpr std::uint64_t kLengthBytes = 8;
constexpr std::uint64_t kMaxHeaderBytes = 1U << 20U;

struct Type {
    std::string_view name;
    std::uint64_t bytes;
};
constexpr Type kTypes[] = {{"F64", 8}, {"F32", 4}, {"F16", 2},  {"BF16", 2},    {"I64", 8},
                           {"U64", 8}, {"I32", 4}, {"U32", 4},  {"I16", 2},     {"U16", 2},
                           {"I8", 1},  {"U8", 1},  {"BOOL", 1}, {"F8_E4M3", 1}, {"F8_E5M2", 1}};

[[noreturn]] void refuse(const RegularFile& file, const std::string& what) {
    throw Error(Exit::kBadInput, fmt::format("{}: {}", file.path(), what));
}

std::string read_header(const RegularFile& file) {
    if (file.size() < kLengthBytes) refuse(file, "is too short for a safetensors file");
    std::uint64_t length = 0;
    file.read(0, &length, sizeof(length));
    if (length > kMaxHeaderBytes || length > file.size() - kLengthBytes)
        refuse(file, fmt::format("safetensors header is {} bytes long, expected at most {}, and "
                                 "those in the file",
                                 length, kMaxHeaderBytes));
    return file.start(kLengthBytes + length).substr(kLengthBytes);
}

StoredTensor tensor_of(const RegularFile& file, const std::string& name, const Json& entry,
                       std::uint64_t data_at) {
    const Json* const dtype = entry_of(&entry, "dtype");
    const Json* const shape = entry_of(&entry, "shape");
    const Json* const offsets = entry_of(&entry, "data_offsets");
    if (dtype == nullptr || !dtype->is_string() || !is_list_of_numbers(shape) ||
        !is_list_of_numbers(offsets) || offsets->size() != 2)
        refuse(file, fmt::format("safetensors header: tensor {} has no dtype, shape and "
                                 "data_offsets as expected",
                                 quote(name)));
    const auto* const type =
        std::find_if(std::begin(kTypes), std::end(kTypes),
                     [&dtype](const Type& known) { return *dtype == known.name; });
    if (type == std::end(kTypes))
        refuse(file, fmt::format("safetensors header: tensor {} is of a type that is not known: {}",
                                 quote(name), quote(dtype->get<std::string>())));
    const auto begin = (*offsets)[0].get<std::uint64_t>();
    const auto end = (*offsets)[1].get<std::uint64_t>();
    StoredTensor tensor{
        .name = name,
        .dtype = dtype->get<std::string>(),
        .is_float32 = type->name == "F32",
        .shape = shape->get<std::vector<std::uint64_t>>(),
        .offset = data_at + begin,
        .bytes = end - begin,
    };
    if (end < begin || end > file.size() - data_at ||
        bytes_of(tensor.shape, type->bytes) != tensor.bytes)
        refuse(file, fmt::format("safetensors header: tensor {} of {} {} is not at [{}, {}) of {} "
                                 "bytes of data",
                                 quote(name), shape_text(tensor.shape), tensor.dtype, begin, end,
                                 file.size() - data_at));
    return tensor;
}

}  // namespace

std::vector<StoredTensor> read_safetensors(const RegularFile& file) {
    const std::string header = read_header(file);
    const std::uint64_t data_at = kLengthBytes + header.size();
    const Json entries = Json::parse(header, nullptr, false);
    // White space may stand behind the object and not in front of it.
    if (!header.starts_with('{') || !entries.is_object())
        refuse(file, "safetensors header is no JSON object");

    std::vector<StoredTensor> tensors;
    for (const auto& [name, entry] : entries.items())
        if (name != "__metadata__") tensors.push_back(tensor_of(file, name, entry, data_at));
    // Empty tensors stand before the one that begins where they do.
    std::sort(tensors.begin(), tensors.end(), [](const StoredTensor& a, const StoredTensor& b) {
        return a.offset != b.offset ? a.offset < b.offset : a.bytes < b.bytes;
    });
    std::uint64_t end = data_at;
    for (const StoredTensor& tensor : tensors) {
        if (tensor.offset != end)
            refuse(file, fmt::format("safetensors data: tensor {} begins at {}, expected {}",
                                     quote(tensor.name), tensor.offset - data_at, end - data_at));
        end += tensor.bytes;
    }
    if (end != file.size())
        refuse(file, fmt::format("{} bytes stand behind the last tensor", file.size() - end));
    return tensors;
}

}  // namespace zxtool
