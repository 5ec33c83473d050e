// Models beside a running engine: the move to the device, and scoring of batches on both sides of
// the size from which a device may take them. Each test is a process of its own.

#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "float_bits.hpp"
#include "model_records.hpp"
#include "reference_dot.hpp"

#include <string_view>
#include <vector>

namespace zx::test {
namespace {

class ModelAndEngine : public EngineTest {
  protected:
    // Whether the running engine has one.
    static bool has_device() { return std::string_view(zx_engine_platform_name()) != "CPU"; }

    // Starts the engine with a kernel file that has none of the library's kernels: a device, where
    // there is one, that is ready and cannot do anything.
    static void start_without_a_useful_kernel() {
        write_file("zorvex_kernels.cl", "__kernel void nothing(__global float* x) { x[0] = 0; }\n");
        start();
        EXPECT_EQ(zx_gpu_is_ready(), has_device());
    }
};

void expect_host_scores(const zx_model_t& model, const Ids& users, const Ids& items) {
    const TensorPtr scores(zx_model_score(&model, users.data(), items.data(),
                                          static_cast<std::uint32_t>(users.size())));
    ASSERT_NE(scores, nullptr);
    EXPECT_EQ(scores->on_device, 0);
    std::vector<float> expected;
    for (std::size_t j = 0; j < users.size(); ++j) {
        float score = reference_dot(user_row(model, users[j]), item_row(model, items[j]),
                                    model.embedding_dim);
        if (model.use_bias) {
            score = (model.user_biases->data[users[j]] + model.item_biases->data[items[j]]) +
                    (score + model.global_bias);
        }
        expected.push_back(score);
    }
    EXPECT_TRUE(same_numbers(contents(scores.get()), expected));
}

TEST_F(ModelAndEngine, ScoresBatchesOnTheHostWithoutKernels) {
    start();
    RandomNumbers random(1);
    for (const bool biased : {false, true}) {
        const ModelPtr model = random_model({30, 50, 24, biased}, random);
        ASSERT_NE(model, nullptr);
        for (const std::uint32_t count : {1u, 511u, 512u, 513u, 2000u}) {
            SCOPED_TRACE(count);
            expect_host_scores(*model, random.ids(count, 30), random.ids(count, 50));
        }
    }
}

TEST_F(ModelAndEngine, ScoresOnTheHostWhatADeviceCannot) {
    start_without_a_useful_kernel();
    RandomNumbers random(2);
    for (const bool biased : {false, true}) {
        const ModelPtr model = random_model({30, 50, 24, biased}, random);
        ASSERT_NE(model, nullptr);
        for (const std::uint32_t count : {511u, 512u, 2000u}) {
            SCOPED_TRACE(count);
            expect_host_scores(*model, random.ids(count, 30), random.ids(count, 50));
        }
    }
}

TEST_F(ModelAndEngine, RefusesAnotherKindOfModelOnAReadyDevice) {
    start_without_a_useful_kernel();
    RandomNumbers random(3);
    const ModelPtr model = random_model({2, 2, 2, false}, random);
    ASSERT_NE(model, nullptr);
    const Ids ids(512, 0);
    model->type = kNotMf;
    plant_record();
    EXPECT_EQ(zx_model_score(model.get(), ids.data(), ids.data(), 512), nullptr);
    expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_model", "Unsupported model type");
    model->type = ZX_MODEL_MF;
}

TEST_F(ModelAndEngine, MovesEmbeddingsButNotBiasesToTheDevice) {
    start();
    RandomNumbers random(4);
    const ModelPtr model = random_model({3, 5, 4, true}, random);
    ASSERT_NE(model, nullptr);
    plant_record();
    if (!has_device()) {
        // The engine runs, but has nowhere to make a buffer; the items are not even tried.
        EXPECT_EQ(zx_model_to_device(model.get()), ZX_ERR_BUFFER_CREATE);
        EXPECT_EQ(model->user_embeddings->on_device, 0);
    } else {
        EXPECT_EQ(zx_model_to_device(model.get()), ZX_OK);
        EXPECT_EQ(model->user_embeddings->on_device, 1);
        EXPECT_EQ(model->item_embeddings->on_device, 1);
        EXPECT_NE(model->user_embeddings->device_buffer, nullptr);
        EXPECT_NE(model->item_embeddings->device_buffer, nullptr);
    }
    EXPECT_EQ(model->user_biases->device_buffer, nullptr);
    EXPECT_EQ(model->item_biases->device_buffer, nullptr);
    expect_untouched();
}

TEST_F(ModelAndEngine, LeavesAnotherKindOfModelOffTheDevice) {
    start();
    RandomNumbers random(5);
    const ModelPtr model = random_model({3, 5, 4, false}, random);
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    EXPECT_EQ(zx_model_to_device(model.get()), ZX_OK);
    model->type = ZX_MODEL_MF;
    EXPECT_EQ(model->user_embeddings->device_buffer, nullptr);
}

}  // namespace
}  // namespace zx::test
