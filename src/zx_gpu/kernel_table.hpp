// The table of the process's device kernels, in the order of their ids. A slot is null when the
// kernel file lacks that kernel.
#pragma once

#include "zorvex.h"

#include <cstdint>

namespace zx {

enum zx_kernel_id_t : std::uint32_t {
    kDenseForward,
    kDenseForwardRelu,
    kMatmulTiled,
    kMatmulSimple,
    kEmbeddingLookup,
    kBatchedDotProduct,
    kScoreAllItems,
    kRelu,
    kLeakyRelu,
    kSigmoid,
    kTanhAct,
    kGelu,
    kSoftmaxRows,
    kCosineSimilarity,
    kLayerNorm,
    kVecAdd,
    kVecAddVec4,
    kVecScale,
    kVecAxpy,
    kVecAxpyVec4,
    kBprGradientUpdate,
    kBprBatchUpdate,
    kBatchedScore,
    kReduceSum,
    kReduceMax,
    kKernelCount,
};

inline constexpr const char* kKernelNames[] = {
    "dense_forward",
    "dense_forward_relu",
    "matmul_tiled",
    "matmul_simple",
    "embedding_lookup",
    "batched_dot_product",
    "score_all_items",
    "relu",
    "leaky_relu",
    "sigmoid",
    "tanh_act",
    "gelu",
    "softmax_rows",
    "cosine_similarity",
    "layer_norm",
    "vec_add",
    "vec_add_vec4",
    "vec_scale",
    "vec_axpy",
    "vec_axpy_vec4",
    "bpr_gradient_update",
    "bpr_batch_update",
    "batched_score",
    "reduce_sum",
    "reduce_max",
};
static_assert(sizeof(kKernelNames) / sizeof(kKernelNames[0]) == kKernelCount);

struct KernelTable {
    cl_kernel kernels[kKernelCount];
    std::uint8_t ready;  // 1 once the table has been filled
};

// Process-wide and unsynchronised, as the engine record.
inline KernelTable g_kernels{};

}  // namespace zx
