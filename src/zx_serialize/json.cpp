// Two descriptions of a model as JSON text: what it holds, and what scoring takes and gives. The
// text is fixed but for a few numbers and the model's name, which is not escaped, deliberately: the
// library's own name needs no escaping.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_serialize/model_format.hpp"

#include <cstdio>

namespace {

constexpr zx::Module kModule{"src/zx_serialize"};

constexpr char kSchema[] = R"({
  "ir_version": 9,
  "producer_name": "zorvex",
  "producer_version": "%u",
  "model_type": "matrix_factorization",
  "graph": {
    "inputs": [
      {"name": "user_ids", "type": "uint32", "shape": ["batch"]},
      {"name": "item_ids", "type": "uint32", "shape": ["batch"]}
    ],
    "outputs": [
      {"name": "scores", "type": "float32", "shape": ["batch"]}
    ]
  }
}
)";

// The tables that exist, user table first; the line after the last one is ended by the caller.
void write_tables(std::FILE* file, const zx_model_t& model) {
    const struct {
        const char* name;
        const zx_tensor_t* tensor;
    } tables[] = {{"user_embeddings", model.user_embeddings},
                  {"item_embeddings", model.item_embeddings}};
    const char* separator = "";
    for (const auto& [name, tensor] : tables) {
        if (!tensor) continue;
        (void)std::fprintf(file, "%s    \"%s\": {\"shape\": [%u, %u], \"dtype\": \"float32\"}",
                           separator, name, tensor->dims[0], tensor->dims[1]);
        separator = ",\n";
    }
}

void write_metadata(std::FILE* file, const zx_model_t& model) {
    (void)std::fprintf(file, "{\n  \"format\": \"zorvex\",\n  \"version\": %u,\n",
                       zx::kModelFileVersion);
    (void)std::fprintf(file, "  \"model_type\": %d,\n", static_cast<int>(model.type));
    (void)std::fprintf(file, "  \"model_name\": \"%s\",\n", model.name ? model.name : "");
    (void)std::fprintf(file, "  \"num_users\": %u,\n", model.num_users);
    (void)std::fprintf(file, "  \"num_items\": %u,\n", model.num_items);
    (void)std::fprintf(file, "  \"embedding_dim\": %u,\n", model.embedding_dim);
    (void)std::fprintf(file, "  \"num_parameters\": %llu,\n",
                       static_cast<unsigned long long>(zx_model_num_parameters(&model)));
    (void)std::fprintf(file, "  \"tensors\": {\n");
    if (model.type == ZX_MODEL_MF) write_tables(file, model);
    (void)std::fprintf(file, "\n  }\n}\n");
}

}  // namespace

zx_status_t zx_model_metadata_json(const zx_model_t* model, const char* path) {
    if (!model || !path) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL model or path");
    const zx::File file(std::fopen(path, "w"));
    if (!file) return kModule.fail(ZX_ERR_FILE_OPEN, "Failed to open file");

    write_metadata(file.get(), *model);
    return ZX_OK;
}

zx_status_t zx_model_to_json_schema(const zx_model_t* model, const char* path) {
    if (!model || !path) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL model or path");
    const zx::File file(std::fopen(path, "w"));
    if (!file) return kModule.fail(ZX_ERR_FILE_OPEN, "Failed to open file");

    // The version is text here and a number in the metadata, deliberately.
    (void)std::fprintf(file.get(), kSchema, zx::kModelFileVersion);
    return ZX_OK;
}
