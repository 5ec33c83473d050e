// Each OpenCL call of a start and of a stop refused in turn: the state, the lines and the record
// that follow, that work gets done all the same, and that nothing is left on the device but what is
// meant to be left.

#include "batch_device.hpp"
#include "capture.hpp"
#include "start_texts.hpp"
#include "zx_gpu/kernel_table.hpp"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>

namespace zx::test {
namespace {

constexpr const char* kLoading = "[ZORVEX] Loading kernels from: ./zorvex_kernels.cl\n";
constexpr const char* kCached = "[ZORVEX] GPU kernels cached\n";
constexpr const char* kReleased = "[ZORVEX] GPU kernels released\n";
constexpr const char* kComplete = "[ZORVEX] Engine shutdown complete\n";
constexpr const char* kBuildError = "[ZORVEX] Kernel build error:\n";
constexpr const char* kBroken = "kernel void relu(global float* x) { this does not parse }\n";

enum class Mode { kHost, kWithoutKernels, kDevice };

struct Record {
    zx_status_t code;
    const char* file;
    const char* message;
};

constexpr Record kNoFile = {2, "src/zx_gpu", kNoKernelFile};
constexpr Record kNoProgram = {206, "src/zx_engine", "Failed to create program from source"};
constexpr Record kNoBuild = {206, "src/zx_engine", "Kernel compilation failed"};

// What a start comes to.
struct Outcome {
    Mode mode = Mode::kDevice;
    Device device;
    Record record = {};  // of a start without kernels
    std::string lines;   // about the kernels
    std::string errors;
    std::optional<std::size_t> missing;  // the kernel that is not there
    std::vector<std::string> left;       // what stays on the device, beyond what is meant to
};

// Under which circumstances the engine starts.
struct Scenario {
    cl_device_type type;
    enum { kDelivered, kMissing, kDoesNotBuild } file;
    bool queue_refused;
};

Outcome undisturbed(const Scenario& scenario) {
    Outcome outcome;
    outcome.lines = std::string(kLoading) + kCached;
    if (scenario.file == Scenario::kMissing) {
        outcome.mode = Mode::kWithoutKernels;
        outcome.record = kNoFile;
        outcome.lines = kWarning;
    }
    if (scenario.file == Scenario::kDoesNotBuild) {
        outcome.mode = Mode::kWithoutKernels;
        outcome.record = kNoBuild;
        outcome.lines = std::string(kLoading) + kWarning;
        outcome.errors = std::string(kBuildError) + "this does not parse\n";
    }
    if (scenario.queue_refused) outcome.mode = Mode::kHost;
    return outcome;
}

// What becomes of a start when this call is refused.
void disturb(Outcome& outcome, const NumberedCall& refusal) {
    const auto& [call, number] = refusal;
    const auto without_kernels = [&](const Record& record) {
        outcome.mode = Mode::kWithoutKernels;
        outcome.record = record;
        outcome.lines = std::string(kLoading) + kWarning;
    };
    if (call == "clGetPlatformIDs" || call == "clCreateContext" ||
        call == "clCreateCommandQueueWithProperties")
        outcome.mode = Mode::kHost;
    if (call == "clGetPlatformInfo") outcome.device.platform_name.clear();
    // Where the type that was asked for is refused, any device will do; then there is nothing more.
    if (call == "clGetDeviceIDs" &&
        opencl().device_types_asked[static_cast<std::size_t>(number) - 1] == CL_DEVICE_TYPE_ALL)
        outcome.mode = Mode::kHost;
    if (call == "clGetDeviceInfo") {
        if (number == 1) outcome.device.device_name.clear();
        if (number == 2) outcome.device.type = 0;
        if (number == 3) outcome.device.global_memory = 0;
        if (number == 4) outcome.device.local_memory = 0;
        if (number == 6) outcome.device.compute_units = 0;
    }
    if (call == "clCreateProgramWithSource") {
        without_kernels(kNoProgram);
        outcome.errors.clear();
    }
    if (call == "clBuildProgram") {
        without_kernels(kNoBuild);
        outcome.errors = std::string(kBuildError) + "this does not parse\n";
    }
    if (call == "clGetProgramBuildInfo") outcome.errors = std::string(kBuildError) + "\n";
    if (call == "clCreateKernel") outcome.missing = static_cast<std::size_t>(number) - 1;
    if (call == "clReleaseProgram") outcome.left = {"program"};
    if (call == "clReleaseContext") outcome.left = {"context"};
}

std::string lines_of(const Outcome& outcome) {
    return outcome.mode == Mode::kHost ? kCpuOnlyLines : outcome.device.lines() + outcome.lines;
}

void expect_state(const Outcome& outcome) {
    const bool host = outcome.mode == Mode::kHost;
    const bool ready = outcome.mode == Mode::kDevice;
    EXPECT_TRUE(zx_engine_is_initialized());
    EXPECT_EQ(zx_gpu_is_ready(), ready);
    EXPECT_EQ(g_engine.gpu_enabled, ready ? 1 : 0);
    EXPECT_EQ(g_engine.kernels_compiled, ready ? 1 : 0);
    EXPECT_EQ(g_engine.program != nullptr, ready);
    EXPECT_EQ(g_engine.context == nullptr, host);
    EXPECT_EQ(g_engine.queue == nullptr, host);
    EXPECT_EQ(zx_engine_platform_name(), host ? "CPU" : outcome.device.platform_name);
    EXPECT_EQ(zx_engine_device_name(), host ? "CPU (BLAS/SIMD)" : outcome.device.device_name);
    EXPECT_EQ(zx_engine_global_memory(), host ? 0 : outcome.device.global_memory);
    EXPECT_EQ(g_engine.device_type, host ? 0 : outcome.device.type);
    EXPECT_EQ(g_engine.compute_units, host ? 1 : outcome.device.compute_units);
    if (!host) {
        EXPECT_EQ(g_engine.local_mem_size, outcome.device.local_memory);
    }
    for (std::size_t id = 0; id < kKernelCount; ++id)
        EXPECT_EQ(g_kernels.kernels[id] != nullptr, ready && id != outcome.missing) << id;
}

// A batch of pairs and one of triples, of the size that a device is offered: on the device where it
// has the kernel, and else the host's result to the bit.
void expect_work(const Outcome& outcome) {
    constexpr std::uint32_t kBatch = 512;
    const Triples triples = disjoint_triples(kBatch);
    const ModelPtr model = disjoint_model(kBatch, 8, true);
    const ModelPtr expected = disjoint_model(kBatch, 8, true);
    ASSERT_TRUE(model && expected);
    const auto scores_of = [&](const zx_model_t* scored, std::uint32_t first, std::uint32_t count) {
        const TensorPtr scores(zx_model_score(scored, triples.users.data() + first,
                                              triples.positives.data() + first, count));
        return scores ? contents(scores.get()) : std::vector<float>{};
    };
    std::vector<float> host_scores = scores_of(expected.get(), 0, 256);
    const std::vector<float> second_half = scores_of(expected.get(), 256, 256);
    host_scores.insert(host_scores.end(), second_half.begin(), second_half.end());
    const std::vector<float> scores = scores_of(model.get(), 0, kBatch);
    if (outcome.mode == Mode::kDevice && outcome.missing != kBatchedScore)
        EXPECT_TRUE(near_numbers(scores, host_scores));
    else
        EXPECT_TRUE(same_numbers(scores, host_scores));

    train_on_host(expected.get(), triples, 0.05f, 0.1f);
    ASSERT_EQ(train(model.get(), triples, 0.05f, 0.1f), ZX_OK);
    if (outcome.mode == Mode::kDevice && outcome.missing != kBprBatchUpdate) {
        bring_back(model.get());
        EXPECT_TRUE(near_models(model.get(), expected.get()));
    } else {
        EXPECT_TRUE(same_tables(*model, bpr_tables(*expected)));
    }
}

class FailingStart : public EngineTest {
  protected:
    // The calls of a start and of a stop that nothing disturbs.
    struct Calls {
        std::vector<NumberedCall> at_start;
        std::vector<NumberedCall> at_stop;
    };

