// The BPR training step beside a running engine, on both sides of the size from which a device may
// take a batch: the host's result, where there is no device and where it lacks the kernel. Each
// test is a process of its own.

#include "bpr_reference.hpp"
#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "model_records.hpp"

#include <string_view>

namespace zx::test {
namespace {

class BprAndEngine : public EngineTest {
  protected:
    // Trains two models that are the same, one in a single batch and one triple by triple, which
    // no device takes.
    static void expect_host_result(bool biased, std::uint32_t count) {
        RandomNumbers random(count);
        const ModelPtr batched = random_model({40, 60, 24, biased}, random);
        RandomNumbers again(count);
        const ModelPtr single = random_model({40, 60, 24, biased}, again);
        ASSERT_TRUE(batched && single);
        const Triples triples = random_triples(count, 40, 60, random);
        ASSERT_EQ(train(batched.get(), triples, 0.05f, 0.01f), ZX_OK);
        for (std::uint32_t i = 0; i < count; ++i) {
            const Triples one = {
                {triples.users[i]}, {triples.positives[i]}, {triples.negatives[i]}};
            ASSERT_EQ(train(single.get(), one, 0.05f, 0.01f), ZX_OK);
        }
        EXPECT_TRUE(same_tables(*batched, bpr_tables(*single)));
        // A batch that a device was offered leaves the tables marked, whatever came of it.
        const bool offered = zx_gpu_is_ready() && count >= 512;
        EXPECT_EQ(batched->user_embeddings->on_device, offered ? 1 : 0);
        EXPECT_EQ(batched->item_embeddings->on_device, offered ? 1 : 0);
    }
};

TEST_F(BprAndEngine, TrainsOnTheHostWithoutKernels) {
    start();
    for (const bool biased : {false, true}) {
        for (const std::uint32_t count : {1u, 511u, 512u, 513u, 2000u}) {
            SCOPED_TRACE(count);
            expect_host_result(biased, count);
        }
    }
}

TEST_F(BprAndEngine, TrainsOnTheHostWhatADeviceCannot) {
    write_file("zorvex_kernels.cl", "__kernel void nothing(__global float* x) { x[0] = 0; }\n");
    start();
    // Where there is a device, it is ready, and has no kernel that would serve.
    EXPECT_EQ(zx_gpu_is_ready(), std::string_view(zx_engine_platform_name()) != "CPU");
    for (const std::uint32_t count : {511u, 512u}) {
        SCOPED_TRACE(count);
        expect_host_result(true, count);
    }
}

TEST_F(BprAndEngine, RefusesAnotherKindOfModelWithARunningEngine) {
    start();
    RandomNumbers random(1);
    const ModelPtr model = random_model({2, 2, 2, false}, random);
    ASSERT_NE(model, nullptr);
    model->type = kNotMf;
    EXPECT_EQ(train(model.get(), random_triples(512, 2, 2, random), 0.5f, 0.5f),
              ZX_ERR_MODEL_TYPE_MISMATCH);
    expect_recorded(ZX_ERR_MODEL_TYPE_MISMATCH, "src/zx_train",
                    "BPR training only supported for MF");
    model->type = ZX_MODEL_MF;
}

}  // namespace
}  // namespace zx::test
