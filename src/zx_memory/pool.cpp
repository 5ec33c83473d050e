// The arena pool: memory is taken by moving a mark through large blocks and given back all at once
// (Hanson, "Fast Allocation and Deallocation of Memory Based on Object Lifetimes", 1990).

#include "common/owned.hpp"
#include "zorvex.h"

#include <algorithm>
#include <cstdint>

namespace {

constexpr std::uint64_t kDefaultBlockSize = 1048576;
constexpr std::uint64_t kGranule = 16;  // sizes are multiples of it; addresses need not be

static_assert(sizeof(zx_pool_block_t) == 24, "three words, then the payload");

unsigned char* payload(zx_pool_block_t* block) {
    return reinterpret_cast<unsigned char*>(block + 1);
}

// A block with `used` of its bytes handed out; null if memory is short or its size overflows.
zx_pool_block_t* make_block(std::uint64_t capacity, std::uint64_t used) {
    if (capacity > INT64_MAX - sizeof(zx_pool_block_t)) return nullptr;
    auto* const block =
        static_cast<zx_pool_block_t*>(zx_malloc_aligned(sizeof(zx_pool_block_t) + capacity));
    if (block) *block = {nullptr, capacity, used};
    return block;
}

}  // namespace

zx_pool_t* zx_pool_create(uint64_t block_size) {
    zx::AlignedPtr<zx_pool_t> pool = zx::make_zeroed<zx_pool_t>();
    if (!pool) return nullptr;
    pool->block_size = block_size != 0 ? block_size : kDefaultBlockSize;
    return pool.release();
}

void* zx_pool_alloc(zx_pool_t* pool, uint64_t size) {
    if (!pool || size == 0) return nullptr;
    if (size > UINT64_MAX - (kGranule - 1)) return nullptr;  // would be rounded up to 0
    const std::uint64_t rounded = (size + (kGranule - 1)) / kGranule * kGranule;

    zx_pool_block_t* const current = pool->current_block;
    // The record is public: more may seem used than there is.
    if (current && current->used <= current->capacity &&
        rounded <= current->capacity - current->used) {
        unsigned char* const taken = payload(current) + current->used;
        current->used += rounded;
        return taken;
    }

    zx_pool_block_t* const block = make_block(std::max(pool->block_size, rounded), rounded);
    if (!block) return nullptr;
    // After a reset this drops what followed the first block, deliberately.
    if (current)
        current->next = block;
    else
        pool->first_block = block;
    pool->current_block = block;
    return payload(block);
}

void zx_pool_reset(zx_pool_t* pool) {
    if (!pool) return;
    for (zx_pool_block_t* block = pool->first_block; block; block = block->next) block->used = 0;
    pool->current_block = pool->first_block;
}

void zx_pool_destroy(zx_pool_t* pool) {
    if (!pool) return;
    for (zx_pool_block_t* block = pool->first_block; block;) {
        zx_pool_block_t* const next = block->next;
        zx_free_aligned(block);
        block = next;
    }
    zx_free_aligned(pool);
}
