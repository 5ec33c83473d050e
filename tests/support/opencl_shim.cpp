#include "opencl_shim.hpp"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <sstream>
#include <type_traits>

namespace {

using zx::test::opencl;
using ContextCallback = void(CL_CALLBACK*)(const char*, const void*, std::size_t, void*);
using BuildCallback = void(CL_CALLBACK*)(cl_program, void*);

void show(std::ostream& line, const char* text) {
    line << (text ? text : "(null)");
}

template <typename Argument>
void show(std::ostream& line, Argument argument) {
    if constexpr (std::is_pointer_v<Argument>)
        line << reinterpret_cast<const void*>(argument);
    else
        line << argument;
}

template <typename... Words>
void write_line(std::FILE* log, Words... words) {
    std::ostringstream line;
    ((show(line, words), line << ' '), ...);
    (void)std::fprintf(log, "%s\n", line.str().c_str());
    (void)std::fflush(log);
}

// Notes a call and tells whether it is to be refused.
template <typename... Arguments>
bool refuses(const char* call, Arguments... arguments) {
    zx::test::OpenClShim& shim = opencl();
    shim.calls.emplace_back(call);
    const auto once = shim.refused_once.find(call);
    const bool refused = shim.refused.contains(call) ||
                         (once != shim.refused_once.end() && shim.count(call) == once->second);
    if (shim.log) write_line(shim.log, refused ? "refused" : "call", call, arguments...);
    return refused;
}

template <typename Handle>
Handle refused_handle(cl_int* error) {
    if (error) *error = CL_OUT_OF_RESOURCES;
    return nullptr;
}

// Notes an object that OpenCL made.
template <typename Handle>
Handle made(const char* kind, Handle object) {
    if (!object) return object;
    zx::test::opencl_objects()[object] = kind;
    if (opencl().log) write_line(opencl().log, "made", kind, object);
    return object;
}

// Notes that OpenCL let an object go.
cl_int released(const void* object, cl_int status) {
    if (status == CL_SUCCESS) zx::test::opencl_objects().erase(object);
    return status;
}

// What this call would have reached without the shim.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define NEXT(call) next<decltype(call)>(#call)

std::vector<std::size_t> sizes(const std::size_t* values, cl_uint count) {
    return values ? std::vector<std::size_t>(values, values + count) : std::vector<std::size_t>{};
}

std::string name_of(cl_kernel kernel) {
    std::size_t size = 0;
    if (clGetKernelInfo(kernel, CL_KERNEL_FUNCTION_NAME, 0, nullptr, &size) != CL_SUCCESS)
        return {};
    std::string name(size, '\0');
    (void)clGetKernelInfo(kernel, CL_KERNEL_FUNCTION_NAME, size, name.data(), nullptr);
    return name.c_str();  // without the NUL at the end
}

}  // namespace

