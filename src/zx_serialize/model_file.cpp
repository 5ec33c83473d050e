// The library's own model file: writing an MF model and building one from any bytes.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"
#include "zx_serialize/model_format.hpp"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr zx::Module kModule{"src/zx_serialize"};
using zx::ModelFileHeader;
using zx::TensorDescriptor;

// The tensors of a model file, in their order; the biases stand at the end.
constexpr const char* kTensorNames[] = {"mf.user_embeddings", "mf.item_embeddings",
                                        "mf.user_biases", "mf.item_biases"};
constexpr std::uint32_t kMaxTensors = 4;

bool write_block(std::FILE* file, const void* block, std::uint64_t bytes) {
    return std::fwrite(block, 1, bytes, file) == bytes;
}

// Whether padding arrives is not tested, deliberately.
void write_zeros(std::FILE* file, std::uint64_t bytes) {
    static constexpr char kZeros[zx::kDataAlignment] = {};
    while (bytes > 0) {
        const std::uint64_t chunk = bytes < sizeof(kZeros) ? bytes : sizeof(kZeros);
        (void)std::fwrite(kZeros, 1, chunk, file);
        bytes -= chunk;
    }
}

// What a model file of a model holds: header, descriptors, and the tensors they describe.
struct Contents {
    ModelFileHeader header{};
    TensorDescriptor descriptors[kMaxTensors]{};
    const zx_tensor_t* tensors[kMaxTensors]{};

    explicit Contents(const zx_model_t& model)
        : tensors{model.user_embeddings, model.item_embeddings,
                  model.use_bias ? model.user_biases : nullptr,
                  model.use_bias ? model.item_biases : nullptr} {
        std::uint32_t count = 0;
        while (count < kMaxTensors && tensors[count]) ++count;
        const std::uint64_t table_end = sizeof(header) + count * sizeof(TensorDescriptor);
        std::uint64_t end = zx::padded_to_64(table_end);

        std::memcpy(header.magic, zx::kModelMagic, sizeof(header.magic));
        header.version = zx::kModelFileVersion;
        header.model_type = ZX_MODEL_MF;
        header.num_tensors = count;
        header.data_offset = end;
        if (model.name)
            std::memcpy(header.model_name, model.name,
                        strnlen(model.name, sizeof(header.model_name) - 1));
        for (std::uint32_t i = 0; i < count; ++i) {
            TensorDescriptor& descriptor = descriptors[i];
            std::memcpy(descriptor.name, kTensorNames[i], std::strlen(kTensorNames[i]));
            descriptor.ndim = tensors[i]->ndim;
            std::memcpy(descriptor.dims, tensors[i]->dims, sizeof(descriptor.dims));
            descriptor.offset = end;
            descriptor.size = tensors[i]->size * sizeof(float);
            end += zx::padded_to_64(descriptor.size);
        }
        header.file_size = end;
    }
};

zx_status_t write_contents(std::FILE* file, const Contents& contents) {
    const ModelFileHeader& header = contents.header;
    if (!write_block(file, &header, sizeof(header)))
        return kModule.fail(ZX_ERR_FILE_WRITE, "Failed to write header");
    const std::uint64_t table_bytes = header.num_tensors * sizeof(TensorDescriptor);
    if (!write_block(file, contents.descriptors, table_bytes))
        return kModule.fail(ZX_ERR_FILE_WRITE, "Failed to write descriptors");
    write_zeros(file, header.data_offset - (sizeof(header) + table_bytes));
    for (std::uint32_t i = 0; i < header.num_tensors; ++i) {
        const std::uint64_t bytes = contents.descriptors[i].size;
        if (!write_block(file, contents.tensors[i]->data, bytes))
            return kModule.fail(ZX_ERR_FILE_WRITE, "Failed to write tensor data");
        write_zeros(file, zx::padded_to_64(bytes) - bytes);
    }
    return ZX_OK;
}

// Names fill their field when they have no terminator.
std::string_view name_of(const TensorDescriptor& descriptor) {
    return {descriptor.name, strnlen(descriptor.name, sizeof(descriptor.name))};
}

// Shape by parts of the names, data by whole names, deliberately: a tensor whose name only contains
// the right words gives the model its shape and nothing else.
zx_model_t* create_described_model(const TensorDescriptor* descriptors, std::uint32_t count) {
    std::uint32_t num_users = 0;
    std::uint32_t num_items = 0;
    std::uint32_t d = 0;
    bool use_bias = false;
    const auto contains = [](std::string_view name, std::string_view part) {
        return name.find(part) != std::string_view::npos;
    };
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::string_view name = name_of(descriptors[i]);
        if (contains(name, "user_embeddings")) {
            num_users = descriptors[i].dims[0];
            d = descriptors[i].dims[1];
        }
        if (contains(name, "item_embeddings")) num_items = descriptors[i].dims[0];
        if (contains(name, "biases")) use_bias = true;
    }
    return zx_model_mf_create(num_users, num_items, d, use_bias);
}

