// The arena pool: where allocations lie, which block they come from, and what a reset keeps.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "owned.hpp"
#include "zorvex.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <type_traits>
#include <vector>

namespace zx::test {
namespace {

// Hosts may look into the records, so their layout is part of the interface.
static_assert(offsetof(zx_pool_t, first_block) == 0);
static_assert(offsetof(zx_pool_t, current_block) == 8);
static_assert(offsetof(zx_pool_t, block_size) == 16);
static_assert(sizeof(zx_pool_t) == 24);
static_assert(offsetof(zx_pool_block_t, next) == 0);
static_assert(offsetof(zx_pool_block_t, capacity) == 8);
static_assert(offsetof(zx_pool_block_t, used) == 16);
static_assert(sizeof(zx_pool_block_t) == 24);
static_assert(std::is_same_v<decltype(zx_pool_t::block_size), std::uint64_t>);

constexpr std::uint64_t kDefaultBlockSize = 1048576;

// Nothing that a pool does is recorded.
class Pool : public testing::Test {
  protected:
    void SetUp() override { plant_record(); }
    void TearDown() override { expect_untouched(); }
};

unsigned char* payload(zx_pool_block_t* block) {
    return reinterpret_cast<unsigned char*>(block) + 24;
}

void expect_block(const zx_pool_block_t* block, std::uint64_t capacity, std::uint64_t used) {
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->capacity, capacity);
    EXPECT_EQ(block->used, used);
}

std::size_t chain_length(const zx_pool_t& pool) {
    std::size_t length = 0;
    for (const zx_pool_block_t* block = pool.first_block; block; block = block->next) ++length;
    return length;
}

TEST_F(Pool, BeginsWithoutBlocks) {
    const struct {
        std::uint64_t asked, expected;
    } cases[] = {{0, kDefaultBlockSize}, {1, 1}, {1048577, 1048577}, {UINT64_MAX, UINT64_MAX}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.asked);
        const std::uint64_t before = allocation_requests();
        const PoolPtr pool(zx_pool_create(c.asked));
        ASSERT_NE(pool, nullptr);
        EXPECT_EQ(allocation_requests() - before, 1u);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pool.get()) % 128, 0u);
        EXPECT_EQ(pool->block_size, c.expected);
        EXPECT_EQ(pool->first_block, nullptr);
        EXPECT_EQ(pool->current_block, nullptr);
    }
}

TEST_F(Pool, IsNotMadeWhenMemoryIsShort) {
    const FailingAllocator allocator(1);
    EXPECT_EQ(zx_pool_create(64), nullptr);
    EXPECT_TRUE(allocator.failed());
}

TEST_F(Pool, GivesNothingForNothing) {
    const PoolPtr pool(zx_pool_create(64));
    const std::uint64_t before = allocation_requests();
    EXPECT_EQ(zx_pool_alloc(nullptr, 16), nullptr);
    EXPECT_EQ(zx_pool_alloc(nullptr, 0), nullptr);
    EXPECT_EQ(zx_pool_alloc(pool.get(), 0), nullptr);
    EXPECT_EQ(pool->first_block, nullptr);
    zx_pool_reset(nullptr);
    zx_pool_destroy(nullptr);
    EXPECT_EQ(allocation_requests(), before);
}

TEST_F(Pool, MakesItsFirstBlockForTheFirstRequest) {
    const PoolPtr pool(zx_pool_create(0));
    void* const first = zx_pool_alloc(pool.get(), 1);
    expect_block(pool->first_block, kDefaultBlockSize, 16);
    EXPECT_EQ(pool->first_block->next, nullptr);
    EXPECT_EQ(pool->current_block, pool->first_block);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pool->first_block) % 128, 0u);
    EXPECT_EQ(first, payload(pool->first_block));
}

TEST_F(Pool, RoundsEverySizeUpToSixteen) {
    const struct {
        std::uint64_t size, taken;
    } cases[] = {{1, 16}, {1, 16}, {15, 16}, {16, 16}, {17, 32}, {31, 32}, {32, 32}, {33, 48}};
    const PoolPtr pool(zx_pool_create(1024));
    std::uint64_t used = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        auto* const memory = static_cast<unsigned char*>(zx_pool_alloc(pool.get(), c.size));
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(memory, payload(pool->first_block) + used);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % 16, 8u);
        used += c.taken;
        expect_block(pool->current_block, 1024, used);
    }
    EXPECT_EQ(chain_length(*pool), 1u);
}

