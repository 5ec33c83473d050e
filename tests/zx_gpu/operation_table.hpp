// The operations on tensors as a table: what each takes, in which order it uploads, what it
// launches and what it says when the launch is refused.
#pragma once

#include "zorvex.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zx::test {

// The four rows that the lookup of the table fetches.
inline constexpr std::uint32_t kRowsWanted[] = {5, 0, 3, 3};

struct Operation {
    const char* name = "";
    // Extents of each tensor in the order of the arguments. The sizes all differ, so that a buffer
    // tells by its size whose it is.
    std::vector<std::vector<std::uint32_t>> dims;
    std::vector<std::size_t> upload_order;
    std::vector<std::size_t> global;
    // Elements that the kernel touches in each tensor, 0 where every size will do.
    std::vector<std::uint64_t> needed;
    // The tensors and axes whose extents are counts for the kernel; kSize for the element count.
    struct Count {
        std::size_t tensor;
        std::size_t axis;
    };
    std::vector<Count> counts;
    std::size_t result = 0;
    std::size_t required = 0;       // tensors that must not be null: the first so many
    const char* refusal = nullptr;  // recorded when the launch is refused; null: nothing is
    std::size_t index_bytes = 0;    // size of the temporary buffer of indices
    zx_status_t (*call)(zx_tensor_t* const* t) = nullptr;
};

inline constexpr std::size_t kSize = 99;

inline std::vector<Operation> operations() {
    using Tensors = zx_tensor_t* const*;
    const std::vector<Operation::Count> matrix_product = {{1, 0}, {1, 1}, {2, 0}};
    const auto in_place = [](const char* name, zx_status_t (*call)(Tensors)) {
        return Operation{name, {{2, 3}}, {0}, {6}, {0}, {{0, kSize}}, 0, 1, nullptr, 0, call};
    };
    return {
        {"dense_forward",
         {{2, 5}, {2, 3}, {5, 3}, {5}},
         {1, 2, 3, 0},
         {2, 5},
         {10, 6, 15, 5},
         matrix_product,
         0,
         3,
         "Dense forward kernel failed",
         0,
         [](Tensors t) { return zx_gpu_dense_forward(t[0], t[1], t[2], t[3], false); }},
        {"dense_forward with relu",
         {{2, 5}, {2, 3}, {5, 3}, {5}},
         {1, 2, 3, 0},
         {2, 5},
         {10, 6, 15, 5},
         matrix_product,
         0,
         3,
         "Dense forward kernel failed",
         0,
         [](Tensors t) { return zx_gpu_dense_forward(t[0], t[1], t[2], t[3], true); }},
        {"matmul",
         {{2, 5}, {2, 3}, {5, 3}},
         {1, 2, 0},
         {2, 5},
         {10, 6, 15},
         matrix_product,
         0,
         3,
         "Matmul kernel failed",
         0,
         [](Tensors t) { return zx_gpu_matmul(t[0], t[1], t[2]); }},
        {"embedding_lookup",
         {{4, 3}, {6, 3}},
         {1, 0},
         {4, 3},
         {12, 18},
         {{1, 0}, {1, 1}},
         0,
         2,
         "Embedding lookup kernel failed",
         16,
         [](Tensors t) { return zx_gpu_embedding_lookup(t[0], t[1], kRowsWanted, 4); }},
        {"batched_dot",
         {{2}, {2, 3}, {3, 3}},
         {1, 2, 0},
         {2},
         {2, 6, 6},
         {{1, 0}, {1, 1}},
         0,
         3,
         "Batched dot product failed",
         0,
         [](Tensors t) { return zx_gpu_batched_dot(t[0], t[1], t[2]); }},
        {"score_all_items",
         {{4}, {3}, {4, 3}},
         {1, 2, 0},
         {4},
         {4, 3, 12},
         {{2, 0}, {2, 1}},
         0,
         3,
         "Score all items failed",
         0,
         [](Tensors t) { return zx_gpu_score_all_items(t[0], t[1], t[2]); }},
        in_place("relu", [](Tensors t) { return zx_gpu_relu(t[0]); }),
        in_place("sigmoid", [](Tensors t) { return zx_gpu_sigmoid(t[0]); }),
        in_place("tanh", [](Tensors t) { return zx_gpu_tanh(t[0]); }),
        in_place("gelu", [](Tensors t) { return zx_gpu_gelu(t[0]); }),
        in_place("leaky_relu", [](Tensors t) { return zx_gpu_leaky_relu(t[0], 0.25f); }),
        in_place("vec_scale", [](Tensors t) { return zx_gpu_vec_scale(t[0], 3.0f); }),
        {"softmax_rows",
         {{2, 3}},
         {0},
         {2},
         {6},
         {{0, 0}, {0, 1}},
         0,
         1,
         nullptr,
         0,
         [](Tensors t) { return zx_gpu_softmax_rows(t[0]); }},
        {"layer_norm",
         {{2, 3}, {3}, {4}},
         {0, 1, 2},
         {2},
         {6, 3, 3},
         {{0, 0}, {0, 1}},
         0,
         3,
         nullptr,
         0,
         [](Tensors t) { return zx_gpu_layer_norm(t[0], t[1], t[2], 1e-5f); }},
        {"cosine_similarity",
         {{2}, {2, 3}, {3, 3}},
         {1, 2, 0},
         {2},
         {2, 6, 6},
         {{1, 0}, {1, 1}},
         0,
         3,
         nullptr,
         0,
         [](Tensors t) { return zx_gpu_cosine_similarity(t[0], t[1], t[2]); }},
        {"vec_add",
         {{8}, {2, 3}, {7}},
         {1, 2, 0},
         {6},
         {6, 0, 6},
         {{1, kSize}},
         0,
         3,
         nullptr,
         0,
         [](Tensors t) { return zx_gpu_vec_add(t[0], t[1], t[2]); }},
        {"vec_axpy",
         {{2, 3}, {7}},
         {0, 1},
         {6},
         {0, 6},
         {{0, kSize}},
         1,
         2,
         nullptr,
         0,
         [](Tensors t) { return zx_gpu_vec_axpy(t[0], t[1], 2.0f); }},
    };
}

}  // namespace zx::test
