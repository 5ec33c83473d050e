/*
 * A program in C: everybody likes the item of their own number, and is recommended it. With the
 * argument "device" it then demands that the engine finds a device and the kernel file.
 */
#include <stdio.h>
#include <string.h>
#include <zorvex.h>

enum { COUNT = 4, DIM = 4 };

static int recommends_what_is_liked(void) {
    zx_sparse_t* liked = zx_sparse_create(COUNT, COUNT, COUNT);
    if (!liked) return 0;
    for (uint32_t i = 0; i < COUNT; ++i) {
        zx_sparse_values(liked)[i] = 1.0f;
        zx_sparse_col_idx(liked)[i] = i;
        zx_sparse_row_ptr(liked)[i + 1] = i + 1;
    }
    zx_rng_seed(1);
    zx_model_t* model = zx_model_mf_create(COUNT, COUNT, DIM, false);
    if (!model) return 0;
    int good = 1;
    for (int epoch = 0; epoch < 20; ++epoch)
        good &= zx_model_train_als_epoch(model, liked, 1, 10.0f, 0.1f) == ZX_OK;
    for (uint32_t user = 0; user < COUNT; ++user) {
        uint32_t item = COUNT;
        float score = 0.0f;
        good &= zx_recommend(model, user, 1, &item, &score) == ZX_OK && item == user;
    }
    zx_model_release(model);
    zx_sparse_release(liked);
    return good;
}

static int finds_the_kernels(void) {
    zx_set_verbosity(0);
    const int found = zx_engine_init() == ZX_OK && zx_gpu_is_ready();
    zx_engine_shutdown();
    return found;
}

int main(int argc, char** argv) {
    if (!recommends_what_is_liked()) return 1;
    if (argc > 1 && strcmp(argv[1], "device") == 0 && !finds_the_kernels()) return 2;
    printf("zorvex %d.%d.%d from C\n", ZX_VERSION_MAJOR, ZX_VERSION_MINOR, ZX_VERSION_PATCH);
    return 0;
}
