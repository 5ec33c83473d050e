/*
 * A program in C: everybody likes the item of their own number, and is recommended it. With the
 * argument "device" it then demands that the engine finds a device and the kernel file; one that is
 * named by the next argument is loaded where the engine finds none.
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

static int has_kernels(const char* kernel_file) {
    zx_set_verbosity(0);
    int ready = zx_engine_init() == ZX_OK;
    if (kernel_file) ready = ready && zx_gpu_init_from_file(kernel_file) == ZX_OK;
    ready = ready && zx_gpu_is_ready();
    /* An engine that started without kernels does not release them. */
    zx_gpu_shutdown();
    zx_engine_shutdown();
    return ready;
}

int main(int argc, char** argv) {
    if (!recommends_what_is_liked()) return 1;
    const char* kernel_file = argc > 2 ? argv[2] : NULL;
    if (argc > 1 && strcmp(argv[1], "device") == 0 && !has_kernels(kernel_file)) return 2;
    printf("zorvex %d.%d.%d from C\n", ZX_VERSION_MAJOR, ZX_VERSION_MINOR, ZX_VERSION_PATCH);
    return 0;
}
