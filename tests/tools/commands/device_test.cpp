// The device of a command: which one is taken, what becomes of a model whose steps change sides,
// and what a failing device leaves behind. Runs on PoCL, which the shim may call a GPU or have
// fail.
#include "device.hpp"

#include "bpr_steps.hpp"
#include "capture.hpp"
#include "error.hpp"
#include "opencl.hpp"
#include "opencl_shim.hpp"
#include "ranking.hpp"
#include "recommender.hpp"
#include "small_models.hpp"
#include "trainer.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <numeric>
#include <string>
#include <vector>

namespace zxtool {
namespace {

using zx::test::console_of;
using zx::test::opencl;

constexpr DeviceUse kUse{.work = "large jobs", .possible = true, .worthwhile = true};
constexpr float kRate = 0.1f;
constexpr float kRegularization = 0.01f;
// A device adds up a dot product in another order and has an exponential of its own.
constexpr float kTolerance = 1e-5f;

class OnDevice : public testing::Test {
  protected:
    void SetUp() override {
        opencl() = {};
        zx_set_verbosity(0);
        ASSERT_FALSE(zx_engine_is_initialized());
    }
    void TearDown() override {
        opencl() = {};
        EXPECT_FALSE(zx_engine_is_initialized());
        EXPECT_EQ(zx_get_verbosity(), 0u);
    }

