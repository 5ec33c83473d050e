// Device operations on elements, rows and vectors. None waits or copies back, and none records a
// launch that OpenCL refuses, deliberately unlike the operations on matrices.

#include "common/module.hpp"
#include "zorvex.h"
#include "zx_gpu/launch.hpp"

namespace {

constexpr zx::Module kModule{"src/zx_gpu"};
using zx::gpu::Argument;
using zx::gpu::check_operands;
using zx::gpu::enqueue;
using zx::gpu::prepare;

zx_status_t unrecorded(bool enqueued) {
    return enqueued ? ZX_OK : ZX_ERR_KERNEL_EXEC;
}

// Checks and uploads the one tensor of an operation that works in place.
zx_status_t prepare_in_place(zx_tensor_t* x) {
    const zx_status_t status = check_operands({x});
    return status == ZX_OK ? prepare({x->size}, {}, {x}) : status;
}

// An activation without parameters, element by element.
zx_status_t activate(zx::zx_kernel_id_t kernel, zx_tensor_t* x) {
    const zx_status_t status = prepare_in_place(x);
    if (status != ZX_OK) return status;
    return unrecorded(enqueue(kernel, {x, x->size}, {x->size}));
}

}  // namespace

zx_status_t zx_gpu_relu(zx_tensor_t* x) {
    return activate(zx::kRelu, x);
}

zx_status_t zx_gpu_sigmoid(zx_tensor_t* x) {
    return activate(zx::kSigmoid, x);
}

zx_status_t zx_gpu_tanh(zx_tensor_t* x) {
    return activate(zx::kTanhAct, x);
}

zx_status_t zx_gpu_gelu(zx_tensor_t* x) {
    return activate(zx::kGelu, x);
}

zx_status_t zx_gpu_leaky_relu(zx_tensor_t* x, float alpha) {
    const zx_status_t status = prepare_in_place(x);
    if (status != ZX_OK) return status;
    return unrecorded(enqueue(zx::kLeakyRelu, {x, x->size, alpha}, {x->size}));
}

zx_status_t zx_gpu_vec_scale(zx_tensor_t* x, float s) {
    const zx_status_t status = prepare_in_place(x);
    if (status != ZX_OK) return status;
    return unrecorded(enqueue(zx::kVecScale, {x, s, x->size}, {x->size}));
}

zx_status_t zx_gpu_softmax_rows(zx_tensor_t* x) {
    zx_status_t status = check_operands({x});
    if (status != ZX_OK) return status;
    if (x->ndim != 2) return kModule.fail(ZX_ERR_DIMENSION_MISMATCH, "Softmax requires 2D tensor");
    const std::uint64_t rows = x->dims[0];
    const std::uint64_t cols = x->dims[1];

    if ((status = prepare({rows, cols}, {{x, rows * cols}}, {x})) != ZX_OK) return status;
    return unrecorded(enqueue(zx::kSoftmaxRows, {x, rows, cols}, {rows}));
}

zx_status_t zx_gpu_layer_norm(zx_tensor_t* x, zx_tensor_t* gamma, zx_tensor_t* beta, float eps) {
    zx_status_t status = check_operands({x, gamma, beta});
    if (status != ZX_OK) return status;
    const std::uint64_t rows = x->dims[0];
    const std::uint64_t cols = x->dims[1];

    if ((status = prepare({rows, cols}, {{x, rows * cols}, {gamma, cols}, {beta, cols}},
                          {x, gamma, beta})) != ZX_OK)
        return status;
    return unrecorded(enqueue(zx::kLayerNorm, {x, gamma, beta, rows, cols, eps}, {rows}));
}

zx_status_t zx_gpu_cosine_similarity(zx_tensor_t* output, zx_tensor_t* a, zx_tensor_t* b) {
    zx_status_t status = check_operands({output, a, b});
    if (status != ZX_OK) return status;
    const std::uint64_t rows = a->dims[0];
    const std::uint64_t d = a->dims[1];

    if ((status = prepare({rows, d}, {{a, rows * d}, {b, rows * d}, {output, rows}},
                          {a, b, output})) != ZX_OK)
        return status;
    return unrecorded(enqueue(zx::kCosineSimilarity, {a, b, output, rows, d}, {rows}));
}

zx_status_t zx_gpu_vec_add(zx_tensor_t* output, zx_tensor_t* a, zx_tensor_t* b) {
    zx_status_t status = check_operands({output, a, b});
    if (status != ZX_OK) return status;
    const std::uint64_t n = a->size;

    if ((status = prepare({n}, {{b, n}, {output, n}}, {a, b, output})) != ZX_OK) return status;
    return unrecorded(enqueue(zx::kVecAdd, {a, b, output, n}, {n}));
}

zx_status_t zx_gpu_vec_axpy(zx_tensor_t* x, zx_tensor_t* y, float alpha) {
    zx_status_t status = check_operands({x, y});
    if (status != ZX_OK) return status;
    const std::uint64_t n = x->size;

    if ((status = prepare({n}, {{y, n}}, {x, y})) != ZX_OK) return status;
    return unrecorded(enqueue(zx::kVecAxpy, {alpha, x, y, n}, {n}));
}
