// Which batches a model gives to the device, and that every failure there is the host's work.

#include "batch_device.hpp"

#include <string>
#include <utility>

namespace zx::test {
namespace {

constexpr std::uint32_t kUsers = 512;

std::vector<float> scores_of(const zx_model_t* model, const Ids& users, const Ids& items,
                             std::uint32_t first, std::uint32_t count) {
    const TensorPtr scores(
        zx_model_score(model, users.data() + first, items.data() + first, count));
    return scores ? contents(scores.get()) : std::vector<float>{};
}

// In two batches that no device takes.
std::vector<float> host_scores(const zx_model_t* model, const Ids& users, const Ids& items) {
    std::vector<float> scores = scores_of(model, users, items, 0, 256);
    const std::vector<float> rest = scores_of(model, users, items, 256, 256);
    scores.insert(scores.end(), rest.begin(), rest.end());
    return scores;
}

// The calls whose refusal changes nothing that the caller sees.
bool is_harmless(const std::string& call) {
    return call == "clFinish" || call == "clReleaseMemObject";
}

class Dispatch : public BatchDeviceTest {
  protected:
    void SetUp() override {
        BatchDeviceTest::SetUp();
        RandomNumbers random(6);
        users_ = random.ids(kUsers, kUsers);
        items_ = random.ids(kUsers, 2 * kUsers);
    }

    Ids users_;
    Ids items_;
};

TEST_F(Dispatch, Scores511PairsOnTheHostAnd512OnTheDevice) {
    for (const bool biased : {false, true}) {
        SCOPED_TRACE(biased);
        const ModelPtr model = disjoint_model(kUsers, 24, biased);
        ASSERT_NE(model, nullptr);
        opencl() = {};
        const std::vector<float> fewer = scores_of(model.get(), users_, items_, 0, 511);
        EXPECT_EQ(fewer.size(), 511u);
        EXPECT_TRUE(opencl().calls.empty());
        const std::vector<float> scores = scores_of(model.get(), users_, items_, 0, 512);
        EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{512}, {}, false, false}}));
        EXPECT_TRUE(near_numbers(scores, host_scores(model.get(), users_, items_)));
        std::vector<float> expected;
        for (std::size_t j = 0; j < kUsers; ++j) {
            double sum = exact_dot(user_row(*model, users_[j]), item_row(*model, items_[j]), 24);
            if (biased)
                sum += double{model->user_biases->data[users_[j]]} +
                       model->item_biases->data[items_[j]] + model->global_bias;
            expected.push_back(static_cast<float>(sum));
        }
        EXPECT_TRUE(near_numbers(scores, expected));
    }
    expect_untouched();
}

TEST_F(Dispatch, ScoresOnTheHostWhatTheDeviceRefuses) {
    for (const bool biased : {false, true}) {
        const ModelPtr undisturbed = disjoint_model(kUsers, 24, biased);
        ASSERT_NE(undisturbed, nullptr);
        const std::vector<float> on_host = host_scores(undisturbed.get(), users_, items_);
        forget();
        const std::vector<float> on_device = scores_of(undisturbed.get(), users_, items_, 0, 512);
        const std::vector<NumberedCall> calls = opencl().numbered();
        EXPECT_FALSE(same_numbers(on_device, on_host));
        EXPECT_EQ(calls.size(), biased ? 21u : 20u);
        for (const auto& [call, number] : calls) {
            SCOPED_TRACE(testing::Message() << call << " " << number << " " << biased);
            ModelPtr model = disjoint_model(kUsers, 24, biased);
            ASSERT_NE(model, nullptr);
            forget();
            const OpenClObjects before = opencl_objects();
            opencl().refused_once[call] = number;
            const std::vector<float> scores = scores_of(model.get(), users_, items_, 0, 512);
            EXPECT_GE(opencl().count(call), number);
            EXPECT_TRUE(same_numbers(scores, is_harmless(call) ? on_device : on_host));
            if (call == "clEnqueueReadBuffer") {
                expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
            } else {
                expect_untouched();
            }
            // The next batch is not the worse for it.
            opencl() = {};
            EXPECT_TRUE(same_numbers(scores_of(model.get(), users_, items_, 0, 512), on_device));
            model.reset();
            EXPECT_EQ(release_objects_since(before).size(), call == "clReleaseMemObject" ? 1 : 0);
        }
    }
}

TEST_F(Dispatch, ScoresOnTheHostWhenAStaleTableCannotBeUploadedAgain) {
    const ModelPtr model = disjoint_model(kUsers, 24, true);
    ASSERT_NE(model, nullptr);
    const std::vector<float> expected = host_scores(model.get(), users_, items_);
    for (const int number : {1, 2, 3}) {
        SCOPED_TRACE(number);
        for (zx_tensor_t* tensor :
             {model->user_embeddings, model->item_embeddings, model->item_biases}) {
            ASSERT_EQ(zx_tensor_to_device(tensor), ZX_OK);
            ASSERT_EQ(zx_tensor_to_host(tensor), ZX_OK);
        }
        forget();
        opencl().refused_once["clEnqueueWriteBuffer"] = number;
        EXPECT_TRUE(same_numbers(scores_of(model.get(), users_, items_, 0, 512), expected));
        EXPECT_EQ(opencl().count("clEnqueueWriteBuffer"), number);
        EXPECT_TRUE(opencl().launches.empty());
        expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
    }
}