    static std::unique_ptr<Device> demanded() {
        return Device::open(DeviceChoice::kOpenCl, kUse, Console::silent());
    }
    // One that is used unasked, so that it may fail.
    static std::unique_ptr<Device> chosen() {
        opencl().device_type = CL_DEVICE_TYPE_GPU;
        return Device::open(DeviceChoice::kAuto, kUse, Console(GlobalOptions{}));
    }
};

// What a failure says.
struct Failure {
    Exit status;
    std::string text;
};

template <typename Work>
Failure failure_of(Work&& work) {
    try {
        work();
    } catch (const Error& error) {
        return {error.status(), error.what()};
    }
    return {Exit::kDone, ""};
}

std::string device_name() {
    return device_for_engine(opencl_platforms())->name;
}

// Expects the note of a device that is taken, and then one warning that begins like this.
void expect_one_warning(const std::string& said, const std::string& warning) {
    const std::string expected = "device " + device_name() + "\nzorvex: warning: " + warning;
    EXPECT_EQ(said.substr(0, expected.size()), expected);
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
}

TEST_F(OnDevice, AutoTakesATrueGpuOnly) {
    EXPECT_EQ(Device::open(DeviceChoice::kAuto, kUse, Console::silent()), nullptr);
    EXPECT_EQ(opencl().count("clCreateContext"), 0);

    opencl().device_type = CL_DEVICE_TYPE_GPU;
    EXPECT_NE(Device::open(DeviceChoice::kAuto, kUse, Console::silent()), nullptr);
    EXPECT_EQ(opencl().count("clCreateContext"), 1);
}

TEST_F(OnDevice, CpuAndWorkThatIsNotWorthwhileDoNotEvenAskOpenCl) {
    opencl().device_type = CL_DEVICE_TYPE_GPU;
    DeviceUse little = kUse;
    little.worthwhile = false;
    DeviceUse nothing = kUse;
    nothing.possible = false;
    EXPECT_EQ(Device::open(DeviceChoice::kCpu, kUse, Console::silent()), nullptr);
    EXPECT_EQ(Device::open(DeviceChoice::kAuto, little, Console::silent()), nullptr);
    EXPECT_EQ(Device::open(DeviceChoice::kAuto, nothing, Console::silent()), nullptr);
    EXPECT_EQ(opencl().calls, std::vector<std::string>{});
}

TEST_F(OnDevice, ADemandedDeviceIsNamedAndOneWithoutUseIsAWarning) {
    const std::string name = device_name();
    DeviceUse nothing = kUse;
    nothing.possible = false;
    const zx::test::Console said = console_of([&] {
        EXPECT_NE(Device::open(DeviceChoice::kOpenCl, kUse, Console(GlobalOptions{})), nullptr);
        EXPECT_EQ(Device::open(DeviceChoice::kOpenCl, nothing, Console(GlobalOptions{})), nullptr);
    });
    EXPECT_EQ(said.err, "device " + name +
                            "\nzorvex: warning: only large jobs run on a device; computing on the "
                            "CPU\n");
}

TEST_F(OnDevice, ADeviceThatCannotBeHadEndsTheCommandIfDemandedAndIsAWarningElse) {
    const std::string name = device_name();
    const struct {
        const char* refused;
        std::string text;
    } cases[] = {
        {"clCreateContext", "OpenCL has no device that can be opened"},
        {"clCreateProgramWithSource",
         "the kernels of " + name + " do not load: Failed to create program from source"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.refused);
        opencl() = {};
        opencl().refused = {c.refused};
        const Failure failure = failure_of(demanded);
        EXPECT_EQ(failure.status, Exit::kNoDevice);
        EXPECT_EQ(failure.text, "--device opencl: " + c.text);

        const zx::test::Console said = console_of([] { EXPECT_EQ(chosen(), nullptr); });
        EXPECT_EQ(said.err, "zorvex: warning: " + c.text + "; computing on the CPU\n");
    }
}

TEST_F(OnDevice, StartingItLeavesTheWorkingDirectoryAndStandardOutputAlone) {
    const std::filesystem::path before = std::filesystem::current_path();
    const zx::test::Console said = console_of([] { EXPECT_NE(demanded(), nullptr); });
    EXPECT_EQ(said.out, "");
    EXPECT_EQ(said.err, "");
    EXPECT_EQ(std::filesystem::current_path(), before);
}

// --- Steps on changing sides ---

constexpr std::uint32_t kUsers = 512;
constexpr std::uint32_t kItems = 2 * kUsers;

// A batch whose triples share no row, so that a device loses no update. All batches share theirs.
struct Batch {
    explicit Batch(std::uint32_t count, std::uint32_t shift)
        : users(count), positives(count), negatives(count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            users[i] = (i + shift) % kUsers;
            positives[i] = (2 * i + 3 * shift) % kItems;
            negatives[i] = (2 * i + 3 * shift + 1) % kItems;
        }
    }
    std::vector<std::uint32_t> users, positives, negatives;
};

ModelPtr fresh_model(bool bias) {
    zx_rng_seed(5);
    ModelPtr model(zx_model_mf_create(kUsers, kItems, 16, bias));
    EXPECT_NE(model, nullptr);
    return model;
}

void run_batches(BprSteps& steps, const std::vector<std::uint32_t>& counts) {
    for (std::uint32_t n = 0; n < counts.size(); ++n) {
        const Batch batch(counts[n], n);
        steps.step(batch.users.data(), batch.positives.data(), batch.negatives.data(), counts[n],
                   kRate, kRegularization);
    }
}

// The model after these batches, and the numbers of the host's memory, which whoever reads the
// model sees.
std::vector<float> numbers_after(const std::vector<std::uint32_t>& counts, bool bias,
                                 Device* device) {
    const ModelPtr model = fresh_model(bias);
    BprSteps steps(*model, device);
    run_batches(steps, counts);
    steps.bring_to_host();
    return test::numbers(*model);
}

float largest_difference(const std::vector<float>& a, const std::vector<float>& b) {
    EXPECT_EQ(a.size(), b.size());
    float largest = 0.0f;
    for (std::size_t i = 0; i < a.size(); ++i) largest = std::max(largest, std::abs(a[i] - b[i]));
    return largest;
}

TEST_F(OnDevice, BatchesOf512AndSmallerOnesInAnyOrderTrainAsOnTheHost) {
    for (const bool bias : {false, true}) {
        const std::vector<float> start = numbers_after({}, bias, nullptr);
        for (const std::vector<std::uint32_t>& counts : std::vector<std::vector<std::uint32_t>>{
                 {512, 1}, {512, 511}, {512, 512}, {1, 512}, {512, 511, 512, 1, 512}}) {
            SCOPED_TRACE(testing::PrintToString(counts) + (bias ? " with biases" : ""));
            const std::vector<float> on_host = numbers_after(counts, bias, nullptr);
            const std::unique_ptr<Device> device = demanded();
            opencl().launches.clear();
            const std::vector<float> on_device = numbers_after(counts, bias, device.get());
            EXPECT_EQ(std::ssize(opencl().launches), std::count(counts.begin(), counts.end(), 512));
            EXPECT_LE(largest_difference(on_device, on_host), kTolerance);
            EXPECT_GE(largest_difference(on_host, start), 100 * kTolerance);
        }
    }
}

TEST_F(OnDevice, TheHostsNumbersAreCurrentOnlyAfterBringingThemBack) {
    const std::unique_ptr<Device> device = demanded();
    const ModelPtr model = fresh_model(true);
    const std::vector<float> start = test::numbers(*model);
    BprSteps steps(*model, device.get());
    run_batches(steps, {512});
    EXPECT_EQ(test::numbers(*model), start);
    steps.bring_to_host();
    const std::vector<float> brought = test::numbers(*model);
    EXPECT_NE(brought, start);

    opencl().transfers.clear();
    steps.bring_to_host();  // nothing is newer on the device
    EXPECT_EQ(test::numbers(*model), brought);
    EXPECT_TRUE(opencl().transfers.empty());
}

// Every OpenCL call of the steps after the first one, failing by itself.
TEST_F(OnDevice, AFailingDeviceIsGivenUpAndNoStepIsLostOrDoneTwice) {
    const std::vector<std::uint32_t> counts{512, 511, 512, 512};
    const std::vector<float> on_host = numbers_after(counts, true, nullptr);
    int failures = 0;
    for (const char* call : {"clEnqueueNDRangeKernel", "clCreateBuffer", "clEnqueueWriteBuffer"}) {
        for (int nth = 1; nth <= 15; ++nth) {
            SCOPED_TRACE(std::string(call) + " " + std::to_string(nth));
            opencl() = {};
            const zx::test::Console said = console_of([&] {
                const std::unique_ptr<Device> device = chosen();
                ASSERT_NE(device, nullptr);
                opencl().calls.clear();
                opencl().refused_once = {{call, nth}};
                const std::vector<float> numbers = numbers_after(counts, true, device.get());
                EXPECT_LE(largest_difference(numbers, on_host), kTolerance);
            });
            if (opencl().count(call) < nth) break;
            ++failures;
            expect_one_warning(said.err, "the device fails at training: ");
        }
    }
    // Three launches, the uploads of three tables, twice, and three lists of ids each time.
    EXPECT_EQ(failures, 3 + 12 + 3);
}

TEST_F(OnDevice, AFailureOfADemandedDeviceEndsTheTraining) {
    const std::unique_ptr<Device> device = demanded();
    opencl().refused = {"clEnqueueNDRangeKernel"};
    const Failure failure = failure_of([&] { numbers_after({512}, false, device.get()); });
    EXPECT_EQ(failure.status, Exit::kNoDevice);
    EXPECT_EQ(failure.text, "--device opencl: the device fails at training: " +
                                std::string(zx_status_string(ZX_ERR_KERNEL_EXEC)));
}

TEST_F(OnDevice, AModelThatTheDeviceDoesNotGiveBackIsNotUsed) {
    const std::unique_ptr<Device> device = demanded();
    opencl().refused = {"clEnqueueReadBuffer"};
    const Failure failure = failure_of([&] { numbers_after({512, 1}, false, device.get()); });
    EXPECT_EQ(failure.status, Exit::kFailure);
    EXPECT_EQ(failure.text, "bringing the model back from the device: " +
                                std::string(zx_status_string(ZX_ERR_TRANSFER)) +
                                " (Failed to read from GPU buffer)");
}

// --- Whole trainings ---

// Users with an item each, and three times as many items, so that few triples share a row.
Dataset sparse_dataset(std::uint32_t pairs) {
    Dataset data;
    for (std::uint32_t item = 0; item < 3 * pairs; ++item) data.items.add(std::to_string(item));
    for (std::uint32_t user = 0; user < pairs; ++user) {
        data.users.add(std::to_string(user));
        data.train_users.push_back(user);
        data.train_items.push_back(user);
        data.train_strengths.push_back(1.0f);
    }
    return data;
}

double mean_difference(const std::vector<float>& a, const std::vector<float>& b) {
    EXPECT_EQ(a.size(), b.size());
    double sum = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) sum += std::abs(double{a[i]} - b[i]);
    return sum / static_cast<double>(a.size());
}

