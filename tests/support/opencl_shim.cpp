#include "opencl_shim.hpp"

#include <algorithm>
#include <cstring>

namespace {

using zx::test::opencl;
using ContextCallback = void(CL_CALLBACK*)(const char*, const void*, std::size_t, void*);
using BuildCallback = void(CL_CALLBACK*)(cl_program, void*);

// Notes a call and tells whether it is to be refused.
bool refuses(const char* call) {
    zx::test::OpenClShim& shim = opencl();
    shim.calls.emplace_back(call);
    const auto once = shim.refused_once.find(call);
    return shim.refused.contains(call) ||
           (once != shim.refused_once.end() && shim.count(call) == once->second);
}

template <typename Handle>
Handle refused_handle(cl_int* error) {
    if (error) *error = CL_OUT_OF_RESOURCES;
    return nullptr;
}

std::vector<std::size_t> sizes(const std::size_t* values, cl_uint count) {
    return values ? std::vector<std::size_t>(values, values + count) : std::vector<std::size_t>{};
}

}  // namespace

// The linker prescribes these names.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {

cl_int __real_clGetPlatformIDs(cl_uint, cl_platform_id*, cl_uint*);
cl_int __real_clGetDeviceIDs(cl_platform_id, cl_device_type, cl_uint, cl_device_id*, cl_uint*);
cl_int __real_clGetDeviceInfo(cl_device_id, cl_device_info, std::size_t, void*, std::size_t*);
cl_context __real_clCreateContext(const cl_context_properties*, cl_uint, const cl_device_id*,
                                  ContextCallback, void*, cl_int*);
cl_command_queue __real_clCreateCommandQueueWithProperties(cl_context, cl_device_id,
                                                           const cl_queue_properties*, cl_int*);
cl_program __real_clCreateProgramWithSource(cl_context, cl_uint, const char**, const std::size_t*,
                                            cl_int*);
cl_int __real_clBuildProgram(cl_program, cl_uint, const cl_device_id*, const char*, BuildCallback,
                             void*);
cl_int __real_clGetProgramBuildInfo(cl_program, cl_device_id, cl_program_build_info, std::size_t,
                                    void*, std::size_t*);
cl_kernel __real_clCreateKernel(cl_program, const char*, cl_int*);
cl_mem __real_clCreateBuffer(cl_context, cl_mem_flags, std::size_t, void*, cl_int*);
cl_int __real_clEnqueueWriteBuffer(cl_command_queue, cl_mem, cl_bool, std::size_t, std::size_t,
                                   const void*, cl_uint, const cl_event*, cl_event*);
cl_int __real_clEnqueueReadBuffer(cl_command_queue, cl_mem, cl_bool, std::size_t, std::size_t,
                                  void*, cl_uint, const cl_event*, cl_event*);
cl_int __real_clEnqueueNDRangeKernel(cl_command_queue, cl_kernel, cl_uint, const std::size_t*,
                                     const std::size_t*, const std::size_t*, cl_uint,
                                     const cl_event*, cl_event*);
cl_int __real_clFinish(cl_command_queue);
cl_int __real_clReleaseMemObject(cl_mem);
cl_int __real_clReleaseKernel(cl_kernel);
cl_int __real_clReleaseProgram(cl_program);
cl_int __real_clReleaseCommandQueue(cl_command_queue);
cl_int __real_clReleaseContext(cl_context);

cl_int __wrap_clGetPlatformIDs(cl_uint capacity, cl_platform_id* out, cl_uint* count) {
    if (refuses("clGetPlatformIDs")) return CL_OUT_OF_HOST_MEMORY;
    const cl_int status = __real_clGetPlatformIDs(capacity, out, count);
    if (count && opencl().platform_count) *count = *opencl().platform_count;
    return status;
}

cl_int __wrap_clGetDeviceIDs(cl_platform_id platform, cl_device_type type, cl_uint capacity,
                             cl_device_id* out, cl_uint* count) {
    opencl().device_types_asked.push_back(type);
    if (refuses("clGetDeviceIDs")) return CL_DEVICE_NOT_FOUND;
    const cl_int status = __real_clGetDeviceIDs(platform, type, capacity, out, count);
    if (count && opencl().device_count) *count = *opencl().device_count;
    return status;
}

cl_int __wrap_clGetDeviceInfo(cl_device_id device, cl_device_info what, std::size_t size, void* out,
                              std::size_t* needed) {
    opencl().device_queries.push_back(what);
    if (refuses("clGetDeviceInfo")) return CL_INVALID_DEVICE;
    const cl_int status = __real_clGetDeviceInfo(device, what, size, out, needed);
    const auto& memory = opencl().global_memory;
    const auto& type = opencl().device_type;
    if (out && what == CL_DEVICE_GLOBAL_MEM_SIZE && memory)
        std::memcpy(out, &*memory, sizeof(*memory));
    if (out && what == CL_DEVICE_TYPE && type) std::memcpy(out, &*type, sizeof(*type));
    return status;
}

cl_context __wrap_clCreateContext(const cl_context_properties* properties, cl_uint count,
                                  const cl_device_id* devices, ContextCallback callback, void* data,
                                  cl_int* error) {
    opencl().context_has_properties = properties != nullptr || callback != nullptr;
    if (refuses("clCreateContext")) return refused_handle<cl_context>(error);
    return __real_clCreateContext(properties, count, devices, callback, data, error);
}

cl_command_queue __wrap_clCreateCommandQueueWithProperties(cl_context context, cl_device_id device,
                                                           const cl_queue_properties* properties,
                                                           cl_int* error) {
    opencl().queue_has_properties = properties != nullptr;
    if (refuses("clCreateCommandQueueWithProperties"))
        return refused_handle<cl_command_queue>(error);
    return __real_clCreateCommandQueueWithProperties(context, device, properties, error);
}

