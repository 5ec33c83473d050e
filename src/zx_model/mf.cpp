// The matrix-factorisation model: its record, reference count, embedding lookups and move to the
// device.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "common/refcount.hpp"
#include "zorvex.h"

#include <cstring>

namespace {

constexpr zx::Module kModule{"src/zx_model"};

// Copies the rows of a list of ids; `out_of_bounds` is what a bad one records.
zx_tensor_t* gather_rows(const zx_tensor_t& table, std::uint32_t num_rows, std::uint32_t d,
                         const std::uint32_t* ids, std::uint32_t count, const char* out_of_bounds) {
    zx::TensorPtr rows(zx_tensor_create_2d(count, d));
    if (!rows) return nullptr;
    for (std::uint64_t j = 0; j < count; ++j) {
        if (ids[j] >= num_rows) return kModule.fail_null(ZX_ERR_INDEX_OUT_OF_BOUNDS, out_of_bounds);
        std::memcpy(rows->data + j * d, table.data + std::uint64_t{ids[j]} * d, d * sizeof(float));
    }
    return rows.release();
}

}  // namespace

zx_model_t* zx_model_mf_create(uint32_t num_users, uint32_t num_items, uint32_t embedding_dim,
                               bool use_bias) {
    zx::AlignedPtr<zx_model_t> record = zx::make_zeroed<zx_model_t>();
    if (!record) return nullptr;
    zx::ModelPtr model(record.release());
    model->refcount = 1;
    model->name = "MatrixFactorization";
    model->training = 1;
    model->embedding_dim = embedding_dim;
    model->num_users = num_users;
    model->num_items = num_items;

    model->user_embeddings = zx_tensor_create_2d(num_users, embedding_dim);
    model->item_embeddings = zx_tensor_create_2d(num_items, embedding_dim);
    if (!model->user_embeddings || !model->item_embeddings) return nullptr;
    zx_rng_fill_xavier(model->user_embeddings, embedding_dim, embedding_dim);
    zx_rng_fill_xavier(model->item_embeddings, embedding_dim, embedding_dim);

    model->use_bias = use_bias;
    if (!use_bias) return model.release();
    model->user_biases = zx_tensor_create_1d(num_users);
    model->item_biases = zx_tensor_create_1d(num_items);
    if (!model->user_biases || !model->item_biases) return nullptr;
    return model.release();
}

zx_model_t* zx_model_retain(zx_model_t* model) {
    if (model) zx::add_reference(model->refcount);
    return model;
}

void zx_model_release(zx_model_t* model) {
    if (!model || !zx::drop_reference(model->refcount)) return;
    if (model->type == ZX_MODEL_MF) {
        zx_tensor_release(model->user_embeddings);
        zx_tensor_release(model->item_embeddings);
        zx_tensor_release(model->user_biases);
        zx_tensor_release(model->item_biases);
    }
    zx_tensor_release(model->aux_tensor);
    zx_free_aligned(model->score_buf);
    zx_free_aligned(model->heap_buf);
    zx_free_aligned(model->gather_buf);
    zx_free_aligned(model);
}

void zx_model_train(zx_model_t* model) {
    if (model) model->training = 1;
}

void zx_model_eval(zx_model_t* model) {
    if (model) model->training = 0;
}

zx_tensor_t* zx_model_lookup_user_embeddings(const zx_model_t* model, const uint32_t* ids,
                                             uint32_t count) {
    if (!ids || count == 0 || !model) return nullptr;
    if (model->type != ZX_MODEL_MF)
        return kModule.fail_null(ZX_ERR_MODEL_TYPE_MISMATCH, "Unsupported model type");
    return gather_rows(*model->user_embeddings, model->num_users, model->embedding_dim, ids, count,
                       "User ID out of bounds");
}

zx_tensor_t* zx_model_lookup_item_embeddings(const zx_model_t* model, const uint32_t* ids,
                                             uint32_t count) {
    if (!ids || count == 0 || !model) return nullptr;
    if (model->type != ZX_MODEL_MF)
        return kModule.fail_null(ZX_ERR_MODEL_TYPE_MISMATCH, "Unsupported model type");
    return gather_rows(*model->item_embeddings, model->num_items, model->embedding_dim, ids, count,
                       "Item ID out of bounds");
}

zx_tensor_t* zx_model_forward_user(const zx_model_t* model, const uint32_t* ids, uint32_t count) {
    return zx_model_lookup_user_embeddings(model, ids, count);
}

zx_tensor_t* zx_model_forward_item(const zx_model_t* model, const uint32_t* ids, uint32_t count) {
    return zx_model_lookup_item_embeddings(model, ids, count);
}

uint64_t zx_model_num_parameters(const zx_model_t* model) {
    if (!model || model->type != ZX_MODEL_MF) return 0;
    return zx_tensor_size(model->user_embeddings) + zx_tensor_size(model->item_embeddings) +
           zx_tensor_size(model->user_biases) + zx_tensor_size(model->item_biases);
}

zx_status_t zx_model_to_device(zx_model_t* model) {
    if (!model) return ZX_ERR_NULL_POINTER;
    if (model->type != ZX_MODEL_MF) return ZX_OK;
    const zx_status_t status = zx_tensor_to_device(model->user_embeddings);
    return status == ZX_OK ? zx_tensor_to_device(model->item_embeddings) : status;
}