TEST_F(OnDevice, TrainingAgreesWithTheHostForLastBatchesAroundTheSmallestOfADevice) {
    for (const std::uint32_t last : {1u, 511u, 512u}) {
        SCOPED_TRACE(last);
        const Dataset data = sparse_dataset(2 * 512 + last);
        const TrainerOptions options{.algorithm = Algorithm::kBpr,
                                     .dim = 8,
                                     .epochs = 4,
                                     .regularization = 0.01f,
                                     .learning_rate = 0.1f,
                                     .batch = 512,
                                     .bias = true,
                                     .seed = 9};
        std::vector<float> seen;
        const TrainerHooks hooks{
            .advance = [](std::uint64_t) {},
            .epoch_done = [&](std::uint32_t, double,
                              const zx_model_t& model) { seen = test::numbers(model); }};
        const std::vector<float> on_host = test::numbers(*train(data, options, hooks));
        TrainerOptions none = options;
        none.learning_rate = 0.0f;
        const std::vector<float> start = test::numbers(*train(data, none, hooks));

        const std::unique_ptr<Device> device = demanded();
        opencl().launches.clear();
        const std::vector<float> on_device =
            test::numbers(*train(data, options, hooks, device.get()));
        EXPECT_EQ(opencl().launches.size(), 4u * (last == 512 ? 3 : 2));
        EXPECT_EQ(seen, on_device);
        // Lost updates are few: on average a number is off by at most a hundredth of what the
        // training has moved it.
        EXPECT_LE(mean_difference(on_device, on_host), 0.01 * mean_difference(on_host, start));
    }
}

