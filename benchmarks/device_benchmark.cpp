// Batches on the OpenCL device beside the same batches on the host, with the device's part taken
// apart: ids up, kernel, results down. Times of this file are wall-clock times, since a device does
// not use the thread's processor time. The floor is the bytes of the rows over the device's
// bandwidth, which the same run measures with the addition of long vectors.
//
// The cases skip themselves where no OpenCL device is found.

#include "data.hpp"

#include <benchmark/benchmark.h>
#include <chrono>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr std::uint32_t kRows = 100000;

double wall_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The mean of enough calls to fill a tenth of a second, after one that is not counted.
double mean_seconds(const std::function<void()>& call) {
    call();
    const double start = wall_seconds();
    double elapsed = 0.0;
    int calls = 0;
    while (elapsed < 0.1) {
        call();
        ++calls;
        elapsed = wall_seconds() - start;
    }
    return elapsed / calls;
}

// The engine, at first without kernels: what the host computes can be timed before load_kernels().
class Engine {
  public:
    Engine() {
        zx_set_verbosity(0);
        (void)zx_engine_init();
        zx_gpu_shutdown();
    }
    ~Engine() {
        (void)zx_engine_sync();
        zx_gpu_shutdown();
        zx_engine_shutdown();
        zx_set_verbosity(0);
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // False, and the case is skipped, without a device that takes them.
    static bool load_kernels(benchmark::State& state) {
        if (zx_engine_global_memory() > 0 && zx_gpu_init_from_file(ZORVEX_KERNEL_FILE) == ZX_OK &&
            zx_gpu_is_ready()) {
            state.SetLabel(zx_engine_device_name());
            return true;
        }
        state.SkipWithError("no OpenCL device");
        return false;
    }
};

// Bytes per second that the device reads and writes when it adds two vectors of 64 MiB.
double device_bandwidth() {
    const std::uint32_t count = 1U << 24;
    const zxbench::TensorPtr sum(zx_tensor_zeros(1, &count));
    const zxbench::TensorPtr a(zx_tensor_zeros(1, &count));
    const zxbench::TensorPtr b(zx_tensor_zeros(1, &count));
    const double seconds = mean_seconds([&] {
        (void)zx_gpu_vec_add(sum.get(), a.get(), b.get());
        (void)zx_engine_sync();
    });
    return 3.0 * count * sizeof(float) / seconds;
}

struct ReleaseDevice {
    void operator()(cl_mem buffer) const { zx_buffer_release(buffer); }
    void operator()(cl_kernel kernel) const { (void)clReleaseKernel(kernel); }
};
using BufferPtr = std::unique_ptr<std::remove_pointer_t<cl_mem>, ReleaseDevice>;
using KernelPtr = std::unique_ptr<std::remove_pointer_t<cl_kernel>, ReleaseDevice>;

BufferPtr ids_up(const std::vector<std::uint32_t>& ids) {
    return BufferPtr(zx_buffer_create_with_data(ids.data(), ids.size() * sizeof(std::uint32_t),
                                                CL_MEM_READ_ONLY));
}

// The seconds of one launch over so many work-items and of waiting for it.
template <typename... Arguments>
double kernel_seconds(const char* name, std::uint32_t items, const Arguments&... arguments) {
    const KernelPtr kernel(zx_kernel_get(name));
    cl_uint index = 0;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): a buffer argument is the handle itself
    ((void)zx_kernel_set_arg(kernel.get(), index++, sizeof(arguments), &arguments), ...);
    return mean_seconds([&] {
        (void)zx_kernel_exec_1d(kernel.get(), items, 0);
        (void)zx_engine_sync();
    });
}

void set_microseconds(benchmark::State& state, const char* name, double seconds) {
    state.counters[name] = seconds * 1e6;
}

// Times the iterations of a case and sets them against the floor and against the host.
void run_device(benchmark::State& state, double host, double bytes,
                const std::function<zx_status_t()>& call) {
    const double floor = bytes / device_bandwidth();
    (void)call();  // uploads the tables, which stay
    double device = 0.0;
    for (auto _ : state) {
        const double start = wall_seconds();
        if (call() != ZX_OK) state.SkipWithError("the device refused the batch");
        device += wall_seconds() - start;
    }
    device /= static_cast<double>(state.iterations());
    set_microseconds(state, "host_us", host);
    set_microseconds(state, "floor_us", floor);
    state.counters["times_floor"] = device / floor;
    state.counters["host_over_device"] = host / device;
}

// A call that is refused for its very last id has tested all of them and done nothing else.
double id_test_seconds(std::vector<std::uint32_t>& last_list,
                       const std::function<zx_status_t()>& call) {
    const std::uint32_t kept = std::exchange(last_list.back(), kRows);
    const double seconds = mean_seconds([&] { benchmark::DoNotOptimize(call()); });
    last_list.back() = kept;
    return seconds;
}

