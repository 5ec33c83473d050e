// Training: same seed, same model; what the batch size changes; how the learning rate falls; what
// a divergence does.
#include "trainer.hpp"

#include "error.hpp"
#include "small_models.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace zxtool {
namespace {

// Users of two tastes, each with five of ten items, the last of which nobody has.
Dataset small_dataset() {
    Dataset data;
    std::mt19937 random(4);
    for (std::uint32_t item = 0; item < 20; ++item) data.items.add(std::to_string(item));
    for (std::uint32_t user = 0; user < 60; ++user) {
        data.users.add(std::to_string(user));
        std::vector<std::uint32_t> taste(9);
        for (std::uint32_t i = 0; i < taste.size(); ++i) taste[i] = i + (user % 2) * 10;
        std::shuffle(taste.begin(), taste.end(), random);
        taste.resize(5);
        std::sort(taste.begin(), taste.end());
        for (const std::uint32_t item : taste) {
            data.train_users.push_back(user);
            data.train_items.push_back(item);
            data.train_strengths.push_back(1.0f);
        }
    }
    return data;
}

TrainerOptions als_options() {
    return {.algorithm = Algorithm::kAls,
            .dim = 8,
            .epochs = 3,
            .regularization = 5.0f,
            .alpha = 10.0f,
            .seed = 9};
}

TrainerOptions bpr_options() {
    return {.algorithm = Algorithm::kBpr,
            .dim = 8,
            .epochs = 5,
            .regularization = 0.01f,
            .learning_rate = 0.1f,
            .batch = 300,
            .bias = true,
            .seed = 9};
}

const TrainerHooks kNoHooks{.advance = [](std::uint64_t) {},
                            .epoch_done = [](std::uint32_t, double, const zx_model_t&) {}};

std::vector<float> trained(const TrainerOptions& options) {
    return test::numbers(*train(small_dataset(), options, kNoHooks));
}

TEST(Trainer, TheSameSeedGivesTheSameModel) {
    for (const TrainerOptions& options : {als_options(), bpr_options()}) {
        TrainerOptions other = options;
        other.seed = 10;
        EXPECT_EQ(trained(options), trained(options));
        EXPECT_NE(trained(options), trained(other));
    }
}

TEST(Trainer, TheBatchSizeDoesNotChangeAModelOfUpTo512Dimensions) {
    TrainerOptions options = bpr_options();
    const std::vector<float> at_once = trained(options);
    for (const std::uint32_t batch : {1u, 7u, 299u, 301u}) {
        SCOPED_TRACE(batch);
        options.batch = batch;
        EXPECT_EQ(trained(options), at_once);
    }
}

TEST(Trainer, TellsHowFarItIs) {
    for (const TrainerOptions& options : {als_options(), bpr_options()}) {
        std::uint64_t pairs = 0;
        std::vector<std::uint32_t> epochs;
        train(small_dataset(), options,
              {.advance = [&](std::uint64_t more) { pairs += more; },
               .epoch_done =
                   [&](std::uint32_t epoch, double seconds, const zx_model_t& model) {
                       epochs.push_back(epoch);
                       EXPECT_GE(seconds, 0.0);
                       EXPECT_EQ(model.num_users, 60u);
                   }});
        EXPECT_EQ(pairs, 300u * options.epochs);
        ASSERT_EQ(epochs.size(), options.epochs);
        for (std::uint32_t i = 0; i < options.epochs; ++i) EXPECT_EQ(epochs[i], i + 1);
    }
}

TEST(Trainer, LearnsWhichHalfAUserLikes) {
    for (TrainerOptions options : {als_options(), bpr_options()}) {
        options.epochs *= 10;
        const ModelPtr model = train(small_dataset(), options, kNoHooks);
        for (std::uint32_t user = 0; user < 60; ++user) {
            std::vector<std::uint32_t> users(18, user);
            std::vector<std::uint32_t> items;
            for (std::uint32_t i = 0; i < 9; ++i) items.push_back(i + (user % 2) * 10);
            for (std::uint32_t i = 0; i < 9; ++i) items.push_back(i + (1 - user % 2) * 10);
            zx_tensor_t* scores = zx_model_score(model.get(), users.data(), items.data(), 18);
            ASSERT_NE(scores, nullptr);
            const float* s = zx_tensor_data(scores);
            EXPECT_GT(std::accumulate(s, s + 9, 0.0f), std::accumulate(s + 9, s + 18, 0.0f) + 1.0f)
                << user;
            zx_tensor_release(scores);
        }
    }
}

TEST(Trainer, RefusesToGoOnWithNumbersThatAreNotFinite) {
    TrainerOptions options = bpr_options();
    options.learning_rate = 1e20f;
    options.constant_rate = true;
    options.epochs = 50;
    try {
        train(small_dataset(), options, kNoHooks);
        ADD_FAILURE() << "did not diverge";
    } catch (const Error& error) {
        EXPECT_EQ(error.status(), Exit::kFailure);
        const std::string text = error.what();
        EXPECT_EQ(text.substr(0, 27), "training diverged in epoch ");
        EXPECT_NE(text.find("a smaller --learning-rate may help"), std::string::npos);
    }
}

TEST(Trainer, TheLearningRateFallsOverTheSecondHalf) {
    TrainerOptions options = bpr_options();
    options.learning_rate = 0.5f;
    options.epochs = 4;
    const float falling[] = {0.5f, 0.5f, 0.5f, 0.25f};
    for (std::uint32_t epoch = 1; epoch <= 4; ++epoch)
        EXPECT_FLOAT_EQ(learning_rate_at(options, epoch), falling[epoch - 1]);
    options.constant_rate = true;
    EXPECT_EQ(learning_rate_at(options, 4), 0.5f);
    options.constant_rate = false;
    options.epochs = 1;
    EXPECT_EQ(learning_rate_at(options, 1), 0.5f);
}

TEST(Trainer, SuitableRegularizationGrowsWithWhatIsKnown) {
    Dataset data = small_dataset();  // 300 pairs, 60 users, 20 items: 300 / sqrt(1200) = 8.66
    EXPECT_FLOAT_EQ(suitable_als_regularization(data, 10.0f), 28.9f);
    EXPECT_FLOAT_EQ(suitable_als_regularization(data, 1.0f), 2.9f);
    EXPECT_FLOAT_EQ(suitable_als_regularization(data, 0.0f), 0.1f);
    std::fill(data.train_strengths.begin(), data.train_strengths.end(), 3.0f);
    EXPECT_FLOAT_EQ(suitable_als_regularization(data, 10.0f), 86.6f);
    data.train_strengths.clear();  // all 1
    EXPECT_FLOAT_EQ(suitable_als_regularization(data, 10.0f), 28.9f);
}

TEST(Trainer, AllFiniteLooksAtEveryTable) {
    const ModelPtr model(zx_model_mf_create(2, 3, 2, true));
    ASSERT_NE(model, nullptr);
    EXPECT_TRUE(all_finite(*model));
    for (zx_tensor_t* tensor :
         {model->user_embeddings, model->item_embeddings, model->user_biases, model->item_biases}) {
        float& last = zx_tensor_data(tensor)[zx_tensor_size(tensor) - 1];
        const float kept = last;
        last = std::numeric_limits<float>::infinity();
        EXPECT_FALSE(all_finite(*model));
        last = std::numeric_limits<float>::quiet_NaN();
        EXPECT_FALSE(all_finite(*model));
        last = kept;
    }
    EXPECT_TRUE(all_finite(*model));
}

}  // namespace
}  // namespace zxtool
