// Scoring a list of items for one user: the list that is the table's beginning, every other list,
// and the scratch that the latter are gathered into.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"
#include "reference_dot.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <vector>

namespace zx::test {
namespace {

constexpr float kUntouchedScore = -12345.5f;

Ids first_ids(std::uint32_t count) {
    Ids ids(count);
    std::iota(ids.begin(), ids.end(), 0u);
    return ids;
}

float expected_score(const zx_model_t& model, std::uint32_t user, std::uint32_t item) {
    if (item >= model.num_items) return 0.0f;
    const float dot =
        reference_dot(user_row(model, user), item_row(model, item), model.embedding_dim);
    if (!model.use_bias) return dot;
    const float of_user = model.user_biases->data[user] + model.global_bias;
    return (model.item_biases->data[item] + dot) + of_user;
}

// The array has room for exactly the scores of the list, so that a write past them shows.
void expect_scores(zx_model_t* model, std::uint32_t user, const Ids& ids) {
    std::vector<float> scores(ids.size(), kUntouchedScore);
    ASSERT_EQ(zx_model_score_items(model, user, ids.data(), static_cast<std::uint32_t>(ids.size()),
                                   scores.data()),
              ZX_OK);
    std::vector<float> expected;
    for (const std::uint32_t id : ids) expected.push_back(expected_score(*model, user, id));
    EXPECT_TRUE(same_numbers(scores, expected));
}

TEST(ScoreItems, GivesTheStatedBitsAtEveryDimension) {
    RandomNumbers random(1);
    for (const bool biased : {false, true}) {
        for (std::uint32_t dim = 1; dim <= 67; ++dim) {
            SCOPED_TRACE(dim);
            const ModelPtr model = random_model({3, 41, dim, biased}, random);
            ASSERT_NE(model, nullptr);
            const std::uint32_t user = random.below(3);
            plant_record();
            expect_scores(model.get(), user, first_ids(16 + dim % 26));
            expect_scores(model.get(), user, random.ids(1 + dim % 20, 41));
            expect_untouched();
        }
    }
}

TEST(ScoreItems, GathersEveryListButTheBeginningOfTheTable) {
    Ids seventeen_with_7_twice = first_ids(17);
    seventeen_with_7_twice[7] = 8;
    Ids last_one_differs = first_ids(16);
    last_one_differs[15] = 16;
    Ids from_one(16);
    std::iota(from_one.begin(), from_one.end(), 1u);
    const struct {
        const char* when;
        Ids ids;
        bool gathered;
    } cases[] = {
        {"one id", {0}, true},
        {"fifteen in order", first_ids(15), true},
        {"sixteen in order", first_ids(16), false},
        {"seventeen in order", first_ids(17), false},
        {"the whole table in order", first_ids(20), false},
        {"an id replaced", seventeen_with_7_twice, true},
        {"the last id replaced", last_one_differs, true},
        {"sixteen in order, but from 1", from_one, true},
        {"one more than the table in order", first_ids(21), true},
    };
    RandomNumbers random(2);
    for (const bool biased : {false, true}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.when);
            const ModelPtr model = random_model({2, 20, 6, biased}, random);
            ASSERT_NE(model, nullptr);
            const std::uint64_t before = allocation_requests();
            expect_scores(model.get(), 1, c.ids);
            EXPECT_EQ(model->gather_buf_cap, c.gathered ? c.ids.size() * 6 : 0u);
            EXPECT_EQ(model->gather_buf != nullptr, c.gathered);
            EXPECT_EQ(allocation_requests() - before, c.gathered ? 1u : 0u);
            EXPECT_EQ(model->score_buf, nullptr);
            EXPECT_EQ(model->heap_buf, nullptr);
        }
    }
}

