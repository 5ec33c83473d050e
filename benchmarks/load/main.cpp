// Loading an interactions file, from its bytes to a training matrix, beside its floors in the same
// run: reading the file, and reading it and splitting its lines into fields.
//
// zorvex_load_benchmark [--lines N] [--interleaved] [FILE]
//
// Without a file, a data set of N lines (default 20 million) is generated, with the rows of a user
// together or, as a log would have them, users interleaved. Every step is run three times and the
// quickest counts, in processor time, so that what else the machine does weighs less.
#include "dataset.hpp"
#include "error.hpp"
#include "generate.hpp"
#include "interactions.hpp"
#include "random.hpp"
#include "zorvex.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <memory>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

using zxtool::Error;
using zxtool::Exit;

constexpr int kRuns = 3;
constexpr std::size_t kBlockBytes = 256U << 10U;
// The numbers of users and items of a well-known data set of 20 million ratings.
constexpr std::uint32_t kNumUsers = 138'493;
constexpr std::uint32_t kNumItems = 26'744;

struct FileClose {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileClose>;

double processor_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Step>
double seconds_of(const Step& step) {
    const double start = processor_seconds();
    step();
    return processor_seconds() - start;
}

FilePtr open_for(const std::string& path, const char* mode) {
    FilePtr file(std::fopen(path.c_str(), mode));
    if (!file) throw Error(Exit::kInputOutput, path + ": cannot be opened");
    // Blocks are read and written whole, without a copy through a buffer.
    (void)std::setvbuf(file.get(), nullptr, _IONBF, 0);
    return file;
}

// Rows of random users and items; a low item number is more popular.
void write_interleaved(std::uint64_t lines, std::FILE* output) {
    zxtool::SplitMix64 random(1);
    std::string block;
    for (std::uint64_t line = 0; line < lines; ++line) {
        const double popularity = random.uniform() * random.uniform() * random.uniform();
        block += fmt::format(FMT_STRING("{},{},{}.{},{}\n"), random.below(kNumUsers) + 1,
                             static_cast<std::uint32_t>(popularity * kNumItems) + 1,
                             random.below(5) + 1, 5 * random.below(2), 1'000'000'000 + line);
        if (block.size() < kBlockBytes && line + 1 < lines) continue;
        if (std::fwrite(block.data(), 1, block.size(), output) != block.size())
            throw Error(Exit::kInputOutput, "the generated file cannot be written");
        block.clear();
    }
}

std::string make_file(std::uint64_t lines, bool interleaved) {
    std::string path = "zorvex-load-XXXXXX";
    const int descriptor = mkstemp(path.data());
    if (descriptor < 0) throw Error(Exit::kInputOutput, path + ": cannot be created");
    close(descriptor);
    const FilePtr output = open_for(path, "wb");
    if (interleaved) {
        write_interleaved(lines, output.get());
        return path;
    }
    zxtool::GenerateOptions options;
    options.num_users = kNumUsers;
    options.num_items = kNumItems;
    options.num_interactions = lines;
    zxtool::generate(options, output.get());
    return path;
}

// The first floor: the bytes of the file.
std::uint64_t read_file(const std::string& path) {
    const FilePtr file = open_for(path, "rb");
    std::vector<char> block(kBlockBytes);
    std::uint64_t bytes = 0;
    for (std::size_t count = 1; count > 0; bytes += count)
        count = std::fread(block.data(), 1, block.size(), file.get());
    return bytes;
}

// The second floor: the fields of its lines, found and nothing more. The sum of their lengths keeps
// the work from being left out.
std::uint64_t split_file(const std::string& path) {
    const FilePtr file = open_for(path, "rb");
    std::vector<char> block(2 * kBlockBytes);
    std::uint64_t field_bytes = 0;
    std::size_t kept = 0;
    for (;;) {
        const std::size_t count = std::fread(block.data() + kept, 1, kBlockBytes, file.get());
        if (count == 0) return field_bytes;
        const char* begin = block.data();
        const char* const end = begin + kept + count;
        while (const void* found =
                   std::memchr(begin, '\n', static_cast<std::size_t>(end - begin))) {
            const char* const line_end = static_cast<const char*>(found);
            const char* field = begin;
            while (const void* comma =
                       std::memchr(field, ',', static_cast<std::size_t>(line_end - field))) {
                field_bytes += static_cast<std::uint64_t>(static_cast<const char*>(comma) - field);
                field = static_cast<const char*>(comma) + 1;
            }
            field_bytes += static_cast<std::uint64_t>(line_end - field);
            begin = line_end + 1;
        }
        kept = static_cast<std::size_t>(end - begin);
        std::memmove(block.data(), begin, kept);
    }
}

struct LoadTimes {
    double read = 1e9;
    double prepare = 1e9;
    double matrix = 1e9;
    double total = 1e9;
    std::uint64_t lines = 0;
    std::uint64_t rows = 0;
    std::uint32_t pairs = 0;
};

void load(const std::string& path, LoadTimes& best) {
    zxtool::InteractionFile file;
    zxtool::Dataset dataset;
    zxtool::SparsePtr matrix;
    const zxtool::Preparation preparation;
    zxtool::ReadOptions options;
    zxtool::leave_out_unused(preparation, options);
    const double read = seconds_of([&] { file = zxtool::read_interactions(path, options); });
    best.lines = file.lines;
    best.rows = file.rows.size();
    const double prepare =
        seconds_of([&] { dataset = zxtool::prepare(std::move(file), preparation); });
    const double make = seconds_of([&] {
        matrix = zxtool::make_csr(dataset.users.size(), dataset.items.size(), dataset.train_users,
                                  dataset.train_items, dataset.train_strengths);
    });
    best.read = std::min(best.read, read);
    best.prepare = std::min(best.prepare, prepare);
    best.matrix = std::min(best.matrix, make);
    best.total = std::min(best.total, read + prepare + make);
    best.pairs = matrix->nnz;
}

double peak_bytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return 1024.0 * static_cast<double>(usage.ru_maxrss);
}

void report(const char* name, double seconds, std::uint64_t lines, std::uint64_t bytes) {
    fmt::print("{:<28} {:8.3f} s {:8.1f} million lines/s {:8.1f} MB/s\n", name, seconds,
               1e-6 * static_cast<double>(lines) / seconds,
               1e-6 * static_cast<double>(bytes) / seconds);
}

void run(const std::string& path) {
    double reading = 1e9;
    double splitting = 1e9;
    std::uint64_t bytes = 0;
    std::uint64_t field_bytes = 0;
    for (int i = 0; i < kRuns; ++i) {
        reading = std::min(reading, seconds_of([&] { bytes = read_file(path); }));
        splitting = std::min(splitting, seconds_of([&] { field_bytes = split_file(path); }));
    }
    const double peak_before = peak_bytes();
    LoadTimes best;
    for (int i = 0; i < kRuns; ++i) load(path, best);
    const double peak = peak_bytes() - peak_before;

    fmt::print("compiled by {}\n", __VERSION__);
    fmt::print("{} lines, {} bytes ({} in fields), {} pairs\n", best.lines, bytes, field_bytes,
               best.pairs);
    report("reading the file", reading, best.lines, bytes);
    report("reading and splitting it", splitting, best.lines, bytes);
    report("loading: read_interactions", best.read, best.lines, bytes);
    report("         prepare", best.prepare, best.lines, bytes);
    report("         make_csr", best.matrix, best.lines, bytes);
    report("         in all", best.total, best.lines, bytes);
    fmt::print("loading takes {:.2f} times reading, {:.2f} times reading and splitting\n",
               best.total / reading, best.total / splitting);
    fmt::print("peak memory {:.1f} bytes per interaction\n", peak / static_cast<double>(best.rows));
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t lines = 20'000'000;
    bool interleaved = false;
    std::string path;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--interleaved")
            interleaved = true;
        else if (argument == "--lines" && i + 1 < argc)
            lines = std::strtoull(argv[++i], nullptr, 10);
        else
            path = argument;
    }
    zx_set_verbosity(0);
    const bool is_own = path.empty();
    int status = 0;
    try {
        if (is_own) path = make_file(lines, interleaved);
        run(path);
    } catch (const std::exception& error) {
        fmt::print(stderr, "zorvex_load_benchmark: {}\n", error.what());
        status = 1;
    }
    if (is_own && !path.empty()) unlink(path.c_str());
    return status;
}
