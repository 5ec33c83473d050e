// The BPR training step on the host: the arithmetic of a triple, sequences of triples, rows that
// coincide.

#include "bpr_reference.hpp"
#include "error_record.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"

#include <cmath>
#include <utility>
#include <vector>

namespace zx::test {
namespace {

// Biases this far apart put every score difference beyond 35, except that of an item with itself,
// which is 0: the step factor is then the learning rate, half of it, or 0, to the bit.
void separate_items(zx_model_t* model) {
    for (std::uint32_t item = 0; item < model->num_items; ++item) {
        const std::uint32_t place = item * 7 % model->num_items;
        model->item_biases->data[item] = 4096.0f * static_cast<float>(place);
    }
}

void share_one_table(zx_model_t* model) {
    zx_tensor_release(
        std::exchange(model->item_embeddings, zx_tensor_retain(model->user_embeddings)));
}

ModelPtr single_pair_model(float user, float positive, float negative, bool biased) {
    ModelPtr model(zx_model_mf_create(1, 2, 1, biased));
    if (!model) return model;
    model->user_embeddings->data[0] = user;
    fill(model->item_embeddings, {positive, negative});
    return model;
}

const Triples kOneTriple = {{0}, {0}, {1}};

// By hand, learning rate 0.5, regularisation 0.5: decay 0.75. Scores are 2 * 3 and 2 * 3, so x is
// 0 and g is 0.25. User: 2 * 0.75 + 0.25 * 3 - 0.25 * 3. Items: 3 * 0.75 +- 0.25 * 2.
TEST(BprStep, FollowsAWorkedExample) {
    const ModelPtr model = single_pair_model(2, 3, 3, true);
    ASSERT_NE(model, nullptr);
    plant_record();
    ASSERT_EQ(train(model.get(), kOneTriple, 0.5f, 0.5f), ZX_OK);
    expect_untouched();
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {1.5f}));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), {2.75f, 1.75f}));
    EXPECT_TRUE(same_numbers(contents(model->item_biases), {0.25f, -0.25f}));
    EXPECT_TRUE(same_numbers(contents(model->user_biases), {0.0f}));
    EXPECT_TRUE(same_number(model->global_bias, 0.0f));
}

// Without regularisation and with x = 0 the user moves by half the learning rate times the
// difference of the items, at every dimension and wherever the difference is.
TEST(BprStep, MovesHalfARateWhenScoresAreEqual) {
    for (const std::uint32_t dim : {2u, 4u, 7u, 16u, 33u, 64u, 512u}) {
        SCOPED_TRACE(dim);
        const ModelPtr model(zx_model_mf_create(1, 2, dim, true));
        ASSERT_NE(model, nullptr);
        std::vector<float> items(2 * static_cast<std::size_t>(dim), 0.0f);
        items[0] = 4.0f;                         // positive: (4, 0, ...)
        items[2 * std::size_t{dim} - 1] = 8.0f;  // negative: (..., 0, 8)
        std::vector<float> user(dim, 0.0f);
        fill(model->item_embeddings, items);
        fill(model->user_embeddings, user);
        ASSERT_EQ(train(model.get(), kOneTriple, 0.125f, 0.0f), ZX_OK);
        user[0] = 0.25f;
        user[dim - 1] = -0.5f;
        EXPECT_TRUE(same_numbers(contents(model->user_embeddings), user));
        EXPECT_TRUE(same_numbers(contents(model->item_embeddings), items));
        EXPECT_TRUE(same_numbers(contents(model->item_biases), {0.0625f, -0.0625f}));
    }
}