    // Starts, works and stops with at most one of the calls refused.
    Calls run(const Scenario& scenario, const NumberedCall* at_start, const NumberedCall* at_stop) {
        if (scenario.file == Scenario::kDelivered)
            std::filesystem::copy_file(ZORVEX_KERNEL_FILE, "zorvex_kernels.cl",
                                       std::filesystem::copy_options::overwrite_existing);
        if (scenario.file == Scenario::kDoesNotBuild) write_file("zorvex_kernels.cl", kBroken);
        Outcome outcome = undisturbed(scenario);
        const OpenClObjects before = opencl_objects();
        Calls calls;

        opencl() = {};
        opencl().build_log = "this does not parse";
        if (scenario.queue_refused) opencl().refused = {"clCreateCommandQueueWithProperties"};
        if (at_start) opencl().refused_once.insert(*at_start);
        plant_record();
        const Console started =
            console_of([&] { EXPECT_EQ(zx_engine_init_with_device(scenario.type), ZX_OK); });
        calls.at_start = opencl().numbered();
        if (at_start) {
            EXPECT_NE(std::ranges::find(calls.at_start, *at_start), calls.at_start.end());
            disturb(outcome, *at_start);
        }
        EXPECT_EQ(started.out, lines_of(outcome));
        // The compiler of an OpenCL may write lines of its own before the library's.
        const std::size_t own = std::min(started.err.find("[ZORVEX]"), started.err.size());
        EXPECT_EQ(started.err.substr(own), outcome.mode == Mode::kHost ? "" : outcome.errors);
        if (outcome.mode == Mode::kWithoutKernels)
            expect_recorded(outcome.record.code, outcome.record.file, outcome.record.message);
        else
            expect_untouched();
        expect_state(outcome);
        plant_record();
        opencl() = {};
        expect_work(outcome);
        expect_untouched();

        opencl() = {};
        if (at_stop) opencl().refused_once.insert(*at_stop);
        const Console stopped = console_of([] { zx_engine_shutdown(); });
        calls.at_stop = opencl().numbered();
        EXPECT_EQ(stopped.out, outcome.mode == Mode::kDevice ? std::string(kReleased) + kComplete
                                                             : std::string(kComplete));
        EXPECT_EQ(stopped.err, "");
        expect_untouched();
        expect_engine({.verbosity = -1});
        for (const cl_kernel kernel : g_kernels.kernels) EXPECT_EQ(kernel, nullptr);
        // Without kernels, context and queue are left: they go with GPU mode only.
        if (outcome.mode == Mode::kWithoutKernels)
            outcome.left.insert(outcome.left.end(), {"context", "queue"});
        if (at_stop) {
            EXPECT_NE(std::ranges::find(calls.at_stop, *at_stop), calls.at_stop.end());
            outcome.left.push_back(kind_released_by(at_stop->first));
        }
        std::ranges::sort(outcome.left);
        opencl() = {};
        EXPECT_EQ(release_objects_since(before), outcome.left);
        return calls;
    }

