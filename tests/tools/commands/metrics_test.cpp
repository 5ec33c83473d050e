// Figures against values worked by hand.
#include "metrics.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace zxtool {
namespace {

using Places = std::vector<std::uint32_t>;

TEST(Metrics, OneUserAtOneK) {
    // log2(3) = 1.584963, log2(5) = 2.321928; gains 1, 0.630930, 0.5, 0.430677 at places 1 to 4.
    // clang-format off
    const struct {
        const char* when;
        Places places;
        std::uint32_t k;
        double hit_rate, precision, recall, map, ndcg;
    } cases[] = {
        {"two of three within K",            {1, 3, 10}, 5, 1, 0.4, 2.0 / 3, (1 + 2.0 / 3) / 3, 1.5 / 2.130930},
        {"K smaller than the held-out items", {1, 3, 10}, 2, 1, 0.5, 1.0 / 3, 0.5, 1 / 1.630930},
        {"K of one, hit",                    {1, 3, 10}, 1, 1, 1.0, 1.0 / 3, 1.0, 1.0},
        {"just within K",                    {4},        4, 1, 0.25, 1.0, 0.25, 0.430677},
        {"just beyond K",                    {4},        3, 0, 0.0, 0.0, 0.0, 0.0},
        {"all held-out items first",         {1, 2},     4, 1, 0.5, 1.0, 1.0, 1.0},
        {"the second half only",             {3, 4},     4, 1, 0.5, 1.0, (1.0 / 3 + 0.5) / 2, 0.930677 / 1.630930},
        {"K beyond all items",               {2},     1000, 1, 0.001, 1.0, 0.5, 0.630930},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const FiguresAtK at = figures_at(c.places, c.k);
        EXPECT_EQ(at.k, c.k);
        EXPECT_EQ(at.hit_rate, c.hit_rate);
        EXPECT_NEAR(at.precision, c.precision, 1e-12);
        EXPECT_NEAR(at.recall, c.recall, 1e-12);
        EXPECT_NEAR(at.map, c.map, 1e-12);
        EXPECT_NEAR(at.ndcg, c.ndcg, 1e-6);
    }
}

TEST(Metrics, AveragesOverUsersAndOverThoseWithAnAuc) {
    const std::vector<std::uint32_t> ks{1, 4};
    Figures figures(ks);
    figures.add_user(Places{1}, 1.0);
    figures.add_user(Places{4}, 0.25);
    figures.add_user(Places{1, 2}, -1.0);  // nothing but held-out items: no AUC
    figures.add_user(Places{9}, 0.25);
    EXPECT_EQ(figures.users(), 4u);
    EXPECT_NEAR(figures.auc(), 0.5, 1e-12);
    const std::vector<FiguresAtK> at = figures.averages();
    ASSERT_EQ(at.size(), 2u);
    EXPECT_EQ(at[0].k, 1u);
    EXPECT_NEAR(at[0].hit_rate, 0.5, 1e-12);
    EXPECT_NEAR(at[0].recall, 1.5 / 4, 1e-12);
    EXPECT_EQ(at[1].k, 4u);
    EXPECT_NEAR(at[1].hit_rate, 0.75, 1e-12);
    EXPECT_NEAR(at[1].precision, (0.25 + 0.25 + 0.5) / 4, 1e-12);
    EXPECT_NEAR(at[1].map, (1 + 0.25 + 1) / 4, 1e-12);
}

TEST(Metrics, GroupsAddUp) {
    const std::vector<std::uint32_t> ks{2};
    Figures first(ks);
    first.add_user(Places{1}, 1.0);
    Figures second(ks);
    second.add_user(Places{3}, 0.5);
    first.add(second);
    EXPECT_EQ(first.users(), 2u);
    EXPECT_NEAR(first.auc(), 0.75, 1e-12);
    EXPECT_NEAR(first.averages()[0].ndcg, 0.5, 1e-12);
}

TEST(Metrics, NoUsersGiveZeros) {
    const std::vector<std::uint32_t> ks{3};
    const Figures figures(ks);
    EXPECT_EQ(figures.users(), 0u);
    EXPECT_EQ(figures.auc(), 0.0);
    EXPECT_EQ(figures.averages()[0].recall, 0.0);
}

}  // namespace
}  // namespace zxtool
