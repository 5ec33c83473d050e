// The selection of the K best, written for reading, and arrays that show what was written to them.
#pragma once

#include "float_bits.hpp"
#include "owned.hpp"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

namespace zx::test {

inline constexpr std::uint32_t kUntouchedId = 0xdeadbeefu;
inline constexpr float kUntouchedScore = -12345.5f;

struct Ranked {
    float score;
    std::uint32_t item;
};

inline void sift_down(std::vector<Ranked>& heap, std::size_t from, std::size_t size) {
    for (std::size_t parent = from;;) {
        const std::size_t left = 2 * parent + 1;
        const std::size_t right = left + 1;
        std::size_t smallest = parent;
        if (left < size && heap[left].score < heap[smallest].score) smallest = left;
        if (right < size && heap[right].score < heap[smallest].score) smallest = right;
        if (smallest == parent) return;
        std::swap(heap[parent], heap[smallest]);
        parent = smallest;
    }
}

// The selection step by step. The order of equal scores and the fate of NaN are what these steps
// make of them, so there is nothing simpler to compare with.
inline std::vector<Ranked> reference_top(const std::vector<float>& scores, std::uint32_t k) {
    const std::size_t kept = std::min<std::size_t>(k, scores.size());
    std::vector<Ranked> heap;
    for (std::size_t i = 0; i < kept; ++i)
        heap.push_back({scores[i], static_cast<std::uint32_t>(i)});
    for (std::size_t parent = kept / 2; parent-- > 0;) sift_down(heap, parent, kept);
    for (std::size_t i = kept; i < scores.size(); ++i) {
        if (scores[i] > heap[0].score) {
            heap[0] = {scores[i], static_cast<std::uint32_t>(i)};
            sift_down(heap, 0, kept);
        }
    }
    std::vector<Ranked> best(kept);
    for (std::size_t size = kept; size > 0; --size) {
        best[size - 1] = heap[0];
        heap[0] = heap[size - 1];
        sift_down(heap, 0, size - 1);
    }
    return best;
}

struct Outputs {
    explicit Outputs(std::size_t count)
        : items(count, kUntouchedId), scores(count, kUntouchedScore) {}

    testing::AssertionResult untouched_from(std::size_t first) const {
        for (std::size_t i = first; i < items.size(); ++i) {
            if (items[i] != kUntouchedId || scores[i] != kUntouchedScore)
                return testing::AssertionFailure() << "entry " << i << " was written";
        }
        return testing::AssertionSuccess();
    }

    Ids items;
    std::vector<float> scores;
};

inline testing::AssertionResult matches(const Outputs& out, const std::vector<Ranked>& expected) {
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (out.items[i] != expected[i].item || !same_number(out.scores[i], expected[i].score)) {
            return testing::AssertionFailure()
                   << "place " << i << " has item " << out.items[i] << " with " << out.scores[i]
                   << ", expected item " << expected[i].item << " with " << expected[i].score;
        }
    }
    return out.untouched_from(expected.size());
}

}  // namespace zx::test
