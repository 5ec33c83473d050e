/*
 * A host in plain C that knows the public header and the installed library only. It goes once
 * through everything: the engine, tensors, a pool, layers, losses, a sparse matrix, a small model
 * trained in both ways, recommendations, evaluation, a file and back. It stops at the first thing
 * that is wrong.
 */
#include "zorvex.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define EXPECT(condition)                                                                       \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            fprintf(stderr, "%s:%d: this does not hold: %s\n", __FILE__, __LINE__, #condition); \
            zx_print_error();                                                                   \
            exit(EXIT_FAILURE);                                                                 \
        }                                                                                       \
    } while (0)

/* Two groups of users with a taste of their own: the first half of the users likes the first half
 * of the items, the second half the rest. */
enum { NUM_USERS = 8, NUM_ITEMS = 12, DIM = 8, PER_USER = 5, NUM_EVENTS = NUM_USERS * PER_USER };

static const char* const kModelPath = "c_interface_test.zxm";

static uint32_t liked_item(uint32_t user, uint32_t n) {
    const uint32_t first = user < NUM_USERS / 2 ? 0 : NUM_ITEMS / 2;
    return first + (user + n) % (NUM_ITEMS / 2);
}

static int likes(uint32_t user, uint32_t item) {
    return (user < NUM_USERS / 2) == (item < NUM_ITEMS / 2);
}

static int compare_ids(const void* a, const void* b) {
    const uint32_t x = *(const uint32_t*)a;
    const uint32_t y = *(const uint32_t*)b;
    return (x > y) - (x < y);
}

static void test_status_and_errors(void) {
    EXPECT(strcmp(zx_status_string(ZX_OK), "Success") == 0);
    EXPECT(strcmp(zx_status_string(-1), "Unknown error code") == 0);
    zx_clear_error();
    EXPECT(zx_get_last_error() == ZX_OK);
    EXPECT(zx_tensor_create_2d(0, 5) == NULL);
    EXPECT(zx_get_last_error() == ZX_ERR_OVERFLOW);
    EXPECT(strcmp(zx_get_error_context()->message, "Tensor size overflow") == 0);
    EXPECT(strcmp(zx_get_error_context()->file, "src/zx_memory") == 0);
    zx_clear_error();
    EXPECT(zx_get_error_context()->message[0] == '\0');
}

static void test_engine_start(void) {
    EXPECT(zx_get_verbosity() == 2);
    zx_set_verbosity(0);
    EXPECT(!zx_engine_is_initialized());
    EXPECT(zx_engine_init() == ZX_OK);
    EXPECT(zx_engine_is_initialized());
    EXPECT(zx_engine_platform_name()[0] != '\0');
    EXPECT(zx_engine_init_with_device(CL_DEVICE_TYPE_ALL) == ZX_ERR_ENGINE_ALREADY_INITIALIZED);
    EXPECT(zx_get_last_error() == ZX_ERR_ENGINE_ALREADY_INITIALIZED);
    zx_clear_error();
    zx_rng_seed(20240229);
}

static void test_engine_stop(void) {
    zx_engine_shutdown();
    EXPECT(!zx_engine_is_initialized());
    EXPECT(zx_get_verbosity() == 2);
    EXPECT(zx_engine_platform_name()[0] == '\0');
}

static void test_tensors(void) {
    float borrowed[6] = {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f};
    const uint32_t dims[2] = {2, 3};
    zx_tensor_t* wrapped = zx_tensor_wrap(borrowed, 2, dims);
    EXPECT(wrapped != NULL);
    EXPECT(zx_tensor_get_2d(wrapped, 1, 2) == 6.0f);
    zx_tensor_t* clone = zx_tensor_clone(wrapped);
    EXPECT(clone != NULL);
    EXPECT(zx_tensor_set_2d(clone, 1, 2, 7.0f) == ZX_OK);
    EXPECT(borrowed[5] == 6.0f);
    EXPECT(zx_tensor_row_ptr(clone, 1)[2] == 7.0f);
    EXPECT(zx_tensor_size(clone) == 6 && zx_tensor_ndim(clone) == 2 &&
           zx_tensor_dim(clone, 1) == 3);
    zx_tensor_release(wrapped);
    EXPECT(zx_tensor_retain(clone) == clone);
    zx_tensor_release(clone);
    EXPECT(zx_tensor_data(clone)[0] == 1.0f);
    zx_tensor_release(clone);

    void* block = zx_calloc_aligned(10, 4);
    EXPECT(block != NULL && (uintptr_t)block % 128 == 0);
    block = zx_realloc_aligned(block, 40, 80);
    EXPECT(block != NULL);
    zx_free_aligned(block);
}

static void test_pool(void) {
    zx_pool_t* pool = zx_pool_create(0);
    EXPECT(pool != NULL && pool->block_size == 1048576);
    const char* first = zx_pool_alloc(pool, 1);
    const char* second = zx_pool_alloc(pool, 1);
    EXPECT(first != NULL && second == first + 16);
    zx_pool_reset(pool);
    EXPECT(zx_pool_alloc(pool, 1) == first);
    zx_pool_destroy(pool);
}

