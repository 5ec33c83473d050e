/*
 * Writes files in the working folder for the readers that the manual shows: a model without biases,
 * one with them in every form, one of its tensors, and the description of a larger one.
 */
#include <stdlib.h>
#include <zorvex.h>

static int good = 1;

static void expect_ok(zx_status_t status) {
    if (status == ZX_OK) return;
    zx_print_error();
    good = 0;
}

static zx_model_t* make_model(uint32_t num_users, uint32_t num_items, uint32_t dim, bool use_bias) {
    zx_model_t* const model = zx_model_mf_create(num_users, num_items, dim, use_bias);
    if (!model) exit(EXIT_FAILURE);
    if (use_bias) {
        zx_rng_fill_uniform(model->user_biases, -1.0f, 1.0f);
        zx_rng_fill_uniform(model->item_biases, -1.0f, 1.0f);
    }
    return model;
}

int main(void) {
    zx_set_verbosity(0);

    zx_model_t* const plain = make_model(3, 5, 4, false);
    expect_ok(zx_model_save(plain, "plain.zxm"));
    zx_model_release(plain);

    zx_model_t* const biased = make_model(7, 11, 3, true);
    expect_ok(zx_model_save(biased, "biased.zxm"));
    expect_ok(zx_model_to_safetensors(biased, "biased.safetensors"));
    expect_ok(zx_model_to_npy_dir(biased, "biased"));
    expect_ok(zx_tensor_save(biased->item_embeddings, "items.tensor", "items"));
    zx_model_release(biased);

    zx_model_t* const described = make_model(100, 50, 8, false);
    expect_ok(zx_model_metadata_json(described, "described.json"));
    zx_model_release(described);
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
