// Seeded data for the benchmarks: the same on every machine.
#pragma once

#include "zorvex.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace zxbench {

struct Release {
    void operator()(zx_sparse_t* matrix) const { zx_sparse_release(matrix); }
    void operator()(zx_model_t* model) const { zx_model_release(model); }
    void operator()(zx_tensor_t* tensor) const { zx_tensor_release(tensor); }
};
using SparsePtr = std::unique_ptr<zx_sparse_t, Release>;
using ModelPtr = std::unique_ptr<zx_model_t, Release>;
using TensorPtr = std::unique_ptr<zx_tensor_t, Release>;

// 20,000 users x 10,000 items with about a million entries of 1: item popularity falls like
// 1 / rank^0.8, the number of a user's entries is 5 plus an exponential of mean 46.
const zx_sparse_t& zipf_interactions();

// Triples whose users and positives are entries of the matrix in random order, with sampled
// negatives.
struct Triples {
    std::vector<std::uint32_t> users;
    std::vector<std::uint32_t> pos_items;
    std::vector<std::uint32_t> neg_items;
};
const Triples& zipf_triples();

// Triples of uniformly random ids.
Triples uniform_triples(std::uint32_t num_users, std::uint32_t num_items, std::size_t count);

ModelPtr make_model(std::uint32_t num_users, std::uint32_t num_items, std::uint32_t d,
                    bool use_bias);

}  // namespace zxbench
