// Top-K recommendation: what it refuses, and the scratch arrays of the record.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"
#include "top_k.hpp"

#include <cstdint>
#include <thread>
#include <vector>

namespace zx::test {
namespace {

TEST(Recommend, RefusesInTheStatedOrder) {
    RandomNumbers random(47);
    const ModelPtr model = random_model({2, 4, 3, true}, random);
    ASSERT_NE(model, nullptr);
    Outputs out(4);
    std::uint32_t* const items = out.items.data();
    float* const scores = out.scores.data();

    plant_record();
    EXPECT_EQ(zx_recommend(nullptr, 0, 4, items, scores), ZX_ERR_NULL_POINTER);
    model->type = kNotMf;
    EXPECT_EQ(zx_recommend(model.get(), 0, 4, nullptr, scores), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_recommend(model.get(), 0, 4, items, nullptr), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_recommend(model.get(), 0, 0, items, scores), ZX_ERR_NULL_POINTER);
    expect_untouched();
    EXPECT_EQ(zx_recommend(model.get(), 2, 4, items, scores), ZX_ERR_MODEL_TYPE_MISMATCH);
    expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_model",
                    "zx_recommend only supports MF models");
    model->type = ZX_MODEL_MF;
    plant_record();
    {
        const FailingAllocator allocator(1, true);
        EXPECT_EQ(zx_recommend(model.get(), 2, 4, items, scores), ZX_ERR_INDEX_OUT_OF_BOUNDS);
        EXPECT_EQ(zx_recommend(model.get(), 0xffffffffu, 4, items, scores),
                  ZX_ERR_INDEX_OUT_OF_BOUNDS);
        EXPECT_EQ(allocator.requests(), 0u);
    }
    expect_untouched();
    EXPECT_TRUE(out.untouched_from(0));
    EXPECT_EQ(model->score_buf, nullptr);
    EXPECT_EQ(zx_recommend(model.get(), 1, 4, items, scores), ZX_OK);
}

TEST(Recommend, GrowsScratchToTheSizeNeededAndOnce) {
    RandomNumbers random(48);
    const ModelPtr model = random_model({1, 20, 3, false}, random);
    ASSERT_NE(model, nullptr);
    Outputs out(30);
    const struct {
        const char* when;
        std::uint32_t k;
        std::uint64_t allocations, heap_cap;
    } calls[] = {
        {"the first call grows both", 10, 2, 10},
        {"fewer reuse both", 5, 0, 10},
        {"the same reuse both", 10, 0, 10},
        {"one more grows the heap", 11, 1, 11},
        {"the heap grows no further than the items", 30, 1, 20},
        {"more than all items reuse both", 25, 0, 20},
    };
    for (const auto& call : calls) {
        SCOPED_TRACE(call.when);
        const std::uint64_t before = allocation_requests();
        ASSERT_EQ(zx_recommend(model.get(), 0, call.k, out.items.data(), out.scores.data()), ZX_OK);
        EXPECT_EQ(allocation_requests() - before, call.allocations);
        EXPECT_EQ(model->score_buf_cap, 20u);
        EXPECT_EQ(model->heap_buf_cap, call.heap_cap);
        EXPECT_NE(model->score_buf, nullptr);
        EXPECT_NE(model->heap_buf, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(model->score_buf) % 128, 0u);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(model->heap_buf) % 128, 0u);
    }
    EXPECT_EQ(model->gather_buf, nullptr);
}

TEST(Recommend, KeepsOldScratchWhenItCannotGrow) {
    RandomNumbers random(49);
    const ModelPtr model = random_model({1, 12, 3, false}, random);
    ASSERT_NE(model, nullptr);
    Outputs out(12);
    // A record that says it has fewer items than its table leaves something to grow.
    model->num_items = 4;
    ASSERT_EQ(zx_recommend(model.get(), 0, 2, out.items.data(), out.scores.data()), ZX_OK);
    model->num_items = 12;
    out = Outputs(12);

    const float* const old_scores = model->score_buf;
    const zx_scored_item_t* const old_heap = model->heap_buf;
    plant_record();
    {
        const FailingAllocator allocator(1);
        EXPECT_EQ(zx_recommend(model.get(), 0, 9, out.items.data(), out.scores.data()),
                  ZX_ERR_OUT_OF_MEMORY);
        EXPECT_TRUE(allocator.failed());
    }
    EXPECT_EQ(model->score_buf, old_scores);
    EXPECT_EQ(model->score_buf_cap, 4u);
    EXPECT_EQ(model->heap_buf, old_heap);
    EXPECT_EQ(model->heap_buf_cap, 2u);
    {
        const FailingAllocator allocator(2);
        EXPECT_EQ(zx_recommend(model.get(), 0, 9, out.items.data(), out.scores.data()),
                  ZX_ERR_OUT_OF_MEMORY);
        EXPECT_TRUE(allocator.failed());
    }
    EXPECT_EQ(model->score_buf_cap, 12u);
    EXPECT_EQ(model->heap_buf, old_heap);
    EXPECT_EQ(model->heap_buf_cap, 2u);
    expect_untouched();
    EXPECT_TRUE(out.untouched_from(0));
    // The kept array still serves.
    ASSERT_EQ(zx_recommend(model.get(), 0, 2, out.items.data(), out.scores.data()), ZX_OK);
    EXPECT_EQ(model->heap_buf, old_heap);
}