zx_tensor_t* tensor_named(const zx_model_t& model, std::string_view name) {
    zx_tensor_t* const tensors[kMaxTensors] = {model.user_embeddings, model.item_embeddings,
                                               model.user_biases, model.item_biases};
    for (std::uint32_t i = 0; i < kMaxTensors; ++i)
        if (name == kTensorNames[i]) return tensors[i];
    return nullptr;
}

bool read_tensor(std::FILE* file, const TensorDescriptor& descriptor, zx_tensor_t& tensor) {
    // More data than the tensor holds has no place to go.
    if (descriptor.size > tensor.size * sizeof(float)) return false;
    // A seek that fails leaves the position, deliberately.
    (void)std::fseek(file, static_cast<long>(descriptor.offset), SEEK_SET);
    return std::fread(tensor.data, 1, descriptor.size, file) == descriptor.size;
}

}  // namespace

zx_status_t zx_model_save(const zx_model_t* model, const char* path) {
    if (!model || !path) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL model or path");
    const zx::File file(std::fopen(path, "wb"));
    if (!file) return kModule.fail(ZX_ERR_FILE_OPEN, "Failed to open file for writing");
    // The file is open, and so empty, before this test, deliberately.
    if (model->type != ZX_MODEL_MF)
        return kModule.fail(ZX_ERR_MODEL_TYPE_MISMATCH, "Unsupported model type for serialization");

    // Unbuffered, so that a block that was written has left the process: a full disk shows in the
    // write that meets it, not in a close that nobody tests.
    (void)std::setvbuf(file.get(), nullptr, _IONBF, 0);
    const Contents contents(*model);
    const zx_status_t status = write_contents(file.get(), contents);
    if (status != ZX_OK) return status;

    if (zx::prints_information())
        (void)std::printf("[ZORVEX] Model saved to %s (%.2f KB, %u tensors)\n", path,
                          static_cast<double>(contents.header.file_size) * 0x1p-10,
                          contents.header.num_tensors);
    return ZX_OK;
}

zx_model_t* zx_model_load(const char* path) {
    if (!path) return kModule.fail_null(ZX_ERR_NULL_POINTER, "NULL path");
    const zx::File file(std::fopen(path, "rb"));
    if (!file) return kModule.fail_null(ZX_ERR_FILE_OPEN, "Failed to open file for reading");

    ModelFileHeader header;
    if (std::fread(&header, 1, sizeof(header), file.get()) != sizeof(header))
        return kModule.fail_null(ZX_ERR_FILE_READ, "Failed to read header");
    if (std::memcmp(header.magic, zx::kModelMagic, sizeof(header.magic)) != 0)
        return kModule.fail_null(ZX_ERR_DATA_CORRUPTED, "Invalid file magic");
    if (header.version > zx::kModelFileVersion)
        return kModule.fail_null(ZX_ERR_VERSION_MISMATCH, "File version newer than library");

    // The memory is not touched before it is read into, so a count that the file cannot back costs
    // nothing. No descriptors at all end here too, deliberately.
    const auto descriptors = zx::make_array<TensorDescriptor>(header.num_tensors);
    if (!descriptors)
        return kModule.fail_null(ZX_ERR_OUT_OF_MEMORY, "Failed to allocate descriptors");
    const std::uint64_t table_bytes = header.num_tensors * sizeof(TensorDescriptor);
    if (std::fread(descriptors.get(), 1, table_bytes, file.get()) != table_bytes)
        return kModule.fail_null(ZX_ERR_FILE_READ, "Failed to read descriptors");
    if (header.model_type != ZX_MODEL_MF)
        return kModule.fail_null(ZX_ERR_MODEL_TYPE_MISMATCH, "Unknown model type");

    zx::ModelPtr model(create_described_model(descriptors.get(), header.num_tensors));
    if (!model) return nullptr;
    for (std::uint32_t i = 0; i < header.num_tensors; ++i) {
        zx_tensor_t* const tensor = tensor_named(*model, name_of(descriptors[i]));
        if (tensor && tensor->data && !read_tensor(file.get(), descriptors[i], *tensor))
            return kModule.fail_null(ZX_ERR_FILE_READ, "Failed to read tensor data");
    }

    if (zx::prints_information()) (void)std::printf("[ZORVEX] Model loaded from %s\n", path);
    return model.release();
}
