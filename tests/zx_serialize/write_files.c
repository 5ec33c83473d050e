/*
 * A host in plain C that writes the files which the tests of this folder hand to the readers that
 * other projects wrote. What it writes is its command line:
 *
 *   write_files raw          FILE  EXTENT...
 *   write_files npy          FILE  EXTENT...
 *   write_files npy-dir      DIR   USERS ITEMS DIM BIASED
 *   write_files safetensors  FILE  NAME=EXTENT[,EXTENT]... ...
 *   write_files model        FILE  USERS ITEMS DIM BIASED     as safetensors
 *   write_files metadata     FILE  USERS ITEMS DIM BIASED
 *   write_files schema       FILE  USERS ITEMS DIM BIASED
 *
 * Element i of tensor t is (i * (t + 1)) mod 65521, a quarter of it, less 5: exact in a float. The
 * tensors of a model count from 0 in the order user table, item table, user biases, item biases.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zorvex.h>

enum { MAX_TENSORS = 64 };

static void fill(const zx_tensor_t* tensor, uint64_t number) {
    if (!tensor) return;
    for (uint64_t i = 0; i < tensor->size; ++i)
        tensor->data[i] = (float)(i * (number + 1) % 65521) / 4.0f - 5.0f;
}

/* Extents in decimal; what follows an extent is skipped up to the next digit. */
static zx_tensor_t* tensor_of(int count, char** extents, uint64_t number) {
    uint32_t dims[4] = {0};
    for (int axis = 0; axis < count && axis < 4; ++axis)
        dims[axis] = (uint32_t)strtoul(extents[axis], NULL, 10);
    zx_tensor_t* const tensor = zx_tensor_create(count, dims);
    fill(tensor, number);
    return tensor;
}

static zx_status_t write_tensor(zx_status_t (*write)(const zx_tensor_t*, const char*),
                                const char* path, int count, char** extents) {
    zx_tensor_t* const tensor = tensor_of(count, extents, 0);
    const zx_status_t status = tensor ? write(tensor, path) : ZX_ERR_UNKNOWN;
    zx_tensor_release(tensor);
    return status;
}

static zx_status_t write_list(const char* path, int count, char** entries) {
    zx_tensor_t* tensors[MAX_TENSORS];
    const char* names[MAX_TENSORS];
    int made = 0;
    for (; made < count && made < MAX_TENSORS; ++made) {
        char* const equals = strrchr(entries[made], '=');
        if (!equals) break;
        *equals = '\0';
        char* extents[4];
        int axes = 0;
        for (char* at = equals; at && axes < 4; at = strchr(at + 1, ',')) extents[axes++] = at + 1;
        tensors[made] = tensor_of(axes, extents, (uint64_t)made);
        names[made] = entries[made];
    }
    const zx_status_t status = made == count
                                   ? zx_tensors_to_safetensors(tensors, names, (uint32_t)made, path)
                                   : ZX_ERR_UNKNOWN;
    while (made > 0) zx_tensor_release(tensors[--made]);
    return status;
}

static zx_status_t write_model(zx_status_t (*write)(const zx_model_t*, const char*),
                               const char* path, int count, char** shape) {
    uint32_t sizes[4] = {0};
    for (int i = 0; i < count && i < 4; ++i) sizes[i] = (uint32_t)strtoul(shape[i], NULL, 10);
    zx_model_t* const model = zx_model_mf_create(sizes[0], sizes[1], sizes[2], sizes[3] != 0);
    if (!model) return ZX_ERR_UNKNOWN;
    fill(model->user_embeddings, 0);
    fill(model->item_embeddings, 1);
    fill(model->user_biases, 2);
    fill(model->item_biases, 3);
    const zx_status_t status = write(model, path);
    zx_model_release(model);
    return status;
}

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const char* const format = argv[1];
    const char* const path = argv[2];
    const int count = argc - 3;
    char** const rest = argv + 3;
    zx_set_verbosity(0);

    zx_status_t status = ZX_ERR_UNKNOWN;
    if (strcmp(format, "raw") == 0) status = write_tensor(zx_tensor_to_raw, path, count, rest);
    if (strcmp(format, "npy") == 0) status = write_tensor(zx_tensor_to_npy, path, count, rest);
    if (strcmp(format, "safetensors") == 0) status = write_list(path, count, rest);
    if (strcmp(format, "npy-dir") == 0)
        status = write_model(zx_model_to_npy_dir, path, count, rest);
    if (strcmp(format, "model") == 0)
        status = write_model(zx_model_to_safetensors, path, count, rest);
    if (strcmp(format, "metadata") == 0)
        status = write_model(zx_model_metadata_json, path, count, rest);
    if (strcmp(format, "schema") == 0)
        status = write_model(zx_model_to_json_schema, path, count, rest);
    if (status != ZX_OK) (void)fprintf(stderr, "%s: %s\n", format, zx_status_string(status));
    return status == ZX_OK ? 0 : 1;
}
