// Training a model on a prepared data set, epoch by epoch.
#pragma once

#include "dataset.hpp"
#include "device.hpp"
#include "model_store.hpp"

#include <cstdint>
#include <functional>

namespace zxtool {

enum class Algorithm { kAls, kBpr };

struct TrainerOptions {
    Algorithm algorithm = Algorithm::kAls;
    std::uint32_t dim = 0;
    std::uint32_t epochs = 0;
    float regularization = 0.0f;
    float alpha = 0.0f;          // ALS
    float learning_rate = 0.0f;  // BPR
    bool constant_rate = false;  // BPR: see learning_rate_at()
    std::uint32_t batch = 0;     // BPR
    bool bias = false;           // BPR
    std::uint64_t seed = 0;
};

struct TrainerHooks {
    // Called with the number of pairs trained since the last call.
    std::function<void(std::uint64_t pairs)> advance;
    // Called after each epoch with its number, from 1, and its time, which leaves this call out.
    std::function<void(std::uint32_t epoch, double seconds, const zx_model_t& model)> epoch_done;
};

// What a device would do for a training.
DeviceUse device_use(const Dataset& data, const TrainerOptions& options);

// Trains from a fresh start. Without a device, and with no engine running, the same data, options
// and seed give the same model, to the byte. With one, updates of rows that triples of a batch
// share may get lost; the model that the hooks see, and the result, are current on the host. The
// hooks must not draw from this thread's generator. Throws Error: kInterrupted between two epochs
// or batches, kFailure when the numbers run away, kOutOfMemory, kNoDevice.
ModelPtr train(const Dataset& data, const TrainerOptions& options, const TrainerHooks& hooks,
               Device* device = nullptr);

// The learning rate of an epoch, from 1: options.learning_rate, and over the second half of the
// epochs falling in equal steps towards 0, unless the rate is constant.
float learning_rate_at(const TrainerOptions& options, std::uint32_t epoch);

// A regularization for ALS that suits the data: alpha / 3 times the geometric mean of the strength
// of an average user and that of an average item, to one decimal, at least 0.1. What is best grows
// with how much is known of each user and item; a fixed value that suits large data sets makes
// small ones collapse to zero. On generated sets of 150 to a million interactions the best value
// was 0.15 to 0.3 times alpha times that mean, on filtered real ratings 0.55 times.
float suitable_als_regularization(const Dataset& data, float alpha);

// Whether every number of the model is finite.
bool all_finite(const zx_model_t& model);

}  // namespace zxtool
