// The model record: creation, reference counting, the mode flag, the parameter count.

#include "error_record.hpp"
#include "failing_allocator.hpp"
#include "float_bits.hpp"
#include "generator_state.hpp"
#include "model_records.hpp"

#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

namespace zx::test {
namespace {

constexpr std::uint32_t kTwoTo31 = 0x80000000u;

TEST(ModelCreate, SetsEveryField) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, true));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->type, 0u);
    EXPECT_STREQ(model->name, "MatrixFactorization");
    EXPECT_EQ(model->refcount, 1);
    EXPECT_EQ(model->embedding_dim, 4u);
    EXPECT_EQ(model->num_users, 3u);
    EXPECT_EQ(model->num_items, 5u);
    EXPECT_TRUE(same_number(model->global_bias, 0.0f));
    EXPECT_EQ(model->use_bias, 1);
    EXPECT_EQ(model->score_buf, nullptr);
    EXPECT_EQ(model->score_buf_cap, 0u);
    EXPECT_EQ(model->heap_buf, nullptr);
    EXPECT_EQ(model->heap_buf_cap, 0u);
    EXPECT_EQ(model->gather_buf, nullptr);
    EXPECT_EQ(model->gather_buf_cap, 0u);
    EXPECT_EQ(model->training, 1);
    EXPECT_EQ(model->aux_tensor, nullptr);

    const struct {
        const char* name;
        const zx_tensor_t* tensor;
        std::uint8_t ndim;
        std::uint32_t rows, cols;
    } tensors[] = {
        {"user embeddings", model->user_embeddings, 2, 3, 4},
        {"item embeddings", model->item_embeddings, 2, 5, 4},
        {"user biases", model->user_biases, 1, 3, 1},
        {"item biases", model->item_biases, 1, 5, 1},
    };
    for (const auto& expected : tensors) {
        SCOPED_TRACE(expected.name);
        ASSERT_NE(expected.tensor, nullptr);
        EXPECT_EQ(expected.tensor->ndim, expected.ndim);
        EXPECT_EQ(expected.tensor->dims[0], expected.rows);
        EXPECT_EQ(expected.tensor->dims[1], expected.cols);
        EXPECT_EQ(expected.tensor->size, std::uint64_t{expected.rows} * expected.cols);
        EXPECT_EQ(expected.tensor->refcount, 1u);
        EXPECT_EQ(expected.tensor->owns_data, 1);
        EXPECT_EQ(expected.tensor->on_device, 0);
    }
    EXPECT_TRUE(same_numbers(contents(model->user_biases), std::vector<float>(3, 0.0f)));
    EXPECT_TRUE(same_numbers(contents(model->item_biases), std::vector<float>(5, 0.0f)));
}

TEST(ModelCreate, LeavesBiasesOutWhenNotWanted) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, false));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->use_bias, 0);
    EXPECT_EQ(model->user_biases, nullptr);
    EXPECT_EQ(model->item_biases, nullptr);
    EXPECT_TRUE(same_number(model->global_bias, 0.0f));
}

TEST(ModelCreate, TakesItsMemoryOn128ByteBoundaries) {
    const ModelPtr model(zx_model_mf_create(1, 1, 1, false));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(model.get()) % 128, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(model->user_embeddings->data) % 128, 0u);
}

// The bound depends on the dimension alone, not on the numbers of rows: sqrt(6 / (3 + 3)) is 1.
TEST(ModelCreate, DrawsEmbeddingsUsersFirst) {
    for (const bool biased : {false, true}) {
        SCOPED_TRACE(biased);
        zx_rng_seed(2024);
        ReferenceRng reference(generator_state());
        const ModelPtr model(zx_model_mf_create(4, 2, 3, biased));
        ASSERT_NE(model, nullptr);

        std::vector<float> expected(static_cast<std::size_t>(4 + 2) * 3);
        for (float& value : expected) value = 2.0f * reference.uniform() - 1.0f;
        EXPECT_TRUE(same_numbers(model->user_embeddings->data, expected.data(), 12));
        EXPECT_TRUE(same_numbers(model->item_embeddings->data, expected.data() + 12, 6));
        EXPECT_EQ(generator_state(), reference.state());
    }
}

TEST(ModelCreate, ScalesEmbeddingsByTheDimension) {
    zx_rng_seed(7);
    ReferenceRng reference(generator_state());
    const ModelPtr model(zx_model_mf_create(100, 1, 48, false));
    ASSERT_NE(model, nullptr);
    const float bound = 0.25f;  // sqrt(6 / (48 + 48))
    for (std::size_t i = 0; i < 4800; ++i) {
        const float expected = (bound - -bound) * reference.uniform() + -bound;
        ASSERT_TRUE(same_number(model->user_embeddings->data[i], expected)) << i;
    }
}