TEST(ScoreItems, GivesTheSameScoresEitherWay) {
    RandomNumbers random(3);
    const ModelPtr model = random_model({1, 64, 37, true}, random);
    ASSERT_NE(model, nullptr);
    std::vector<float> in_place(64);
    std::vector<float> gathered(64);
    const Ids in_order = first_ids(64);
    const Ids reversed(in_order.rbegin(), in_order.rend());
    ASSERT_EQ(zx_model_score_items(model.get(), 0, in_order.data(), 64, in_place.data()), ZX_OK);
    ASSERT_EQ(zx_model_score_items(model.get(), 0, reversed.data(), 64, gathered.data()), ZX_OK);
    std::reverse(gathered.begin(), gathered.end());
    EXPECT_TRUE(same_numbers(gathered, in_place));
    std::vector<float> first_fifteen(15);
    ASSERT_EQ(zx_model_score_items(model.get(), 0, in_order.data(), 15, first_fifteen.data()),
              ZX_OK);
    EXPECT_TRUE(same_numbers(first_fifteen.data(), in_place.data(), 15));
}

TEST(ScoreItems, ScoresUnknownItemsZeroWithoutBias) {
    RandomNumbers random(4);
    const ModelPtr model = random_model({2, 5, 4, true}, random);
    ASSERT_NE(model, nullptr);
    model->global_bias = 100.0f;
    plant_record();
    const Ids lists[] = {
        {5},
        {4, 5, 6, 0xffffffffu},
        {5, 5, 0, 5},
        // In order, and longer than the table: the ids from 5 on are nowhere to be read.
        first_ids(16),
        first_ids(500),
    };
    for (const Ids& ids : lists) {
        SCOPED_TRACE(ids.size());
        expect_scores(model.get(), 1, ids);
    }
    expect_untouched();
}

TEST(ScoreItems, ScoresRepeatedItemsEqually) {
    RandomNumbers random(5);
    const ModelPtr model = random_model({1, 5, 9, true}, random);
    ASSERT_NE(model, nullptr);
    const Ids ids(33, 3);
    expect_scores(model.get(), 0, ids);
}

// Next to 1, 2^-24 is a tie that rounds to 1.
TEST(ScoreItems, GroupsTheBiasesAsStated) {
    constexpr float kTie = 0x1p-24f;
    const struct {
        const char* when;
        float user_bias, item_bias, dot, global_bias, expected;
    } cases[] = {
        {"the item bias and the dot product meet first", 1, kTie, kTie, 0, 1 + 0x1p-23f},
        {"the user and the global bias meet first", kTie, 1, 0, kTie, 1 + 0x1p-23f},
        {"the user bias does not meet the item bias", kTie, kTie, 1, 0, 1},
        {"the global bias does not meet the dot product", 0, 1, kTie, kTie, 1},
    };
    for (const auto& c : cases) {
        for (const std::uint32_t count : {1u, 16u}) {
            SCOPED_TRACE(testing::Message() << c.when << ", " << count << " items");
            const ModelPtr model(zx_model_mf_create(1, 16, 1, true));
            ASSERT_NE(model, nullptr);
            model->user_embeddings->data[0] = 1.0f;
            model->user_biases->data[0] = c.user_bias;
            model->global_bias = c.global_bias;
            fill(model->item_embeddings, std::vector<float>(16, c.dot));
            fill(model->item_biases, std::vector<float>(16, c.item_bias));
            std::vector<float> scores(count);
            ASSERT_EQ(
                zx_model_score_items(model.get(), 0, first_ids(count).data(), count, scores.data()),
                ZX_OK);
            EXPECT_TRUE(same_numbers(scores, std::vector<float>(count, c.expected)));
        }
    }
}

TEST(ScoreItems, CarriesNaNAndInfinityOfItems) {
    const ModelPtr model = model_with_scores({1, kNaN, kInfinity, -kInfinity});
    ASSERT_NE(model, nullptr);
    expect_scores(model.get(), 0, {3, 1, 0, 2, 1});
}

