// Device buffers, and transfers over the engine's one in-order queue. In CPU-only mode there is no
// context and no queue; asking for them here gives the result OpenCL would give for a null handle,
// without relying on a loader that survives one.

#include "common/module.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"

namespace {

constexpr zx::Module kModule{"src/zx_engine"};
using zx::g_engine;

zx_buffer_t create_buffer(cl_mem_flags flags, std::uint64_t size, void* host) {
    if (!g_engine.context) return nullptr;
    cl_int error = CL_SUCCESS;
    const cl_mem buffer = clCreateBuffer(g_engine.context, flags, size, host, &error);
    return error == CL_SUCCESS ? buffer : nullptr;
}

zx_status_t write_buffer(zx_buffer_t buffer, const void* host, std::uint64_t size, cl_bool waits,
                         cl_event* event) {
    if (!buffer || !host) return ZX_ERR_NULL_POINTER;
    if (!g_engine.queue || clEnqueueWriteBuffer(g_engine.queue, buffer, waits, 0, size, host, 0,
                                                nullptr, event) != CL_SUCCESS)
        return kModule.fail(ZX_ERR_TRANSFER, "Failed to write to GPU buffer");
    return ZX_OK;
}

zx_status_t read_buffer(zx_buffer_t buffer, void* host, std::uint64_t size, cl_bool waits,
                        cl_event* event) {
    if (!buffer || !host) return ZX_ERR_NULL_POINTER;
    if (!g_engine.queue || clEnqueueReadBuffer(g_engine.queue, buffer, waits, 0, size, host, 0,
                                               nullptr, event) != CL_SUCCESS)
        return kModule.fail(ZX_ERR_TRANSFER, "Failed to read from GPU buffer");
    return ZX_OK;
}

}  // namespace

zx_buffer_t zx_buffer_create(uint64_t size, uint64_t flags) {
    if (!g_engine.initialized) return nullptr;
    return create_buffer(flags, size, nullptr);
}

zx_buffer_t zx_buffer_create_with_data(const void* host, uint64_t size, uint64_t flags) {
    if (g_engine.initialized != 1 || !host) return nullptr;
    // OpenCL only reads the host memory, at creation, but takes a pointer to non-const.
    return create_buffer(flags | CL_MEM_COPY_HOST_PTR, size, const_cast<void*>(host));
}

zx_status_t zx_buffer_write(zx_buffer_t buffer, const void* host, uint64_t size) {
    return write_buffer(buffer, host, size, CL_TRUE, nullptr);
}

zx_status_t zx_buffer_write_async(zx_buffer_t buffer, const void* host, uint64_t size,
                                  cl_event* event) {
    return write_buffer(buffer, host, size, CL_FALSE, event);
}

zx_status_t zx_buffer_read(zx_buffer_t buffer, void* host, uint64_t size) {
    return read_buffer(buffer, host, size, CL_TRUE, nullptr);
}

zx_status_t zx_buffer_read_async(zx_buffer_t buffer, void* host, uint64_t size, cl_event* event) {
    return read_buffer(buffer, host, size, CL_FALSE, event);
}

void zx_buffer_release(zx_buffer_t buffer) {
    if (buffer) (void)clReleaseMemObject(buffer);
}
