// What the machine allows, measured when first asked for and kept for the run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zxbench {

// The thread's processor time in seconds. Cases and floors are compared by it, so that what else
// the machine does weighs less.
double processor_seconds();

// Bytes per second when a block of this many bytes is read again and again, in order.
double read_bandwidth(std::size_t bytes);

// Floating-point operations per second of one core's fused multiply-adds.
double multiply_add_peak();

// Seconds for reading and writing back three rows of d floats for each triple, without any
// arithmetic that depends on another triple: the memory side of a BPR step. The rows of later
// triples are prefetched.
double row_update_seconds(float* users, float* items, std::size_t d,
                          const std::vector<std::uint32_t>& user_ids,
                          const std::vector<std::uint32_t>& pos_items,
                          const std::vector<std::uint32_t>& neg_items);

// Seconds for reading two rows of d floats for each pair, prefetched likewise.
double row_pair_seconds(const float* users, const float* items, std::size_t d,
                        const std::vector<std::uint32_t>& user_ids,
                        const std::vector<std::uint32_t>& item_ids);

}  // namespace zxbench
