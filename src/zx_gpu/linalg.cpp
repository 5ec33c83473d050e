// Device operations on matrices: dense layers, products, row lookups, dot products, scores. None
// waits or copies back.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_gpu/launch.hpp"

namespace {

constexpr zx::Module kModule{"src/zx_gpu"};
using zx::gpu::check_counts;
using zx::gpu::check_extents;
using zx::gpu::check_operands;
using zx::gpu::enqueue;
using zx::gpu::prepare;
using zx::gpu::upload;

// The result of a launch whose refusal is recorded.
zx_status_t recorded(bool enqueued, const char* message) {
    return enqueued ? ZX_OK : kModule.fail(ZX_ERR_KERNEL_EXEC, message);
}

}  // namespace

zx_status_t zx_gpu_dense_forward(zx_tensor_t* output, zx_tensor_t* input, zx_tensor_t* weight,
                                 zx_tensor_t* bias, bool relu) {
    zx_status_t status = check_operands({output, input, weight});
    if (status != ZX_OK) return status;
    const std::uint64_t m = input->dims[0];
    const std::uint64_t k = input->dims[1];
    const std::uint64_t n = weight->dims[0];
    const std::uint64_t has_bias = bias ? 1 : 0;
    if ((status = check_counts({m, k, n})) != ZX_OK) return status;
    status = check_extents({{input, m * k}, {weight, n * k}, {output, m * n}});
    if (status == ZX_OK && bias) status = check_extents({{bias, n}});
    if (status != ZX_OK) return status;

    if ((status = upload({input, weight})) != ZX_OK) return status;
    if (bias && (status = upload({bias})) != ZX_OK) return status;
    if ((status = upload({output})) != ZX_OK) return status;
    // Without a bias the input stands in its place, and the kernel does not touch it.
    return recorded(
        enqueue(relu ? zx::kDenseForwardRelu : zx::kDenseForward,
                {input, weight, bias ? bias : input, output, m, k, n, has_bias}, {m, n}),
        "Dense forward kernel failed");
}

zx_status_t zx_gpu_matmul(zx_tensor_t* c, zx_tensor_t* a, zx_tensor_t* b) {
    zx_status_t status = check_operands({c, a, b});
    if (status != ZX_OK) return status;
    const std::uint64_t m = a->dims[0];
    const std::uint64_t k = a->dims[1];
    const std::uint64_t n = b->dims[0];

    if ((status = prepare({m, k, n}, {{a, m * k}, {b, n * k}, {c, m * n}}, {a, b, c})) != ZX_OK)
        return status;
    // Never the tiled kernel, whatever the size, deliberately.
    return recorded(enqueue(zx::kMatmulSimple, {a, b, c, m, k, n}, {m, n}), "Matmul kernel failed");
}

zx_status_t zx_gpu_embedding_lookup(zx_tensor_t* output, zx_tensor_t* table,
                                    const uint32_t* indices, uint32_t count) {
    zx_status_t status = check_operands({output, table});
    if (status != ZX_OK) return status;
    if (!indices) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL indices");
    const std::uint64_t rows = table->dims[0];
    const std::uint64_t d = table->dims[1];
    const std::uint64_t wanted = count;

    if ((status = prepare({d, wanted, rows}, {{table, rows * d}, {output, wanted * d}},
                          {table, output})) != ZX_OK)
        return status;
    zx::BufferPtr index_buffer(
        zx_buffer_create_with_data(indices, wanted * sizeof(std::uint32_t), CL_MEM_READ_ONLY));
    if (!index_buffer)
        return kModule.fail(ZX_ERR_ALLOCATION_FAILED, "Failed to create index buffer");
    const bool enqueued = enqueue(
        zx::kEmbeddingLookup, {table, index_buffer.get(), output, d, wanted, rows}, {wanted, d});
    index_buffer.reset();  // OpenCL keeps it alive for the enqueued command
    return recorded(enqueued, "Embedding lookup kernel failed");
}

zx_status_t zx_gpu_batched_dot(zx_tensor_t* output, zx_tensor_t* a, zx_tensor_t* b) {
    zx_status_t status = check_operands({output, a, b});
    if (status != ZX_OK) return status;
    const std::uint64_t rows = a->dims[0];
    const std::uint64_t d = a->dims[1];

    if ((status = prepare({rows, d}, {{a, rows * d}, {b, rows * d}, {output, rows}},
                          {a, b, output})) != ZX_OK)
        return status;
    return recorded(enqueue(zx::kBatchedDotProduct, {a, b, output, rows, d}, {rows}),
                    "Batched dot product failed");
}

zx_status_t zx_gpu_score_all_items(zx_tensor_t* scores, zx_tensor_t* user, zx_tensor_t* items) {
    zx_status_t status = check_operands({scores, user, items});
    if (status != ZX_OK) return status;
    const std::uint64_t num_items = items->dims[0];
    const std::uint64_t d = items->dims[1];

    if ((status = prepare({num_items, d}, {{user, d}, {items, num_items * d}, {scores, num_items}},
                          {user, items, scores})) != ZX_OK)
        return status;
    return recorded(enqueue(zx::kScoreAllItems, {user, items, scores, num_items, d}, {num_items}),
                    "Score all items failed");
}
