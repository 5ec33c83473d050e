/*
 * Writes a model's tables as NumPy arrays, and one user's scores beside them:
 *
 *     export_numpy FOLDER && python3 load_npy.py FOLDER
 *
 * load_npy.py reads them back and computes the same scores from the tables.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zorvex.h>

enum { NUM_USERS = 30, NUM_ITEMS = 40, DIM = 8, EPOCHS = 5, USER = 3 };

/* The library cuts the paths of the tables' files to what fits here, NUL included. */
enum { PATH_SIZE = 512 };

/* Users like the items whose number leaves the same rest as theirs when divided by five. */
static zx_sparse_t* make_interactions(void) {
    zx_sparse_t* liked = zx_sparse_create(NUM_USERS, NUM_ITEMS, NUM_USERS * NUM_ITEMS / 5);
    if (!liked) return NULL;
    uint32_t entry = 0;
    for (uint32_t user = 0; user < NUM_USERS; ++user) {
        for (uint32_t item = user % 5; item < NUM_ITEMS; item += 5) {
            zx_sparse_col_idx(liked)[entry] = item;
            zx_sparse_values(liked)[entry] = 1.0f;
            ++entry;
        }
        zx_sparse_row_ptr(liked)[user + 1] = entry;
    }
    return liked;
}

static zx_status_t train(zx_model_t* model) {
    zx_sparse_t* liked = make_interactions();
    zx_status_t status = liked ? ZX_OK : zx_get_last_error();
    for (int epoch = 0; epoch < EPOCHS && status == ZX_OK; ++epoch)
        status = zx_model_train_als_epoch(model, liked, 1, 10.0f, 1.0f);
    zx_sparse_release(liked);
    return status;
}

/* Writes the user's scores of all items as scores.npy. */
static zx_status_t export_scores(const zx_model_t* model, const char* folder) {
    char path[PATH_SIZE];
    snprintf(path, sizeof path, "%s/scores.npy", folder);

    uint32_t users[NUM_ITEMS];
    uint32_t items[NUM_ITEMS];
    for (uint32_t item = 0; item < NUM_ITEMS; ++item) {
        users[item] = USER;
        items[item] = item;
    }
    zx_tensor_t* scores = zx_model_score(model, users, items, NUM_ITEMS);
    if (!scores) return zx_get_last_error();
    const zx_status_t status = zx_tensor_to_npy(scores, path);
    zx_tensor_release(scores);
    return status;
}

/* Refuses a folder in which a table's file would get a name that is cut. */
static zx_status_t export_all(const zx_model_t* model, const char* folder) {
    if (strlen(folder) + sizeof "/user_embeddings.npy" > PATH_SIZE) return ZX_ERR_BUFFER_TOO_SMALL;
    const zx_status_t status = zx_model_to_npy_dir(model, folder);
    return status == ZX_OK ? export_scores(model, folder) : status;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: export_numpy FOLDER\n");
        return 2;
    }
    zx_set_verbosity(0);
    zx_rng_seed(1);
    zx_model_t* model = zx_model_mf_create(NUM_USERS, NUM_ITEMS, DIM, false);
    if (!model) {
        fprintf(stderr, "export_numpy: no memory for the model\n");
        return EXIT_FAILURE;
    }
    zx_status_t status = train(model);
    if (status == ZX_OK) status = export_all(model, argv[1]);
    zx_model_release(model);
    if (status != ZX_OK) {
        fprintf(stderr, "export_numpy: %s\n", zx_status_string(status));
        zx_print_error();
        return EXIT_FAILURE;
    }
    printf("the tables, and the scores of user %d, are in %s\n", USER, argv[1]);
    return EXIT_SUCCESS;
}