TEST(ScoreItems, RefusesInTheStatedOrder) {
    RandomNumbers random(6);
    const ModelPtr model = random_model({2, 4, 3, true}, random);
    ASSERT_NE(model, nullptr);
    const Ids ids = {0, 1, 2, 3};
    std::vector<float> scores(4, kUntouchedScore);

    plant_record();
    model->type = kNotMf;
    EXPECT_EQ(zx_model_score_items(nullptr, 0, ids.data(), 4, scores.data()), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_score_items(model.get(), 0, nullptr, 4, scores.data()), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_score_items(model.get(), 0, ids.data(), 4, nullptr), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_score_items(model.get(), 0, ids.data(), 0, scores.data()),
              ZX_ERR_NULL_POINTER);
    expect_untouched();
    EXPECT_EQ(zx_model_score_items(model.get(), 2, ids.data(), 4, scores.data()),
              ZX_ERR_MODEL_TYPE_MISMATCH);
    expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_model",
                    "zx_model_score_items only supports MF models");
    model->type = ZX_MODEL_MF;
    plant_record();
    for (const std::uint32_t user : {2u, 0xffffffffu}) {
        const FailingAllocator allocator(1, true);
        EXPECT_EQ(zx_model_score_items(model.get(), user, ids.data(), 4, scores.data()),
                  ZX_ERR_INDEX_OUT_OF_BOUNDS);
        EXPECT_EQ(allocator.requests(), 0u);
    }
    expect_untouched();
    EXPECT_TRUE(same_numbers(scores, std::vector<float>(4, kUntouchedScore)));
    EXPECT_EQ(model->gather_buf, nullptr);
}

TEST(ScoreItems, GrowsScratchToTheSizeNeededAndNeverBack) {
    RandomNumbers random(7);
    const ModelPtr model = random_model({1, 40, 5, false}, random);
    ASSERT_NE(model, nullptr);
    const struct {
        const char* when;
        Ids ids;
        std::uint64_t allocations, capacity;
    } calls[] = {
        {"the first list", random.ids(10, 40), 1, 50},
        {"a shorter list", random.ids(4, 40), 0, 50},
        {"a list of the same length", random.ids(10, 40), 0, 50},
        {"a longer list", random.ids(11, 40), 1, 55},
        {"a list in order", first_ids(40), 0, 55},
    };
    for (const auto& call : calls) {
        SCOPED_TRACE(call.when);
        const std::uint64_t before = allocation_requests();
        expect_scores(model.get(), 0, call.ids);
        EXPECT_EQ(allocation_requests() - before, call.allocations);
        EXPECT_EQ(model->gather_buf_cap, call.capacity);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(model->gather_buf) % 128, 0u);
    }
}

TEST(ScoreItems, KeepsOldScratchWhenItCannotGrow) {
    RandomNumbers random(8);
    const ModelPtr model = random_model({1, 40, 5, false}, random);
    ASSERT_NE(model, nullptr);
    expect_scores(model.get(), 0, {3, 2, 1});
    const float* const old_scratch = model->gather_buf;
    const Ids ids = {7, 3, 5, 1};
    std::vector<float> scores(4, kUntouchedScore);
    plant_record();
    {
        const FailingAllocator allocator(1);
        EXPECT_EQ(zx_model_score_items(model.get(), 0, ids.data(), 4, scores.data()),
                  ZX_ERR_OUT_OF_MEMORY);
        EXPECT_TRUE(allocator.failed());
    }
    expect_untouched();
    EXPECT_EQ(model->gather_buf, old_scratch);
    EXPECT_EQ(model->gather_buf_cap, 15u);
    EXPECT_TRUE(same_numbers(scores, std::vector<float>(4, kUntouchedScore)));
    expect_scores(model.get(), 0, {9, 8, 7});
    EXPECT_EQ(model->gather_buf, old_scratch);
}

TEST(ScoreItems, RefusesAMissingArrayOfSufficientCapacity) {
    RandomNumbers random(9);
    const ModelPtr model = random_model({1, 40, 5, false}, random);
    ASSERT_NE(model, nullptr);
    const Ids ids = {7, 3};
    std::vector<float> scores(2, kUntouchedScore);
    model->gather_buf_cap = 10;
    plant_record();
    EXPECT_EQ(zx_model_score_items(model.get(), 0, ids.data(), 2, scores.data()),
              ZX_ERR_OUT_OF_MEMORY);
    expect_untouched();
    EXPECT_EQ(model->gather_buf, nullptr);
    EXPECT_TRUE(same_numbers(scores, std::vector<float>(2, kUntouchedScore)));
    // A list that needs no scratch does not ask for it.
    expect_scores(model.get(), 0, first_ids(16));
    model->gather_buf_cap = 9;
    expect_scores(model.get(), 0, ids);
}

