// One tensor on disk: the tensor file, which is a model file's header and one descriptor in front
// of the data, and the raw file, which is the data alone. Writing either, and reading the first, is
// not tested, unlike with the model file, deliberately: what a short file does not give is zero.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_serialize/model_format.hpp"
#include "zx_serialize/tensor_data.hpp"

#include <cstdio>
#include <cstring>

namespace {

constexpr zx::Module kModule{"src/zx_serialize"};
constexpr std::uint32_t kNoModel = 0xffffffff;

// Everything in front of the data.
struct TensorFileHead {
    zx::ModelFileHeader header;
    zx::TensorDescriptor descriptor;
    char padding[56];
};
static_assert(sizeof(TensorFileHead) == 512);
static_assert(offsetof(TensorFileHead, descriptor) == 152);

TensorFileHead head_of(const zx_tensor_t& tensor, const char* name) {
    const std::uint64_t bytes = tensor.size * sizeof(float);
    TensorFileHead head{};
    std::memcpy(head.header.magic, zx::kModelMagic, sizeof(head.header.magic));
    head.header.version = zx::kModelFileVersion;
    head.header.model_type = kNoModel;
    head.header.num_tensors = 1;
    head.header.data_offset = sizeof(head);
    head.header.file_size = sizeof(head) + bytes;
    if (name)
        std::memcpy(head.descriptor.name, name, strnlen(name, sizeof(head.descriptor.name) - 1));
    head.descriptor.ndim = tensor.ndim;
    std::memcpy(head.descriptor.dims, tensor.dims, sizeof(head.descriptor.dims));
    head.descriptor.offset = sizeof(head);
    head.descriptor.size = bytes;
    return head;
}

}  // namespace

zx_status_t zx_tensor_save(const zx_tensor_t* tensor, const char* path, const char* name) {
    if (!tensor || !path) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL tensor or path");
    if (zx::lacks_data(*tensor)) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL tensor data");
    const zx::File file(std::fopen(path, "wb"));
    if (!file) return kModule.fail(ZX_ERR_FILE_OPEN, "Failed to open file");

    const TensorFileHead head = head_of(*tensor, name);
    (void)std::fwrite(&head, sizeof(head), 1, file.get());
    zx::write_data(file.get(), *tensor);
    return ZX_OK;
}

zx_tensor_t* zx_tensor_load(const char* path) {
    if (!path) return kModule.fail_null(ZX_ERR_NULL_POINTER, "NULL path");
    const zx::File file(std::fopen(path, "rb"));
    if (!file) return kModule.fail_null(ZX_ERR_FILE_OPEN, "Failed to open file");

    // The descriptor follows the header in every file of this magic, a model file included.
    zx::ModelFileHeader header{};
    (void)std::fread(&header, 1, sizeof(header), file.get());
    if (std::memcmp(header.magic, zx::kModelMagic, sizeof(header.magic)) != 0)
        return kModule.fail_null(ZX_ERR_DATA_CORRUPTED, "Invalid magic");
    zx::TensorDescriptor descriptor{};
    (void)std::fread(&descriptor, 1, sizeof(descriptor), file.get());

    // A number of axes that no int holds turns negative, and is refused like every other.
    zx::TensorPtr tensor(zx_tensor_create(static_cast<int>(descriptor.ndim), descriptor.dims));
    if (!tensor) return nullptr;
    // More data than the tensor holds has no place to go.
    if (descriptor.size > tensor->size * sizeof(float))
        return kModule.fail_null(ZX_ERR_FILE_READ, "Failed to read tensor data");
    // A seek that fails leaves the position.
    (void)std::fseek(file.get(), static_cast<long>(descriptor.offset), SEEK_SET);
    (void)std::fread(tensor->data, 1, descriptor.size, file.get());
    return tensor.release();
}

zx_status_t zx_tensor_to_raw(const zx_tensor_t* tensor, const char* path) {
    if (!tensor || !path) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL tensor or path");
    if (zx::lacks_data(*tensor)) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL tensor data");
    const zx::File file(std::fopen(path, "wb"));
    if (!file) return kModule.fail(ZX_ERR_FILE_OPEN, "Failed to open file");

    zx::write_data(file.get(), *tensor);
    return ZX_OK;
}

zx_tensor_t* zx_tensor_from_raw(const char* path, uint32_t ndim, const uint32_t* dims) {
    if (!path || !dims) return kModule.fail_null(ZX_ERR_NULL_POINTER, "NULL path or dims");
    const zx::File file(std::fopen(path, "rb"));
    if (!file) return kModule.fail_null(ZX_ERR_FILE_OPEN, "Failed to open file");

    zx::TensorPtr tensor(zx_tensor_create(static_cast<int>(ndim), dims));
    if (!tensor) return nullptr;
    if (std::fread(tensor->data, sizeof(float), tensor->size, file.get()) != tensor->size)
        return kModule.fail_null(ZX_ERR_FILE_READ, "Incomplete read");
    return tensor.release();
}
