// What the machine allows. Every floor is measured when it is asked for, close to the case that is
// compared with it, with the vectors and the prefetch distance that turn out quickest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zxbench {

// The thread's processor time in seconds. Cases and floors are compared by it, so that what else
// the machine does weighs less.
double processor_seconds();

// Floating-point operations per second of one core's fused multiply-adds on vectors of 16, 32 or 64
// bytes, and the highest of the three.
double multiply_add_rate(std::size_t vector_bytes);
double multiply_add_peak();

// Seconds for reading a block once, in whatever order is quickest.
double read_seconds(const void* block, std::size_t bytes);

// Seconds for reading rows of d floats, d a multiple of 16, by their ids. Nothing is prefetched
// with an `ahead` of 0, otherwise the row so many ids ahead.
double row_read_seconds(const float* table, std::size_t d, const std::vector<std::uint32_t>& ids,
                        std::size_t ahead);

// Seconds for reading a user's and an item's row of d floats, 64 or 128, for each pair; the best
// distance of prefetch.
double row_pair_seconds(const float* users, const float* items, std::size_t d,
                        const std::vector<std::uint32_t>& user_ids,
                        const std::vector<std::uint32_t>& item_ids);

// Seconds for reading and writing back three rows of d floats, 64 or 128, for each triple, without
// any arithmetic that depends on another triple: the memory side of a BPR step. The rows keep their
// values.
double row_update_seconds(float* users, float* items, std::size_t d,
                          const std::vector<std::uint32_t>& user_ids,
                          const std::vector<std::uint32_t>& pos_items,
                          const std::vector<std::uint32_t>& neg_items);

// Seconds for so many draws of the generator, their sum kept, and for writing them to memory that
// nobody has touched before, which is given back.
double draw_seconds(std::size_t count);
double draw_into_fresh_memory_seconds(std::size_t count);

// Seconds for touching fresh memory of this size and giving it back.
double fresh_memory_seconds(std::size_t bytes);

// Seconds for reading a file of this size, which the system has in memory, into fresh memory.
double read_file_into_fresh_memory_seconds(const char* path, std::size_t bytes);

}  // namespace zxbench
