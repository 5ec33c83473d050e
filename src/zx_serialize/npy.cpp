// NumPy's array files, version 1.0: a preamble, a Python dictionary as text that names type and
// shape, and the elements from the next multiple of 64 on.
// The format: the NumPy manual, numpy.lib.format.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"
#include "zx_serialize/model_format.hpp"
#include "zx_serialize/tensor_data.hpp"
#include "zx_serialize/text.hpp"

#include <cstdio>
#include <sys/stat.h>

namespace {

constexpr zx::Module kModule{"src/zx_serialize"};

struct NpyHead {
    unsigned char magic[6] = {0x93, 'N', 'U', 'M', 'P', 'Y'};
    std::uint8_t major = 1;
    std::uint8_t minor = 0;
    std::uint16_t text_bytes = 0;  // of the text that is in use, up to the data
    char text[118];
};
static_assert(offsetof(NpyHead, text_bytes) == 8);
static_assert(offsetof(NpyHead, text) == 10);
// The dictionary is 53 characters, and 10 digits and a comma for each axis: one multiple of 64 is
// too little for any shape, and two are enough for every one.
static_assert(sizeof(NpyHead) == 128);
static_assert(53 + zx::kMaxAxes * 11 + sizeof("()\n") <= sizeof(NpyHead::text));

NpyHead head_of(const zx_tensor_t& tensor) {
    NpyHead head;
    zx::Text text(head.text);
    text.add("{'descr': '<f4', 'fortran_order': False, 'shape': (");
    // A comma after every extent, deliberately: a tuple of one needs it, and any other may have it.
    for (std::uint32_t axis = 0; axis < tensor.ndim; ++axis) {
        text.add_number(tensor.dims[axis]);
        text.add(",");
    }
    text.add("), }");
    const std::uint64_t data_at = zx::padded_to_64(offsetof(NpyHead, text) + text.length() + 1);
    text.add_spaces_up_to(data_at - offsetof(NpyHead, text) - 1);
    text.add("\n");
    head.text_bytes = static_cast<std::uint16_t>(text.length());
    return head;
}

// A path that does not fit is cut, deliberately; opening the file then says what comes of it.
zx_status_t write_into(const char* dir, const char* name, const zx_tensor_t* tensor) {
    char path[512];
    (void)std::snprintf(path, sizeof(path), "%s/%s.npy", dir, name);
    return zx_tensor_to_npy(tensor, path);
}

}  // namespace

zx_status_t zx_tensor_to_npy(const zx_tensor_t* tensor, const char* path) {
    if (!tensor || !path) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL tensor or path");
    if (tensor->ndim > zx::kMaxAxes)
        return kModule.fail(ZX_ERR_INVALID_ARGUMENT, "Invalid tensor dimensions");
    if (zx::lacks_data(*tensor)) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL tensor data");
    const zx::File file(std::fopen(path, "wb"));
    if (!file) return kModule.fail(ZX_ERR_FILE_OPEN, "Failed to open file");

    const NpyHead head = head_of(*tensor);
    (void)std::fwrite(&head, offsetof(NpyHead, text) + head.text_bytes, 1, file.get());
    zx::write_data(file.get(), *tensor);
    return ZX_OK;
}

zx_status_t zx_model_to_npy_dir(const zx_model_t* model, const char* dir) {
    if (!model || !dir) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL model or path");
    // What exists is taken for a directory; if it is none, opening a file in it fails.
    struct stat existing {};
    if (stat(dir, &existing) != 0 && mkdir(dir, 0755) != 0)
        return kModule.fail(ZX_ERR_FILE_OPEN, "Failed to create directory");
    // The directory is there before this test, deliberately.
    if (model->type != ZX_MODEL_MF)
        return kModule.fail(ZX_ERR_MODEL_TYPE_MISMATCH, "Unknown model type");

    const struct {
        const char* name;
        const zx_tensor_t* tensor;
    } tables[] = {{"user_embeddings", model->user_embeddings},
                  {"item_embeddings", model->item_embeddings}};
    for (const auto& [name, tensor] : tables) {
        if (!tensor) continue;
        const zx_status_t status = write_into(dir, name, tensor);
        if (status != ZX_OK) return status;
    }
    if (zx::prints_information())
        (void)std::printf("[ZORVEX] Model exported to %s (NumPy format)\n", dir);
    return ZX_OK;
}
