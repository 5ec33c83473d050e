// The interaction set, and uniform sampling of negatives against a matrix of positives.

#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_engine/rng.hpp"
#include "zx_memory/sparse_row.hpp"

#include <algorithm>

namespace {

// Bounds the search for users who have interacted with nearly everything.
constexpr int kMaxDraws = 100;

// How many users ahead their rows are fetched, and twice as many ahead where these stand.
constexpr std::uint64_t kPrefetchDistance = 16;

// Where the positives of a user stand; a user without a row has none.
zx::Range positives_of(const zx_sparse_t& positives, std::uint32_t user) {
    return user < positives.rows ? zx::row_range(positives, user) : zx::Range{0, 0};
}

// Always the same number of lines, which costs less than guessing how many a row has; where that is
// more, the processor's own prefetching finds the rest. `users` has `left` ones, the present one
// first.
[[gnu::always_inline]] inline void prefetch_positives(const zx_sparse_t& positives,
                                                      const std::uint32_t* users,
                                                      std::uint32_t left) {
    constexpr std::uint64_t kLineEntries = 16;
    constexpr std::uint64_t kLines = 4;
    if (left > 2 * kPrefetchDistance && users[2 * kPrefetchDistance] < positives.rows)
        __builtin_prefetch(positives.row_ptr + users[2 * kPrefetchDistance]);
    if (left <= kPrefetchDistance || positives.nnz == 0) return;
    const std::uint64_t begin = positives_of(positives, users[kPrefetchDistance]).begin;
    const std::uint64_t last = positives.nnz - 1;
    for (std::uint64_t line = 0; line < kLines; ++line)
        __builtin_prefetch(positives.col_idx + std::min(begin + line * kLineEntries, last));
}

// A stored 0 and a NaN count as no interaction.
bool is_positive(const zx_sparse_t& positives, zx::Range row, std::uint32_t item) {
    if (item >= positives.cols) return false;
    const float value = zx::value_at(positives, row, item);
    return value < 0.0f || value > 0.0f;
}

}  // namespace

zx_interactions_t* zx_interactions_create(uint32_t count, bool implicit) {
    zx::AlignedPtr<zx_interactions_t> record = zx::make_zeroed<zx_interactions_t>();
    if (!record) return nullptr;
    zx::InteractionsPtr set(record.release());
    set->users = zx::make_zeroed_array<std::uint32_t>(count).release();
    set->items = zx::make_zeroed_array<std::uint32_t>(count).release();
    if (!implicit) set->values = zx::make_zeroed_array<float>(count).release();
    set->count = count;
    set->implicit = implicit;
    // No interactions means no arrays, and so no set, deliberately.
    if (!set->users || !set->items || (!implicit && !set->values)) return nullptr;
    return set.release();
}

void zx_interactions_free(zx_interactions_t* interactions) {
    if (!interactions) return;
    zx_free_aligned(interactions->users);
    zx_free_aligned(interactions->items);
    zx_free_aligned(interactions->values);
    zx_free_aligned(interactions);
}

void zx_sample_negatives_uniform(const zx_sparse_t* positives, const uint32_t* users,
                                 uint32_t* out_items, uint32_t count, uint32_t num_items) {
    if (!users || !out_items || num_items == 0 || count == 0) return;
    const auto items = static_cast<float>(num_items);
    zx::Rng rng = zx::thread_rng();
    const auto draw = [&] {
        // Rounding can take the draw up to num_items itself.
        const std::uint64_t last = num_items - 1;
        return static_cast<std::uint32_t>(std::min(zx::uniform_index(rng, items), last));
    };
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint32_t item = draw();
        if (positives) {
            prefetch_positives(*positives, users + i, count - i);
            const zx::Range row = positives_of(*positives, users[i]);
            for (int draws = 1; draws < kMaxDraws && is_positive(*positives, row, item); ++draws)
                item = draw();
        }
        out_items[i] = item;
    }
    zx::thread_rng() = rng;
}