TEST_F(Dispatch, LeavesIdsOutsideTheTablesAndOtherModelsToTheHost) {
    const ModelPtr model = disjoint_model(kUsers, 24, true);
    ASSERT_NE(model, nullptr);
    Ids items = items_;
    items[511] = 2 * kUsers;
    EXPECT_TRUE(scores_of(model.get(), users_, items, 0, 512).empty());
    expect_recorded(4, "src/zx_model", "Item ID out of bounds");
    Ids users = users_;
    users[0] = kUsers;
    EXPECT_TRUE(scores_of(model.get(), users, items_, 0, 512).empty());
    expect_recorded(4, "src/zx_model", "User ID out of bounds");
    model->type = kNotMf;
    EXPECT_TRUE(scores_of(model.get(), users_, items_, 0, 512).empty());
    expect_recorded(302, "src/zx_model", "Unsupported model type");
    model->type = ZX_MODEL_MF;
    EXPECT_TRUE(opencl().calls.empty());
}

TEST_F(Dispatch, Trains511TriplesOnTheHostAnd512OnTheDevice) {
    const Triples triples = disjoint_triples(kUsers);
    for (const bool biased : {false, true}) {
        SCOPED_TRACE(biased);
        const ModelPtr model = disjoint_model(kUsers, 24, biased);
        const ModelPtr expected = disjoint_model(kUsers, 24, biased);
        ASSERT_TRUE(model && expected);
        opencl() = {};
        ASSERT_EQ(
            zx_model_train_step_bpr(expected.get(), triples.users.data(), triples.positives.data(),
                                    triples.negatives.data(), 511, 0.05f, 0.1f),
            ZX_OK);
        EXPECT_TRUE(opencl().calls.empty());
        EXPECT_EQ(expected->user_embeddings->on_device, 0);
        ASSERT_EQ(zx_model_train_step_bpr(expected.get(), triples.users.data() + 511,
                                          triples.positives.data() + 511,
                                          triples.negatives.data() + 511, 1, 0.05f, 0.1f),
                  ZX_OK);

        const ModelContents before = contents(model.get());
        ASSERT_EQ(train(model.get(), triples, 0.05f, 0.1f), ZX_OK);
        EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{512}, {}, false, false}}));
        EXPECT_TRUE(opencl().transfers.empty());
        // The tables are current on the device only: small batches still see the old numbers.
        EXPECT_EQ(model->user_embeddings->on_device, 1);
        EXPECT_EQ(model->item_embeddings->on_device, 1);
        if (biased) {
            EXPECT_EQ(model->item_biases->on_device, 1);
        }
        EXPECT_EQ(contents(model.get()).users, before.users);
        EXPECT_EQ(contents(model.get()).items, before.items);
        EXPECT_EQ(contents(model.get()).item_biases, before.item_biases);
        EXPECT_TRUE(near_numbers(scores_of(model.get(), users_, items_, 0, 512),
                                 host_scores(expected.get(), users_, items_)));
        bring_back(model.get());
        EXPECT_TRUE(near_models(model.get(), expected.get()));
        EXPECT_EQ(contents(model.get()).user_biases, before.user_biases);
        EXPECT_FALSE(near_numbers(before.users, contents(model.get()).users));
    }
    expect_untouched();
}

TEST_F(Dispatch, TrainsOnTheHostWhatTheDeviceRefuses) {
    const Triples triples = disjoint_triples(kUsers);
    for (const bool biased : {false, true}) {
        const ModelPtr on_host = disjoint_model(kUsers, 24, biased);
        const ModelPtr on_device = disjoint_model(kUsers, 24, biased);
        ASSERT_TRUE(on_host && on_device);
        train_on_host(on_host.get(), triples, 0.05f, 0.1f);
        forget();
        ASSERT_EQ(train(on_device.get(), triples, 0.05f, 0.1f), ZX_OK);
        const std::vector<NumberedCall> calls = opencl().numbered();
        bring_back(on_device.get());
        EXPECT_FALSE(same_tables(*on_device, bpr_tables(*on_host)));
        EXPECT_EQ(calls.size(), biased ? 22u : 21u);
        for (const auto& [call, number] : calls) {
            SCOPED_TRACE(testing::Message() << call << " " << number << " " << biased);
            ModelPtr model = disjoint_model(kUsers, 24, biased);
            ASSERT_NE(model, nullptr);
            forget();
            const OpenClObjects before = opencl_objects();
            opencl().refused_once[call] = number;
            EXPECT_EQ(train(model.get(), triples, 0.05f, 0.1f), ZX_OK);
            EXPECT_GE(opencl().count(call), number);
            opencl() = {};
            if (is_harmless(call)) bring_back(model.get());
            EXPECT_TRUE(same_tables(*model, bpr_tables(is_harmless(call) ? *on_device : *on_host)));
            expect_untouched();
            model.reset();
            EXPECT_EQ(release_objects_since(before).size(), call == "clReleaseMemObject" ? 1 : 0);
        }
    }
}

TEST_F(Dispatch, SkipsTriplesOutsideTheTablesOnTheHost) {
    Triples triples = disjoint_triples(kUsers);
    const ModelPtr expected = disjoint_model(kUsers, 24, true);
    const ModelPtr model = disjoint_model(kUsers, 24, true);
    ASSERT_TRUE(model && expected);
    triples.users[7] = kUsers;
    triples.negatives[300] = 2 * kUsers;
    train_on_host(expected.get(), triples, 0.05f, 0.1f);
    EXPECT_EQ(train(model.get(), triples, 0.05f, 0.1f), ZX_OK);
    EXPECT_TRUE(opencl().calls.empty());
    EXPECT_TRUE(same_tables(*model, bpr_tables(*expected)));
    expect_untouched();
}

}  // namespace
}  // namespace zx::test