extern "C" {

cl_int clGetPlatformIDs(cl_uint capacity, cl_platform_id* out, cl_uint* count) {
    if (refuses("clGetPlatformIDs", capacity, out, count)) return CL_OUT_OF_HOST_MEMORY;
    const cl_int status = NEXT(clGetPlatformIDs)(capacity, out, count);
    if (count && opencl().platform_count) *count = *opencl().platform_count;
    return status;
}

cl_int clGetPlatformInfo(cl_platform_id platform, cl_platform_info what, std::size_t size,
                         void* out, std::size_t* needed) {
    if (refuses("clGetPlatformInfo", platform, what, size, out, needed)) return CL_INVALID_PLATFORM;
    return NEXT(clGetPlatformInfo)(platform, what, size, out, needed);
}

cl_int clGetDeviceIDs(cl_platform_id platform, cl_device_type type, cl_uint capacity,
                      cl_device_id* out, cl_uint* count) {
    opencl().device_types_asked.push_back(type);
    if (refuses("clGetDeviceIDs", platform, type, capacity, out, count)) return CL_DEVICE_NOT_FOUND;
    const cl_int status = NEXT(clGetDeviceIDs)(platform, type, capacity, out, count);
    if (count && opencl().device_count) *count = *opencl().device_count;
    return status;
}

cl_int clGetDeviceInfo(cl_device_id device, cl_device_info what, std::size_t size, void* out,
                       std::size_t* needed) {
    opencl().device_queries.push_back(what);
    if (refuses("clGetDeviceInfo", device, what, size, out, needed)) return CL_INVALID_DEVICE;
    const cl_int status = NEXT(clGetDeviceInfo)(device, what, size, out, needed);
    const auto& memory = opencl().global_memory;
    const auto& type = opencl().device_type;
    if (out && what == CL_DEVICE_GLOBAL_MEM_SIZE && memory)
        std::memcpy(out, &*memory, sizeof(*memory));
    if (out && what == CL_DEVICE_TYPE && type) std::memcpy(out, &*type, sizeof(*type));
    return status;
}

cl_context clCreateContext(const cl_context_properties* properties, cl_uint count,
                           const cl_device_id* devices, ContextCallback callback, void* data,
                           cl_int* error) {
    opencl().context_has_properties = properties != nullptr || callback != nullptr;
    if (refuses("clCreateContext", properties, count, devices, callback, data, error))
        return refused_handle<cl_context>(error);
    return made("context",
                NEXT(clCreateContext)(properties, count, devices, callback, data, error));
}

cl_command_queue clCreateCommandQueueWithProperties(cl_context context, cl_device_id device,
                                                    const cl_queue_properties* properties,
                                                    cl_int* error) {
    opencl().queue_has_properties = properties != nullptr;
    if (refuses("clCreateCommandQueueWithProperties", context, device, properties, error))
        return refused_handle<cl_command_queue>(error);
    return made("queue",
                NEXT(clCreateCommandQueueWithProperties)(context, device, properties, error));
}

cl_program clCreateProgramWithSource(cl_context context, cl_uint count, const char** strings,
                                     const std::size_t* lengths, cl_int* error) {
    if (refuses("clCreateProgramWithSource", context, count, strings, lengths, error))
        return refused_handle<cl_program>(error);
    return made("program",
                NEXT(clCreateProgramWithSource)(context, count, strings, lengths, error));
}

cl_int clBuildProgram(cl_program program, cl_uint count, const cl_device_id* devices,
                      const char* options, BuildCallback callback, void* data) {
    opencl().build_options.emplace_back(options ? options : "(null)");
    if (refuses("clBuildProgram", program, count, devices, options, callback, data))
        return CL_BUILD_PROGRAM_FAILURE;
    return NEXT(clBuildProgram)(program, count, devices, options, callback, data);
}

cl_int clGetProgramBuildInfo(cl_program program, cl_device_id device, cl_program_build_info what,
                             std::size_t size, void* out, std::size_t* needed) {
    if (refuses("clGetProgramBuildInfo", program, device, what, size, out, needed))
        return CL_INVALID_VALUE;
    const auto& log = opencl().build_log;
    if (!log || what != CL_PROGRAM_BUILD_LOG)
        return NEXT(clGetProgramBuildInfo)(program, device, what, size, out, needed);
    if (needed) *needed = log->size();
    if (!out) return CL_SUCCESS;
    if (size < log->size()) return CL_INVALID_VALUE;
    std::memcpy(out, log->data(), log->size());
    return CL_SUCCESS;
}

cl_kernel clCreateKernel(cl_program program, const char* name, cl_int* error) {
    if (refuses("clCreateKernel", program, name, error)) return refused_handle<cl_kernel>(error);
    return made("kernel", NEXT(clCreateKernel)(program, name, error));
}

cl_int clSetKernelArg(cl_kernel kernel, cl_uint index, std::size_t size, const void* value) {
    const auto* const bytes = static_cast<const char*>(value);
    opencl().kernel_arguments.push_back(
        {name_of(kernel), index, size, bytes ? std::string(bytes, size) : std::string()});
    if (refuses("clSetKernelArg", kernel, index, size, value)) return CL_OUT_OF_RESOURCES;
    return NEXT(clSetKernelArg)(kernel, index, size, value);
}

cl_mem clCreateBuffer(cl_context context, cl_mem_flags flags, std::size_t size, void* host,
                      cl_int* error) {
    opencl().buffers.push_back({flags, size, host != nullptr});
    if (refuses("clCreateBuffer", context, flags, size, host, error))
        return refused_handle<cl_mem>(error);
    const cl_mem buffer = made("buffer", NEXT(clCreateBuffer)(context, flags, size, host, error));
    if (buffer) opencl().made_buffers.push_back({buffer, host});
    return buffer;
}

cl_int clEnqueueWriteBuffer(cl_command_queue queue, cl_mem buffer, cl_bool blocking,
                            std::size_t offset, std::size_t size, const void* host,
                            cl_uint wait_count, const cl_event* wait, cl_event* event) {
    opencl().transfers.push_back({true, blocking == CL_TRUE, offset, size, event != nullptr});
    if (refuses("clEnqueueWriteBuffer", queue, buffer, blocking, offset, size, host, wait_count,
                wait, event))
        return CL_OUT_OF_RESOURCES;
    return NEXT(clEnqueueWriteBuffer)(queue, buffer, blocking, offset, size, host, wait_count, wait,
                                      event);
}

cl_int clEnqueueReadBuffer(cl_command_queue queue, cl_mem buffer, cl_bool blocking,
                           std::size_t offset, std::size_t size, void* host, cl_uint wait_count,
                           const cl_event* wait, cl_event* event) {
    opencl().transfers.push_back({false, blocking == CL_TRUE, offset, size, event != nullptr});
    if (refuses("clEnqueueReadBuffer", queue, buffer, blocking, offset, size, host, wait_count,
                wait, event))
        return CL_OUT_OF_RESOURCES;
    return NEXT(clEnqueueReadBuffer)(queue, buffer, blocking, offset, size, host, wait_count, wait,
                                     event);
}

cl_int clEnqueueNDRangeKernel(cl_command_queue queue, cl_kernel kernel, cl_uint dimensions,
                              const std::size_t* offset, const std::size_t* global,
                              const std::size_t* local, cl_uint wait_count, const cl_event* wait,
                              cl_event* event) {
    opencl().launches.push_back(
        {sizes(global, dimensions), sizes(local, dimensions), offset != nullptr, event != nullptr});
    opencl().launched_kernels.push_back(name_of(kernel));
    if (refuses("clEnqueueNDRangeKernel", queue, kernel, dimensions, offset, global, local,
                wait_count, wait, event))
        return CL_OUT_OF_RESOURCES;
    return NEXT(clEnqueueNDRangeKernel)(queue, kernel, dimensions, offset, global, local,
                                        wait_count, wait, event);
}

cl_int clFinish(cl_command_queue queue) {
    if (refuses("clFinish", queue)) return CL_OUT_OF_RESOURCES;
    return NEXT(clFinish)(queue);
}

cl_int clReleaseMemObject(cl_mem buffer) {
    opencl().released_buffers.push_back(buffer);
    if (refuses("clReleaseMemObject", buffer)) return CL_OUT_OF_RESOURCES;
    return released(buffer, NEXT(clReleaseMemObject)(buffer));
}

cl_int clReleaseKernel(cl_kernel kernel) {
    if (refuses("clReleaseKernel", kernel)) return CL_OUT_OF_RESOURCES;
    return released(kernel, NEXT(clReleaseKernel)(kernel));
}

cl_int clReleaseProgram(cl_program program) {
    if (refuses("clReleaseProgram", program)) return CL_OUT_OF_RESOURCES;
    return released(program, NEXT(clReleaseProgram)(program));
}

cl_int clReleaseCommandQueue(cl_command_queue queue) {
    if (refuses("clReleaseCommandQueue", queue)) return CL_OUT_OF_RESOURCES;
    return released(queue, NEXT(clReleaseCommandQueue)(queue));
}

cl_int clReleaseContext(cl_context context) {
    if (refuses("clReleaseContext", context)) return CL_OUT_OF_RESOURCES;
    return released(context, NEXT(clReleaseContext)(context));
}
}

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

