// Scores many pairs at once, on an OpenCL device where there is one, and compares the answers with
// the host's.
//
// zx_engine_init() takes a device and loads its kernels from the file zorvex_kernels.cl, which it
// looks for in the working folder, in src/kernels, and in share/zorvex of the usual prefixes. A
// kernel file is code that is compiled and run: start the engine only in folders that you trust.
// Without a device or without the file it succeeds as well, and the host computes everything.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <vector>
#include <zorvex.h>

namespace {

constexpr std::uint32_t kUsers = 1000;
constexpr std::uint32_t kItems = 500;
constexpr std::uint32_t kDim = 64;
constexpr std::uint32_t kPairs = 100000;

// Batches of this many pairs or more are offered to the device; one less stays on the host.
constexpr std::uint32_t kDeviceBatch = 512;

// Device and host add in different orders, so that the last bits differ. Scores are around 1 at
// most here, sums of 64 products whose rounding errors stay far below this.
constexpr float kBound = 1e-5F;

struct Release {
    void operator()(zx_model_t* model) const { zx_model_release(model); }
    void operator()(zx_tensor_t* tensor) const { zx_tensor_release(tensor); }
};
using Model = std::unique_ptr<zx_model_t, Release>;
using Tensor = std::unique_ptr<zx_tensor_t, Release>;

// The engine runs as long as this object lives; one that somebody else had started stays theirs.
// Objects with copies on the device go first, so that it is made before them.
class Engine {
  public:
    Engine() : status_(zx_engine_init()) {}
    ~Engine() {
        if (status_ == ZX_OK) zx_engine_shutdown();
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    zx_status_t status() const { return status_; }

  private:
    zx_status_t status_;
};

struct Pairs {
    std::vector<std::uint32_t> users;
    std::vector<std::uint32_t> items;
};

// Every user with every so-manieth item, over and over.
Pairs make_pairs() {
    Pairs pairs;
    for (std::uint32_t n = 0; n < kPairs; ++n) {
        pairs.users.push_back(n % kUsers);
        pairs.items.push_back(n * 7 % kItems);
    }
    return pairs;
}

// Scores the pairs in batches of at most this many; empty after a failure, which is recorded.
std::vector<float> score(const zx_model_t* model, const Pairs& pairs, std::uint32_t batch) {
    std::vector<float> scores;
    for (std::uint32_t begin = 0; begin < kPairs; begin += batch) {
        const std::uint32_t count = std::min(batch, kPairs - begin);
        const Tensor part(
            zx_model_score(model, pairs.users.data() + begin, pairs.items.data() + begin, count));
        if (!part) return {};
        const float* const values = zx_tensor_data(part.get());
        scores.insert(scores.end(), values, values + count);
    }
    return scores;
}

int failed(const char* step) {
    std::cerr << "score_on_device: " << step << " failed\n";
    zx_print_error();  // says nothing when nothing is recorded
    return EXIT_FAILURE;
}

int run() {
    zx_set_verbosity(0);  // else the engine says what it finds on standard output
    const Engine engine;
    if (engine.status() != ZX_OK) return failed("starting the engine");
    if (zx_gpu_is_ready())
        std::printf("scoring on the device %s\n", zx_engine_device_name());
    else
        std::printf("scoring on the host: no OpenCL device, or no kernel file\n");
    zx_clear_error();  // no kernels is no failure, but it is recorded

    zx_rng_seed(1);  // after the start of the engine, which seeds from the clock
    const Model model(zx_model_mf_create(kUsers, kItems, kDim, false));
    if (!model) return failed("making the model");
    const Pairs pairs = make_pairs();
    const std::vector<float> scores = score(model.get(), pairs, kPairs);
    const std::vector<float> host_scores = score(model.get(), pairs, kDeviceBatch - 1);
    if (scores.size() != kPairs || host_scores.size() != kPairs) return failed("scoring");

    float largest = 0.0F;
    float difference = 0.0F;
    for (std::uint32_t n = 0; n < kPairs; ++n) {
        largest = std::max(largest, std::fabs(host_scores[n]));
        difference = std::max(difference, std::fabs(scores[n] - host_scores[n]));
    }
    // The tables were uploaded with the first batch that ran on the device, and stay there.
    std::printf("tables on the device: %s\n", model->user_embeddings->on_device ? "yes" : "no");
    std::printf("%u pairs, largest score %.4f, largest difference %.1e\n", kPairs,
                static_cast<double>(largest), static_cast<double>(difference));
    if (!(difference <= kBound)) {
        std::cerr << "score_on_device: the device's scores are not the host's\n";
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main() {
    return run();
}