TEST(Recommend, RefusesAMissingArrayOfSufficientCapacity) {
    RandomNumbers random(50);
    const ModelPtr model = random_model({1, 6, 3, false}, random);
    ASSERT_NE(model, nullptr);
    Outputs out(6);
    plant_record();
    model->score_buf_cap = 6;
    EXPECT_EQ(zx_recommend(model.get(), 0, 3, out.items.data(), out.scores.data()),
              ZX_ERR_OUT_OF_MEMORY);
    EXPECT_EQ(model->score_buf, nullptr);
    model->score_buf_cap = 5;
    model->heap_buf_cap = 3;
    EXPECT_EQ(zx_recommend(model.get(), 0, 3, out.items.data(), out.scores.data()),
              ZX_ERR_OUT_OF_MEMORY);
    EXPECT_EQ(model->heap_buf, nullptr);
    expect_untouched();
    EXPECT_TRUE(out.untouched_from(0));
    EXPECT_EQ(zx_recommend(model.get(), 0, 4, out.items.data(), out.scores.data()), ZX_OK);
}

// A record without items needs no capacity, and what it has decides.
TEST(Recommend, WritesNothingForARecordWithoutItems) {
    RandomNumbers random(51);
    const ModelPtr model = random_model({1, 6, 3, true}, random);
    ASSERT_NE(model, nullptr);
    Outputs out(6);
    model->num_items = 0;
    plant_record();
    EXPECT_EQ(zx_recommend(model.get(), 0, 3, out.items.data(), out.scores.data()),
              ZX_ERR_OUT_OF_MEMORY);
    model->num_items = 6;
    Outputs warm_up(6);
    ASSERT_EQ(zx_recommend(model.get(), 0, 3, warm_up.items.data(), warm_up.scores.data()), ZX_OK);
    model->num_items = 0;
    EXPECT_EQ(zx_recommend(model.get(), 0, 3, out.items.data(), out.scores.data()), ZX_OK);
    expect_untouched();
    EXPECT_TRUE(out.untouched_from(0));
    model->num_items = 6;
}

// A record of its own over the tensors of another.
ModelPtr light_record(const zx_model_t& model) {
    ModelPtr light(zx_model_mf_create(1, 1, 1, false));
    if (!light) return light;
    zx_tensor_release(light->user_embeddings);
    zx_tensor_release(light->item_embeddings);
    light->user_embeddings = zx_tensor_retain(model.user_embeddings);
    light->item_embeddings = zx_tensor_retain(model.item_embeddings);
    light->user_biases = zx_tensor_retain(model.user_biases);
    light->item_biases = zx_tensor_retain(model.item_biases);
    light->use_bias = model.use_bias;
    light->global_bias = model.global_bias;
    light->num_users = model.num_users;
    light->num_items = model.num_items;
    light->embedding_dim = model.embedding_dim;
    return light;
}

TEST(Recommend, ServesAThreadForEachRecordOverSharedTensors) {
    RandomNumbers random(52);
    const ModelPtr model = random_model({8, 200, 16, true}, random);
    ASSERT_NE(model, nullptr);
    std::vector<Outputs> expected;
    std::vector<Outputs> actual(8, Outputs(10));
    std::vector<ModelPtr> records;
    for (std::uint32_t user = 0; user < 8; ++user) {
        Outputs& out = expected.emplace_back(10);
        ASSERT_EQ(zx_recommend(model.get(), user, 10, out.items.data(), out.scores.data()), ZX_OK);
        records.push_back(light_record(*model));
        ASSERT_NE(records.back(), nullptr);
    }
    std::vector<std::thread> threads(8);
    for (std::uint32_t user = 0; user < 8; ++user) {
        threads[user] = std::thread([&records, &actual, user] {
            Outputs& out = actual[user];
            for (int round = 0; round < 20; ++round)
                zx_recommend(records[user].get(), user, 10, out.items.data(), out.scores.data());
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (std::uint32_t user = 0; user < 8; ++user) {
        SCOPED_TRACE(user);
        EXPECT_EQ(actual[user].items, expected[user].items);
        EXPECT_TRUE(same_numbers(actual[user].scores, expected[user].scores));
        EXPECT_NE(records[user]->score_buf, model->score_buf);
    }
}

}  // namespace
}  // namespace zx::test
