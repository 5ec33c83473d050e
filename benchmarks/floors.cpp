#include "floors.hpp"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zxbench {
namespace {

constexpr int kRepetitions = 5;
constexpr std::size_t kRowLanes = 16;

// Vectors of the compiler, which are one register each where the machine has them so wide.
template <std::size_t kBytes>
struct FloatVector {
    typedef float type __attribute__((vector_size(kBytes)));
};
typedef std::uint32_t Words __attribute__((vector_size(64)));
constexpr std::size_t kWordsPerVector = sizeof(Words) / sizeof(std::uint32_t);

// Vector i from an address on, at any address and whatever lies there.
Words words_at(const void* start, std::size_t i) {
    Words words;
    std::memcpy(&words, static_cast<const char*>(start) + i * sizeof(Words), sizeof(Words));
    return words;
}

// The shortest of several runs: a floor is what can be reached, not what is usual.
template <typename Body>
double shortest_seconds(int repetitions, const Body& body) {
    double shortest = INFINITY;
    for (int i = 0; i < repetitions; ++i) {
        const double start = processor_seconds();
        body();
        shortest = std::min(shortest, processor_seconds() - start);
    }
    return shortest;
}

template <std::size_t kBytes>
double rate_of_multiply_adds() {
    using Vector = typename FloatVector<kBytes>::type;
    // Enough independent chains to hide the latency of two units, few enough to stay in sixteen
    // registers together with the two constants.
    constexpr std::size_t kChains = 12;
    constexpr std::size_t kSteps = 1 << 18;
    const Vector factor = Vector{} + 0.999f;
    const Vector addend = Vector{} + 0.5f;
    const double seconds = shortest_seconds(kRepetitions, [&] {
        Vector chains[kChains] = {};
        for (std::size_t step = 0; step < kSteps; ++step)
#pragma GCC unroll 12
            for (std::size_t c = 0; c < kChains; ++c) chains[c] = chains[c] * factor + addend;
        benchmark::DoNotOptimize(chains);
    });
    constexpr std::size_t kLanes = kBytes / sizeof(float);
    return 2.0 * static_cast<double>(kLanes * kChains * kSteps) / seconds;
}

// A block read as kStreams parts side by side, a few lines of each in turn. Several streams keep
// more of the memory busy than one, whose prefetching starts anew on every page.
template <std::size_t kStreams>
void read_streams(const char* block, std::size_t part_bytes, std::size_t ahead) {
    constexpr std::size_t kTurn = 4 * sizeof(Words);
    Words sums[4] = {};
    for (std::size_t at = 0; at < part_bytes; at += kTurn)
        for (std::size_t stream = 0; stream < kStreams; ++stream) {
            const char* const turn = block + stream * part_bytes + at;
            if (ahead != 0)
                for (std::size_t i = 0; i < kTurn; i += 64) __builtin_prefetch(turn + ahead + i);
            for (std::size_t i = 0; i < 4; ++i) sums[i] += words_at(turn, i);
        }
    benchmark::DoNotOptimize(sums);
}

template <std::size_t kStreams>
double seconds_of_streams(const char* block, std::size_t bytes) {
    const std::size_t part_bytes = bytes / kStreams / 256 * 256;
    const auto read_bytes = static_cast<double>(part_bytes * kStreams);
    const std::size_t passes = std::max<std::size_t>(1, (std::size_t{8} << 20) / bytes);
    double shortest = INFINITY;
    for (const std::size_t ahead : {std::size_t{0}, std::size_t{512}, std::size_t{4096}})
        shortest = std::min(shortest, shortest_seconds(3, [&] {
                                for (std::size_t pass = 0; pass < passes; ++pass)
                                    read_streams<kStreams>(block, part_bytes, ahead);
                            }));
    return shortest / static_cast<double>(passes) * (static_cast<double>(bytes) / read_bytes);
}

void prefetch_row(const float* row, std::size_t d) {
    for (std::size_t k = 0; k < d; k += kRowLanes) __builtin_prefetch(row + k);
}

// How many pairs or triples ahead rows are prefetched; 0 leaves it to the processor.
constexpr std::size_t kDistances[] = {0, 4, 8, 16, 32};

template <typename Body>
double shortest_over_distances(const Body& body) {
    double shortest = INFINITY;
    for (const std::size_t ahead : kDistances)
        shortest = std::min(shortest, shortest_seconds(3, [&] { body(ahead); }));
    return shortest;
}

// The constant number of vectors lets the compiler unroll the rows of the usual dimensions.
template <std::size_t kVectors>
void read_pairs(const float* users, const float* items, const std::vector<std::uint32_t>& user_ids,
                const std::vector<std::uint32_t>& item_ids, std::size_t ahead) {
    constexpr std::size_t kDim = kVectors * kWordsPerVector;
    const std::size_t count = user_ids.size();
    Words sum = {};
    for (std::size_t i = 0; i < count; ++i) {
        if (ahead != 0) {
            const std::size_t next = std::min(i + ahead, count - 1);
            prefetch_row(users + user_ids[next] * kDim, kDim);
            prefetch_row(items + item_ids[next] * kDim, kDim);
        }
        const void* const user = users + user_ids[i] * kDim;
        const void* const item = items + item_ids[i] * kDim;
        for (std::size_t k = 0; k < kVectors; ++k) sum += words_at(user, k) ^ words_at(item, k);
    }
    benchmark::DoNotOptimize(sum);
}

template <std::size_t kVectors>
void update_triples(float* users, float* items, const std::vector<std::uint32_t>& user_ids,
                    const std::vector<std::uint32_t>& pos_items,
                    const std::vector<std::uint32_t>& neg_items, std::size_t ahead) {
    constexpr std::size_t kDim = kVectors * kWordsPerVector;
    const std::size_t count = user_ids.size();
    std::uint32_t zero = 0;
    benchmark::DoNotOptimize(zero);  // the rows keep their values, and the compiler cannot know
    for (std::size_t i = 0; i < count; ++i) {
        if (ahead != 0) {
            const std::size_t next = std::min(i + ahead, count - 1);
            prefetch_row(users + user_ids[next] * kDim, kDim);
            prefetch_row(items + pos_items[next] * kDim, kDim);
            prefetch_row(items + neg_items[next] * kDim, kDim);
        }
        float* const rows[] = {users + user_ids[i] * kDim, items + pos_items[i] * kDim,
                               items + neg_items[i] * kDim};
        for (float* const row : rows)
            for (std::size_t k = 0; k < kVectors; ++k) {
                const Words words = words_at(row, k) + zero;
                std::memcpy(row + k * kWordsPerVector, &words, sizeof(words));
            }
    }
}

// The generator as the library defines it, so that it can be drawn from inline: xoshiro256**.
float draw(std::uint64_t (&s)[4]) {
    const std::uint64_t result = std::rotl(s[1] * 5, 7) * 9;
    const std::uint64_t t = s[1] << 17;
    s[2] ^= s[0];
    s[3] ^= s[1];
    s[1] ^= s[2];
    s[0] ^= s[3];
    s[2] ^= t;
    s[3] = std::rotl(s[3], 45);
    return static_cast<float>(static_cast<double>(result >> 11) * 0x1p-53);
}

// Memory as the system hands it out: a page, small or large, comes with its first touch.
class FreshMemory {
  public:
    FreshMemory(std::size_t bytes, bool has_large_pages)
        : bytes_(bytes),
          data_(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (data_ == MAP_FAILED) std::abort();
        if (has_large_pages) (void)madvise(data_, bytes_, MADV_HUGEPAGE);
    }
    ~FreshMemory() { (void)munmap(data_, bytes_); }
    FreshMemory(const FreshMemory&) = delete;
    FreshMemory& operator=(const FreshMemory&) = delete;