TEST(ModelCreate, RecordsWhatTheTensorsRefuse) {
    const struct {
        const char* when;
        std::uint32_t users, items, dim;
        zx_status_t code;
        const char* message;
    } cases[] = {
        {"no users", 0, 10, 8, ZX_ERR_OVERFLOW, "Tensor size overflow"},
        {"no items", 10, 0, 8, ZX_ERR_OVERFLOW, "Tensor size overflow"},
        {"no dimension", 10, 10, 0, ZX_ERR_OVERFLOW, "Tensor size overflow"},
        {"more than 2^63 - 1 elements", 0xffffffffu, 0xffffffffu, 0xffffffffu, ZX_ERR_OVERFLOW,
         "Tensor size overflow"},
        {"tables that no memory can hold", kTwoTo31, kTwoTo31, kTwoTo31, ZX_ERR_OUT_OF_MEMORY,
         "Failed to allocate tensor data"},
        // Both tables are made before either is looked at, so the items' failure is recorded last.
        {"no users, and items that no memory can hold", 0, kTwoTo31, kTwoTo31, ZX_ERR_OUT_OF_MEMORY,
         "Failed to allocate tensor data"},
        {"users that no memory can hold, and no items", kTwoTo31, 0, kTwoTo31, ZX_ERR_OVERFLOW,
         "Tensor size overflow"},
    };
    for (const auto& c : cases) {
        for (const bool biased : {false, true}) {
            SCOPED_TRACE(c.when);
            zx_rng_seed(1);
            const ReferenceRng::State before = generator_state();
            plant_record();
            EXPECT_EQ(zx_model_mf_create(c.users, c.items, c.dim, biased), nullptr);
            expect_recorded(c.code, "src/zx_memory", c.message);
            EXPECT_EQ(generator_state(), before) << "embeddings are drawn only into a whole model";
        }
    }
}

// One allocation for the record, then a record and its data for each of the four tensors.
TEST(ModelCreate, ReleasesAHalfBuiltModelWhenMemoryIsShort) {
    const struct {
        std::uint64_t failing;
        const char* message;
        bool drawn;
    } cases[] = {
        {1, nullptr, false},
        {2, "Failed to allocate tensor", false},
        {3, "Failed to allocate tensor data", false},
        {4, "Failed to allocate tensor", false},
        {5, "Failed to allocate tensor data", false},
        {6, "Failed to allocate tensor", true},
        {7, "Failed to allocate tensor data", true},
        {8, "Failed to allocate tensor", true},
        {9, "Failed to allocate tensor data", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failing);
        zx_rng_seed(3);
        ReferenceRng reference(generator_state());
        for (int draw = 0; c.drawn && draw < (3 + 5) * 4; ++draw) reference.next();
        plant_record();
        const FailingAllocator allocator(c.failing);
        EXPECT_EQ(zx_model_mf_create(3, 5, 4, true), nullptr);
        EXPECT_TRUE(allocator.failed());
        if (c.message) {
            expect_recorded(ZX_ERR_OUT_OF_MEMORY, "src/zx_memory", c.message);
        } else {
            expect_untouched();
        }
        EXPECT_EQ(generator_state(), reference.state());
    }
    const FailingAllocator allocator(10);
    const ModelPtr model(zx_model_mf_create(3, 5, 4, true));
    EXPECT_NE(model, nullptr);
    EXPECT_EQ(allocator.requests(), 9u);
}

TEST(ModelRelease, KeepsAModelThatIsStillReferenced) {
    zx_model_t* const model = zx_model_mf_create(2, 2, 2, false);
    ASSERT_NE(model, nullptr);
    const TensorPtr users(zx_tensor_retain(model->user_embeddings));
    EXPECT_EQ(zx_model_retain(model), model);
    EXPECT_EQ(model->refcount, 2);
    zx_model_release(model);
    EXPECT_EQ(model->refcount, 1);
    EXPECT_EQ(users->refcount, 2u);
    zx_model_release(model);
    EXPECT_EQ(users->refcount, 1u);
}

TEST(ModelRelease, IgnoresNull) {
    plant_record();
    zx_model_release(nullptr);
    zx_model_train(nullptr);
    zx_model_eval(nullptr);
    EXPECT_EQ(zx_model_retain(nullptr), nullptr);
    expect_untouched();
}

TEST(ModelRelease, ReleasesAllTensorsAndScratch) {
    zx_model_t* const model = zx_model_mf_create(2, 3, 2, true);
    ASSERT_NE(model, nullptr);
    model->aux_tensor = zx_tensor_create_1d(7);
    ASSERT_NE(model->aux_tensor, nullptr);
    const TensorPtr held[] = {
        TensorPtr(zx_tensor_retain(model->user_embeddings)),
        TensorPtr(zx_tensor_retain(model->item_embeddings)),
        TensorPtr(zx_tensor_retain(model->user_biases)),
        TensorPtr(zx_tensor_retain(model->item_biases)),
        TensorPtr(zx_tensor_retain(model->aux_tensor)),
    };
    std::uint32_t items[3];
    float scores[3];
    ASSERT_EQ(zx_recommend(model, 0, 3, items, scores), ZX_OK);
    ASSERT_EQ(zx_model_score_items(model, 0, items, 3, scores), ZX_OK);
    ASSERT_NE(model->score_buf, nullptr);
    ASSERT_NE(model->heap_buf, nullptr);
    ASSERT_NE(model->gather_buf, nullptr);

    zx_model_release(model);
    for (const TensorPtr& tensor : held) EXPECT_EQ(tensor->refcount, 1u);
}