TEST_F(Pool, GivesMemoryThatDoesNotOverlap) {
    const PoolPtr pool(zx_pool_create(200));
    struct Piece {
        unsigned char* memory;
        std::size_t size;
    };
    std::vector<Piece> pieces;
    for (std::size_t size = 1; size <= 300; size += 7) {
        auto* const memory = static_cast<unsigned char*>(zx_pool_alloc(pool.get(), size));
        ASSERT_NE(memory, nullptr);
        std::memset(memory, static_cast<int>(pieces.size()), size);
        pieces.push_back({memory, size});
    }
    for (std::size_t i = 0; i < pieces.size(); ++i)
        for (std::size_t k = 0; k < pieces[i].size; ++k) ASSERT_EQ(pieces[i].memory[k], i);
}

TEST_F(Pool, FillsABlockToItsLastByte) {
    const struct {
        const char* when;
        std::uint64_t block_size, size;
        std::size_t blocks;
    } cases[] = {
        {"what is left is taken", 64, 48, 1},
        {"a byte more than is left", 64, 49, 2},
        {"the rest is no multiple of 16", 79, 49, 2},
        {"the rest is the next multiple of 16", 80, 49, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const PoolPtr pool(zx_pool_create(c.block_size));
        ASSERT_NE(zx_pool_alloc(pool.get(), 16), nullptr);
        ASSERT_NE(zx_pool_alloc(pool.get(), c.size), nullptr);
        EXPECT_EQ(chain_length(*pool), c.blocks);
    }
}

TEST_F(Pool, GivesAnOversizedRequestABlockOfItsRoundedSize) {
    const PoolPtr pool(zx_pool_create(64));
    ASSERT_NE(zx_pool_alloc(pool.get(), 16), nullptr);
    void* const large = zx_pool_alloc(pool.get(), 65);
    zx_pool_block_t* const second = pool->first_block->next;
    expect_block(second, 80, 80);
    EXPECT_EQ(second->next, nullptr);
    EXPECT_EQ(pool->current_block, second);
    EXPECT_EQ(large, payload(second));

    // The first block has room left, but is not the current one any more.
    void* const small = zx_pool_alloc(pool.get(), 1);
    zx_pool_block_t* const third = second->next;
    expect_block(third, 64, 16);
    EXPECT_EQ(third->next, nullptr);
    EXPECT_EQ(small, payload(third));
    EXPECT_EQ(pool->current_block, third);
    expect_block(pool->first_block, 64, 16);
}

TEST_F(Pool, GivesABlockOfTheRoundedSizeWhereTheBlockSizeIsSmaller) {
    const PoolPtr pool(zx_pool_create(1));
    ASSERT_NE(zx_pool_alloc(pool.get(), 1), nullptr);
    expect_block(pool->first_block, 16, 16);
}

TEST_F(Pool, BeginsAgainInItsFirstBlockAfterAReset) {
    const PoolPtr pool(zx_pool_create(64));
    void* const first = zx_pool_alloc(pool.get(), 40);
    ASSERT_NE(zx_pool_alloc(pool.get(), 40), nullptr);
    ASSERT_NE(zx_pool_alloc(pool.get(), 40), nullptr);
    ASSERT_EQ(chain_length(*pool), 3u);
    zx_pool_reset(pool.get());
    EXPECT_EQ(chain_length(*pool), 3u);
    EXPECT_EQ(pool->current_block, pool->first_block);
    for (const zx_pool_block_t* block = pool->first_block; block; block = block->next)
        expect_block(block, 64, 0);

    const std::uint64_t before = allocation_requests();
    EXPECT_EQ(zx_pool_alloc(pool.get(), 64), first);
    EXPECT_EQ(allocation_requests(), before);
    EXPECT_EQ(chain_length(*pool), 3u);
}

TEST_F(Pool, DropsTheBlocksBehindTheFirstWhenItOutgrowsThatAfterAReset) {
    const PoolPtr pool(zx_pool_create(64));
    for (int i = 0; i < 3; ++i) ASSERT_NE(zx_pool_alloc(pool.get(), 64), nullptr);
    zx_pool_block_t* const second = pool->first_block->next;
    zx_pool_block_t* const third = second->next;
    zx_pool_reset(pool.get());
    ASSERT_NE(zx_pool_alloc(pool.get(), 64), nullptr);
    void* const next = zx_pool_alloc(pool.get(), 16);
    ASSERT_EQ(chain_length(*pool), 2u);
    EXPECT_NE(pool->first_block->next, second);
    EXPECT_EQ(next, payload(pool->first_block->next));
    EXPECT_EQ(pool->current_block, pool->first_block->next);

    // They belong to nobody now, and are still whole.
    EXPECT_EQ(second->next, third);
    expect_block(second, 64, 0);
    expect_block(third, 64, 0);
    zx_free_aligned(second);
    zx_free_aligned(third);
}

TEST_F(Pool, IsEmptyAfterAResetBeforeFirstUse) {
    const PoolPtr pool(zx_pool_create(64));
    zx_pool_reset(pool.get());
    EXPECT_EQ(pool->current_block, nullptr);
    EXPECT_NE(zx_pool_alloc(pool.get(), 1), nullptr);
}

TEST_F(Pool, StaysAsItIsWhenABlockCannotBeHad) {
    for (const bool has_block : {false, true}) {
        SCOPED_TRACE(has_block);
        const PoolPtr pool(zx_pool_create(64));
        if (has_block) {
            ASSERT_NE(zx_pool_alloc(pool.get(), 64), nullptr);
        }
        zx_pool_block_t* const first = pool->first_block;
        {
            const FailingAllocator allocator(1);
            EXPECT_EQ(zx_pool_alloc(pool.get(), 16), nullptr);
            EXPECT_TRUE(allocator.failed());
        }
        EXPECT_EQ(pool->first_block, first);
        EXPECT_EQ(pool->current_block, first);
        if (has_block) expect_block(first, 64, 64);
        EXPECT_NE(zx_pool_alloc(pool.get(), 16), nullptr);
        EXPECT_EQ(chain_length(*pool), has_block ? 2u : 1u);
    }
}

TEST_F(Pool, RefusesSizesThatOverflow) {
    const struct {
        const char* when;
        std::uint64_t block_size, size;
    } cases[] = {
        {"the size wraps when rounded", 64, UINT64_MAX},
        {"the smallest such size", 64, UINT64_MAX - 14},
        {"the largest size that can be rounded", 64, UINT64_MAX - 15},
        {"the block's header wraps", UINT64_MAX, 1},
        {"the block's header wraps by a byte", UINT64_MAX - 23, 1},
        {"more than any object has", INT64_MAX - 23, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const PoolPtr pool(zx_pool_create(c.block_size));
        const std::uint64_t before = allocation_requests();
        EXPECT_EQ(zx_pool_alloc(pool.get(), c.size), nullptr);
        EXPECT_EQ(allocation_requests(), before);
        EXPECT_EQ(pool->first_block, nullptr);
    }
}

TEST_F(Pool, StartsABlockWhereMoreSeemsUsedThanThereIs) {
    const PoolPtr pool(zx_pool_create(64));
    ASSERT_NE(zx_pool_alloc(pool.get(), 16), nullptr);
    zx_pool_block_t* const first = pool->current_block;
    for (const std::uint64_t used : {std::uint64_t{80}, UINT64_MAX}) {
        SCOPED_TRACE(used);
        pool->current_block->used = used;
        const void* const taken = zx_pool_alloc(pool.get(), 16);
        EXPECT_EQ(taken, payload(pool->current_block));
        EXPECT_NE(pool->current_block, first);
        expect_block(pool->current_block, 64, 16);
    }
    EXPECT_EQ(chain_length(*pool), 3u);
}

TEST_F(Pool, RefusesASizeThatOverflowsBesideWhatIsUsed) {
    const PoolPtr pool(zx_pool_create(64));
    ASSERT_NE(zx_pool_alloc(pool.get(), 32), nullptr);
    for (const std::uint64_t size : {UINT64_MAX - 31, UINT64_MAX - 15, UINT64_MAX}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(zx_pool_alloc(pool.get(), size), nullptr);
        expect_block(pool->current_block, 64, 32);
        EXPECT_EQ(chain_length(*pool), 1u);
    }
}

}  // namespace
}  // namespace zx::test
