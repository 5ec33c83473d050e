// Making, storing and loading a model. Making one draws a number for every element and touches the
// memory of the tables for the first time; loading does both, since the generator advances, and
// reads the file. A stored model is compared with the program cp copying the same file in the same
// folder.

#include "data.hpp"
#include "floors.hpp"
#include "report.hpp"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Tables that are too large for the C library to keep between two models.
constexpr std::uint32_t kRows = 150000;
constexpr std::uint32_t kDim = 64;
constexpr std::size_t kElements = 2 * std::size_t{kRows} * kDim;
constexpr std::size_t kTableBytes = kElements * sizeof(float);

double wall_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

class Folder {
  public:
    Folder() {
        std::string name = (std::filesystem::temp_directory_path() / "zorvex-XXXXXX").string();
        if (mkdtemp(name.data())) path_ = name;
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string file(const char* name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

void set_ns_each(benchmark::State& state, const char* name, double seconds) {
    state.counters[name] = seconds / kElements * 1e9;
}

void model_create(benchmark::State& state) {
    zxbench::Report report(state, zxbench::draw_into_fresh_memory_seconds(kElements), kElements);
    for (auto _ : state)
        benchmark::DoNotOptimize(zxbench::make_model(kRows, kRows, kDim, false).get());
    report.finish();
    set_ns_each(state, "draw_ns_each", zxbench::draw_seconds(kElements));
    set_ns_each(state, "touch_ns_each", zxbench::fresh_memory_seconds(kTableBytes));
}
BENCHMARK(model_create)->Unit(benchmark::kMillisecond);

void model_load(benchmark::State& state) {
    const Folder folder;
    const std::string path = folder.file("model.zxm");
    if (zx_model_save(zxbench::make_model(kRows, kRows, kDim, false).get(), path.c_str()) != ZX_OK)
        state.SkipWithError("saving failed");
    const double draws = zxbench::draw_seconds(kElements);
    const double reading = zxbench::read_file_into_fresh_memory_seconds(path.c_str(), kTableBytes);
    zxbench::Report report(state, draws + reading, kElements);
    for (auto _ : state)
        if (!zxbench::ModelPtr(zx_model_load(path.c_str()))) state.SkipWithError("loading failed");
    report.finish();
    set_ns_each(state, "draw_ns_each", draws);
    set_ns_each(state, "read_ns_each", reading);
}
BENCHMARK(model_load)->Unit(benchmark::kMillisecond);

void copy_file(benchmark::State& state, const std::string& from, const std::string& to) {
    std::string name = "cp";
    std::string source = from;
    std::string target = to;
    const std::array<char*, 4> arguments = {name.data(), source.data(), target.data(), nullptr};
    pid_t child = 0;
    int status = 1;
    if (posix_spawnp(&child, "cp", nullptr, nullptr, arguments.data(), environ) != 0 ||
        waitpid(child, &status, 0) != child || status != 0)
        state.SkipWithError("cp failed");
}

// The bytes of the tables written by one call.
double write_seconds(const zx_model_t& model, const std::string& path) {
    const double start = wall_seconds();
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const std::size_t bytes = kTableBytes / 2;
    const bool is_written =
        write(file, model.user_embeddings->data, bytes) == static_cast<ssize_t>(bytes) &&
        write(file, model.item_embeddings->data, bytes) == static_cast<ssize_t>(bytes);
    (void)close(file);
    return is_written ? wall_seconds() - start : 0.0;
}

double median(std::array<double, 5> values) {
    std::sort(values.begin(), values.end());
    return values[2];
}

// In elapsed time, since a copy is another process: medians of five, in turn.
void model_save(benchmark::State& state) {
    const Folder folder;
    const std::string path = folder.file("model.zxm");
    const zxbench::ModelPtr model = zxbench::make_model(kRows, kRows, kDim, false);
    std::array<double, 5> saving{};
    std::array<double, 5> copying{};
    std::array<double, 5> writing{};
    for (auto _ : state)
        for (std::size_t i = 0; i < saving.size(); ++i) {
            const double start = wall_seconds();
            if (zx_model_save(model.get(), path.c_str()) != ZX_OK)
                state.SkipWithError("saving failed");
            saving[i] = wall_seconds() - start;
            const double copy_start = wall_seconds();
            copy_file(state, path, folder.file("copy"));
            copying[i] = wall_seconds() - copy_start;
            writing[i] = write_seconds(*model, folder.file("written"));
        }
    set_ns_each(state, "ns_each", median(saving));
    set_ns_each(state, "floor_ns_each", median(copying));
    set_ns_each(state, "write_ns_each", median(writing));
    state.counters["times_floor"] = median(saving) / median(copying);
}
BENCHMARK(model_save)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