static void test_layers(void) {
    zx_layer_t* dense = zx_layer_dense(3, 2, true);
    zx_layer_t* relu = zx_layer_activation(ZX_ACT_RELU);
    zx_layer_t* dropout = zx_layer_dropout(0.5f);
    EXPECT(dense != NULL && relu != NULL && dropout != NULL);
    EXPECT(dense->params.dense.in_features == 3 && zx_tensor_dim(dense->weight, 0) == 2);
    zx_tensor_t* input = zx_tensor_rand_uniform(4, 3, -1.0f, 1.0f);
    zx_tensor_t* hidden = zx_layer_forward(dense, input, true);
    EXPECT(hidden != NULL && zx_tensor_dim(hidden, 0) == 4 && zx_tensor_dim(hidden, 1) == 2);
    zx_tensor_t* output = zx_layer_forward(relu, hidden, true);
    EXPECT(output != NULL && zx_tensor_size(output) == 8);
    for (int i = 0; i < 8; ++i) EXPECT(zx_tensor_data(output)[i] >= 0.0f);
    EXPECT(zx_layer_forward(dropout, output, false) == output);
    zx_tensor_release(output);
    zx_tensor_release(output);
    EXPECT(zx_layer_forward(dense, hidden, true) == NULL);
    EXPECT(zx_get_last_error() == ZX_ERR_DIMENSION_MISMATCH);
    zx_clear_error();
    zx_tensor_release(hidden);
    zx_tensor_release(input);
    zx_layer_free(dropout);
    zx_layer_free(relu);
    zx_layer_free(dense);
}

static void test_optimizer_and_losses(void) {
    zx_model_t* model = zx_model_mf_create(NUM_USERS, NUM_ITEMS, DIM, true);
    zx_optimizer_t* optimizer = zx_optimizer_create(model, zx_optimizer_adamw(0.01f, 0.05f));
    EXPECT(optimizer != NULL && optimizer->num_state == 4);
    EXPECT(optimizer->config.type == ZX_OPT_ADAMW && optimizer->config.weight_decay == 0.05f);
    EXPECT(zx_optimizer_step(optimizer, model) == ZX_ERR_MODEL_NOT_CONFIGURED);
    EXPECT(optimizer->step_count == 1);
    zx_clear_error();
    zx_optimizer_free(optimizer);
    zx_model_release(model);

    float a[2] = {1.0f, 3.0f};
    float b[2] = {0.0f, 0.0f};
    float slopes[2] = {0.0f, 0.0f};
    const uint32_t two = 2;
    zx_tensor_t* predicted = zx_tensor_wrap(a, 1, &two);
    zx_tensor_t* wanted = zx_tensor_wrap(b, 1, &two);
    zx_tensor_t* grad = zx_tensor_wrap(slopes, 1, &two);
    EXPECT(zx_loss_backward(zx_loss_mse(), predicted, wanted, grad) == 5.0f);
    EXPECT(slopes[0] == 1.0f && slopes[1] == 3.0f);
    EXPECT(fabsf(zx_loss_compute(zx_loss_bpr(), wanted, wanted) - 0.6931472f) < 1e-6f);
    zx_tensor_release(grad);
    zx_tensor_release(wanted);
    zx_tensor_release(predicted);
}

/* What the users like, as a matrix with a row per user. */
static zx_sparse_t* make_interactions(void) {
    zx_sparse_t* matrix = zx_sparse_create(NUM_USERS, NUM_ITEMS, NUM_EVENTS);
    EXPECT(matrix != NULL);
    for (uint32_t user = 0; user < NUM_USERS; ++user) {
        uint32_t* const row = zx_sparse_col_idx(matrix) + user * PER_USER;
        for (uint32_t n = 0; n < PER_USER; ++n) row[n] = liked_item(user, n);
        qsort(row, PER_USER, sizeof(*row), compare_ids);
        zx_sparse_row_ptr(matrix)[user + 1] = (user + 1) * PER_USER;
    }
    for (uint32_t i = 0; i < NUM_EVENTS; ++i) zx_sparse_values(matrix)[i] = 1.0f;
    EXPECT(zx_sparse_validate(matrix) == ZX_OK);
    EXPECT(zx_sparse_row_nnz(matrix, 3) == PER_USER);
    EXPECT(zx_sparse_get(matrix, 0, liked_item(0, 0)) == 1.0f);
    return matrix;
}

/* Expects that everybody's best items are those of the user's own group. */
static void expect_taste(zx_model_t* model) {
    for (uint32_t user = 0; user < NUM_USERS; ++user) {
        uint32_t items[PER_USER];
        float scores[PER_USER];
        EXPECT(zx_recommend(model, user, PER_USER, items, scores) == ZX_OK);
        for (uint32_t n = 0; n < PER_USER; ++n) {
            EXPECT(likes(user, items[n]));
            EXPECT(isfinite(scores[n]));
            EXPECT(n == 0 || scores[n] <= scores[n - 1]);
        }
    }
}