    // Every call in turn.
    void sweep(const Scenario& scenario) {
        const Calls calls = run(scenario, nullptr, nullptr);
        for (const NumberedCall& refusal : calls.at_start) {
            // That this one fails is what the scenario is about.
            if (scenario.queue_refused && refusal.first == "clCreateCommandQueueWithProperties")
                continue;
            SCOPED_TRACE(testing::Message() << refusal.first << " " << refusal.second);
            run(scenario, &refusal, nullptr);
        }
        for (const NumberedCall& refusal : calls.at_stop) {
            SCOPED_TRACE(testing::Message() << refusal.first << " " << refusal.second);
            run(scenario, nullptr, &refusal);
        }
        EXPECT_EQ(calls.at_stop.empty(),
                  scenario.queue_refused || scenario.file != Scenario::kDelivered);
    }

    static std::string kind_released_by(const std::string& call) {
        if (call == "clReleaseKernel") return "kernel";
        if (call == "clReleaseProgram") return "program";
        return call == "clReleaseCommandQueue" ? "queue" : "context";
    }
};

TEST_F(FailingStart, OnADeviceOfTheTypeAskedFor) {
    sweep({CL_DEVICE_TYPE_CPU, Scenario::kDelivered, false});
}

TEST_F(FailingStart, OnADeviceOfAnotherType) {
    sweep({CL_DEVICE_TYPE_ACCELERATOR, Scenario::kDelivered, false});
}

TEST_F(FailingStart, WithoutAKernelFile) {
    sweep({CL_DEVICE_TYPE_CPU, Scenario::kMissing, false});
}

TEST_F(FailingStart, WithAKernelFileThatDoesNotBuild) {
    sweep({CL_DEVICE_TYPE_CPU, Scenario::kDoesNotBuild, false});
}

TEST_F(FailingStart, WithoutAQueue) {
    sweep({CL_DEVICE_TYPE_CPU, Scenario::kDelivered, true});
}

}  // namespace
}  // namespace zx::test
