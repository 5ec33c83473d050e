// safetensors files: the length of a JSON header, the header, which names type, shape and place of
// every tensor, and their elements without gaps.
// The format: README of the safetensors project, "Format".

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"
#include "zx_serialize/tensor_data.hpp"
#include "zx_serialize/text.hpp"

#include <cstdio>

namespace {

constexpr zx::Module kModule{"src/zx_serialize"};
constexpr std::uint64_t kHeaderMultiple = 8;

// What a caller wants in a file; an entry without a tensor is skipped.
struct List {
    zx_tensor_t* const* tensors;
    const char* const* names;
    std::uint32_t count;
};

void add_entry(zx::Text& text, const char* name, const zx_tensor_t& tensor, std::uint64_t begin) {
    text.add("\"");
    text.add(name);  // not escaped, deliberately
    text.add("\":{\"dtype\":\"F32\",\"shape\":[");
    for (std::uint32_t axis = 0; axis < tensor.ndim; ++axis) {
        if (axis != 0) text.add(",");
        text.add_number(tensor.dims[axis]);
    }
    text.add("],\"data_offsets\":[");
    text.add_number(begin);
    text.add(",");
    text.add_number(begin + tensor.size * sizeof(float));
    text.add("]}");
}

// The header, and its length. The comma belongs to the place in the list, deliberately, also where
// the entry before it was skipped.
std::uint64_t header_of(const List& list, char* out) {
    zx::Text text(out);
    std::uint64_t begin = 0;
    text.add("{");
    for (std::uint32_t i = 0; i < list.count; ++i) {
        if (!list.tensors[i]) continue;
        if (i != 0) text.add(",");
        add_entry(text, list.names[i], *list.tensors[i], begin);
        begin += list.tensors[i]->size * sizeof(float);
    }
    text.add("}");
    text.add_spaces_up_to((text.length() + kHeaderMultiple - 1) / kHeaderMultiple *
                          kHeaderMultiple);
    return text.length();
}

// The records of tensors and the list of names are public, and may be made by hand.
bool has_nameless_tensor(const List& list) {
    for (std::uint32_t i = 0; i < list.count; ++i)
        if (list.tensors[i] && !list.names[i]) return true;
    return false;
}
bool has_too_many_axes(const List& list) {
    for (std::uint32_t i = 0; i < list.count; ++i)
        if (list.tensors[i] && list.tensors[i]->ndim > zx::kMaxAxes) return true;
    return false;
}

}  // namespace

zx_status_t zx_tensors_to_safetensors(zx_tensor_t* const* tensors, const char* const* names,
                                      uint32_t count, const char* path) {
    if (!tensors || !names || !path || count == 0)
        return kModule.fail(ZX_ERR_NULL_POINTER, "Invalid arguments");
    const List list{tensors, names, count};
    if (has_nameless_tensor(list)) return kModule.fail(ZX_ERR_NULL_POINTER, "Invalid arguments");
    if (has_too_many_axes(list))
        return kModule.fail(ZX_ERR_INVALID_ARGUMENT, "Invalid tensor dimensions");
    const zx::File file(std::fopen(path, "wb"));
    if (!file) return kModule.fail(ZX_ERR_FILE_OPEN, "Failed to open file");

    const std::uint64_t header_bytes = header_of(list, nullptr);
    const auto header = zx::make_array<char>(header_bytes);
    if (!header) return kModule.fail(ZX_ERR_OUT_OF_MEMORY, "Failed to allocate header");
    (void)header_of(list, header.get());
    (void)std::fwrite(&header_bytes, sizeof(header_bytes), 1, file.get());
    (void)std::fwrite(header.get(), 1, header_bytes, file.get());
    for (std::uint32_t i = 0; i < count; ++i)
        if (tensors[i]) zx::write_data(file.get(), *tensors[i]);
    return ZX_OK;
}

zx_status_t zx_model_to_safetensors(const zx_model_t* model, const char* path) {
    if (!model || !path) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL model or path");
    if (model->type != ZX_MODEL_MF)
        return kModule.fail(ZX_ERR_MODEL_TYPE_MISMATCH, "Unknown model type");

    constexpr std::uint32_t kParts = 4;
    zx_tensor_t* const parts[kParts] = {model->user_embeddings, model->item_embeddings,
                                        model->user_biases, model->item_biases};
    constexpr const char* kPartNames[kParts] = {"user_embeddings", "item_embeddings", "user_biases",
                                                "item_biases"};
    zx_tensor_t* tensors[kParts];
    const char* names[kParts];
    std::uint32_t count = 0;
    for (std::uint32_t part = 0; part < kParts; ++part) {
        if (!parts[part]) continue;
        tensors[count] = parts[part];
        names[count++] = kPartNames[part];
    }
    const zx_status_t status = zx_tensors_to_safetensors(tensors, names, count, path);
    if (status != ZX_OK) return status;

    if (zx::prints_information())
        (void)std::printf("[ZORVEX] Model exported to %s (safetensors format)\n", path);
    return ZX_OK;
}
