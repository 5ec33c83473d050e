/*
 * The layout of every record that zorvex.h declares, on 64-bit Linux, and the number of every
 * constant. A program that was built with an older header reads these bytes and compares these
 * numbers: no line of a released record or constant may change. New ones are new lines; a test
 * compares the lists with the header.
 */
#include "zorvex.h"

#include <stddef.h>

#define RECORD(type, bytes) _Static_assert(sizeof(type) == (bytes), "the size of " #type)
#define FIELD(type, field, offset, bytes)                                                     \
    _Static_assert(offsetof(type, field) == (offset) && sizeof(((type*)0)->field) == (bytes), \
                   "the place of " #type "." #field)
#define CONSTANT(name, number) _Static_assert((name) == (number), "the number of " #name)

RECORD(zx_error_context_t, 280);
FIELD(zx_error_context_t, code, 0, 4);
FIELD(zx_error_context_t, file, 8, 8);
FIELD(zx_error_context_t, line, 16, 4);
FIELD(zx_error_context_t, message, 20, 256);

RECORD(zx_tensor_t, 64);
FIELD(zx_tensor_t, refcount, 0, 4);
FIELD(zx_tensor_t, dims, 4, 16);
FIELD(zx_tensor_t, ndim, 20, 1);
FIELD(zx_tensor_t, size, 24, 8);
FIELD(zx_tensor_t, capacity, 32, 8);
FIELD(zx_tensor_t, data, 40, 8);
FIELD(zx_tensor_t, device_buffer, 48, 8);
FIELD(zx_tensor_t, on_device, 56, 1);
FIELD(zx_tensor_t, owns_data, 57, 1);

RECORD(zx_sparse_t, 80);
FIELD(zx_sparse_t, refcount, 0, 4);
FIELD(zx_sparse_t, rows, 4, 4);
FIELD(zx_sparse_t, cols, 8, 4);
FIELD(zx_sparse_t, nnz, 12, 4);
FIELD(zx_sparse_t, capacity, 16, 4);
FIELD(zx_sparse_t, values, 24, 8);
FIELD(zx_sparse_t, col_idx, 32, 8);
FIELD(zx_sparse_t, row_ptr, 40, 8);
FIELD(zx_sparse_t, device_values, 48, 8);
FIELD(zx_sparse_t, device_col_idx, 56, 8);
FIELD(zx_sparse_t, device_row_ptr, 64, 8);
FIELD(zx_sparse_t, on_device, 72, 1);

RECORD(zx_pool_block_t, 24);
FIELD(zx_pool_block_t, next, 0, 8);
FIELD(zx_pool_block_t, capacity, 8, 8);
FIELD(zx_pool_block_t, used, 16, 8);

RECORD(zx_pool_t, 24);
FIELD(zx_pool_t, first_block, 0, 8);
FIELD(zx_pool_t, current_block, 8, 8);
FIELD(zx_pool_t, block_size, 16, 8);

RECORD(zx_scored_item_t, 8);
FIELD(zx_scored_item_t, score, 0, 4);
FIELD(zx_scored_item_t, item, 4, 4);

RECORD(zx_model_t, 136);
FIELD(zx_model_t, type, 0, 4);
FIELD(zx_model_t, name, 8, 8);
FIELD(zx_model_t, refcount, 16, 4);
FIELD(zx_model_t, embedding_dim, 20, 4);
FIELD(zx_model_t, num_users, 24, 4);
FIELD(zx_model_t, num_items, 28, 4);
FIELD(zx_model_t, user_embeddings, 32, 8);
FIELD(zx_model_t, item_embeddings, 40, 8);
FIELD(zx_model_t, user_biases, 48, 8);
FIELD(zx_model_t, item_biases, 56, 8);
FIELD(zx_model_t, global_bias, 64, 4);
FIELD(zx_model_t, use_bias, 68, 1);
FIELD(zx_model_t, score_buf, 72, 8);
FIELD(zx_model_t, score_buf_cap, 80, 8);
FIELD(zx_model_t, heap_buf, 88, 8);
FIELD(zx_model_t, heap_buf_cap, 96, 8);
FIELD(zx_model_t, gather_buf, 104, 8);
FIELD(zx_model_t, gather_buf_cap, 112, 8);
FIELD(zx_model_t, training, 120, 1);
FIELD(zx_model_t, aux_tensor, 128, 8);

RECORD(zx_embedding_params_t, 12);
FIELD(zx_embedding_params_t, num_embeddings, 0, 4);
FIELD(zx_embedding_params_t, embedding_dim, 4, 4);
FIELD(zx_embedding_params_t, reserved, 8, 4);

RECORD(zx_dense_params_t, 12);
FIELD(zx_dense_params_t, in_features, 0, 4);
FIELD(zx_dense_params_t, out_features, 4, 4);
FIELD(zx_dense_params_t, use_bias, 8, 1);

RECORD(zx_batch_norm_params_t, 12);
FIELD(zx_batch_norm_params_t, num_features, 0, 4);
FIELD(zx_batch_norm_params_t, epsilon, 4, 4);
FIELD(zx_batch_norm_params_t, momentum, 8, 4);

RECORD(zx_dropout_params_t, 4);
FIELD(zx_dropout_params_t, rate, 0, 4);

RECORD(zx_leaky_relu_params_t, 4);
FIELD(zx_leaky_relu_params_t, alpha, 0, 4);

RECORD(zx_layer_params_t, 12);
FIELD(zx_layer_params_t, embedding, 0, 12);
FIELD(zx_layer_params_t, dense, 0, 12);
FIELD(zx_layer_params_t, batch_norm, 0, 12);
FIELD(zx_layer_params_t, dropout, 0, 4);
FIELD(zx_layer_params_t, leaky_relu, 0, 4);

RECORD(zx_layer_t, 96);
FIELD(zx_layer_t, type, 0, 4);
FIELD(zx_layer_t, params, 4, 12);
FIELD(zx_layer_t, weight, 16, 8);
FIELD(zx_layer_t, bias, 24, 8);
FIELD(zx_layer_t, running_mean, 32, 8);
FIELD(zx_layer_t, running_var, 40, 8);
FIELD(zx_layer_t, extra_tensors, 48, 40);
FIELD(zx_layer_t, trainable, 88, 1);
FIELD(zx_layer_t, training, 89, 1);

RECORD(zx_optimizer_config_t, 44);
FIELD(zx_optimizer_config_t, type, 0, 4);
FIELD(zx_optimizer_config_t, learning_rate, 4, 4);
FIELD(zx_optimizer_config_t, momentum, 8, 4);
FIELD(zx_optimizer_config_t, reserved_flag_1, 12, 1);
FIELD(zx_optimizer_config_t, beta1, 16, 4);
FIELD(zx_optimizer_config_t, beta2, 20, 4);
FIELD(zx_optimizer_config_t, epsilon, 24, 4);
FIELD(zx_optimizer_config_t, weight_decay, 28, 4);
FIELD(zx_optimizer_config_t, regularization, 32, 4);
FIELD(zx_optimizer_config_t, reserved_word, 36, 4);
FIELD(zx_optimizer_config_t, reserved_flag_2, 40, 1);

RECORD(zx_optimizer_t, 80);
FIELD(zx_optimizer_t, config, 0, 44);
FIELD(zx_optimizer_t, step_count, 48, 8);
FIELD(zx_optimizer_t, first_moment, 56, 8);
FIELD(zx_optimizer_t, second_moment, 64, 8);
FIELD(zx_optimizer_t, num_state, 72, 4);
FIELD(zx_optimizer_t, reserved_count, 76, 4);

RECORD(zx_loss_config_t, 16);
FIELD(zx_loss_config_t, type, 0, 4);
FIELD(zx_loss_config_t, reserved, 4, 4);
FIELD(zx_loss_config_t, margin, 8, 4);
FIELD(zx_loss_config_t, reserved_flag, 12, 1);

RECORD(zx_interactions_t, 32);
FIELD(zx_interactions_t, users, 0, 8);
FIELD(zx_interactions_t, items, 8, 8);
FIELD(zx_interactions_t, values, 16, 8);
FIELD(zx_interactions_t, count, 24, 4);
FIELD(zx_interactions_t, implicit, 28, 1);

CONSTANT(ZX_OK, 0);
CONSTANT(ZX_ERR_UNKNOWN, 1);
CONSTANT(ZX_ERR_INVALID_ARGUMENT, 2);
CONSTANT(ZX_ERR_NULL_POINTER, 3);
CONSTANT(ZX_ERR_INDEX_OUT_OF_BOUNDS, 4);
CONSTANT(ZX_ERR_OVERFLOW, 5);
CONSTANT(ZX_ERR_OUT_OF_MEMORY, 100);
CONSTANT(ZX_ERR_ALLOCATION_FAILED, 101);
CONSTANT(ZX_ERR_BUFFER_TOO_SMALL, 102);
CONSTANT(ZX_ERR_ALIGNMENT, 103);
CONSTANT(ZX_ERR_ENGINE_NOT_INITIALIZED, 200);
CONSTANT(ZX_ERR_ENGINE_ALREADY_INITIALIZED, 201);
CONSTANT(ZX_ERR_NO_PLATFORM, 202);
CONSTANT(ZX_ERR_NO_DEVICE, 203);
CONSTANT(ZX_ERR_CONTEXT_CREATE, 204);
CONSTANT(ZX_ERR_QUEUE_CREATE, 205);
CONSTANT(ZX_ERR_KERNEL_COMPILE, 206);
CONSTANT(ZX_ERR_KERNEL_EXEC, 207);
CONSTANT(ZX_ERR_BUFFER_CREATE, 208);
CONSTANT(ZX_ERR_TRANSFER, 209);
CONSTANT(ZX_ERR_INVALID_MODEL, 300);
CONSTANT(ZX_ERR_MODEL_NOT_CONFIGURED, 301);
CONSTANT(ZX_ERR_MODEL_TYPE_MISMATCH, 302);
CONSTANT(ZX_ERR_INVALID_LAYER, 303);
CONSTANT(ZX_ERR_DIMENSION_MISMATCH, 304);
CONSTANT(ZX_ERR_TRAINING_FAILED, 305);
CONSTANT(ZX_ERR_INVALID_MATRIX, 400);
CONSTANT(ZX_ERR_INVALID_SPARSE, 401);
CONSTANT(ZX_ERR_DATA_CORRUPTED, 402);
CONSTANT(ZX_ERR_FILE_OPEN, 500);
CONSTANT(ZX_ERR_FILE_READ, 501);
CONSTANT(ZX_ERR_FILE_WRITE, 502);
CONSTANT(ZX_ERR_VERSION_MISMATCH, 503);
CONSTANT(ZX_ERR_INVALID_FORMAT, 504);

CONSTANT(ZX_MODEL_MF, 0);

CONSTANT(ZX_LAYER_EMBEDDING, 0);
CONSTANT(ZX_LAYER_DENSE, 1);
CONSTANT(ZX_LAYER_BATCH_NORM, 2);
CONSTANT(ZX_LAYER_DROPOUT, 4);
CONSTANT(ZX_ACT_RELU, 5);
CONSTANT(ZX_ACT_LEAKY_RELU, 6);
CONSTANT(ZX_ACT_GELU, 7);
CONSTANT(ZX_ACT_SIGMOID, 8);
CONSTANT(ZX_ACT_TANH, 9);

CONSTANT(ZX_OPT_SGD, 0);
CONSTANT(ZX_OPT_SGD_MOMENTUM, 1);
CONSTANT(ZX_OPT_ADAM, 2);
CONSTANT(ZX_OPT_ADAMW, 3);
CONSTANT(ZX_OPT_ALS, 5);

CONSTANT(ZX_LOSS_MSE, 0);
CONSTANT(ZX_LOSS_BPR, 1);
CONSTANT(ZX_LOSS_CONTRASTIVE, 6);

CONSTANT(ZX_FORMAT_UNKNOWN, 0);
CONSTANT(ZX_FORMAT_NATIVE, 1);
CONSTANT(ZX_FORMAT_NPY, 2);
CONSTANT(ZX_FORMAT_SAFETENSORS, 3);
CONSTANT(ZX_FORMAT_RAW, 4);
CONSTANT(ZX_FORMAT_JSON, 5);
