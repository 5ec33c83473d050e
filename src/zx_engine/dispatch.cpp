// Kernel arguments and launches. A null kernel or queue is refused here with the result OpenCL
// would give: some drivers do not survive one.

#include "common/module.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"

namespace {

constexpr zx::Module kModule{"src/zx_engine"};
using zx::g_engine;

zx_status_t enqueue(cl_kernel kernel, cl_uint dimensions, const size_t* global,
                    const size_t* local) {
    if (!kernel || !g_engine.queue ||
        clEnqueueNDRangeKernel(g_engine.queue, kernel, dimensions, nullptr, global, local, 0,
                               nullptr, nullptr) != CL_SUCCESS)
        return kModule.fail(ZX_ERR_KERNEL_EXEC, "Failed to execute kernel");
    return ZX_OK;
}

}  // namespace

zx_status_t zx_kernel_set_arg(cl_kernel kernel, uint32_t index, uint64_t size, const void* value) {
    if (!kernel || clSetKernelArg(kernel, index, size, value) != CL_SUCCESS)
        return kModule.fail(ZX_ERR_KERNEL_EXEC, "Failed to set kernel argument");
    return ZX_OK;
}

zx_status_t zx_kernel_exec_1d(cl_kernel kernel, uint64_t global, uint64_t local) {
    const size_t global_size = global;
    const size_t local_size = local;
    return enqueue(kernel, 1, &global_size, local != 0 ? &local_size : nullptr);
}

zx_status_t zx_kernel_exec_2d(cl_kernel kernel, uint64_t global_0, uint64_t global_1,
                              uint64_t local_0, uint64_t local_1) {
    const size_t global_size[2] = {global_0, global_1};
    const size_t local_size[2] = {local_0, local_1};
    return enqueue(kernel, 2, global_size, local_0 != 0 && local_1 != 0 ? local_size : nullptr);
}

zx_status_t zx_engine_sync(void) {
    if (!g_engine.initialized) return ZX_ERR_ENGINE_NOT_INITIALIZED;
    if (!g_engine.queue || clFinish(g_engine.queue) != CL_SUCCESS)
        return kModule.fail(ZX_ERR_KERNEL_EXEC, "Failed to synchronize");
    return ZX_OK;
}
