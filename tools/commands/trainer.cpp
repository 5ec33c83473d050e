#include "trainer.hpp"

#include "bpr_steps.hpp"
#include "error.hpp"
#include "library.hpp"
#include "signals.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fmt/format.h>
#include <numeric>
#include <tuple>
#include <utility>
#include <vector>

namespace zxtool {
namespace {

using Advance = std::function<void(std::uint64_t)>;

class Epochs {
  public:
    Epochs() = default;
    Epochs(const Epochs&) = delete;
    Epochs& operator=(const Epochs&) = delete;
    virtual ~Epochs() = default;
    // The model's current numbers are the host's, before and after.
    virtual void run_one(zx_model_t& model, const Advance& advance) = 0;
};

class AlsEpochs : public Epochs {
  public:
    AlsEpochs(const Dataset& data, const TrainerOptions& options)
        : options_(options),
          interactions_(make_csr(data.users.size(), data.items.size(), data.train_users,
                                 data.train_items, data.train_strengths)) {}

    void run_one(zx_model_t& model, const Advance& advance) override {
        check(zx_model_train_als_epoch(&model, interactions_.get(), 1, options_.alpha,
                                       options_.regularization),
              "training");
        advance(interactions_->nnz);
    }

  private:
    const TrainerOptions& options_;
    SparsePtr interactions_;
};

// An epoch visits every training pair once, in an order shuffled anew for each epoch, with one
// sampled negative each. Drawing pairs with replacement instead, as in the paper, leaves more than
// a third of them out of any one epoch; held-out figures are the same, within what seeds make.
class BprEpochs : public Epochs {
  public:
    BprEpochs(const Dataset& data, const TrainerOptions& options, Device* device)
        : options_(options),
          device_(device),
          positives_(make_csr(data.users.size(), data.items.size(), data.train_users,
                              data.train_items, {})),
          users_(options.batch),
          positive_items_(options.batch),
          negative_items_(options.batch) {
        pairs_.reserve(data.train_users.size());
        for (std::size_t i = 0; i < data.train_users.size(); ++i)
            pairs_.emplace_back(data.train_users[i], data.train_items[i]);
    }

    void run_one(zx_model_t& model, const Advance& advance) override {
        const float rate = learning_rate_at(options_, ++epoch_);
        BprSteps steps(model, device_);
        shuffle();
        for (std::size_t begin = 0; begin < pairs_.size(); begin += options_.batch) {
            stop_if_interrupted();
            const auto count = static_cast<std::uint32_t>(
                std::min<std::size_t>(options_.batch, pairs_.size() - begin));
            for (std::uint32_t i = 0; i < count; ++i)
                std::tie(users_[i], positive_items_[i]) = pairs_[begin + i];
            zx_sample_negatives_uniform(positives_.get(), users_.data(), negative_items_.data(),
                                        count, model.num_items);
            steps.step(users_.data(), positive_items_.data(), negative_items_.data(), count, rate,
                       options_.regularization);
            advance(count);
        }
        steps.bring_to_host();
    }

  private:
    // A uniform number below n. A draw has 24 bits, fewer than there may be pairs, so two are put
    // together; what the remainder then favours is beyond notice.
    static std::uint64_t draw_below(std::uint64_t n) {
        constexpr float kBits = 16777216.0f;  // 2^24
        const auto high = static_cast<std::uint64_t>(zx_rng_uniform() * kBits);
        const auto low = static_cast<std::uint64_t>(zx_rng_uniform() * kBits);
        return ((high << 24) + low) % n;
    }

    // Fisher and Yates' shuffle in Durstenfeld's form.
    void shuffle() {
        for (std::size_t left = pairs_.size(); left > 1; --left)
            std::swap(pairs_[left - 1], pairs_[draw_below(left)]);
    }

    const TrainerOptions& options_;
    Device* const device_;
    std::uint32_t epoch_ = 0;
    SparsePtr positives_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> pairs_;  // (user, item)
    std::vector<std::uint32_t> users_;
    std::vector<std::uint32_t> positive_items_;
    std::vector<std::uint32_t> negative_items_;
};

std::unique_ptr<Epochs> make_epochs(const Dataset& data, const TrainerOptions& options,
                                    Device* device) {
    if (options.algorithm == Algorithm::kAls) return std::make_unique<AlsEpochs>(data, options);
    return std::make_unique<BprEpochs>(data, options, device);
}

bool all_finite(const zx_tensor_t* tensor) {
    const float* data = zx_tensor_data(tensor);
    return std::all_of(data, data + zx_tensor_size(tensor),
                       [](float value) { return std::isfinite(value); });
}

}  // namespace

float learning_rate_at(const TrainerOptions& options, std::uint32_t epoch) {
    const float left =
        static_cast<float>(options.epochs - epoch + 1) / static_cast<float>(options.epochs);
    return options.constant_rate ? options.learning_rate
                                 : options.learning_rate * std::min(1.0f, 2.0f * left);
}

float suitable_als_regularization(const Dataset& data, float alpha) {
    const std::vector<float>& strengths = data.train_strengths;
    const double strength = strengths.empty()
                                ? static_cast<double>(data.train_users.size())
                                : std::accumulate(strengths.begin(), strengths.end(), 0.0);
    const double mean = strength / std::sqrt(static_cast<double>(data.users.size()) *
                                             static_cast<double>(data.items.size()));
    const double suitable = std::round(10.0 * alpha * mean / 3.0) / 10.0;
    return static_cast<float>(std::max(0.1, suitable));
}

bool all_finite(const zx_model_t& model) {
    return all_finite(model.user_embeddings) && all_finite(model.item_embeddings) &&
           all_finite(model.user_biases) && all_finite(model.item_biases);
}

DeviceUse device_use(const Dataset& data, const TrainerOptions& options) {
    const bool possible = options.algorithm == Algorithm::kBpr &&
                          options.batch >= kMinDeviceBatch &&
                          data.train_users.size() >= kMinDeviceBatch;
    return {
        .work = "BPR batches of 512 triples or more", .possible = possible, .worthwhile = possible};
}

ModelPtr train(const Dataset& data, const TrainerOptions& options, const TrainerHooks& hooks,
               Device* device) {
    const std::unique_ptr<Epochs> epochs = make_epochs(data, options, device);

    zx_rng_seed(options.seed);
    zx_clear_error();
    ModelPtr model(zx_model_mf_create(data.users.size(), data.items.size(), options.dim,
                                      options.algorithm == Algorithm::kBpr && options.bias));
    if (!model) fail_construction("making the model");

    for (std::uint32_t epoch = 1; epoch <= options.epochs; ++epoch) {
        stop_if_interrupted();
        const auto start = std::chrono::steady_clock::now();
        epochs->run_one(*model, hooks.advance);
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        if (!all_finite(*model))
            throw Error(Exit::kFailure,
                        fmt::format("training diverged in epoch {}: numbers are no longer finite; "
                                    "a smaller {} may help",
                                    epoch,
                                    options.algorithm == Algorithm::kBpr
                                        ? "--learning-rate"
                                        : "--alpha or a larger --regularization"));
        hooks.epoch_done(epoch, taken.count(), *model);
    }
    return model;
}

}  // namespace zxtool
