// What loading any bytes must come to, worked out from the bytes alone, step by step as the format
// is documented: the fuzzers and the sweep compare the library with it.
#pragma once

#include "zorvex.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace zx::fuzz {

// What the error record says afterwards; nothing after a success.
struct Refusal {
    zx_status_t code = ZX_OK;
    const char* file = nullptr;
    const char* message = "";
};

struct ExpectedTensor {
    std::uint64_t bytes = 0;
    std::string data;          // its first bytes
    bool zero_behind = false;  // those behind are zeros, or else whatever creation fills in

    // Sees that a tensor is this one.
    void require_is(const zx_tensor_t& tensor) const;
};

struct ExpectedModel {
    Refusal refusal;
    std::uint32_t num_users = 0;
    std::uint32_t num_items = 0;
    std::uint32_t d = 0;
    bool use_bias = false;
    ExpectedTensor tensors[4];  // of users, items, users' biases, items' biases
    // What the tensors take that can be made before the load ends.
    std::uint64_t described_bytes = 0;
};

// Of zx_model_load(), when single allocations of more than `limit` bytes fail.
ExpectedModel expected_model(std::string_view file, std::uint64_t limit);

// Sees that a loaded model is this one.
void require_is(const ExpectedModel& expected, const zx_model_t& model);

struct ExpectedSingle {
    Refusal refusal;
    ExpectedTensor tensor;
};

// Of creating a tensor of these extents, filled with zeros.
ExpectedSingle expected_tensor(std::uint32_t ndim, const std::uint32_t* dims, std::uint64_t limit);

// Of zx_tensor_load().
ExpectedSingle expected_tensor_file(std::string_view file, std::uint64_t limit);

// Sees that the error record says this and nothing else; it was clear before.
void require_record(const Refusal& expected);

}  // namespace zx::fuzz
