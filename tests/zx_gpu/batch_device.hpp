// The frame of the tests that run the delivered kernel file, and what they compare with.
#pragma once

#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "model_records.hpp"
#include "zx_train/bpr_reference.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

namespace zx::test {

// An engine with the delivered kernels, a planted record and a shim that has seen nothing.
class BatchDeviceTest : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        start();
        // The delivered file does not lie in the test's own folder.
        system_shim().root.clear();
        ASSERT_EQ(zx_gpu_init_from_file(ZORVEX_KERNEL_FILE), ZX_OK);
        ASSERT_TRUE(zx_gpu_is_ready());
        forget();
    }

    static void forget() {
        plant_record();
        opencl() = {};
    }
};

// Device and host sum in different orders and round products differently. The tolerance is relative
// for numbers beyond 1.
inline testing::AssertionResult near_numbers(const std::vector<float>& actual,
                                             const std::vector<float>& expected,
                                             float tolerance = 1e-5f) {
    if (actual.size() != expected.size())
        return testing::AssertionFailure()
               << actual.size() << " numbers, expected " << expected.size();
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const float allowed = tolerance * std::max(1.0f, std::fabs(expected[i]));
        // Written so that a NaN is a difference.
        if (!(std::fabs(actual[i] - expected[i]) <= allowed))
            return testing::AssertionFailure()
                   << "number " << i << " is " << actual[i] << ", expected " << expected[i];
    }
    return testing::AssertionSuccess();
}

// Triples of which no two share a row, over count users and 2 * count items in a scattered order.
// The count is no multiple of 5 or 7.
inline Triples disjoint_triples(std::uint32_t count) {
    Triples triples;
    for (std::uint32_t i = 0; i < count; ++i)
        triples.add((5 * i + 1) % count, (7 * (2 * i) + 2) % (2 * count),
                    (7 * (2 * i + 1) + 2) % (2 * count));
    return triples;
}

inline ModelPtr disjoint_model(std::uint32_t count, std::uint32_t dim, bool biased) {
    RandomNumbers random(dim);
    return random_model({count, 2 * count, dim, biased}, random);
}

inline zx_status_t update_batch(zx_model_t* model, const Triples& triples, float learning_rate,
                                float regularization) {
    return zx_gpu_bpr_batch_update(
        model->user_embeddings, model->item_embeddings, model->item_biases, triples.users.data(),
        triples.positives.data(), triples.negatives.data(), triples.count(), model->use_bias != 0,
        learning_rate, regularization);
}

// In batches that no device takes.
inline void train_on_host(zx_model_t* model, const Triples& triples, float learning_rate,
                          float regularization) {
    for (std::uint32_t first = 0; first < triples.count(); first += 511)
        ASSERT_EQ(zx_model_train_step_bpr(
                      model, triples.users.data() + first, triples.positives.data() + first,
                      triples.negatives.data() + first, std::min(511u, triples.count() - first),
                      learning_rate, regularization),
                  ZX_OK);
}

// Brings back to the host what is current on the device.
inline void bring_back(zx_model_t* model) {
    for (zx_tensor_t* const tensor :
         {model->user_embeddings, model->item_embeddings, model->item_biases}) {
        if (tensor && tensor->on_device) {
            ASSERT_EQ(zx_tensor_to_host(tensor), ZX_OK);
        }
    }
}

inline testing::AssertionResult near_models(const zx_model_t* actual, const zx_model_t* expected) {
    const ModelContents a = contents(actual);
    const ModelContents b = contents(expected);
    if (auto near = near_numbers(a.users, b.users); !near) return near << ", in the user table";
    if (auto near = near_numbers(a.items, b.items); !near) return near << ", in the item table";
    if (auto near = near_numbers(a.item_biases, b.item_biases); !near)
        return near << ", in the item biases";
    return testing::AssertionSuccess();
}

}  // namespace zx::test