void device_score(benchmark::State& state) {
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const auto count = static_cast<std::uint32_t>(state.range(1));
    const Engine engine;
    const zxbench::ModelPtr model = zxbench::make_model(kRows, kRows, d, false);
    zxbench::Triples pairs = zxbench::uniform_triples(kRows, kRows, count);
    const zxbench::TensorPtr scores(zx_tensor_zeros(1, &count));

    const double host = mean_seconds([&] {
        const zxbench::TensorPtr result(
            zx_model_score(model.get(), pairs.users.data(), pairs.pos_items.data(), count));
        benchmark::DoNotOptimize(result->data);
    });
    if (!Engine::load_kernels(state)) return;
    const auto call = [&] {
        return zx_gpu_batched_score(model->user_embeddings, model->item_embeddings, nullptr,
                                    pairs.users.data(), pairs.pos_items.data(), scores.get(), count,
                                    false);
    };
    run_device(state, host, static_cast<double>(count) * (2.0 * d + 3.0) * sizeof(float), call);

    set_microseconds(state, "ids_tested_us", id_test_seconds(pairs.pos_items, call));
    set_microseconds(state, "ids_up_us", mean_seconds([&] {
                         benchmark::DoNotOptimize(ids_up(pairs.users));
                         benchmark::DoNotOptimize(ids_up(pairs.pos_items));
                     }));
    const BufferPtr users = ids_up(pairs.users);
    const BufferPtr items = ids_up(pairs.pos_items);
    const zx_tensor_t& user_table = *model->user_embeddings;
    const zx_tensor_t& item_table = *model->item_embeddings;
    set_microseconds(
        state, "kernel_us",
        kernel_seconds("batched_score", count, user_table.device_buffer, item_table.device_buffer,
                       item_table.device_buffer, users.get(), items.get(), scores->device_buffer,
                       static_cast<cl_int>(d), static_cast<cl_int>(count), cl_int{0}));
    set_microseconds(state, "scores_down_us",
                     mean_seconds([&] { (void)zx_tensor_to_host(scores.get()); }));
}
BENCHMARK(device_score)
    ->ArgNames({"d", "pairs"})
    ->ArgsProduct({{32, 64, 128}, {512, 4096, 32768, 262144, 4194304}})
    ->UseRealTime()
    ->MinTime(0.1)
    ->Unit(benchmark::kMicrosecond);

void device_bpr(benchmark::State& state) {
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const auto count = static_cast<std::uint32_t>(state.range(1));
    const Engine engine;
    const zxbench::ModelPtr model = zxbench::make_model(kRows, kRows, d, false);
    zxbench::Triples triples = zxbench::uniform_triples(kRows, kRows, count);

    const double host = mean_seconds([&] {
        (void)zx_model_train_step_bpr(model.get(), triples.users.data(), triples.pos_items.data(),
                                      triples.neg_items.data(), count, 0.05f, 0.01f);
    });
    if (!Engine::load_kernels(state)) return;
    const auto call = [&] {
        return zx_gpu_bpr_batch_update(model->user_embeddings, model->item_embeddings, nullptr,
                                       triples.users.data(), triples.pos_items.data(),
                                       triples.neg_items.data(), count, false, 0.05f, 0.01f);
    };
    run_device(state, host, static_cast<double>(count) * (6.0 * d + 3.0) * sizeof(float), call);

    set_microseconds(state, "ids_tested_us", id_test_seconds(triples.neg_items, call));
    set_microseconds(state, "ids_up_us", mean_seconds([&] {
                         benchmark::DoNotOptimize(ids_up(triples.users));
                         benchmark::DoNotOptimize(ids_up(triples.pos_items));
                         benchmark::DoNotOptimize(ids_up(triples.neg_items));
                     }));
    const BufferPtr users = ids_up(triples.users);
    const BufferPtr positives = ids_up(triples.pos_items);
    const BufferPtr negatives = ids_up(triples.neg_items);
    const zx_tensor_t& user_table = *model->user_embeddings;
    const zx_tensor_t& item_table = *model->item_embeddings;
    set_microseconds(state, "kernel_us",
                     kernel_seconds("bpr_batch_update", count, user_table.device_buffer,
                                    item_table.device_buffer, item_table.device_buffer, users.get(),
                                    positives.get(), negatives.get(), 0.05f, 0.01f,
                                    static_cast<cl_int>(d), static_cast<cl_int>(count), cl_int{0}));
}
BENCHMARK(device_bpr)
    ->ArgNames({"d", "triples"})
    ->ArgsProduct({{32, 64, 128}, {512, 4096, 32768, 262144, 4194304}})
    ->UseRealTime()
    ->MinTime(0.1)
    ->Unit(benchmark::kMicrosecond);

// The tables' way to the device and back: what mixing the sides costs.
void device_tables(benchmark::State& state) {
    const auto d = static_cast<std::uint32_t>(state.range(0));
    const Engine engine;
    const zxbench::ModelPtr model = zxbench::make_model(kRows, kRows, d, false);
    if (!Engine::load_kernels(state)) return;
    zx_tensor_t* const table = model->user_embeddings;
    (void)zx_tensor_to_device(table);
    for (auto _ : state) (void)zx_tensor_to_device(table);
    set_microseconds(state, "down_us", mean_seconds([&] { (void)zx_tensor_to_host(table); }));
    state.counters["bytes"] = static_cast<double>(table->size * sizeof(float));
}
BENCHMARK(device_tables)
    ->ArgName("d")
    ->Arg(32)
    ->Arg(64)
    ->Arg(128)
    ->UseRealTime()
    ->MinTime(0.1)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