cl_program __wrap_clCreateProgramWithSource(cl_context context, cl_uint count, const char** strings,
                                            const std::size_t* lengths, cl_int* error) {
    if (refuses("clCreateProgramWithSource")) return refused_handle<cl_program>(error);
    return __real_clCreateProgramWithSource(context, count, strings, lengths, error);
}

cl_int __wrap_clBuildProgram(cl_program program, cl_uint count, const cl_device_id* devices,
                             const char* options, BuildCallback callback, void* data) {
    opencl().build_options.emplace_back(options ? options : "(null)");
    if (refuses("clBuildProgram")) return CL_BUILD_PROGRAM_FAILURE;
    return __real_clBuildProgram(program, count, devices, options, callback, data);
}

cl_int __wrap_clGetProgramBuildInfo(cl_program program, cl_device_id device,
                                    cl_program_build_info what, std::size_t size, void* out,
                                    std::size_t* needed) {
    if (refuses("clGetProgramBuildInfo")) return CL_INVALID_VALUE;
    const auto& log = opencl().build_log;
    if (!log || what != CL_PROGRAM_BUILD_LOG)
        return __real_clGetProgramBuildInfo(program, device, what, size, out, needed);
    if (needed) *needed = log->size();
    if (!out) return CL_SUCCESS;
    if (size < log->size()) return CL_INVALID_VALUE;
    std::memcpy(out, log->data(), log->size());
    return CL_SUCCESS;
}

cl_kernel __wrap_clCreateKernel(cl_program program, const char* name, cl_int* error) {
    if (refuses("clCreateKernel")) return refused_handle<cl_kernel>(error);
    return __real_clCreateKernel(program, name, error);
}

cl_mem __wrap_clCreateBuffer(cl_context context, cl_mem_flags flags, std::size_t size, void* host,
                             cl_int* error) {
    opencl().buffers.push_back({flags, size, host != nullptr});
    if (refuses("clCreateBuffer")) return refused_handle<cl_mem>(error);
    return __real_clCreateBuffer(context, flags, size, host, error);
}

cl_int __wrap_clEnqueueWriteBuffer(cl_command_queue queue, cl_mem buffer, cl_bool blocking,
                                   std::size_t offset, std::size_t size, const void* host,
                                   cl_uint wait_count, const cl_event* wait, cl_event* event) {
    opencl().transfers.push_back({true, blocking == CL_TRUE, offset, size, event != nullptr});
    if (refuses("clEnqueueWriteBuffer")) return CL_OUT_OF_RESOURCES;
    return __real_clEnqueueWriteBuffer(queue, buffer, blocking, offset, size, host, wait_count,
                                       wait, event);
}

cl_int __wrap_clEnqueueReadBuffer(cl_command_queue queue, cl_mem buffer, cl_bool blocking,
                                  std::size_t offset, std::size_t size, void* host,
                                  cl_uint wait_count, const cl_event* wait, cl_event* event) {
    opencl().transfers.push_back({false, blocking == CL_TRUE, offset, size, event != nullptr});
    if (refuses("clEnqueueReadBuffer")) return CL_OUT_OF_RESOURCES;
    return __real_clEnqueueReadBuffer(queue, buffer, blocking, offset, size, host, wait_count, wait,
                                      event);
}

cl_int __wrap_clEnqueueNDRangeKernel(cl_command_queue queue, cl_kernel kernel, cl_uint dimensions,
                                     const std::size_t* offset, const std::size_t* global,
                                     const std::size_t* local, cl_uint wait_count,
                                     const cl_event* wait, cl_event* event) {
    opencl().launches.push_back(
        {sizes(global, dimensions), sizes(local, dimensions), offset != nullptr, event != nullptr});
    if (refuses("clEnqueueNDRangeKernel")) return CL_OUT_OF_RESOURCES;
    return __real_clEnqueueNDRangeKernel(queue, kernel, dimensions, offset, global, local,
                                         wait_count, wait, event);
}

cl_int __wrap_clFinish(cl_command_queue queue) {
    if (refuses("clFinish")) return CL_OUT_OF_RESOURCES;
    return __real_clFinish(queue);
}

cl_int __wrap_clReleaseMemObject(cl_mem buffer) {
    if (refuses("clReleaseMemObject")) return CL_OUT_OF_RESOURCES;
    return __real_clReleaseMemObject(buffer);
}

cl_int __wrap_clReleaseKernel(cl_kernel kernel) {
    if (refuses("clReleaseKernel")) return CL_OUT_OF_RESOURCES;
    return __real_clReleaseKernel(kernel);
}

cl_int __wrap_clReleaseProgram(cl_program program) {
    if (refuses("clReleaseProgram")) return CL_OUT_OF_RESOURCES;
    return __real_clReleaseProgram(program);
}

cl_int __wrap_clReleaseCommandQueue(cl_command_queue queue) {
    if (refuses("clReleaseCommandQueue")) return CL_OUT_OF_RESOURCES;
    return __real_clReleaseCommandQueue(queue);
}

cl_int __wrap_clReleaseContext(cl_context context) {
    if (refuses("clReleaseContext")) return CL_OUT_OF_RESOURCES;
    return __real_clReleaseContext(context);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace zx::test {

std::ptrdiff_t OpenClShim::count(std::string_view call) const {
    return std::ranges::count(calls, call);
}

std::vector<std::string> OpenClShim::only(const std::set<std::string>& names) const {
    std::vector<std::string> kept;
    std::ranges::copy_if(calls, std::back_inserter(kept),
                         [&](const std::string& call) { return names.contains(call); });
    return kept;
}

OpenClShim& opencl() {
    static OpenClShim shim;
    return shim;
}

}  // namespace zx::test
