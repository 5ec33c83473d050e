// The aligned allocator: alignment, zero sizes, overflow, and blocks that survive a failed move.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "zorvex.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>

namespace {

using zx::test::FailingAllocator;

// Nothing that the allocator does is recorded.
class Allocator : public testing::Test {
  protected:
    void SetUp() override { zx::test::plant_record(); }
    void TearDown() override { zx::test::expect_untouched(); }
};

constexpr std::uint64_t kSizes[] = {1, 3, 64, 127, 128, 129, 255, 256, 257, 4095, 4097, 1U << 20};

bool is_aligned(const void* block) {
    return reinterpret_cast<std::uintptr_t>(block) % 128 == 0;
}

TEST_F(Allocator, GivesBlocksOnBoundariesOf128Bytes) {
    for (const std::uint64_t size : kSizes) {
        SCOPED_TRACE(size);
        void* block = zx_malloc_aligned(size);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(is_aligned(block));
        std::memset(block, 0xab, size);
        zx_free_aligned(block);
    }
}

TEST_F(Allocator, GivesZeroedArraysOnBoundariesOf128Bytes) {
    for (const std::uint64_t size : kSizes) {
        SCOPED_TRACE(size);
        // Memory that was in use before, so that the zeros are the allocator's.
        void* used = zx_malloc_aligned(3 * size);
        std::memset(used, 0xab, 3 * size);
        zx_free_aligned(used);
        auto* block = static_cast<unsigned char*>(zx_calloc_aligned(3, size));
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(is_aligned(block));
        for (std::uint64_t i = 0; i < 3 * size; ++i) ASSERT_EQ(block[i], 0);
        zx_free_aligned(block);
    }
}

TEST_F(Allocator, GivesNothingForNothing) {
    const std::uint64_t before = zx::test::allocation_requests();
    EXPECT_EQ(zx_malloc_aligned(0), nullptr);
    EXPECT_EQ(zx_calloc_aligned(0, 4), nullptr);
    EXPECT_EQ(zx_calloc_aligned(4, 0), nullptr);
    EXPECT_EQ(zx_calloc_aligned(0, 0), nullptr);
    EXPECT_EQ(zx_calloc_aligned(UINT64_MAX, 0), nullptr);
    EXPECT_EQ(zx::test::allocation_requests(), before);
}

TEST_F(Allocator, RefusesArraysOfMoreThanTheLargestSignedSize) {
    const struct {
        const char* when;
        std::uint64_t count, size;
        bool asked;
    } cases[] = {
        {"bytes, the largest number", 0x7fffffffffffffff, 1, true},
        {"bytes, one more", 0x8000000000000000, 1, false},
        {"one element of the largest size", 1, 0x7fffffffffffffff, true},
        {"one element of one byte more", 1, 0x8000000000000000, false},
        {"floats, the largest number", 0x1fffffffffffffff, 4, true},
        {"floats, one more", 0x2000000000000000, 4, false},
        {"sevens, the largest number", 0x1249249249249249, 7, true},
        {"sevens, one more", 0x124924924924924a, 7, false},
        {"a product that wraps to a small number", 0x4000000000000001, 4, false},
        {"the largest numbers", UINT64_MAX, UINT64_MAX, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const FailingAllocator failing(1);
        EXPECT_EQ(zx_calloc_aligned(c.count, c.size), nullptr);
        EXPECT_EQ(failing.failed(), c.asked);
    }
}

TEST_F(Allocator, GivesNothingWhenMemoryIsShort) {
    const FailingAllocator failing(1, true);
    EXPECT_EQ(zx_malloc_aligned(1), nullptr);
    EXPECT_EQ(zx_calloc_aligned(1, 1), nullptr);
    EXPECT_EQ(zx_realloc_aligned(nullptr, 0, 1), nullptr);
    EXPECT_EQ(failing.requests(), 3U);
}

TEST_F(Allocator, IgnoresTheReleaseOfNothing) {
    zx_free_aligned(nullptr);
}

unsigned char* block_of(std::uint64_t size) {
    auto* block = static_cast<unsigned char*>(zx_malloc_aligned(size));
    for (std::uint64_t i = 0; i < size; ++i) block[i] = static_cast<unsigned char>(i * 7 + 1);
    return block;
}

void expect_kept(const unsigned char* block, std::uint64_t size) {
    for (std::uint64_t i = 0; i < size; ++i)
        ASSERT_EQ(block[i], static_cast<unsigned char>(i * 7 + 1)) << i;
}

TEST_F(Allocator, MovesABlockWithTheSmallerOfTheTwoSizes) {
    const struct {
        const char* when;
        std::uint64_t old_size, new_size, kept;
    } cases[] = {
        {"it grows", 100, 5000, 100},         {"it grows by one", 100, 101, 100},
        {"it keeps its size", 100, 100, 100}, {"it shrinks by one", 100, 99, 99},
        {"it shrinks", 5000, 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        auto* moved = static_cast<unsigned char*>(
            zx_realloc_aligned(block_of(c.old_size), c.old_size, c.new_size));
        ASSERT_NE(moved, nullptr);
        EXPECT_TRUE(is_aligned(moved));
        expect_kept(moved, c.kept);
        std::memset(moved, 0, c.new_size);
        zx_free_aligned(moved);
    }
}

TEST_F(Allocator, MovesNothingToANewBlock) {
    for (const std::uint64_t old_size : {0U, 1000U}) {
        void* block = zx_realloc_aligned(nullptr, old_size, 300);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(is_aligned(block));
        std::memset(block, 1, 300);
        zx_free_aligned(block);
    }
}

TEST_F(Allocator, FreesABlockThatMovesToNothing) {
    const std::uint64_t before = zx::test::allocation_requests();
    EXPECT_EQ(zx_realloc_aligned(nullptr, 0, 0), nullptr);
    EXPECT_EQ(zx::test::allocation_requests(), before);
    // That the block is freed shows under a leak checker.
    EXPECT_EQ(zx_realloc_aligned(block_of(100), 100, 0), nullptr);
}

TEST_F(Allocator, KeepsABlockThatCannotMove) {
    unsigned char* block = block_of(100);
    for (const std::uint64_t new_size : {std::uint64_t{5000}, std::uint64_t{1}, UINT64_MAX}) {
        const FailingAllocator failing(1);
        EXPECT_EQ(zx_realloc_aligned(block, 100, new_size), nullptr);
        EXPECT_TRUE(failing.failed());
        expect_kept(block, 100);
    }
    zx_free_aligned(block);
}

TEST_F(Allocator, CopiesNothingOfABlockOfSizeZero) {
    auto* block = static_cast<unsigned char*>(zx_realloc_aligned(block_of(100), 0, 200));
    ASSERT_NE(block, nullptr);
    std::memset(block, 0, 200);
    zx_free_aligned(block);
}

}  // namespace
