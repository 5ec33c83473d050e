// Work on a range, cut into blocks whose bounds do not depend on the number of threads: what is
// kept per block and put together in the order of the blocks is the same for any number of them.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace zxtool {

struct Block {
    std::size_t index;
    std::size_t begin;
    std::size_t end;
};

inline std::size_t block_count(std::size_t count, std::size_t block_size) {
    return (count + block_size - 1) / block_size;
}

// Calls work(worker, block) for every block of [0, count), each once, from workers 0 to
// `num_workers` - 1, which run at the same time; the calling thread is worker 0. After the first
// exception no further block is begun, and that exception is thrown on.
template <typename Work>
void for_each_block(std::size_t count, std::size_t block_size, unsigned num_workers, Work&& work) {
    const std::size_t blocks = block_count(count, block_size);
    std::atomic<std::size_t> next{0};
    std::exception_ptr failure;
    std::mutex failure_mutex;
    const auto run = [&](unsigned worker) {
        try {
            for (std::size_t b = next.fetch_add(1); b < blocks; b = next.fetch_add(1)) {
                const std::size_t begin = b * block_size;
                work(worker, Block{b, begin, std::min(count, begin + block_size)});
            }
        } catch (...) {
            const std::lock_guard lock(failure_mutex);
            if (!failure) failure = std::current_exception();
            next.store(blocks);
        }
    };
    {
        std::vector<std::jthread> others;
        for (unsigned worker = 1; worker < num_workers && worker < blocks; ++worker)
            others.emplace_back(run, worker);
        run(0);
    }
    if (failure) std::rethrow_exception(failure);
}

}  // namespace zxtool