TEST_F(OnDevice, OnlyBprBatchesOf512TriplesAreWorkForADevice) {
    TrainerOptions options{.algorithm = Algorithm::kBpr, .batch = 512};
    EXPECT_TRUE(device_use(sparse_dataset(512), options).possible);
    EXPECT_TRUE(device_use(sparse_dataset(512), options).worthwhile);
    EXPECT_FALSE(device_use(sparse_dataset(511), options).possible);
    options.batch = 511;
    EXPECT_FALSE(device_use(sparse_dataset(512), options).possible);
    options = {.algorithm = Algorithm::kAls, .batch = 512};
    EXPECT_FALSE(device_use(sparse_dataset(512), options).possible);
}

// --- Rankings ---

TEST_F(OnDevice, ScoresAllItemsAsTheHostDoes) {
    const std::unique_ptr<Device> device = demanded();
    for (const bool bias : {false, true}) {
        SCOPED_TRACE(bias ? "with biases" : "without biases");
        const ModelPtr model = fresh_model(bias);
        model->global_bias = 0.5f;
        if (bias) {
            std::iota(zx_tensor_data(model->user_biases),
                      zx_tensor_data(model->user_biases) + kUsers, 1.0f);
            std::iota(zx_tensor_data(model->item_biases),
                      zx_tensor_data(model->item_biases) + kItems, -7.0f);
        }
        const std::unique_ptr<Scorer> on_host = model_scorer(*model);
        const std::unique_ptr<Scorer> on_device = model_scorer(*model, device.get());
        opencl().launches.clear();
        for (const std::uint32_t user : {0u, 300u, 511u}) {
            const std::span<const float> expected = on_host->scores(user);
            const std::span<const float> scores = on_device->scores(user);
            ASSERT_EQ(scores.size(), expected.size());
            for (std::size_t item = 0; item < scores.size(); ++item)
                EXPECT_NEAR(scores[item], expected[item],
                            kTolerance * std::max(1.0f, std::abs(expected[item])));
        }
        EXPECT_EQ(opencl().launches.size(), 3u);
        const std::uint32_t list[] = {3, 1};
        EXPECT_EQ(on_device->scores_of(7, list)[1], on_host->scores_of(7, list)[1]);
        EXPECT_EQ(opencl().launches.size(), 3u);
    }
}

