// Blocks of work: every element once, the same bounds for any number of workers, failures passed
// on.
#include "parallel.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <stdexcept>
#include <vector>

namespace zxtool {
namespace {

TEST(Parallel, EveryElementOnceInTheSameBlocks) {
    for (const unsigned workers : {1u, 2u, 7u}) {
        for (const std::size_t count : {0u, 1u, 9u, 10u, 11u, 1000u}) {
            SCOPED_TRACE(testing::Message() << workers << " workers, " << count << " elements");
            std::vector<std::atomic<int>> times(count);
            std::vector<std::atomic<int>> block_times(block_count(count, 10));
            for_each_block(count, 10, workers, [&](unsigned worker, const Block& block) {
                EXPECT_LT(worker, workers);
                EXPECT_EQ(block.begin, block.index * 10);
                EXPECT_LE(block.end, count);
                ++block_times[block.index];
                for (std::size_t i = block.begin; i < block.end; ++i) ++times[i];
            });
            for (const auto& time : times) EXPECT_EQ(time, 1);
            for (const auto& time : block_times) EXPECT_EQ(time, 1);
        }
    }
}

TEST(Parallel, TheFirstFailureEndsTheWork) {
    for (const unsigned workers : {1u, 4u}) {
        std::atomic<int> begun{0};
        EXPECT_THROW(for_each_block(1000, 1, workers,
                                    [&](unsigned, const Block& block) {
                                        ++begun;
                                        if (block.index == 3) throw std::runtime_error("no");
                                    }),
                     std::runtime_error);
        EXPECT_GE(begun, 4);
        // How far others come meanwhile is theirs; alone, the worker stops where it failed.
        if (workers == 1) {
            EXPECT_EQ(begun, 4);
        }
    }
}

}  // namespace
}  // namespace zxtool
