// Recommending for all users of a model with the tool, from opening the model to its answers in a
// file, beside the floor in the same run: the library's top K of every user, not written anywhere.
//
// zorvex_recommend_all_benchmark
//
// Every step is run three times and the quickest counts, in processor time, on one thread.
#include "command_line.hpp"
#include "model_store.hpp"
#include "zorvex.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fmt/format.h>
#include <new>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int kRuns = 3;
constexpr std::uint32_t kDimension = 64;
constexpr std::uint32_t kBest = 10;

double processor_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Step>
double quickest(const Step& step) {
    double best = 1e9;
    for (int run = 0; run < kRuns; ++run) {
        const double start = processor_seconds();
        step();
        best = std::min(best, processor_seconds() - start);
    }
    return best;
}

void rank_all(zx_model_t& model) {
    std::vector<std::uint32_t> items(kBest);
    std::vector<float> scores(kBest);
    for (std::uint32_t user = 0; user < model.num_users; ++user)
        if (zx_recommend(&model, user, kBest, items.data(), scores.data()) != ZX_OK)
            throw std::bad_alloc();
}

void run_tool(std::vector<std::string> arguments) {
    zxtool::GlobalOptions global;
    CLI::App app;
    zxtool::add_command_line(app, global);
    std::reverse(arguments.begin(), arguments.end());  // as CLI11 takes them
    app.parse(arguments);
}

void compare(const std::string& folder, std::uint32_t num_users, std::uint32_t num_items) {
    const zxtool::ModelPtr model(zx_model_mf_create(num_users, num_items, kDimension, false));
    if (!model) throw std::bad_alloc();
    const std::string path = folder + "/model.zxm";
    const std::string answers = folder + "/answers";
    if (zx_model_save(model.get(), path.c_str()) != ZX_OK) throw std::bad_alloc();
    const std::vector<std::string> command = {
        "-q", "recommend",           path,       "--all", "-o",        answers,
        "-k", std::to_string(kBest), "--device", "cpu",   "--threads", "1"};
    std::vector<std::string> as_json = command;
    as_json.insert(as_json.begin(), "--json");

    const double floor = quickest([&] { rank_all(*model); });
    const auto report = [&](const char* name, double seconds) {
        fmt::print("{:>7} items  {:<20} {:9.1f} us/user {:6.2f} times the library's top {}\n",
                   num_items, name, 1e6 * seconds / num_users, seconds / floor, kBest);
    };
    report("library", floor);
    report("recommend, CSV", quickest([&] { run_tool(command); }));
    report("recommend, JSON", quickest([&] { run_tool(as_json); }));
}

}  // namespace

int main() {
    zx_set_verbosity(0);
    std::string folder = "zorvex-recommend-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) return 1;
    int status = 0;
    try {
        compare(folder, 20'000, 10'000);
        compare(folder, 2'000, 100'000);
    } catch (const std::exception& error) {
        fmt::print(stderr, "zorvex_recommend_all_benchmark: {}\n", error.what());
        status = 1;
    }
    fs::remove_all(folder);
    return status;
}
