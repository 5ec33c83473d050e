#include "floors.hpp"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <ctime>
#include <map>

namespace zxbench {
namespace {

constexpr int kRepetitions = 5;
constexpr std::size_t kAhead = 16;

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

void prefetch_row(const float* row, std::size_t d) {
    for (std::size_t k = 0; k < d; k += 16) __builtin_prefetch(row + k);
}

// The processor's own prefetching is not always the best there is, so several distances are tried,
// in words; 0 leaves it to the processor.
constexpr std::size_t kPrefetchDistances[] = {0, 256, 1024, 2048};

std::uint64_t sum_words(const std::vector<std::uint64_t>& words, std::size_t distance) {
    constexpr std::size_t kPageWords = 512;
    const std::size_t end = words.size() / kPageWords * kPageWords;
    std::uint64_t sum = 0;
    for (std::size_t page = 0; page < end; page += kPageWords) {
        if (distance != 0)
            for (std::size_t i = 0; i < kPageWords; i += 8)
                __builtin_prefetch(words.data() + page + distance + i);
        for (std::size_t i = 0; i < kPageWords; ++i) sum += words[page + i];
    }
    return sum;
}

}  // namespace

double processor_seconds() {
    std::timespec time{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double read_bandwidth(std::size_t bytes) {
    static std::map<std::size_t, double> measured;
    const auto found = measured.find(bytes);
    if (found != measured.end()) return found->second;

    const std::vector<std::uint64_t> words(bytes / sizeof(std::uint64_t), 1);
    const std::size_t passes = std::max<std::size_t>(1, (std::size_t{1} << 28) / bytes);
    double seconds = INFINITY;
    for (const std::size_t distance : kPrefetchDistances)
        seconds = std::min(seconds, shortest_seconds(kRepetitions, [&] {
                               for (std::size_t pass = 0; pass < passes; ++pass)
                                   benchmark::DoNotOptimize(sum_words(words, distance));
                           }));
    return measured[bytes] = static_cast<double>(passes * bytes) / seconds;
}

double multiply_add_peak() {
    static const double peak = [] {
        // Enough independent chains to hide the latency at any vector width.
        constexpr std::size_t kChains = 256;
        constexpr std::size_t kSteps = 1 << 20;
        alignas(64) float chains[kChains];
        std::fill_n(chains, kChains, 1.0f);
        const float factor = 0.999f;
        const double seconds = shortest_seconds(kRepetitions, [&] {
            alignas(64) float local[kChains];
            std::copy_n(chains, kChains, local);
            for (std::size_t step = 0; step < kSteps; ++step)
                for (float& chain : local) chain = std::fma(chain, factor, 0.5f);
            benchmark::DoNotOptimize(local);
        });
        return 2.0 * static_cast<double>(kChains) * static_cast<double>(kSteps) / seconds;
    }();
    return peak;
}

double row_update_seconds(float* users, float* items, std::size_t d,
                          const std::vector<std::uint32_t>& user_ids,
                          const std::vector<std::uint32_t>& pos_items,
                          const std::vector<std::uint32_t>& neg_items) {
    const std::size_t count = user_ids.size();
    return shortest_seconds(kRepetitions, [&] {
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t ahead = std::min(i + kAhead, count - 1);
            prefetch_row(users + user_ids[ahead] * d, d);
            prefetch_row(items + pos_items[ahead] * d, d);
            prefetch_row(items + neg_items[ahead] * d, d);
            float* const rows[] = {users + user_ids[i] * d, items + pos_items[i] * d,
                                   items + neg_items[i] * d};
            for (float* const row : rows)
                for (std::size_t k = 0; k < d; ++k) row[k] = row[k] * 0.9999f;
            benchmark::ClobberMemory();
        }
    });
}

double row_pair_seconds(const float* users, const float* items, std::size_t d,
                        const std::vector<std::uint32_t>& user_ids,
                        const std::vector<std::uint32_t>& item_ids) {
    const std::size_t count = user_ids.size();
    return shortest_seconds(kRepetitions, [&] {
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t ahead = std::min(i + kAhead, count - 1);
            prefetch_row(users + user_ids[ahead] * d, d);
            prefetch_row(items + item_ids[ahead] * d, d);
            const auto* const user =
                reinterpret_cast<const std::uint32_t*>(users + user_ids[i] * d);
            const auto* const item =
                reinterpret_cast<const std::uint32_t*>(items + item_ids[i] * d);
            for (std::size_t k = 0; k < d; ++k) sum += user[k] ^ item[k];
        }
        benchmark::DoNotOptimize(sum);
    });
}

}  // namespace zxbench
