// The sampled hit rate: its value, its draws, and the records that failed lookups leave.

#include "error_record.hpp"
#include "float_bits.hpp"
#include "generator_state.hpp"
#include "model_records.hpp"
#include "reference_dot.hpp"

#include <cstdint>
#include <vector>

namespace zx::test {
namespace {

// The metric step by step.
float reference_hit_rate(const zx_model_t& model, const Ids& users, const Ids& items,
                         std::uint32_t k, ReferenceRng& rng) {
    const std::uint32_t max_draws = k * 10u;
    const std::size_t dim = model.embedding_dim;
    std::uint32_t hits = 0;
    for (std::size_t i = 0; i < users.size(); ++i) {
        if (users[i] >= model.num_users) continue;
        const float* const w = user_row(model, users[i]);
        float target = 0.0f;
        if (items[i] < model.num_items) target = reference_dot(w, item_row(model, items[i]), dim);
        std::uint64_t rank = 1;
        for (std::uint32_t draws = 0; draws < max_draws && rank <= k; ++draws) {
            const float scaled = static_cast<float>(model.num_items) * rng.uniform();
            const auto item = static_cast<std::uint32_t>(scaled);
            if (item < model.num_items && reference_dot(w, item_row(model, item), dim) > target)
                ++rank;
        }
        if (rank <= k) ++hits;
    }
    return static_cast<float>(hits) / static_cast<float>(users.size());
}

float hit_rate(const zx_model_t& model, const Ids& users, const Ids& items, std::uint32_t k) {
    return zx_metric_hit_rate(&model, users.data(), items.data(),
                              static_cast<std::uint32_t>(users.size()), k);
}

TEST(HitRate, RanksAgainstTenTimesKDraws) {
    RandomNumbers random(1);
    for (const std::uint32_t dim : {1u, 3u, 4u, 19u, 32u}) {
        for (const std::uint32_t k : {1u, 2u, 5u, 10u, 50u}) {
            SCOPED_TRACE(testing::Message() << "k " << k << ", dimension " << dim);
            const ModelPtr model = random_model({12, 40, dim, false}, random);
            ASSERT_NE(model, nullptr);
            const Ids users = random.ids(60, 12);
            const Ids items = random.ids(60, 40);
            zx_rng_seed(k);
            ReferenceRng reference{std::uint64_t{k}};
            const float expected = reference_hit_rate(*model, users, items, k, reference);
            plant_record();
            EXPECT_TRUE(same_number(hit_rate(*model, users, items, k), expected));
            expect_untouched();
            EXPECT_EQ(generator_state(), reference.state());
        }
    }
}

// Few distinct scores: most draws tie with the held-out item, and ties do not count against it.
TEST(HitRate, CountsStrictlyHigherScoresOnly) {
    RandomNumbers random(2);
    const ModelPtr model = model_with_scores({2, 2, 2, 2, 2});
    ASSERT_NE(model, nullptr);
    zx_rng_seed(1);
    EXPECT_TRUE(same_number(hit_rate(*model, {0, 0, 0}, {0, 3, 4}, 1), 1.0f));

    std::vector<float> scores(50);
    for (float& score : scores) score = static_cast<float>(random.below(3));
    const ModelPtr tied = model_with_scores(scores);
    ASSERT_NE(tied, nullptr);
    const Ids users(100, 0);
    const Ids items = random.ids(100, 50);
    zx_rng_seed(2);
    ReferenceRng reference(2);
    const float expected = reference_hit_rate(*tied, users, items, 3, reference);
    EXPECT_TRUE(same_number(hit_rate(*tied, users, items, 3), expected));
    EXPECT_EQ(generator_state(), reference.state());
}

TEST(HitRate, TakesAllDrawsForABestItemAndStopsEarlyForAMiss) {
    const ModelPtr model = model_with_scores({0, 1, 1, 1});
    ASSERT_NE(model, nullptr);
    zx_rng_seed(3);
    ReferenceRng reference(3);
    EXPECT_TRUE(same_number(hit_rate(*model, {0}, {1}, 7), 1.0f));
    for (int draw = 0; draw < 70; ++draw) reference.next();
    EXPECT_EQ(generator_state(), reference.state());

    // The held-out item is unknown and scores 0, and every item beats it: K + 1 is the rank after
    // K draws.
    const ModelPtr worst = model_with_scores({1, 1});
    ASSERT_NE(worst, nullptr);
    zx_rng_seed(4);
    ReferenceRng draws(4);
    EXPECT_TRUE(same_number(hit_rate(*worst, {0}, {2}, 5), 0.0f));
    for (int draw = 0; draw < 5; ++draw) draws.next();
    EXPECT_EQ(generator_state(), draws.state());
}

// The generator stands behind the last draw that a pair needed, wherever in a batch that was.
TEST(HitRate, TakesNoDrawThatNoPairNeeded) {
    RandomNumbers random(14);
    const ModelPtr model = random_model({12, 40, 6, false}, random);
    ASSERT_NE(model, nullptr);
    for (std::uint64_t seed = 0; seed < 50; ++seed) {
        SCOPED_TRACE(seed);
        const Ids users = random.ids(1 + seed % 4, 12);
        const Ids items = random.ids(1 + seed % 4, 40);
        zx_rng_seed(seed);
        ReferenceRng reference(seed);
        const float expected = reference_hit_rate(*model, users, items, 3, reference);
        EXPECT_TRUE(same_number(hit_rate(*model, users, items, 3), expected));
        EXPECT_EQ(generator_state(), reference.state());
    }
}

TEST(HitRate, IgnoresBiases) {
    const ModelPtr model(zx_model_mf_create(1, 3, 1, true));
    ASSERT_NE(model, nullptr);
    fill(model->user_embeddings, {1.0f});
    fill(model->item_embeddings, {3.0f, 2.0f, 1.0f});
    fill(model->item_biases, {-100.0f, 0.0f, 100.0f});
    fill(model->user_biases, {-7.0f});
    model->global_bias = 1e6f;
    zx_rng_seed(5);
    EXPECT_TRUE(same_number(hit_rate(*model, {0, 0}, {0, 0}, 1), 1.0f));
}

TEST(HitRate, DividesByAllPairs) {
    const ModelPtr model = model_with_scores({1, 0});
    ASSERT_NE(model, nullptr);
    zx_rng_seed(6);
    // Item 0 is the best; a user that the model does not have is a miss.
    EXPECT_TRUE(same_number(hit_rate(*model, {0, 1, 0xffffffffu}, {0, 0, 0}, 1), 1.0f / 3.0f));
}

TEST(HitRate, MakesNoDrawForAUserTheModelDoesNotHave) {
    const ModelPtr model = model_with_scores({1, 0});
    ASSERT_NE(model, nullptr);
    zx_rng_seed(7);
    const ReferenceRng::State before = generator_state();
    plant_record();
    EXPECT_TRUE(same_number(hit_rate(*model, {1, 2}, {0, 1}, 10), 0.0f));
    expect_recorded(ZX_ERR_INDEX_OUT_OF_BOUNDS, "src/zx_model", "User ID out of bounds");
    EXPECT_EQ(generator_state(), before);
}

TEST(HitRate, ScoresAnItemTheModelDoesNotHaveZero) {
    RandomNumbers random(8);
    // No score beats 0, then every score does.
    for (const float score : {-1.0f, 0.0f, 1.0f}) {
        const ModelPtr model = model_with_scores({score, score});
        ASSERT_NE(model, nullptr);
        plant_record();
        EXPECT_TRUE(same_number(hit_rate(*model, {0}, {2}, 4), score > 0 ? 0.0f : 1.0f));
        expect_recorded(ZX_ERR_INDEX_OUT_OF_BOUNDS, "src/zx_model", "Item ID out of bounds");
    }
}

TEST(HitRate, MissesEverythingInAnotherKindOfModel) {
    const ModelPtr model = model_with_scores({1, 0});
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    zx_rng_seed(9);
    const ReferenceRng::State before = generator_state();
    zx_clear_error();
    EXPECT_TRUE(same_number(hit_rate(*model, {0, 0}, {0, 1}, 10), 0.0f));
    expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_model", "Unsupported model type");
    EXPECT_EQ(generator_state(), before);
    model->type = ZX_MODEL_MF;
}

TEST(HitRate, IsZeroForAKOfZero) {
    const ModelPtr model = model_with_scores({1, 0});
    ASSERT_NE(model, nullptr);
    zx_rng_seed(10);
    const ReferenceRng::State before = generator_state();
    plant_record();
    EXPECT_TRUE(same_number(hit_rate(*model, {0}, {0}, 0), 0.0f));
    expect_untouched();
    // The pairs are looked up all the same.
    EXPECT_TRUE(same_number(hit_rate(*model, {0}, {2}, 0), 0.0f));
    expect_recorded(ZX_ERR_INDEX_OUT_OF_BOUNDS, "src/zx_model", "Item ID out of bounds");
    EXPECT_EQ(generator_state(), before);
}

TEST(HitRate, WrapsTheNumberOfDraws) {
    const ModelPtr model = model_with_scores({0, 1, 1, 1});
    ASSERT_NE(model, nullptr);
    const struct {
        const char* when;
        std::uint32_t k, draws;
    } cases[] = {
        {"2^31 times 10 wraps to none", 0x80000000u, 0},
        {"429496730 times 10 wraps to 4", 429496730u, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        zx_rng_seed(11);
        ReferenceRng reference(11);
        // A hit for each known user, even with the worst item; the unknown one is a miss.
        EXPECT_TRUE(same_number(hit_rate(*model, {0, 1}, {0, 0}, c.k), 0.5f));
        for (std::uint32_t draw = 0; draw < c.draws; ++draw) reference.next();
        EXPECT_EQ(generator_state(), reference.state());
    }
}

// A uniform number of exactly 1 is the item after the last: a draw that finds nothing.
TEST(HitRate, SpendsADrawThatReachesTheNumberOfItems) {
    const ModelPtr model = model_with_scores({0, 1, 1, 1});
    ASSERT_NE(model, nullptr);
    const ReferenceRng::State state = state_that_draws(0xffffffffffffffff);
    ReferenceRng reference(state);
    const float expected = reference_hit_rate(*model, {0}, {1}, 1, reference);
    set_generator_state(state);
    plant_record();
    EXPECT_TRUE(same_number(hit_rate(*model, {0}, {1}, 1), expected));
    EXPECT_EQ(expected, 1.0f);
    expect_recorded(ZX_ERR_INDEX_OUT_OF_BOUNDS, "src/zx_model", "Item ID out of bounds");
    EXPECT_EQ(generator_state(), reference.state());
}

TEST(HitRate, CallsPairsThatDoNotCompareAHit) {
    for (const float score : {1.0f, kInfinity}) {
        const ModelPtr model = model_with_scores({kNaN, score, score});
        ASSERT_NE(model, nullptr);
        EXPECT_TRUE(same_number(hit_rate(*model, {0}, {0}, 1), 1.0f)) << "nothing beats NaN";
    }
    const ModelPtr model = model_with_scores({1, kNaN, kNaN});
    ASSERT_NE(model, nullptr);
    EXPECT_TRUE(same_number(hit_rate(*model, {0}, {0}, 1), 1.0f)) << "NaN beats nothing";
}

TEST(HitRate, IsZeroWithoutArguments) {
    const ModelPtr model = model_with_scores({1, 0});
    ASSERT_NE(model, nullptr);
    const std::uint32_t id = 0;
    zx_rng_seed(12);
    const ReferenceRng::State before = generator_state();
    plant_record();
    EXPECT_TRUE(same_number(zx_metric_hit_rate(nullptr, &id, &id, 1, 1), 0.0f));
    EXPECT_TRUE(same_number(zx_metric_hit_rate(model.get(), nullptr, &id, 1, 1), 0.0f));
    EXPECT_TRUE(same_number(zx_metric_hit_rate(model.get(), &id, nullptr, 1, 1), 0.0f));
    EXPECT_TRUE(same_number(zx_metric_hit_rate(model.get(), &id, &id, 0, 1), 0.0f));
    expect_untouched();
    EXPECT_EQ(generator_state(), before);
}

TEST(HitRate, IsReproducible) {
    RandomNumbers random(13);
    const ModelPtr model = random_model({12, 40, 8, false}, random);
    ASSERT_NE(model, nullptr);
    const Ids users = random.ids(60, 12);
    const Ids items = random.ids(60, 40);
    zx_rng_seed(13);
    const float first = hit_rate(*model, users, items, 5);
    zx_rng_seed(13);
    EXPECT_TRUE(same_number(hit_rate(*model, users, items, 5), first));
}

TEST(HitRate, ReadsATableWhateverItsTensorsRank) {
    // One axis over the same numbers: the lookups read it, and so does the metric.
    const ModelPtr model(zx_model_mf_create(1, 2, 2, false));
    ASSERT_NE(model, nullptr);
    fill(model->user_embeddings, {1, 0});
    fill(model->item_embeddings, {5, 0, 1, 0});
    for (zx_tensor_t* const table : {model->user_embeddings, model->item_embeddings}) {
        table->dims[0] = static_cast<std::uint32_t>(table->size);
        table->dims[1] = 1;
        table->ndim = 1;
    }
    plant_record();
    EXPECT_TRUE(same_number(hit_rate(*model, {0}, {0}, 1), 1.0f));
    expect_untouched();
}

TEST(HitRate, MissesEveryPairOfAModelWithoutDimensions) {
    const ModelPtr model(zx_model_mf_create(1, 1, 1, false));
    ASSERT_NE(model, nullptr);
    model->embedding_dim = 0;
    EXPECT_TRUE(same_number(hit_rate(*model, {0}, {0}, 5), 0.0f));
    expect_recorded(ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
}

}  // namespace
}  // namespace zx::test
