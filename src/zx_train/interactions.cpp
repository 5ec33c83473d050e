// The interaction set, and uniform sampling of negatives against a matrix of positives.

#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_engine/rng.hpp"

#include <algorithm>

namespace {

// Bounds the search for users who have interacted with nearly everything.
constexpr int kMaxDraws = 100;

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
            // A stored 0 and a NaN count as no interaction.
            const auto is_positive = [&] {
                const float value = zx_sparse_get(positives, users[i], item);
                return value < 0.0f || value > 0.0f;
            };
            for (int draws = 1; draws < kMaxDraws && is_positive(); ++draws) item = draw();
        }
        out_items[i] = item;
    }
    zx::thread_rng() = rng;
}