// The fields of another kind of model are not known; the attached tensor belongs to every kind.
TEST(ModelRelease, ReleasesOnlyTheAttachedTensorOfAnotherKindOfModel) {
    zx_model_t* const model = zx_model_mf_create(2, 3, 2, true);
    ASSERT_NE(model, nullptr);
    model->aux_tensor = zx_tensor_create_1d(7);
    ASSERT_NE(model->aux_tensor, nullptr);
    const TensorPtr owned[] = {
        TensorPtr(model->user_embeddings),
        TensorPtr(model->item_embeddings),
        TensorPtr(model->user_biases),
        TensorPtr(model->item_biases),
    };
    const TensorPtr attached(zx_tensor_retain(model->aux_tensor));
    model->type = kNotMf;
    zx_model_release(model);
    for (const TensorPtr& tensor : owned) EXPECT_EQ(tensor->refcount, 1u);
    EXPECT_EQ(attached->refcount, 1u);
}

TEST(ModelRetain, CountsReferencesOfManyThreads) {
    const ModelPtr model(zx_model_mf_create(1, 1, 1, false));
    ASSERT_NE(model, nullptr);
    std::vector<std::thread> threads(4);
    for (std::thread& thread : threads) {
        thread = std::thread([&model] {
            for (int i = 0; i < 2000; ++i) zx_model_retain(model.get());
            for (int i = 0; i < 1999; ++i) zx_model_release(model.get());
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(model->refcount, 5);
    for (int i = 0; i < 4; ++i) zx_model_release(model.get());
}

TEST(ModelMode, FlipsTheFlagAndNothingElse) {
    const ModelPtr model(zx_model_mf_create(2, 2, 2, true));
    ASSERT_NE(model, nullptr);
    zx_model_eval(model.get());
    EXPECT_EQ(model->training, 0);
    zx_model_eval(model.get());
    EXPECT_EQ(model->training, 0);
    zx_model_train(model.get());
    EXPECT_EQ(model->training, 1);
    EXPECT_EQ(model->refcount, 1);
}

TEST(ModelNumParameters, CountsTensorsWithoutTheGlobalBias) {
    const ModelPtr plain(zx_model_mf_create(3, 5, 4, false));
    const ModelPtr biased(zx_model_mf_create(3, 5, 4, true));
    ASSERT_TRUE(plain && biased);
    EXPECT_EQ(zx_model_num_parameters(plain.get()), 32u);
    EXPECT_EQ(zx_model_num_parameters(biased.get()), 40u);
}

TEST(ModelNumParameters, IsZeroWithoutAnMfModel) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, true));
    ASSERT_NE(model, nullptr);
    plant_record();
    EXPECT_EQ(zx_model_num_parameters(nullptr), 0u);
    model->type = kNotMf;
    EXPECT_EQ(zx_model_num_parameters(model.get()), 0u);
    expect_untouched();
    model->type = ZX_MODEL_MF;
}

TEST(ModelNumParameters, CountsAMissingTensorAsNone) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, true));
    ASSERT_NE(model, nullptr);
    const TensorPtr items(std::exchange(model->item_embeddings, nullptr));
    EXPECT_EQ(zx_model_num_parameters(model.get()), 20u);
}

TEST(ModelNumParameters, AddsIn64Bits) {
    const ModelPtr model(zx_model_mf_create(1, 1, 1, false));
    ASSERT_NE(model, nullptr);
    model->user_embeddings->size = 0xffffffffu;
    model->item_embeddings->size = 0xffffffffu;
    EXPECT_EQ(zx_model_num_parameters(model.get()), 0x1fffffffeu);
    model->user_embeddings->size = 1;
    model->item_embeddings->size = 1;
}

TEST(ModelToDevice, AnswersWithoutAnEngine) {
    const ModelPtr model(zx_model_mf_create(1, 1, 1, false));
    ASSERT_NE(model, nullptr);
    plant_record();
    EXPECT_EQ(zx_model_to_device(nullptr), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_model_to_device(model.get()), ZX_ERR_ENGINE_NOT_INITIALIZED);
    model->type = kNotMf;
    EXPECT_EQ(zx_model_to_device(model.get()), ZX_OK);
    expect_untouched();
    model->type = ZX_MODEL_MF;
    EXPECT_EQ(model->user_embeddings->on_device, 0);
    EXPECT_EQ(model->item_embeddings->on_device, 0);
}

}  // namespace
}  // namespace zx::test