std::vector<NumberedCall> OpenClShim::numbered() const {
    std::map<std::string, int> seen;
    std::vector<NumberedCall> all;
    for (const std::string& call : calls) all.emplace_back(call, ++seen[call]);
    return all;
}

OpenClObjects& opencl_objects() {
    static OpenClObjects objects;
    return objects;
}

std::vector<std::string> release_objects_since(const OpenClObjects& before) {
    std::vector<std::string> kinds;
    const OpenClObjects now = opencl_objects();
    for (const auto& [object, kind] : now) {
        if (before.contains(object)) continue;
        kinds.push_back(kind);
        void* const handle = const_cast<void*>(object);
        if (kind == "context") (void)clReleaseContext(static_cast<cl_context>(handle));
        if (kind == "queue") (void)clReleaseCommandQueue(static_cast<cl_command_queue>(handle));
        if (kind == "program") (void)clReleaseProgram(static_cast<cl_program>(handle));
        if (kind == "kernel") (void)clReleaseKernel(static_cast<cl_kernel>(handle));
        if (kind == "buffer") (void)clReleaseMemObject(static_cast<cl_mem>(handle));
    }
    std::ranges::sort(kinds);
    return kinds;
}

OpenClShim& opencl() {
    static OpenClShim shim;
    return shim;
}

}  // namespace zx::test
