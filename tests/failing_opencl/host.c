/*
 * A host that gives a device all kinds of work: a batch of scores, a batch of training, a matrix
 * product. It prints what came of it. The numbers are such that device and host compute the same to
 * the bit: sums of eighths, and steps cut off beyond a difference of 35.
 */
#include "zorvex.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

enum { BATCH = 512, DIM = 16, NUM_ITEMS = 2 * BATCH };

static void fill(zx_tensor_t* tensor, uint32_t seed) {
    float* const data = zx_tensor_data(tensor);
    for (uint64_t i = 0; i < zx_tensor_size(tensor); ++i) {
        seed = seed * 1664525u + 1013904223u;
        data[i] = (float)(int)(seed >> 24) / 8.0f - 16.0f;
    }
}

/* The numbers of a tensor as one: FNV-1a. */
static uint64_t digest(const zx_tensor_t* tensor) {
    const unsigned char* const bytes = (const unsigned char*)zx_tensor_data(tensor);
    uint64_t hash = 14695981039346656037u;
    for (uint64_t i = 0; i < zx_tensor_size(tensor) * sizeof(float); ++i)
        hash = (hash ^ bytes[i]) * 1099511628211u;
    return hash;
}

static void print_tables(const char* when, zx_tensor_t* const* tables) {
    printf("%s", when);
    for (int i = 0; i < 3; ++i) printf(" %016" PRIx64, digest(tables[i]));
    printf("\n");
}

static void work(void) {
    uint32_t users[BATCH];
    uint32_t positives[BATCH];
    uint32_t negatives[BATCH];
    for (uint32_t i = 0; i < BATCH; ++i) {
        users[i] = i;
        positives[i] = 2 * i;
        negatives[i] = 2 * i + 1;
    }
    zx_model_t* const model = zx_model_mf_create(BATCH, NUM_ITEMS, DIM, true);
    if (!model) exit(EXIT_FAILURE);
    zx_tensor_t* const tables[3] = {model->user_embeddings, model->item_embeddings,
                                    model->item_biases};
    for (uint32_t i = 0; i < 3; ++i) fill(tables[i], i);
    /* Every difference is beyond 35. */
    for (uint32_t i = 0; i < NUM_ITEMS; ++i)
        zx_tensor_data(model->item_biases)[i] = i % 2 ? 65536.0f : -65536.0f;

    zx_tensor_t* const scores = zx_model_score(model, users, positives, BATCH);
    if (!scores) exit(EXIT_FAILURE);
    printf("scores %016" PRIx64 "\n", digest(scores));
    zx_tensor_release(scores);

    printf("step %d\n",
           (int)zx_model_train_step_bpr(model, users, positives, negatives, BATCH, 0.5f, 0.5f));
    print_tables("host", tables);
    /* A fetch that fails leaves the numbers on the device, to be fetched again. */
    for (int i = 0; i < 3; ++i)
        if (tables[i]->on_device && zx_tensor_to_host(tables[i]) != ZX_OK)
            (void)zx_tensor_to_host(tables[i]);
    print_tables("fetched", tables);
    zx_model_release(model);
}

static void multiply(void) {
    zx_tensor_t* const a = zx_tensor_create_2d(3, 5);
    zx_tensor_t* const b = zx_tensor_create_2d(7, 5);
    zx_tensor_t* const c = zx_tensor_create_2d(3, 7);
    if (!a || !b || !c) exit(EXIT_FAILURE);
    fill(a, 1);
    fill(b, 2);
    const zx_status_t status = zx_gpu_matmul(c, a, b);
    const zx_status_t fetched = status == ZX_OK ? zx_tensor_to_host(c) : status;
    printf("product %d %d %016" PRIx64 "\n", (int)status, (int)fetched, digest(c));
    zx_tensor_release(a);
    zx_tensor_release(b);
    zx_tensor_release(c);
}

int main(void) {
    if (zx_engine_init() != ZX_OK) return EXIT_FAILURE;
    printf("ready %d\n", (int)zx_gpu_is_ready());
    work();
    multiply();
    (void)zx_engine_sync();
    zx_engine_shutdown();
    return EXIT_SUCCESS;
}