static void train_bpr(zx_model_t* model, const zx_sparse_t* matrix) {
    uint32_t users[NUM_EVENTS];
    uint32_t positives[NUM_EVENTS];
    uint32_t negatives[NUM_EVENTS];
    for (uint32_t i = 0; i < NUM_EVENTS; ++i) {
        users[i] = i / PER_USER;
        positives[i] = liked_item(i / PER_USER, i % PER_USER);
    }
    for (int epoch = 0; epoch < 300; ++epoch) {
        zx_sample_negatives_uniform(matrix, users, negatives, NUM_EVENTS, NUM_ITEMS);
        for (uint32_t i = 0; i < NUM_EVENTS; ++i)
            EXPECT(zx_sparse_get(matrix, users[i], negatives[i]) == 0.0f);
        EXPECT(zx_model_train_step_bpr(model, users, positives, negatives, NUM_EVENTS, 0.05f,
                                       0.01f) == ZX_OK);
    }
}

static void test_bpr(const zx_sparse_t* matrix) {
    zx_model_t* model = zx_model_mf_create(NUM_USERS, NUM_ITEMS, DIM, true);
    EXPECT(model != NULL);
    EXPECT(zx_model_num_parameters(model) == (NUM_USERS + NUM_ITEMS) * (DIM + 1));
    train_bpr(model, matrix);
    expect_taste(model);
    zx_model_release(model);
}

/* For a model without biases: nobody's best item is outranked, and everybody's worst one is. */
static void expect_hit_rates(zx_model_t* model) {
    uint32_t users[NUM_USERS];
    uint32_t best[NUM_USERS];
    uint32_t worst[NUM_USERS];
    for (uint32_t user = 0; user < NUM_USERS; ++user) {
        uint32_t items[NUM_ITEMS];
        float scores[NUM_ITEMS];
        EXPECT(zx_recommend(model, user, NUM_ITEMS, items, scores) == ZX_OK);
        users[user] = user;
        best[user] = items[0];
        worst[user] = items[NUM_ITEMS - 1];
    }
    EXPECT(zx_metric_hit_rate(model, users, best, NUM_USERS, 3) == 1.0f);
    EXPECT(zx_metric_hit_rate(model, users, worst, NUM_USERS, 3) == 0.0f);
}

static void test_als(const zx_sparse_t* matrix) {
    zx_model_t* model = zx_model_mf_create(NUM_USERS, NUM_ITEMS, DIM, false);
    EXPECT(model != NULL);
    for (int epoch = 0; epoch < 10; ++epoch)
        EXPECT(zx_model_train_als_epoch(model, matrix, 1, 10.0f, 0.1f) == ZX_OK);
    expect_taste(model);
    expect_hit_rates(model);
    zx_model_release(model);
}

static void test_save_and_load(const zx_sparse_t* matrix) {
    zx_model_t* model = zx_model_mf_create(NUM_USERS, NUM_ITEMS, DIM, true);
    EXPECT(model != NULL);
    train_bpr(model, matrix);
    EXPECT(zx_model_save(model, kModelPath) == ZX_OK);
    zx_model_t* loaded = zx_model_load(kModelPath);
    EXPECT(remove(kModelPath) == 0);
    EXPECT(loaded != NULL);
    EXPECT(loaded->type == ZX_MODEL_MF && loaded->use_bias == 1);
    EXPECT(loaded->num_users == NUM_USERS && loaded->num_items == NUM_ITEMS);
    EXPECT(loaded->embedding_dim == DIM);

    uint32_t users[NUM_ITEMS];
    uint32_t items[NUM_ITEMS];
    for (uint32_t item = 0; item < NUM_ITEMS; ++item) {
        users[item] = item % NUM_USERS;
        items[item] = item;
    }
    zx_tensor_t* before = zx_model_score(model, users, items, NUM_ITEMS);
    zx_tensor_t* after = zx_model_score(loaded, users, items, NUM_ITEMS);
    EXPECT(before != NULL && after != NULL);
    EXPECT(memcmp(zx_tensor_data(before), zx_tensor_data(after), NUM_ITEMS * sizeof(float)) == 0);
    float listed[NUM_ITEMS];
    EXPECT(zx_model_score_items(loaded, 0, items, NUM_ITEMS, listed) == ZX_OK);
    EXPECT(fabsf(listed[0] - zx_tensor_data(after)[0]) < 1e-5f);
    zx_tensor_release(before);
    zx_tensor_release(after);
    zx_model_release(loaded);
    zx_model_release(model);

    EXPECT(zx_model_load(kModelPath) == NULL);
    EXPECT(zx_get_last_error() == ZX_ERR_FILE_OPEN);
    zx_clear_error();
}

int main(void) {
    test_status_and_errors();
    test_engine_start();
    test_tensors();
    test_pool();
    test_layers();
    test_optimizer_and_losses();
    zx_sparse_t* matrix = make_interactions();
    test_bpr(matrix);
    test_als(matrix);
    test_save_and_load(matrix);
    zx_sparse_release(matrix);
    test_engine_stop();
    printf("The C interface works.\n");
    return EXIT_SUCCESS;
}