// Biases that start at 0 hold the step factor after one triple.
TEST(BprStep, CutsTheStepFactorOffBeyond35) {
    const float above = std::nextafter(35.0f, 36.0f);
    const double tiny = 1.0 / (1.0 + std::exp(35.0));  // about 6.3e-16
    const struct {
        const char* when;
        float x;
        double factor;
        double tolerance;
    } cases[] = {
        {"x is 35", 35.0f, tiny, tiny * 1e-6},
        {"x is the next number above 35", above, 0.0, 0.0},
        {"x is 100", 100.0f, 0.0, 0.0},
        {"x is infinite", kInfinity, 0.0, 0.0},
        {"x is -35", -35.0f, 1.0, 0.0},
        {"x is the next number below -35", -above, 1.0, 0.0},
        {"x is -100", -100.0f, 1.0, 0.0},
        {"x is infinite below", -kInfinity, 1.0, 0.0},
        {"x is 0", 0.0f, 0.5, 0.0},
        {"x is 1", 1.0f, 0.2689414213699951, 1e-7},
        {"x is -1", -1.0f, 0.7310585786300049, 1e-7},
        {"x is 20", 20.0f, 2.0611536181902037e-09, 1e-15},
        {"x is -20", -20.0f, 0.9999999979388464, 1e-7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const ModelPtr model = single_pair_model(1, c.x, 0, true);
        ASSERT_NE(model, nullptr);
        ASSERT_EQ(train(model.get(), kOneTriple, 1.0f, 0.0f), ZX_OK);
        EXPECT_NEAR(double{model->item_biases->data[0]}, c.factor, c.tolerance);
        EXPECT_TRUE(same_number(model->item_biases->data[1], 0.0f - model->item_biases->data[0]));
    }
}

TEST(BprStep, ShrinksRowsEvenWithoutAStep) {
    const ModelPtr model = single_pair_model(4, 16, 0.5f, true);  // x is 62
    ASSERT_NE(model, nullptr);
    fill(model->item_biases, {3.0f, 5.0f});
    ASSERT_EQ(train(model.get(), kOneTriple, 0.5f, 0.5f), ZX_OK);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {3.0f}));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), {12.0f, 0.375f}));
    EXPECT_TRUE(same_numbers(contents(model->item_biases), {3.0f, 5.0f}));
}

// The biases decide: 40 - 0 keeps x beyond 35 although the scores alone would not.
TEST(BprStep, CountsItemBiasesButNotTheOthers) {
    const ModelPtr model = single_pair_model(1, 1, 1, true);
    ASSERT_NE(model, nullptr);
    fill(model->item_biases, {40.0f, 0.0f});
    fill(model->user_biases, {-1000.0f});
    model->global_bias = -1000.0f;
    ASSERT_EQ(train(model.get(), kOneTriple, 1.0f, 0.0f), ZX_OK);
    EXPECT_TRUE(same_numbers(contents(model->item_biases), {40.0f, 0.0f}));
    EXPECT_TRUE(same_numbers(contents(model->user_biases), {-1000.0f}));
    EXPECT_TRUE(same_number(model->global_bias, -1000.0f));
}

TEST(BprStep, TrainsWithoutBiases) {
    const ModelPtr model = single_pair_model(2, 3, 3, false);
    ASSERT_NE(model, nullptr);
    ASSERT_EQ(train(model.get(), kOneTriple, 0.5f, 0.5f), ZX_OK);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {1.5f}));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), {2.75f, 1.75f}));
    EXPECT_EQ(model->item_biases, nullptr);
    EXPECT_EQ(model->user_biases, nullptr);
}

// learning rate * regularisation is rounded on its own: (1 + 2^-12)^2 becomes 1 + 2^-11, and
// 1 minus that is -2^-11. A fused form would keep -2^-24 more.
TEST(BprStep, RoundsTheDecayTwice) {
    const float factor = 1 + 0x1p-12f;
    const ModelPtr model = single_pair_model(64, 1, 0, false);  // x is 64: nothing but the shrink
    ASSERT_NE(model, nullptr);
    ASSERT_EQ(train(model.get(), kOneTriple, factor, factor), ZX_OK);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {64 * -0x1p-11f}));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), {-0x1p-11f, 0.0f * -0x1p-11f}));
}

// Given the step factor, every number of the three rows is exact: the biases hold it.
TEST(BprStep, UpdatesRowsToTheBitGivenTheFactor) {
    RandomNumbers random(1);
    for (const std::uint32_t dim :
         {1u, 2u, 3u, 4u, 5u, 8u, 15u, 16u, 17u, 31u, 48u, 64u, 67u, 100u, 128u, 511u, 512u}) {
        SCOPED_TRACE(dim);
        constexpr std::uint32_t kTriples = 20;
        constexpr std::uint32_t kItems = 40;
        const ModelPtr model = random_model({kTriples, kItems, dim, true}, random);
        ASSERT_NE(model, nullptr);
        fill(model->item_biases, std::vector<float>(kItems, 0.0f));
        BprTables expected = bpr_tables(*model);
        Triples triples;
        for (std::uint32_t i = 0; i < kTriples; ++i) triples.add(i, i, kTriples + i);
        const float learning_rate = 0.05f;
        const float regularization = 0.01f;
        ASSERT_EQ(train(model.get(), triples, learning_rate, regularization), ZX_OK);

        const float decay = 1.0f - learning_rate * regularization;
        for (std::uint32_t i = 0; i < kTriples; ++i) {
            float* const w = expected.user_row(i);
            float* const p = expected.item_row(i);
            float* const n = expected.item_row(kTriples + i);
            const double x = exact_dot(w, p, dim) - exact_dot(w, n, dim);
            const float g = model->item_biases->data[i];
            EXPECT_NEAR(g, bpr_factor(x, learning_rate), 1e-5 * learning_rate);
            bpr_passes(w, p, n, dim, decay, g, true);
            expected.biases[i] = g;
            expected.biases[kTriples + i] = -g;
        }
        EXPECT_TRUE(same_tables(*model, expected));
    }
}

