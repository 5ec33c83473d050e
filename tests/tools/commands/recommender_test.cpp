// The promise of the filter: exactly min(K, allowed) items, best first, never an excluded one.
#include "recommender.hpp"

#include "small_models.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace zxtool {
namespace {

using Ids = std::vector<std::uint32_t>;

Ids items_of(const std::vector<zx_scored_item_t>& best) {
    Ids items;
    for (const zx_scored_item_t& entry : best) items.push_back(entry.item);
    return items;
}

TEST(Recommender, LeavesExcludedItemsOut) {
    const ModelPtr model = test::model_with_scores({1.0f, 2.0f}, {0.1f, 0.9f, 0.5f, 0.9f});
    const ItemLists excluded(2, {0, 0, 1, 1, 1, 1}, {1, 0, 0, 1, 2, 3});
    Recommender recommender(*model, excluded);
    // clang-format off
    const struct { const char* when; std::uint32_t user, k; Ids items; } cases[] = {
        {"fewer than allowed",              0, 1, {3}},
        {"as many as allowed",              0, 2, {3, 2}},
        {"more than allowed",               0, 3, {3, 2}},
        {"K near the largest number",       0, 4294967295u, {3, 2}},
        {"everything is excluded",          1, 3, {}},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        EXPECT_EQ(items_of(recommender.best(c.user, c.k)), c.items);
    }
}

TEST(Recommender, GivesTheScoresOfTheLibrary) {
    const ModelPtr model = test::model_with_scores({2.0f}, {0.25f, 1.5f});
    const ItemLists nothing;
    Recommender recommender(*model, nothing);
    const std::vector<zx_scored_item_t>& best = recommender.best(0, 2);
    ASSERT_EQ(best.size(), 2u);
    EXPECT_EQ(best[0].score, 3.0f);
    EXPECT_EQ(best[1].score, 0.5f);
}

TEST(Recommender, PutsTheLowerNumberFirstAmongEqualScores) {
    const ModelPtr model = test::model_with_scores({1.0f}, {2, 7, 7, 2, 7, 7});
    const ItemLists excluded(1, {0}, {1});
    Recommender recommender(*model, excluded);
    EXPECT_EQ(items_of(recommender.best(0, 2)), (Ids{2, 4}));
    EXPECT_EQ(items_of(recommender.best(0, 4)), (Ids{2, 4, 5, 0}));
}

TEST(Recommender, KeepsItsPromiseOnRandomModels) {
    std::mt19937 random(5);
    for (int round = 0; round < 500; ++round) {
        SCOPED_TRACE(round);
        const std::uint32_t num_items = 1 + test::below(random, 30);
        std::vector<float> scores;
        for (std::uint32_t i = 0; i < num_items; ++i)
            scores.push_back(static_cast<float>(test::below(random, 6)));
        const ModelPtr model = test::model_with_scores({1.0f, -1.0f}, scores);
        Ids users;
        Ids items;
        for (std::uint32_t n = test::below(random, 2 * num_items); n > 0; --n) {
            users.push_back(test::below(random, 2));
            items.push_back(test::below(random, num_items));
        }
        const ItemLists excluded(2, users, items);
        Recommender recommender(*model, excluded);
        for (const std::uint32_t user : {0u, 1u}) {
            const std::uint32_t k = 1 + test::below(random, num_items + 3);
            Ids expected;
            for (std::uint32_t i = 0; i < num_items; ++i)
                if (!excluded.contains(user, i)) expected.push_back(i);
            const float sign = user == 0 ? 1.0f : -1.0f;
            std::stable_sort(expected.begin(), expected.end(),
                             [&](auto a, auto b) { return sign * scores[a] > sign * scores[b]; });
            if (expected.size() > k) expected.resize(k);
            EXPECT_EQ(items_of(recommender.best(user, k)), expected);
        }
    }
}

TEST(MostSimilar, OrdersByTheCosineAndLeavesTheItemOut) {
    const ModelPtr model(zx_model_mf_create(1, 5, 2, false));
    ASSERT_NE(model, nullptr);
    const float rows[] = {3, 0, 0, 2, 5, 5, -1, 0, 0, 0};
    std::copy(std::begin(rows), std::end(rows), zx_tensor_data(model->item_embeddings));
    const std::vector<zx_scored_item_t> similar = most_similar(*model, 0, 10);
    EXPECT_EQ(items_of(similar), (Ids{2, 1, 4, 3}));
    ASSERT_EQ(similar.size(), 4u);
    EXPECT_FLOAT_EQ(similar[0].score, 0.70710678f);
    EXPECT_EQ(similar[1].score, 0.0f);  // at a right angle
    EXPECT_EQ(similar[2].score, 0.0f);  // of length 0
    EXPECT_FLOAT_EQ(similar[3].score, -1.0f);
    EXPECT_EQ(items_of(most_similar(*model, 0, 2)), (Ids{2, 1}));
    EXPECT_EQ(items_of(most_similar(*model, 4, 2)), (Ids{0, 1}));
}

}  // namespace
}  // namespace zxtool
