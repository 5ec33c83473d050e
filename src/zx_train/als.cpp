// One epoch of alternating least squares: all user rows against the item table, then all item rows
// against the new user table.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_train/als_rows.hpp"

#include <algorithm>
#include <cstring>

namespace {

constexpr zx::Module kModule{"src/zx_train"};

// Whether the rows of the model's users stay within the matrix, and their columns within the model.
// Unsorted or repeated columns, more rows or columns than the model has, and a first row that does
// not start at 0 are all fine.
bool fits_model(const zx_sparse_t& interactions, const zx_model_t& model) {
    if (interactions.rows < model.num_users) return false;
    const std::uint32_t* const row_ptr = interactions.row_ptr;
    for (std::uint32_t user = 0; user < model.num_users; ++user)
        if (row_ptr[user] > row_ptr[user + 1]) return false;
    if (row_ptr[model.num_users] > interactions.nnz) return false;
    for (std::uint32_t i = row_ptr[0]; i < row_ptr[model.num_users]; ++i)
        if (interactions.col_idx[i] >= model.num_items) return false;
    return true;
}

// The interactions by item, users in increasing order within each.
struct ItemMajor {
    static constexpr std::uint32_t kPrefetchDistance = 16;

    zx::AlignedPtr<std::uint32_t[]> counts;
    zx::AlignedPtr<std::uint32_t[]> starts;
    zx::AlignedPtr<std::uint32_t[]> users;
    zx::AlignedPtr<float[]> strengths;

    // False if memory is short, and when there are no entries at all.
    bool allocate(std::uint32_t num_items, std::uint32_t nnz) {
        counts = zx::make_zeroed_array<std::uint32_t>(num_items);
        starts = zx::make_zeroed_array<std::uint32_t>(std::uint64_t{num_items} + 1);
        users = zx::make_array<std::uint32_t>(nnz);
        strengths = zx::make_array<float>(nnz);
        return counts && starts && users && strengths;
    }

    void fill(const zx_sparse_t& interactions, std::uint32_t num_users, std::uint32_t num_items) {
        const std::uint32_t first = interactions.row_ptr[0];
        const std::uint32_t last = interactions.row_ptr[num_users];
        for (std::uint32_t i = first; i < last; ++i) ++counts[interactions.col_idx[i]];
        for (std::uint32_t item = 0; item < num_items; ++item)
            starts[item + 1] = starts[item] + counts[item];
        std::memcpy(counts.get(), starts.get(), num_items * sizeof(std::uint32_t));
        for (std::uint32_t user = 0; user < num_users; ++user)
            for (std::uint32_t i = interactions.row_ptr[user]; i < interactions.row_ptr[user + 1];
                 ++i) {
                // The places are scattered, so those of later entries are fetched.
                if (last - i > kPrefetchDistance) {
                    const std::uint32_t ahead = counts[interactions.col_idx[i + kPrefetchDistance]];
                    __builtin_prefetch(users.get() + ahead, 1);
                    __builtin_prefetch(strengths.get() + ahead, 1);
                }
                const std::uint32_t at = counts[interactions.col_idx[i]]++;
                users[at] = user;
                strengths[at] = interactions.values[i];
            }
    }
};

}  // namespace

zx_status_t zx_model_train_als_epoch(zx_model_t* model, const zx_sparse_t* interactions,
                                     uint32_t num_threads, float alpha, float regularization) {
    if (!model || !interactions) return ZX_ERR_NULL_POINTER;
    if (model->type != ZX_MODEL_MF)
        return kModule.fail(ZX_ERR_MODEL_TYPE_MISMATCH, "ALS only supports Matrix Factorization");
    if (!fits_model(*interactions, *model))
        return kModule.fail(ZX_ERR_DIMENSION_MISMATCH, "Interactions do not fit the model");
    (void)num_threads;  // the epoch runs on the calling thread, which needs one workspace

    zx::als::HalfEpoch half;
    if (!half.allocate(model->embedding_dim, std::max(model->num_users, model->num_items),
                       regularization))
        return ZX_ERR_OUT_OF_MEMORY;
    float* const users = model->user_embeddings->data;
    float* const items = model->item_embeddings->data;

    half.fix(items, model->num_items);
    half.solve(0, model->num_users,
               {interactions->row_ptr, interactions->col_idx, interactions->values}, alpha, users);

    // A matrix without entries ends here, deliberately after the user rows were solved.
    ItemMajor by_item;
    if (!by_item.allocate(model->num_items, interactions->nnz)) return ZX_ERR_OUT_OF_MEMORY;
    by_item.fill(*interactions, model->num_users, model->num_items);

    half.fix(users, model->num_users);
    half.solve(0, model->num_items,
               {by_item.starts.get(), by_item.users.get(), by_item.strengths.get()}, alpha, items);
    return ZX_OK;
}
