// Owners for the library's objects, so that a test that fails half-way leaks nothing.
#pragma once

#include "zorvex.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace zx::test {

struct Release {
    void operator()(zx_tensor_t* tensor) const { zx_tensor_release(tensor); }
    void operator()(zx_sparse_t* matrix) const { zx_sparse_release(matrix); }
    void operator()(zx_model_t* model) const { zx_model_release(model); }
    void operator()(zx_interactions_t* set) const { zx_interactions_free(set); }
    void operator()(zx_pool_t* pool) const { zx_pool_destroy(pool); }
    void operator()(zx_layer_t* layer) const { zx_layer_free(layer); }
    void operator()(zx_optimizer_t* optimizer) const { zx_optimizer_free(optimizer); }
};

using TensorPtr = std::unique_ptr<zx_tensor_t, Release>;
using SparsePtr = std::unique_ptr<zx_sparse_t, Release>;
using ModelPtr = std::unique_ptr<zx_model_t, Release>;
using InteractionsPtr = std::unique_ptr<zx_interactions_t, Release>;
using PoolPtr = std::unique_ptr<zx_pool_t, Release>;
using LayerPtr = std::unique_ptr<zx_layer_t, Release>;
using OptimizerPtr = std::unique_ptr<zx_optimizer_t, Release>;
using Ids = std::vector<std::uint32_t>;

}  // namespace zx::test