// Many triples over few rows: repeated users, repeated items, positives that are their negatives.
TEST(BprStep, SeesTheUpdatesOfEarlierTriples) {
    RandomNumbers random(2);
    for (const std::uint32_t dim : {1u, 3u, 4u, 7u, 16u, 33u, 64u, 512u, 513u, 600u}) {
        for (const std::uint32_t count : {1u, 10u, 255u, 256u, 300u}) {
            SCOPED_TRACE(testing::Message() << count << " triples of dimension " << dim);
            const ModelPtr model = random_model({5, 6, dim, true}, random);
            ASSERT_NE(model, nullptr);
            separate_items(model.get());
            BprTables expected = bpr_tables(*model);
            const Triples triples = random_triples(count, 5, 6, random);
            ASSERT_EQ(train(model.get(), triples, 0.05f, 0.02f), ZX_OK);
            bpr_reference(expected, triples, 0.05f, 0.02f);
            EXPECT_TRUE(same_tables(*model, expected));
        }
    }
}

// A record whose users and items are one table: a user row can be an item row of its own triple.
TEST(BprStep, AppliesThePassesInOrderWhenTablesAreShared) {
    RandomNumbers random(3);
    for (const std::uint32_t dim : {1u, 4u, 7u, 16u, 37u, 64u, 512u, 513u, 600u}) {
        for (const std::uint32_t count : {10u, 255u, 256u}) {
            SCOPED_TRACE(testing::Message() << count << " triples of dimension " << dim);
            const ModelPtr model = random_model({4, 4, dim, true}, random);
            ASSERT_NE(model, nullptr);
            share_one_table(model.get());
            separate_items(model.get());
            BprTables expected = bpr_tables(*model);
            const Triples triples = random_triples(count, 4, 4, random);
            ASSERT_EQ(train(model.get(), triples, 0.05f, 0.02f), ZX_OK);
            bpr_reference(expected, triples, 0.05f, 0.02f);
            EXPECT_TRUE(same_tables(*model, expected));
        }
    }
}

TEST(BprStep, UpdatesOneRowTwiceWhenThePositiveIsTheNegative) {
    const ModelPtr model = single_pair_model(2, 3, 9, true);
    ASSERT_NE(model, nullptr);
    // By hand, decay 0.75 and g 0.25: 3 * 0.75 = 2.25, + 0.5 = 2.75, * 0.75 = 2.0625, - 0.5.
    ASSERT_EQ(train(model.get(), {{0}, {0}, {0}}, 0.5f, 0.5f), ZX_OK);
    EXPECT_TRUE(same_numbers(contents(model->user_embeddings), {1.5f}));
    EXPECT_TRUE(same_numbers(contents(model->item_embeddings), {1.5625f, 9.0f}));
    EXPECT_TRUE(same_numbers(contents(model->item_biases), {0.0f, 0.0f}));
}

// By hand in every coordinate: user 2, items 4 and 1, biases that put x beyond -35, g = 0.5, no
// shrink. The user becomes 2 + 0.5 * 4 - 0.5 * 1 = 3.5; the items move by half of 2 or of 3.5.
TEST(BprStep, MovesItemsAlongTheNewUserRowOnlyInSmallWideBatches) {
    const struct {
        std::uint32_t dim, count;
        float positive, negative;
    } cases[] = {
        {512, 10, 5.0f, 0.0f},  {512, 300, 5.0f, 0.0f},   {513, 255, 5.75f, -0.75f},
        {513, 256, 5.0f, 0.0f}, {600, 10, 5.75f, -0.75f}, {600, 300, 5.0f, 0.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.count << " triples of dimension " << c.dim);
        const ModelPtr model(zx_model_mf_create(1, 2, c.dim, true));
        ASSERT_NE(model, nullptr);
        fill(model->user_embeddings, std::vector<float>(c.dim, 2.0f));
        std::vector<float> items(c.dim, 4.0f);
        items.resize(2 * static_cast<std::size_t>(c.dim), 1.0f);
        fill(model->item_embeddings, items);
        fill(model->item_biases, {-1e6f, 1e6f});
        // One triple that counts, the others name a user the model does not have.
        Triples triples = kOneTriple;
        while (triples.count() < c.count) triples.add(1, 0, 1);
        ASSERT_EQ(train(model.get(), triples, 0.5f, 0.0f), ZX_OK);
        EXPECT_TRUE(
            same_numbers(contents(model->user_embeddings), std::vector<float>(c.dim, 3.5f)));
        std::vector<float> expected(c.dim, c.positive);
        expected.resize(2 * static_cast<std::size_t>(c.dim), c.negative);
        EXPECT_TRUE(same_numbers(contents(model->item_embeddings), expected));
    }
}