    char* data() const { return static_cast<char*>(data_); }

  private:
    const std::size_t bytes_;
    void* const data_;
};

// The shortest of filling fresh memory of small and of large pages.
template <typename Fill>
double shortest_fill_seconds(std::size_t bytes, const Fill& fill) {
    double shortest = INFINITY;
    for (const bool has_large_pages : {false, true})
        shortest = std::min(shortest, shortest_seconds(3, [&] {
                                const FreshMemory memory(bytes, has_large_pages);
                                fill(memory.data());
                                benchmark::ClobberMemory();
                            }));
    return shortest;
}

}  // namespace

double processor_seconds() {
    std::timespec time{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double multiply_add_rate(std::size_t vector_bytes) {
    if (vector_bytes == 16) return rate_of_multiply_adds<16>();
    if (vector_bytes == 32) return rate_of_multiply_adds<32>();
    return rate_of_multiply_adds<64>();
}

double multiply_add_peak() {
    return std::max({multiply_add_rate(16), multiply_add_rate(32), multiply_add_rate(64)});
}

double read_seconds(const void* block, std::size_t bytes) {
    const auto* const first = static_cast<const char*>(block);
    return std::min({seconds_of_streams<1>(first, bytes), seconds_of_streams<4>(first, bytes),
                     seconds_of_streams<8>(first, bytes)});
}

double row_read_seconds(const float* table, std::size_t d, const std::vector<std::uint32_t>& ids,
                        std::size_t ahead) {
    return shortest_seconds(kRepetitions, [&] {
        Words sum = {};
        for (std::size_t i = 0; i < ids.size(); ++i) {
            if (ahead != 0) prefetch_row(table + ids[std::min(i + ahead, ids.size() - 1)] * d, d);
            const void* const row = table + ids[i] * d;
            for (std::size_t k = 0; k < d / kWordsPerVector; ++k) sum += words_at(row, k);
        }
        benchmark::DoNotOptimize(sum);
    });
}

double row_pair_seconds(const float* users, const float* items, std::size_t d,
                        const std::vector<std::uint32_t>& user_ids,
                        const std::vector<std::uint32_t>& item_ids) {
    return shortest_over_distances([&](std::size_t ahead) {
        if (d == 64)
            read_pairs<4>(users, items, user_ids, item_ids, ahead);
        else
            read_pairs<8>(users, items, user_ids, item_ids, ahead);
    });
}

double row_update_seconds(float* users, float* items, std::size_t d,
                          const std::vector<std::uint32_t>& user_ids,
                          const std::vector<std::uint32_t>& pos_items,
                          const std::vector<std::uint32_t>& neg_items) {
    return shortest_over_distances([&](std::size_t ahead) {
        if (d == 64)
            update_triples<4>(users, items, user_ids, pos_items, neg_items, ahead);
        else
            update_triples<8>(users, items, user_ids, pos_items, neg_items, ahead);
    });
}

double draw_seconds(std::size_t count) {
    return shortest_seconds(kRepetitions, [&] {
        std::uint64_t state[4] = {1, 2, 3, 4};
        float sum = 0.0f;
        for (std::size_t i = 0; i < count; ++i) sum += draw(state);
        benchmark::DoNotOptimize(sum);
    });
}

double draw_into_fresh_memory_seconds(std::size_t count) {
    return shortest_fill_seconds(count * sizeof(float), [&](char* memory) {
        std::uint64_t state[4] = {1, 2, 3, 4};
        auto* const values = reinterpret_cast<float*>(memory);
        for (std::size_t i = 0; i < count; ++i) values[i] = draw(state);
    });
}

double fresh_memory_seconds(std::size_t bytes) {
    return shortest_fill_seconds(bytes, [&](char* memory) {
        for (std::size_t at = 0; at < bytes; at += 4096) memory[at] = 1;
    });
}

double read_file_into_fresh_memory_seconds(const char* path, std::size_t bytes) {
    return shortest_fill_seconds(bytes, [&](char* memory) {
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        std::size_t at = 0;
        for (ssize_t got = 1; got > 0; at += static_cast<std::size_t>(std::max<ssize_t>(got, 0)))
            got = read(file, memory + at, bytes - at);
        (void)close(file);
    });
}

}  // namespace zxbench
