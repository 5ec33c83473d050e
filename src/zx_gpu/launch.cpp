#include "zx_gpu/launch.hpp"

#include "common/module.hpp"
#include "zx_engine/engine_state.hpp"

namespace {

constexpr zx::Module kModule{"src/zx_gpu"};

}  // namespace

namespace zx::gpu {

zx_status_t check_operands(Tensors operands) {
    if (!zx_gpu_is_ready())
        return kModule.fail(ZX_ERR_ENGINE_NOT_INITIALIZED, "GPU not initialized");
    for (const zx_tensor_t* const operand : operands)
        if (!operand || !operand->data) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL tensor");
    return ZX_OK;
}

zx_status_t check_counts(std::initializer_list<std::uint64_t> counts) {
    for (const std::uint64_t count : counts)
        if (count > INT32_MAX)
            return kModule.fail(ZX_ERR_OVERFLOW, "Element count exceeds 32 bits");
    return ZX_OK;
}

zx_status_t check_extents(std::initializer_list<Extent> extents) {
    for (const Extent& extent : extents)
        if (extent.tensor->size < extent.elements)
            return kModule.fail(ZX_ERR_DIMENSION_MISMATCH, "Tensor shapes do not fit");
    return ZX_OK;
}

zx_status_t upload(Tensors tensors) {
    for (zx_tensor_t* const tensor : tensors) {
        if (tensor->on_device) continue;
        const zx_status_t status = zx_tensor_to_device(tensor);
        if (status != ZX_OK) return status;
    }
    return ZX_OK;
}

zx_status_t prepare(std::initializer_list<std::uint64_t> counts,
                    std::initializer_list<Extent> extents, Tensors uploads) {
    zx_status_t status = check_counts(counts);
    if (status == ZX_OK) status = check_extents(extents);
    return status == ZX_OK ? upload(uploads) : status;
}

bool enqueue(zx_kernel_id_t id, std::initializer_list<Argument> arguments,
             std::initializer_list<std::size_t> global_size) {
    const cl_kernel kernel = g_kernels.kernels[id];
    if (!kernel || !g_engine.queue) return false;
    cl_uint index = 0;
    for (const Argument& argument : arguments)
        // A kernel with an argument of an earlier call left in it must not run.
        if (clSetKernelArg(kernel, index++, argument.size(), argument.data()) != CL_SUCCESS)
            return false;
    return clEnqueueNDRangeKernel(g_engine.queue, kernel, static_cast<cl_uint>(global_size.size()),
                                  nullptr, global_size.begin(), nullptr, 0, nullptr,
                                  nullptr) == CL_SUCCESS;
}

}  // namespace zx::gpu
