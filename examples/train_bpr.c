/*
 * Trains a model by Bayesian personalised ranking (BPR) and recommends from it.
 *
 * Two hundred users each like one of ten groups of items and have used six of its twenty items. The
 * model is told who used what and nothing else. Afterwards it should recommend to every user the
 * rest of their group, and it should know the one item of each user that was kept back.
 */
#include <stdio.h>
#include <stdlib.h>
#include <zorvex.h>

enum {
    NUM_USERS = 200,
    NUM_GROUPS = 10,
    GROUP_SIZE = 20,
    NUM_ITEMS = NUM_GROUPS * GROUP_SIZE,
    USED_ITEMS = 6,
    DIM = 16,
    EPOCHS = 100,
    BATCH = NUM_USERS * USED_ITEMS,
    K = 5
};

static uint32_t favourite_group(uint32_t user) {
    return user % NUM_GROUPS;
}

/* Every third item of the favourite group, from a place on that differs between users. */
static bool has_used(uint32_t user, uint32_t item) {
    const uint32_t place = (item + GROUP_SIZE - user / NUM_GROUPS) % GROUP_SIZE;
    return item / GROUP_SIZE == favourite_group(user) && place % 3 == 0 && place < 3 * USED_ITEMS;
}

/* The one after the last of those. */
static uint32_t kept_back_item(uint32_t user) {
    return favourite_group(user) * GROUP_SIZE + (user / NUM_GROUPS + 3 * USED_ITEMS) % GROUP_SIZE;
}

/* Who used what, as a sparse matrix with a row per user: null if it cannot be made. */
static zx_sparse_t* used_items(void) {
    zx_sparse_t* used = zx_sparse_create(NUM_USERS, NUM_ITEMS, NUM_USERS * USED_ITEMS);
    if (!used) return NULL;
    uint32_t entry = 0;
    for (uint32_t user = 0; user < NUM_USERS; ++user) {
        for (uint32_t item = 0; item < NUM_ITEMS; ++item) /* columns increase within a row */
            if (has_used(user, item)) zx_sparse_col_idx(used)[entry++] = item;
        zx_sparse_row_ptr(used)[user + 1] = entry; /* where the next row begins */
    }
    for (uint32_t n = 0; n < used->nnz; ++n) zx_sparse_values(used)[n] = 1.0f;
    return used;
}

/* The share of users whose item that was kept back is among the best of a sample. */
static float hit_rate(const zx_model_t* model) {
    uint32_t users[NUM_USERS];
    uint32_t kept_back[NUM_USERS];
    for (uint32_t user = 0; user < NUM_USERS; ++user) {
        users[user] = user;
        kept_back[user] = kept_back_item(user);
    }
    return zx_metric_hit_rate(model, users, kept_back, NUM_USERS, 10);
}

/* A number from 0 to count - 1. zx_rng_uniform() may give exactly 1. */
static uint32_t draw(uint32_t count) {
    const uint32_t n = (uint32_t)(zx_rng_uniform() * (float)count);
    return n < count ? n : count - 1;
}

static zx_status_t train(zx_model_t* model, const zx_sparse_t* used) {
    uint32_t users[BATCH];
    uint32_t positives[BATCH];
    uint32_t negatives[BATCH];
    printf("hit rate before training: %.3f\n", hit_rate(model));
    for (int epoch = 0; epoch < EPOCHS; ++epoch) {
        /* As many pairs as there are, each drawn at random, with an item that the user has not
         * used beside the one that they have. */
        for (uint32_t n = 0; n < BATCH; ++n) {
            users[n] = draw(NUM_USERS);
            const uint32_t begin = zx_sparse_row_ptr(used)[users[n]];
            const uint32_t place = begin + draw(zx_sparse_row_nnz(used, users[n]));
            positives[n] = zx_sparse_col_idx(used)[place];
        }
        zx_sample_negatives_uniform(used, users, negatives, BATCH, NUM_ITEMS);
        const zx_status_t status =
            zx_model_train_step_bpr(model, users, positives, negatives, BATCH,
                                    0.1f /* learning rate */, 0.05f /* regularisation */);
        if (status != ZX_OK) return status;
    }
    printf("hit rate after %d epochs: %.3f\n", EPOCHS, hit_rate(model));
    return ZX_OK;
}

/* The library ranks all items. Whoever wants new ones only asks for as many more as the user knows,
 * and leaves those out. */
static zx_status_t recommend(zx_model_t* model, const zx_sparse_t* used, uint32_t user) {
    uint32_t items[K + USED_ITEMS];
    float scores[K + USED_ITEMS];
    const zx_status_t status = zx_recommend(model, user, K + USED_ITEMS, items, scores);
    if (status != ZX_OK) return status;

    printf("user %u likes group %u and is recommended\n", user, favourite_group(user));
    for (uint32_t n = 0, shown = 0; shown < K; ++n) {
        if (zx_sparse_get(used, user, items[n]) != 0.0f) continue;
        printf("  item %3u of group %u, score %.4f\n", items[n], items[n] / GROUP_SIZE, scores[n]);
        ++shown;
    }
    return ZX_OK;
}

/* A failure has a status. Most are also recorded, mostly with a text that says more. What was
 * recorded before stays there: the record is of this failure only if it has the same code. */
static void report(zx_status_t status) {
    const zx_error_context_t* record = zx_get_error_context();
    const bool says_more = record->code == status && record->message[0];
    fprintf(stderr, "train_bpr: %s\n", says_more ? record->message : zx_status_string(status));
}

int main(void) {
    zx_clear_error();
    zx_rng_seed(1); /* the same model every time */

    /* A function that makes an object returns null when it fails; the record says why. */
    zx_sparse_t* used = used_items();
    zx_model_t* model = zx_model_mf_create(NUM_USERS, NUM_ITEMS, DIM, false);
    zx_status_t status = used && model ? ZX_OK : zx_get_last_error();
    if (!model && status == ZX_OK) status = ZX_ERR_OUT_OF_MEMORY; /* not recorded */

    if (status == ZX_OK) status = zx_sparse_validate(used);
    if (status == ZX_OK) status = train(model, used);
    if (status == ZX_OK) status = recommend(model, used, 7);
    if (status == ZX_OK) status = recommend(model, used, 42);
    if (status != ZX_OK) report(status);

    /* What was made is released, whatever happened. Null is ignored. */
    zx_model_release(model);
    zx_sparse_release(used);
    return status == ZX_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