TEST(BprStep, AgreesWithDoublePrecisionOnRandomProblems) {
    RandomNumbers random(4);
    for (const bool biased : {false, true}) {
        for (const std::uint32_t dim : {1u, 5u, 16u, 50u, 128u}) {
            SCOPED_TRACE(dim);
            const ModelPtr model = random_model({20, 30, dim, biased}, random);
            ASSERT_NE(model, nullptr);
            const BprTables start = bpr_tables(*model);
            std::vector<double> users(start.users.begin(), start.users.end());
            std::vector<double> items(start.items.begin(), start.items.end());
            std::vector<double> biases(start.biases.begin(), start.biases.end());
            const Triples triples = random_triples(200, 20, 30, random);
            const double rate = 0.0625;
            const double regularization = 0.03125;
            ASSERT_EQ(train(model.get(), triples, 0.0625f, 0.03125f), ZX_OK);

            for (std::uint32_t i = 0; i < triples.count(); ++i) {
                double* const w = &users[std::size_t{triples.users[i]} * dim];
                double* const p = &items[std::size_t{triples.positives[i]} * dim];
                double* const n = &items[std::size_t{triples.negatives[i]} * dim];
                if (p == n) {
                    // The one item row is moved towards the user, shrunk, and moved back.
                    const double decay = 1 - rate * regularization;
                    for (std::uint32_t k = 0; k < dim; ++k) {
                        const double old = w[k];
                        w[k] *= decay;
                        p[k] = (p[k] * decay + rate / 2 * old) * decay - rate / 2 * old;
                    }
                    continue;
                }
                double x = biased ? biases[triples.positives[i]] - biases[triples.negatives[i]] : 0;
                for (std::uint32_t k = 0; k < dim; ++k) x += w[k] * (p[k] - n[k]);
                const double g = rate / (1 + std::exp(x));
                const double decay = 1 - rate * regularization;
                for (std::uint32_t k = 0; k < dim; ++k) {
                    const double old = w[k];
                    w[k] = old * decay + g * (p[k] - n[k]);
                    p[k] = p[k] * decay + g * old;
                    n[k] = n[k] * decay - g * old;
                }
                if (!biased) continue;
                biases[triples.positives[i]] += g;
                biases[triples.negatives[i]] -= g;
            }
            const BprTables actual = bpr_tables(*model);
            for (std::size_t i = 0; i < users.size(); ++i)
                ASSERT_NEAR(actual.users[i], users[i], 2e-5) << "user number " << i;
            for (std::size_t i = 0; i < items.size(); ++i)
                ASSERT_NEAR(actual.items[i], items[i], 2e-5) << "item number " << i;
            for (std::size_t i = 0; i < biases.size(); ++i)
                ASSERT_NEAR(actual.biases[i], biases[i], 2e-5) << "item bias " << i;
        }
    }
}

TEST(BprStep, CarriesNaNIntoTheRows) {
    for (const std::uint32_t dim : {1u, 20u}) {
        RandomNumbers random(5);
        const ModelPtr model = random_model({2, 3, dim, true}, random);
        ASSERT_NE(model, nullptr);
        model->user_embeddings->data[dim - 1] = kNaN;
        const ModelContents before = contents(model.get());
        plant_record();
        ASSERT_EQ(train(model.get(), kOneTriple, 0.05f, 0.01f), ZX_OK);
        expect_untouched();
        for (std::uint32_t k = 0; k < dim; ++k) {
            EXPECT_TRUE(std::isnan(model->user_embeddings->data[k])) << k;
            EXPECT_TRUE(std::isnan(model->item_embeddings->data[k])) << k;
            EXPECT_TRUE(std::isnan(model->item_embeddings->data[dim + k])) << k;
        }
        EXPECT_TRUE(std::isnan(model->item_biases->data[0]));
        EXPECT_TRUE(std::isnan(model->item_biases->data[1]));
        // The rows that the triple does not name stay.
        EXPECT_TRUE(same_numbers(model->user_embeddings->data + dim, &before.users[dim], dim));
        EXPECT_TRUE(same_numbers(model->item_embeddings->data + 2 * static_cast<std::size_t>(dim),
                                 &before.items[2 * static_cast<std::size_t>(dim)], dim));
    }
}

}  // namespace
}  // namespace zx::test
