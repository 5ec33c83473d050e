// Full rankings: places, ties, exclusion, AUC, and the same figures from any number of threads.
#include "ranking.hpp"

#include "small_models.hpp"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

namespace zxtool {
namespace {

using Ids = std::vector<std::uint32_t>;
using Scores = std::vector<float>;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

TEST(Ranking, PlacesHeldOutItemsAmongTheOthers) {
    // clang-format off
    const struct {
        const char* when;
        Scores scores;
        Ids excluded, held_out, places;
        double auc;
    } cases[] = {
        {"the best item",                  {3, 2, 1},       {},     {0},       {1},       1.0},
        {"the worst item",                 {3, 2, 1},       {},     {2},       {3},       0.0},
        {"a better one is excluded",       {3, 2, 1},       {0},    {2},       {2},       0.0},
        {"a tie with a lower number",      {2, 2, 1},       {},     {1},       {2},       0.75},
        {"a tie with a higher number",     {2, 2, 1},       {},     {0},       {1},       0.75},
        {"all tied",                       {5, 5, 5, 5},    {},     {2},       {3},       0.5},
        {"two held out, one between",      {9, 5, 7, 1},    {},     {0, 1},    {1, 3},    0.75},
        {"two held out, tied with others", {5, 5, 5, 5},    {},     {1, 3},    {2, 4},    0.5},
        {"not a number is ranked last",    {kNan, 1, -9},   {},     {0},       {3},       0.0},
        {"every candidate is held out",    {1, 2, 3},       {1},    {0, 2},    {1, 2},   -1.0},
    };
    // clang-format on
    Placer placer;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const Placement& placement = placer.place(c.scores, c.excluded, c.held_out);
        EXPECT_EQ(placement.places, c.places);
        EXPECT_NEAR(placement.auc, c.auc, 1e-12);
    }
}

// The definition, word for word: sort all candidates, look where the held-out ones are, and compare
// every held-out candidate with every other.
Placement place_by_sorting(const Scores& scores, const Ids& excluded, const Ids& held_out) {
    const auto in = [](const Ids& ids, std::uint32_t id) {
        return std::find(ids.begin(), ids.end(), id) != ids.end();
    };
    Ids candidates;
    for (std::uint32_t i = 0; i < scores.size(); ++i)
        if (!in(excluded, i)) candidates.push_back(i);
    std::sort(candidates.begin(), candidates.end(), [&](std::uint32_t a, std::uint32_t b) {
        return scores[a] != scores[b] ? scores[a] > scores[b] : a < b;
    });
    Placement result;
    double in_order = 0.0;
    double pairs = 0.0;
    for (std::uint32_t place = 1; place <= candidates.size(); ++place) {
        const std::uint32_t item = candidates[place - 1];
        if (!in(held_out, item)) continue;
        result.places.push_back(place);
        for (const std::uint32_t other : candidates) {
            if (in(held_out, other)) continue;
            pairs += 1.0;
            if (scores[item] > scores[other]) in_order += 1.0;
            if (scores[item] == scores[other]) in_order += 0.5;
        }
    }
    if (pairs > 0.0) result.auc = in_order / pairs;
    return result;
}

TEST(Ranking, AgreesWithSortingOnRandomTiedScores) {
    std::mt19937 random(7);
    Placer placer;
    for (int round = 0; round < 2000; ++round) {
        SCOPED_TRACE(round);
        const std::uint32_t num_items = 1 + test::below(random, 40);
        Scores scores;
        Ids excluded;
        Ids held_out;
        for (std::uint32_t i = 0; i < num_items; ++i) {
            scores.push_back(static_cast<float>(test::below(random, 8)));
            const std::uint32_t kind = test::below(random, 6);
            if (kind == 0) excluded.push_back(i);
            if (kind == 1) held_out.push_back(i);
        }
        if (held_out.empty()) continue;
        const Placement expected = place_by_sorting(scores, excluded, held_out);
        const Placement& placement = placer.place(scores, excluded, held_out);
        EXPECT_EQ(placement.places, expected.places);
        EXPECT_NEAR(placement.auc, expected.auc, 1e-12);
    }
}

TEST(ItemLists, SortsAndDropsRepeats) {
    const ItemLists lists(4, {2, 0, 2, 2, 0, 2}, {5, 1, 3, 5, 0, 4});
    const auto list = [&lists](std::uint32_t user) {
        const auto items = lists.of(user);
        return Ids(items.begin(), items.end());
    };
    EXPECT_EQ(list(0), (Ids{0, 1}));
    EXPECT_EQ(list(1), Ids{});
    EXPECT_EQ(list(2), (Ids{3, 4, 5}));
    EXPECT_EQ(list(3), Ids{});
    EXPECT_EQ(list(4), Ids{});
    EXPECT_TRUE(lists.contains(2, 4));
    EXPECT_FALSE(lists.contains(0, 4));
    EXPECT_FALSE(lists.contains(9, 4));
    EXPECT_TRUE(ItemLists().of(0).empty());
}

TEST(Ranking, PopularityCountsTrainingRows) {
    const Popularity popularity(4, {2, 0, 2, 3});
    const auto scorer = popularity.scorer();
    const auto scores = scorer->scores(0);
    EXPECT_EQ(Scores(scores.begin(), scores.end()), (Scores{1, 0, 2, 1}));
    const Ids list{3, 2};
    const auto some = scorer->scores_of(7, list);
    EXPECT_EQ(Scores(some.begin(), some.end()), (Scores{1, 2}));
}

TEST(Ranking, ModelScoresWithBiases) {
    const ModelPtr model(zx_model_mf_create(2, 20, 3, true));
    ASSERT_NE(model, nullptr);
    for (std::uint32_t i = 0; i < 20; ++i)
        zx_tensor_data(model->item_biases)[i] = static_cast<float>(i);
    zx_tensor_data(model->user_biases)[1] = 100.0f;
    const auto scorer = model_scorer(*model);
    const auto scores = scorer->scores(1);
    ASSERT_EQ(scores.size(), 20u);
    // The embeddings are drawn from [-1, 1], so that a dot product is within 3.
    for (std::uint32_t i = 0; i < 20; ++i) EXPECT_NEAR(scores[i], 100.0f + float(i), 3.0f);
    const Ids list{19, 0};
    const std::vector<float> all(scores.begin(), scores.end());
    const auto some = scorer->scores_of(1, list);
    EXPECT_EQ(some[0], all[19]);
    EXPECT_EQ(some[1], all[0]);
}

TEST(Ranking, FiguresDoNotDependOnTheNumberOfThreads) {
    constexpr std::uint32_t kUsers = 1000;
    constexpr std::uint32_t kItems = 200;
    zx_rng_seed(3);
    const ModelPtr model(zx_model_mf_create(kUsers, kItems, 8, false));
    std::mt19937 random(11);
    Ids users;
    Ids train_users;
    Ids train_items;
    Ids test_users;
    Ids test_items;
    for (std::uint32_t user = 0; user < kUsers; ++user) {
        users.push_back(user);
        for (int n = 0; n < 5; ++n) {
            train_users.push_back(user);
            train_items.push_back(test::below(random, 100));
            test_users.push_back(user);
            test_items.push_back(100 + test::below(random, 100));
        }
    }
    const ItemLists excluded(kUsers, train_users, train_items);
    const ItemLists held_out(kUsers, test_users, test_items);
    const Ids ks{1, 10};
    const MakeScorer by_model = [&] { return model_scorer(*model); };
    const Figures one = rank_users(by_model, users, excluded, held_out, ks, 1);
    EXPECT_EQ(one.users(), kUsers);
    // A random model puts the held-out items anywhere among the others.
    EXPECT_NEAR(one.auc(), 0.5, 0.05);
    for (const unsigned threads : {2u, 3u, 16u}) {
        SCOPED_TRACE(threads);
        const Figures many = rank_users(by_model, users, excluded, held_out, ks, threads);
        EXPECT_EQ(many.users(), one.users());
        EXPECT_EQ(many.auc(), one.auc());
        for (std::size_t i = 0; i < ks.size(); ++i) {
            EXPECT_EQ(many.averages()[i].ndcg, one.averages()[i].ndcg);
            EXPECT_EQ(many.averages()[i].map, one.averages()[i].map);
        }
    }
}

}  // namespace
}  // namespace zxtool
