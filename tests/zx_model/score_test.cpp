// Scoring of user-item pairs on the host.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"
#include "reference_dot.hpp"

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace zx::test {
namespace {

float expected_score(const zx_model_t& model, std::uint32_t user, std::uint32_t item) {
    const float dot =
        reference_dot(user_row(model, user), item_row(model, item), model.embedding_dim);
    if (!model.use_bias) return dot;
    const float sides = model.user_biases->data[user] + model.item_biases->data[item];
    return sides + (dot + model.global_bias);
}

TEST(ModelScore, GivesTheStatedBitsAtEveryDimension) {
    RandomNumbers random(1);
    for (const bool biased : {false, true}) {
        for (std::uint32_t dim = 1; dim <= 67; ++dim) {
            SCOPED_TRACE(dim);
            const ModelPtr model = random_model({5, 7, dim, biased}, random);
            ASSERT_NE(model, nullptr);
            const Ids users = random.ids(40, 5);
            const Ids items = random.ids(40, 7);
            plant_record();
            const TensorPtr scores(zx_model_score(model.get(), users.data(), items.data(), 40));
            ASSERT_NE(scores, nullptr);
            EXPECT_EQ(scores->ndim, 1);
            EXPECT_EQ(scores->dims[0], 40u);
            EXPECT_EQ(scores->refcount, 1u);
            EXPECT_EQ(scores->on_device, 0);
            std::vector<float> expected;
            for (std::size_t j = 0; j < users.size(); ++j)
                expected.push_back(expected_score(*model, users[j], items[j]));
            EXPECT_TRUE(same_numbers(contents(scores.get()), expected));
            expect_untouched();
        }
    }
}

// Next to 1, 2^-26 is lost and 2^-24 is a tie that rounds to 1: another grouping of these sums
// gives another number.
TEST(ModelScore, GroupsTheSumsAsStated) {
    constexpr float kLost = 0x1p-26f;
    constexpr float kTie = 0x1p-24f;
    const struct {
        const char* when;
        std::vector<float> item;
        float expected;
    } cases[] = {
        {"the first and the third sum meet first", {1, kLost, -1, 0}, kLost},
        {"the second and the fourth sum meet first", {kLost, 1, 0, -1}, kLost},
        {"a sum takes every fourth product", {1, 0, 0, 0, kLost, 0, 0, 0, -1, 0, 0, 0}, 0},
        {"the tail comes last, one by one", {1, 0, 0, 0, kTie, kTie, kTie}, 1},
        {"fewer than four are added in order", {kTie, kTie, 1}, 1 + 0x1p-23f},
        {"fewer than four are added in order, the large one first", {1, kTie, kTie}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        const auto dim = static_cast<std::uint32_t>(c.item.size());
        const ModelPtr model(zx_model_mf_create(1, 1, dim, false));
        ASSERT_NE(model, nullptr);
        fill(model->user_embeddings, std::vector<float>(dim, 1.0f));
        fill(model->item_embeddings, c.item);
        const std::uint32_t id = 0;
        const TensorPtr scores(zx_model_score(model.get(), &id, &id, 1));
        ASSERT_NE(scores, nullptr);
        EXPECT_TRUE(same_numbers(scores->data, &c.expected, 1)) << scores->data[0];
    }
}

// (1 + 2^-12)^2 is 1 + 2^-11 + 2^-24, which rounds to 1 + 2^-11 on its own. A fused multiply-add
// would keep the last term, and the subtraction would show it.
TEST(ModelScore, RoundsEveryProduct) {
    const float factor = 1 + 0x1p-12f;
    const float rounded = 1 + 0x1p-11f;
    for (const std::uint32_t dim : {2u, 8u, 9u}) {
        SCOPED_TRACE(dim);
        const ModelPtr model(zx_model_mf_create(1, 1, dim, false));
        ASSERT_NE(model, nullptr);
        // Both products belong to the same partial sum: neighbours in a short row, four apart in
        // a long one.
        const std::size_t second = dim < 4 ? 1 : 4;
        std::vector<float> user(dim, 0.0f);
        std::vector<float> item(dim, 0.0f);
        user[0] = 1;
        item[0] = -rounded;
        user[second] = factor;
        item[second] = factor;
        fill(model->user_embeddings, user);
        fill(model->item_embeddings, item);
        const std::uint32_t id = 0;
        const TensorPtr scores(zx_model_score(model.get(), &id, &id, 1));
        ASSERT_NE(scores, nullptr);
        const float expected = 0.0f;
        EXPECT_TRUE(same_numbers(scores->data, &expected, 1)) << scores->data[0];
    }
}

// (1 + 2^-24) + (2^-24 + 0) is 1, every other grouping that joins the two small terms is not.
TEST(ModelScore, GroupsTheBiasesAsStated) {
    constexpr float kTiny = 0x1p-24f;
    const struct {
        const char* when;
        float user_bias, item_bias, dot, global_bias, expected;
    } cases[] = {
        {"the two biases meet first", kTiny, kTiny, 1, 0, 1 + 0x1p-23f},
        {"the dot product and the global bias meet first", 1, 0, kTiny, kTiny, 1 + 0x1p-23f},
        {"the user bias does not meet the dot product", kTiny, 1, kTiny, 0, 1},
        {"the item bias does not meet the global bias", 1, kTiny, 0, kTiny, 1},
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
        const std::uint32_t id = 0;
        const TensorPtr scores(zx_model_score(model.get(), &id, &id, 1));
        ASSERT_NE(scores, nullptr);
        EXPECT_TRUE(same_numbers(scores->data, &c.expected, 1)) << scores->data[0];
    }
}

TEST(ModelScore, CarriesNaNAndInfinityAsArithmeticDoes) {
    const struct {
        const char* when;
        float user, item, expected;
    } cases[] = {
        {"NaN times a number", kNaN, 1, kNaN},
        {"a number times NaN", 1, kNaN, kNaN},
        {"zero times NaN", 0, kNaN, kNaN},
        {"infinity times a number", kInfinity, -2, -kInfinity},
        {"infinity times zero", kInfinity, 0, kNaN},
        {"infinity times infinity", -kInfinity, -kInfinity, kInfinity},
        {"a product beyond the largest float", 3e38f, 10, kInfinity},
    };
    for (const auto& c : cases) {
        for (const std::uint32_t dim : {1u, 3u, 4u, 7u, 16u, 33u}) {
            for (const std::uint32_t place : {0u, dim / 2, dim - 1}) {
                SCOPED_TRACE(testing::Message() << c.when << ", " << place << " of " << dim);
                const ModelPtr model(zx_model_mf_create(1, 1, dim, false));
                ASSERT_NE(model, nullptr);
                std::vector<float> user(dim, 0.5f);
                std::vector<float> item(dim, 0.25f);
                user[place] = c.user;
                item[place] = c.item;
                fill(model->user_embeddings, user);
                fill(model->item_embeddings, item);
                const std::uint32_t id = 0;
                const TensorPtr scores(zx_model_score(model.get(), &id, &id, 1));
                ASSERT_NE(scores, nullptr);
                EXPECT_TRUE(same_numbers(scores->data, &c.expected, 1)) << scores->data[0];
            }
        }
    }
}

TEST(ModelScore, GivesNaNForInfinitiesThatCancel) {
    const ModelPtr model(zx_model_mf_create(1, 1, 8, false));
    ASSERT_NE(model, nullptr);
    fill(model->user_embeddings, std::vector<float>(8, 1.0f));
    fill(model->item_embeddings, {kInfinity, 0, 0, 0, 0, -kInfinity, 0, 0});
    const std::uint32_t id = 0;
    const TensorPtr scores(zx_model_score(model.get(), &id, &id, 1));
    ASSERT_NE(scores, nullptr);
    EXPECT_TRUE(std::isnan(scores->data[0])) << scores->data[0];
}

TEST(ModelScore, RefusesMissingArgumentsSilently) {
    RandomNumbers random(2);
    const ModelPtr model = random_model({2, 2, 2, false}, random);
    ASSERT_NE(model, nullptr);
    const std::uint32_t id = 0;
    model->type = kNotMf;
    plant_record();
    EXPECT_EQ(zx_model_score(nullptr, &id, &id, 1), nullptr);
    EXPECT_EQ(zx_model_score(model.get(), nullptr, &id, 1), nullptr);
    EXPECT_EQ(zx_model_score(model.get(), &id, nullptr, 1), nullptr);
    EXPECT_EQ(zx_model_score(model.get(), &id, &id, 0), nullptr);
    expect_untouched();
    model->type = ZX_MODEL_MF;
}

TEST(ModelScore, RefusesAnotherKindOfModelAtEverySize) {
    RandomNumbers random(3);
    const ModelPtr model = random_model({2, 2, 2, false}, random);
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    for (const std::uint32_t count : {1u, 511u, 512u, 5000u}) {
        SCOPED_TRACE(count);
        const Ids ids(count, 0);
        plant_record();
        EXPECT_EQ(zx_model_score(model.get(), ids.data(), ids.data(), count), nullptr);
        expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_model", "Unsupported model type");
    }
    model->type = ZX_MODEL_MF;
}

TEST(ModelScore, RefusesAnIdPastItsTable) {
    RandomNumbers random(4);
    const ModelPtr model = random_model({3, 5, 4, true}, random);
    ASSERT_NE(model, nullptr);
    const struct {
        const char* when;
        std::uint32_t user, item;
        const char* message;
    } cases[] = {
        {"the user is one past", 3, 4, "User ID out of bounds"},
        {"the item is one past", 2, 5, "Item ID out of bounds"},
        // Both tables are looked up whatever the first one says.
        {"both are past", 3, 5, "Item ID out of bounds"},
        {"the item is the largest id", 0, 0xffffffffu, "Item ID out of bounds"},
    };
    for (const auto& c : cases) {
        for (const std::uint32_t count : {1u, 100u, 512u}) {
            SCOPED_TRACE(testing::Message() << c.when << ", the last of " << count);
            Ids users(count, 2);
            Ids items(count, 4);
            users.back() = c.user;
            items.back() = c.item;
            plant_record();
            EXPECT_EQ(zx_model_score(model.get(), users.data(), items.data(), count), nullptr);
            expect_recorded(ZX_ERR_INDEX_OUT_OF_BOUNDS, "src/zx_model", c.message);
        }
    }
}

// The users' failure is at the first pair and the items' at the last: the items' is still the one
// that is left.
TEST(ModelScore, ReportsTheItemsWhenBothSidesFail) {
    RandomNumbers random(4);
    const ModelPtr model = random_model({3, 5, 4, true}, random);
    ASSERT_NE(model, nullptr);
    const Ids users = {3, 0, 0};
    const Ids items = {0, 0, 5};
    EXPECT_EQ(zx_model_score(model.get(), users.data(), items.data(), 3), nullptr);
    expect_recorded(ZX_ERR_INDEX_OUT_OF_BOUNDS, "src/zx_model", "Item ID out of bounds");
}

TEST(ModelScore, ReportsShortMemory) {
    RandomNumbers random(5);
    const ModelPtr model = random_model({3, 5, 4, true}, random);
    ASSERT_NE(model, nullptr);
    const Ids ids = {0, 1, 2};
    std::uint64_t failing = 1;
    for (;; ++failing) {
        SCOPED_TRACE(failing);
        plant_record();
        const FailingAllocator allocator(failing);
        const TensorPtr scores(zx_model_score(model.get(), ids.data(), ids.data(), 3));
        if (!allocator.failed()) {
            EXPECT_NE(scores, nullptr);
            expect_untouched();
            break;
        }
        EXPECT_EQ(scores, nullptr);
        expect_recorded(
            ZX_ERR_OUT_OF_MEMORY, "src/zx_memory",
            failing % 2 == 1 ? "Failed to allocate tensor" : "Failed to allocate tensor data");
    }
    EXPECT_GE(failing, 3u) << "the result at least has a record and its data";
}

TEST(ModelScore, ScoresThroughASharedTable) {
    RandomNumbers random(6);
    const ModelPtr model = random_model({6, 6, 5, false}, random);
    ASSERT_NE(model, nullptr);
    zx_tensor_release(
        std::exchange(model->item_embeddings, zx_tensor_retain(model->user_embeddings)));
    const Ids users = {0, 1, 2, 3};
    const Ids items = {0, 5, 2, 1};
    const TensorPtr scores(zx_model_score(model.get(), users.data(), items.data(), 4));
    ASSERT_NE(scores, nullptr);
    for (std::size_t j = 0; j < 4; ++j) {
        const float expected =
            reference_dot(user_row(*model, users[j]), user_row(*model, items[j]), 5);
        EXPECT_TRUE(same_numbers(&scores->data[j], &expected, 1)) << j;
    }
}

TEST(ModelScore, LeavesTheModelAlone) {
    RandomNumbers random(7);
    const ModelPtr model = random_model({6, 6, 5, true}, random);
    ASSERT_NE(model, nullptr);
    const ModelContents before = contents(model.get());
    const Ids ids = {0, 1, 2, 3};
    const TensorPtr scores(zx_model_score(model.get(), ids.data(), ids.data(), 4));
    ASSERT_NE(scores, nullptr);
    const ModelContents after = contents(model.get());
    EXPECT_TRUE(same_numbers(after.users, before.users));
    EXPECT_TRUE(same_numbers(after.items, before.items));
    EXPECT_TRUE(same_numbers(after.user_biases, before.user_biases));
    EXPECT_TRUE(same_numbers(after.item_biases, before.item_biases));
    EXPECT_EQ(model->score_buf, nullptr);
    EXPECT_EQ(model->gather_buf, nullptr);
}

TEST(ModelScore, RefusesRowsWithoutElementsAsTheLookupsDo) {
    const ModelPtr model(zx_model_mf_create(2, 2, 1, false));
    ASSERT_NE(model, nullptr);
    model->embedding_dim = 0;
    const Ids ids = {0, 1};
    plant_record();
    EXPECT_EQ(zx_model_score(model.get(), ids.data(), ids.data(), 2), nullptr);
    expect_recorded(ZX_ERR_OVERFLOW, "src/zx_memory", "Tensor size overflow");
}

}  // namespace
}  // namespace zx::test