TEST_F(OnDevice, RanksFrom512ItemsOn) {
    const std::unique_ptr<Device> device = demanded();
    for (const std::uint32_t items : {511u, 512u}) {
        SCOPED_TRACE(items);
        const ModelPtr model = test::model_with_scores({1.0f}, std::vector<float>(items, 2.0f));
        opencl().launches.clear();
        EXPECT_EQ(model_scorer(*model, device.get())->scores(0)[items - 1], 2.0f);
        EXPECT_EQ(opencl().launches.size(), items == 512 ? 1u : 0u);
        EXPECT_EQ(device_use(*model, 1).possible, items == 512);
        EXPECT_FALSE(device_use(*model, 0).possible);
    }
    // 10^10 multiply-adds of 512 items and one dimension.
    const ModelPtr model = test::model_with_scores({1.0f}, std::vector<float>(512, 2.0f));
    EXPECT_FALSE(device_use(*model, 19531249).worthwhile);
    EXPECT_TRUE(device_use(*model, 19531250).worthwhile);
}

TEST_F(OnDevice, RecommendsTheBestAllowedItems) {
    const std::unique_ptr<Device> device = demanded();
    std::vector<float> scores(600);
    for (std::uint32_t item = 0; item < 600; ++item)
        scores[item] = static_cast<float>((item * 7) % 600);  // item 257 has 599, 514 has 598
    const ModelPtr model = test::model_with_scores({1.0f, -1.0f}, scores);
    const ItemLists excluded(2, {0, 0, 0}, {257, 171, 9});
    Recommender on_host(*model, excluded);
    Recommender on_device(*model, excluded, device.get());
    opencl().launches.clear();
    for (const std::uint32_t user : {0u, 1u}) {
        for (const std::uint32_t k : {1u, 20u, 596u, 600u}) {
            const std::vector<zx_scored_item_t>& expected = on_host.best(user, k);
            const std::vector<zx_scored_item_t>& best = on_device.best(user, k);
            ASSERT_EQ(best.size(), expected.size());
            for (std::size_t i = 0; i < best.size(); ++i) {
                EXPECT_EQ(best[i].item, expected[i].item);
                EXPECT_EQ(best[i].score, expected[i].score);
            }
        }
    }
    EXPECT_EQ(on_device.best(0, 1).front().item, 514u);
    EXPECT_EQ(opencl().launches.size(), 9u);
}

TEST_F(OnDevice, SeveralThreadsRankAsOneDoes) {
    const std::unique_ptr<Device> device = demanded();
    const ModelPtr model = fresh_model(true);
    std::vector<std::uint32_t> users(kUsers);
    std::iota(users.begin(), users.end(), 0u);
    const ItemLists nothing;
    const ItemLists held_out(kUsers, users, users);
    const std::uint32_t k = 10;
    const auto figures = [&](unsigned threads) {
        return rank_users([&] { return model_scorer(*model, device.get()); }, users, nothing,
                          held_out, std::span(&k, 1), threads)
            .averages()
            .front();
    };
    const FiguresAtK one = figures(1);
    const FiguresAtK four = figures(4);
    EXPECT_EQ(one.ndcg, four.ndcg);
    EXPECT_EQ(one.recall, four.recall);
}

TEST_F(OnDevice, AScoringThatFailsGoesOnOnTheHostUnlessTheDeviceWasDemanded) {
    for (const char* call : {"clEnqueueNDRangeKernel", "clCreateBuffer", "clEnqueueReadBuffer"}) {
        SCOPED_TRACE(call);
        opencl() = {};
        // A model has its device copies from one engine, so each gets a model of its own.
        const ModelPtr model = fresh_model(true);
        const std::unique_ptr<Scorer> on_host = model_scorer(*model);
        const std::span<const float> expected = on_host->scores(4);
        const zx::test::Console said = console_of([&] {
            const std::unique_ptr<Device> device = chosen();
            const std::unique_ptr<Scorer> scorer = model_scorer(*model, device.get());
            opencl().refused = {call};
            for (int repeat = 0; repeat < 2; ++repeat) {
                const std::span<const float> scores = scorer->scores(4);
                EXPECT_TRUE(
                    std::equal(scores.begin(), scores.end(), expected.begin(), expected.end()));
            }
        });
        expect_one_warning(said.err, "the device fails at scoring: ");

        opencl() = {};
        const ModelPtr again = fresh_model(true);
        const std::unique_ptr<Device> device = demanded();
        const std::unique_ptr<Scorer> scorer = model_scorer(*again, device.get());
        opencl().refused = {call};
        EXPECT_EQ(failure_of([&] { scorer->scores(4); }).status, Exit::kNoDevice);
    }
}

}  // namespace
}  // namespace zxtool
