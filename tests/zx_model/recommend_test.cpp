// Top-K recommendation: scores, selection and the order of ties.

#include "error_record.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"
#include "reference_dot.hpp"
#include "top_k.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace zx::test {
namespace {

// The arrays have room for exactly k entries where that is few, so that a write past them shows.
void expect_reference_top(zx_model_t* model, const std::vector<float>& scores, std::uint32_t k) {
    Outputs out(std::min<std::size_t>(k, scores.size() + 5));
    ASSERT_EQ(zx_recommend(model, 0, k, out.items.data(), out.scores.data()), ZX_OK);
    EXPECT_TRUE(matches(out, reference_top(scores, k)));
}

TEST(Recommend, ReturnsBestItemsFirst) {
    const ModelPtr model = model_with_scores({0.1f, 0.9f, 0.5f});
    ASSERT_NE(model, nullptr);
    const struct {
        const char* when;
        std::uint32_t k;
        std::vector<Ranked> expected;
    } cases[] = {
        {"one item is wanted", 1, {{0.9f, 1}}},
        {"two items are wanted", 2, {{0.9f, 1}, {0.5f, 2}}},
        {"all items are wanted", 3, {{0.9f, 1}, {0.5f, 2}, {0.1f, 0}}},
        {"more are wanted than there are", 9, {{0.9f, 1}, {0.5f, 2}, {0.1f, 0}}},
        {"the most that can be asked for", 0xffffffffu, {{0.9f, 1}, {0.5f, 2}, {0.1f, 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        Outputs out(12);
        plant_record();
        EXPECT_EQ(zx_recommend(model.get(), 0, c.k, out.items.data(), out.scores.data()), ZX_OK);
        EXPECT_TRUE(matches(out, c.expected));
        expect_untouched();
    }
}

// Many distinct scores need no heap, but nobody may see that. The numbers lie on both sides of
// every bound of the shorter way: how many are wanted, and of how many.
TEST(Recommend, SelectsFromManyScoresAsTheHeapDoes) {
    RandomNumbers random(21);
    for (const std::size_t count : {1023u, 1024u, 1025u, 5000u}) {
        std::vector<float> scores = random.floats(count, -1, 1);
        const ModelPtr model = model_with_scores(scores);
        ASSERT_NE(model, nullptr);
        for (const std::uint32_t k : {1u, 23u, 24u, 25u, 100u, 127u, 128u, 129u, 1024u}) {
            SCOPED_TRACE(testing::Message() << k << " of " << count);
            expect_reference_top(model.get(), scores, k);
        }
    }
}

TEST(Recommend, LeavesWhatIsNotDistinctAmongManyScoresToTheHeap) {
    RandomNumbers random(22);
    constexpr std::uint32_t kWanted = 100;
    const std::vector<float> distinct = random.floats(5000, -1, 1);
    std::vector<float> descending = distinct;
    std::sort(descending.rbegin(), descending.rend());
    const auto with_copies_of = [&](float score, std::size_t copies) {
        std::vector<float> scores = distinct;
        for (std::size_t i = 0; i < copies; ++i) scores[37 * i + 11] = score;
        return scores;
    };
    const auto of_few_values = [&](std::uint32_t values) {
        std::vector<float> scores(5000);
        for (float& score : scores) score = static_cast<float>(random.below(values));
        return scores;
    };
    const struct {
        const char* when;
        std::vector<float> scores;
    } cases[] = {
        {"the best is tied", with_copies_of(descending[0], 3)},
        {"one in the middle is tied", with_copies_of(descending[50], 2)},
        {"the last that is taken is tied with the next", with_copies_of(descending[99], 4)},
        {"only those behind the last are tied", with_copies_of(descending[150], 4)},
        {"more are tied at the top than are wanted", with_copies_of(2.0f, 130)},
        {"all are equal", std::vector<float>(5000, 3.0f)},
        {"all are minus infinity", std::vector<float>(5000, -kInfinity)},
        {"all are NaN", std::vector<float>(5000, kNaN)},
        {"few values", of_few_values(30)},
        {"some hundred values", of_few_values(700)},
        {"zeros at the top",
         [&] {
             std::vector<float> scores = distinct;
             for (float& score : scores) score = -std::fabs(score);
             for (std::size_t i = 0; i < 90; ++i) scores[50 * i] = 0.0f;
             return scores;
         }()},
        {"infinities at both ends",
         [&] {
             std::vector<float> scores = distinct;
             for (std::size_t i = 0; i < 4000; ++i) scores[i] = -kInfinity;
             scores[4500] = kInfinity;
             return scores;
         }()},
        {"fewer numbers than are wanted",
         [&] {
             std::vector<float> scores(5000, -kInfinity);
             for (std::size_t i = 0; i < 60; ++i) scores[80 * i] = distinct[i];
             return scores;
         }()},
        {"NaN among the first", with_copies_of(kNaN, 2)},
        {"NaN behind the first",
         [&] {
             std::vector<float> scores = distinct;
             for (std::size_t i = 100; i < 5000; i += 3) scores[i] = kNaN;
             return scores;
         }()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const ModelPtr model = model_with_scores(c.scores);
        ASSERT_NE(model, nullptr);
        expect_reference_top(model.get(), c.scores, kWanted);
    }
}

TEST(Recommend, OrdersTiesAsTheHeapGivesThemUp) {
    const struct {
        const char* when;
        std::vector<float> scores;
        std::uint32_t k;
        Ids expected;
    } cases[] = {
        {"all are equal", {5, 5, 5, 5, 5, 5}, 3, {1, 2, 0}},
        {"all are equal, one is wanted", {5, 5, 5, 5}, 1, {0}},
        {"all are equal, two are wanted", {5, 5, 5, 5}, 2, {1, 0}},
        // Drain: 0, then the last entry, 3, is moved up, and so on: 0, 3, 2, 1 from the back.
        {"all are equal, four are wanted", {5, 5, 5, 5}, 4, {1, 2, 3, 0}},
        {"the highest score is tied", {1, 7, 3, 7, 7}, 1, {1}},
        {"the lower of two tied at the boundary is kept", {9, 4, 9, 4, 4}, 3, {0, 2, 1}},
        // The better item takes the place of the heap's root, which is the lowest of those tied.
        {"a better one comes after ties", {1, 1, 1, 2}, 3, {3, 2, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const ModelPtr model = model_with_scores(c.scores);
        ASSERT_NE(model, nullptr);
        Ids items(c.k);
        std::vector<float> scores(c.k);
        ASSERT_EQ(zx_recommend(model.get(), 0, c.k, items.data(), scores.data()), ZX_OK);
        EXPECT_EQ(items, c.expected);
        for (std::size_t i = 0; i < items.size(); ++i)
            EXPECT_TRUE(same_number(scores[i], c.scores[items[i]]));
    }
}

TEST(Recommend, TakesNaNOnlyAmongTheFirstK) {
    const struct {
        const char* when;
        std::vector<float> scores;
        std::uint32_t k;
        Ids expected;
    } cases[] = {
        {"NaN comes after the first", {1, kNaN, 2, kNaN}, 1, {2}},
        // Nothing is strictly greater than NaN, so it stays at the root.
        {"NaN comes first", {kNaN, 1, 2, 3}, 1, {0}},
        {"NaN sits at the root of two", {kNaN, 1, 9}, 2, {1, 0}},
        {"NaN sits below the root", {1, kNaN, 9}, 2, {1, 2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const ModelPtr model = model_with_scores(c.scores);
        ASSERT_NE(model, nullptr);
        Ids items(c.k);
        std::vector<float> scores(c.k);
        ASSERT_EQ(zx_recommend(model.get(), 0, c.k, items.data(), scores.data()), ZX_OK);
        EXPECT_EQ(items, c.expected);
    }
}

// Draws a score of the given flavour.
using Draw = float (*)(RandomNumbers&);

float draw_distinct(RandomNumbers& random) {
    return static_cast<float>(random.between(-10.0, 10.0));
}
float draw_tied(RandomNumbers& random) {
    return static_cast<float>(random.below(4));
}
float draw_two_values(RandomNumbers& random) {
    return static_cast<float>(random.below(2));
}
float draw_special(RandomNumbers& random) {
    const float special[] = {kNaN, kInfinity, -kInfinity, 3e38f, 0.0f, 1.0f, 2.0f, -1.0f};
    return special[random.below(8)];
}
float draw_often_nan(RandomNumbers& random) {
    return random.below(2) == 0 ? kNaN : static_cast<float>(random.below(6));
}

TEST(Recommend, SelectsAsTheHeapProcedureDoes) {
    RandomNumbers random(42);
    const struct {
        const char* flavour;
        Draw draw;
    } flavours[] = {
        {"distinct", draw_distinct},          {"heavily tied", draw_tied},
        {"two values", draw_two_values},      {"NaN and infinities", draw_special},
        {"half of them NaN", draw_often_nan},
    };
    const int rounds = std::getenv("ZORVEX_VALGRIND") ? 40 : 800;
    for (const auto& flavour : flavours) {
        for (int round = 0; round < rounds; ++round) {
            const std::uint32_t count = 1 + random.below(300);
            const std::uint32_t k = 1 + random.below(count + 5);
            SCOPED_TRACE(testing::Message() << flavour.flavour << ", " << k << " of " << count);
            std::vector<float> scores(count);
            for (float& score : scores) score = flavour.draw(random);
            const ModelPtr model = model_with_scores(scores);
            ASSERT_NE(model, nullptr);
            expect_reference_top(model.get(), scores, k);
            if (HasFailure()) return;
        }
    }
}

TEST(Recommend, SelectsEveryKOfSmallModels) {
    RandomNumbers random(43);
    for (std::uint32_t count = 1; count <= 34; ++count) {
        std::vector<float> scores(count);
        for (float& score : scores) score = draw_tied(random);
        const ModelPtr model = model_with_scores(scores);
        ASSERT_NE(model, nullptr);
        for (std::uint32_t k = 1; k <= count + 2; ++k) {
            SCOPED_TRACE(testing::Message() << k << " of " << count);
            expect_reference_top(model.get(), scores, k);
        }
    }
}

TEST(Recommend, SelectsFromALargeModel) {
    RandomNumbers random(44);
    for (const Draw draw : {draw_distinct, draw_tied, draw_special}) {
        std::vector<float> scores(70000);
        for (float& score : scores) score = draw(random);
        const ModelPtr model = model_with_scores(scores);
        ASSERT_NE(model, nullptr);
        for (const std::uint32_t k : {1u, 10u, 1000u, 69999u, 70000u, 70001u}) {
            SCOPED_TRACE(k);
            expect_reference_top(model.get(), scores, k);
        }
    }
}

// Scores that only rise replace the root every time, scores that only fall never do.
TEST(Recommend, SelectsFromSortedScores) {
    std::vector<float> rising(3000);
    for (std::size_t i = 0; i < rising.size(); ++i) rising[i] = static_cast<float>(i);
    const std::vector<float> falling(rising.rbegin(), rising.rend());
    for (const std::vector<float>& scores : {rising, falling}) {
        const ModelPtr model = model_with_scores(scores);
        ASSERT_NE(model, nullptr);
        for (const std::uint32_t k : {1u, 2u, 15u, 16u, 17u, 2999u, 3000u}) {
            SCOPED_TRACE(k);
            expect_reference_top(model.get(), scores, k);
        }
    }
}

TEST(Recommend, ScoresWithTheStatedBits) {
    RandomNumbers random(45);
    for (const bool biased : {false, true}) {
        for (std::uint32_t dim = 1; dim <= 67; ++dim) {
            SCOPED_TRACE(dim);
            // Odd numbers of items leave rows over from any group that is scored together.
            const std::uint32_t num_items = 17 + dim % 9;
            const ModelPtr model = random_model({3, num_items, dim, biased}, random);
            ASSERT_NE(model, nullptr);
            const std::uint32_t user = random.below(3);
            Outputs out(num_items);
            ASSERT_EQ(
                zx_recommend(model.get(), user, num_items, out.items.data(), out.scores.data()),
                ZX_OK);
            std::vector<float> scores(num_items);
            for (std::uint32_t item = 0; item < num_items; ++item) {
                scores[item] = reference_dot(user_row(*model, user), item_row(*model, item), dim);
                if (biased) {
                    const float of_user = model->user_biases->data[user] + model->global_bias;
                    scores[item] = (model->item_biases->data[item] + of_user) + scores[item];
                }
            }
            EXPECT_TRUE(matches(out, reference_top(scores, num_items)));
        }
    }
}

// Next to 1, 2^-24 is a tie that rounds to 1.
TEST(Recommend, GroupsTheBiasesAsStated) {
    constexpr float kTie = 0x1p-24f;
    const struct {
        const char* when;
        float user_bias, item_bias, dot, global_bias, expected;
    } cases[] = {
        {"the user and the global bias meet first", kTie, 1, 0, kTie, 1 + 0x1p-23f},
        {"the item bias does not meet the dot product", kTie, 1, kTie, 0, 1},
        {"the dot product comes last", 1, kTie, kTie, 0, 1},
        {"the global bias does not meet the dot product", 0, 1, kTie, kTie, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const ModelPtr model(zx_model_mf_create(1, 1, 1, true));
        ASSERT_NE(model, nullptr);
        model->user_embeddings->data[0] = 1.0f;
        model->item_embeddings->data[0] = c.dot;
        model->user_biases->data[0] = c.user_bias;
        model->item_biases->data[0] = c.item_bias;
        model->global_bias = c.global_bias;
        std::uint32_t item = 9;
        float score = 0;
        ASSERT_EQ(zx_recommend(model.get(), 0, 1, &item, &score), ZX_OK);
        EXPECT_TRUE(same_number(score, c.expected)) << score;
    }
}

TEST(Recommend, IgnoresBiasesThatAreNotInUse) {
    RandomNumbers random(46);
    const ModelPtr model = random_model({1, 4, 3, true}, random);
    ASSERT_NE(model, nullptr);
    model->use_bias = 0;
    std::vector<float> scores(4);
    for (std::uint32_t item = 0; item < 4; ++item)
        scores[item] = reference_dot(user_row(*model, 0), item_row(*model, item), 3);
    expect_reference_top(model.get(), scores, 4);
    model->use_bias = 1;
}

}  // namespace
}  // namespace zx::test