// Only the first id is read: it differs from its position, and what follows is refused by size.
TEST(ScoreItems, RefusesAListThatNoArrayCanHold) {
    constexpr std::uint32_t kTwoTo31 = 0x80000000u;
    const struct {
        const char* when;
        std::uint32_t count, dim;
        zx_status_t status;
    } cases[] = {
        // (2^63 - 1) / (2^32 - 1), rounded down, is 2^31.
        {"one more than 2^63 - 1 numbers allow", kTwoTo31 + 1, 0xffffffffu, ZX_ERR_OVERFLOW},
        {"the longest list of the longest rows", 0xffffffffu, 0xffffffffu, ZX_ERR_OVERFLOW},
        {"as much as 2^63 - 1 numbers allow", kTwoTo31, 0xffffffffu, ZX_ERR_OUT_OF_MEMORY},
        // The bytes are 2^64 and 2^64 + 2^33: in 64 bits they look like none and like a few.
        {"bytes that wrap to none", kTwoTo31, kTwoTo31, ZX_ERR_OUT_OF_MEMORY},
        {"bytes that wrap to a few", kTwoTo31 + 1, kTwoTo31, ZX_ERR_OUT_OF_MEMORY},
    };
    RandomNumbers random(10);
    const ModelPtr model = random_model({1, 4, 2, false}, random);
    ASSERT_NE(model, nullptr);
    expect_scores(model.get(), 0, {3, 2, 1});
    const float* const old_scratch = model->gather_buf;
    const Ids ids = {1, 2, 3};
    std::vector<float> scores(3, kUntouchedScore);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        model->embedding_dim = c.dim;
        plant_record();
        EXPECT_EQ(zx_model_score_items(model.get(), 0, ids.data(), c.count, scores.data()),
                  c.status);
        expect_untouched();
        EXPECT_EQ(model->gather_buf, old_scratch);
        EXPECT_EQ(model->gather_buf_cap, 6u);
        model->embedding_dim = 2;
    }
    EXPECT_TRUE(same_numbers(scores, std::vector<float>(3, kUntouchedScore)));
    expect_scores(model.get(), 0, {3, 2, 1});
}

TEST(ScoreItems, NeedsNoCapacityWithoutADimensionButAnArray) {
    RandomNumbers random(11);
    const ModelPtr model = random_model({1, 20, 2, true}, random);
    ASSERT_NE(model, nullptr);
    const Ids ids = {3, 25, 1};
    std::vector<float> scores(3, kUntouchedScore);
    model->embedding_dim = 0;
    plant_record();
    EXPECT_EQ(zx_model_score_items(model.get(), 0, ids.data(), 3, scores.data()),
              ZX_ERR_OUT_OF_MEMORY);
    expect_untouched();
    expect_scores(model.get(), 0, first_ids(16));
    model->embedding_dim = 2;
    expect_scores(model.get(), 0, {1});
    model->embedding_dim = 0;
    expect_scores(model.get(), 0, ids);
    EXPECT_EQ(model->gather_buf_cap, 2u);
    model->embedding_dim = 2;
}

TEST(ScoreItems, GivesAnUnknownItemZeroWhateverTheUserRow) {
    const ModelPtr model(zx_model_mf_create(1, 2, 4, false));
    ASSERT_NE(model, nullptr);
    for (const float value : {NAN, INFINITY, -INFINITY}) {
        SCOPED_TRACE(value);
        model->user_embeddings->data[1] = value;
        const Ids ids = {2, 0, 0xffffffffu};
        std::vector<float> scores(ids.size(), kUntouchedScore);
        ASSERT_EQ(zx_model_score_items(model.get(), 0, ids.data(), 3, scores.data()), ZX_OK);
        EXPECT_TRUE(same_number(scores[0], 0.0f));
        EXPECT_FALSE(std::isfinite(scores[1]));
        EXPECT_TRUE(same_number(scores[2], 0.0f));
    }
}

}  // namespace
}  // namespace zx::test
