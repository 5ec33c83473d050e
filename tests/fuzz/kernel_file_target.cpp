#include "kernel_file_target.hpp"

#include "expected_load.hpp"
#include "memory_file.hpp"
#include "target.hpp"
#include "zorvex.h"

#include <cstdio>
#include <cstring>

namespace zx::fuzz {

namespace {

// What the compiler has been given, and what of it is still held.
struct Compiler {
    std::string source;
    int programs = 0;
    int kernels = 0;
    int kernels_asked = 0;
};

Compiler& compiler() {
    static Compiler compiler;
    return compiler;
}

bool has(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

// What an implementation says of a text that it cannot compile; no zero ends it.
std::string_view build_log(std::string_view source) {
    constexpr std::string_view kError = "#error";
    const std::string_view log = source.substr(source.find(kError) + kError.size());
    return log.substr(0, log.find('\n'));
}

// A handle that nobody follows.
template <class Handle>
Handle handle() {
    static char object;
    return reinterpret_cast<Handle>(&object);
}

// Takes the place of the standard error stream and keeps what is written.
class KeptErrors {
  public:
    KeptErrors() { stderr = stream_; }
    ~KeptErrors() {
        stderr = before_;
        (void)std::fclose(stream_);
        std::free(text_);
    }
    KeptErrors(const KeptErrors&) = delete;
    KeptErrors& operator=(const KeptErrors&) = delete;

    [[nodiscard]] std::string text() const {
        (void)std::fflush(stream_);
        return {text_, size_};
    }

  private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* before_ = stderr;
    std::FILE* stream_ = open_memstream(&text_, &size_);
};

Refusal expected_refusal(std::string_view bytes) {
    constexpr const char* kEngine = "src/zx_engine";
    if (bytes.empty() || bytes.size() > 10485760)
        return {ZX_ERR_BUFFER_TOO_SMALL, kEngine, "Kernel file size invalid or too large"};
    if (bytes.find('\0') < bytes.size() - 1)
        return {ZX_ERR_DATA_CORRUPTED, kEngine, "Kernel file contains null bytes"};
    if (has(bytes, "#refuse"))
        return {ZX_ERR_KERNEL_COMPILE, kEngine, "Failed to create program from source"};
    if (has(bytes, "#error")) return {ZX_ERR_KERNEL_COMPILE, kEngine, "Kernel compilation failed"};
    return {};
}

void start_engine() {
    zx_set_verbosity(0);
    require(zx_engine_init() == ZX_OK && zx_engine_is_initialized(), "the engine starts");
    zx_gpu_shutdown();  // a kernel file may have been found
}

}  // namespace

void read_kernel_file(std::string_view bytes) {
    static MemoryFile file;
    if (!zx_engine_is_initialized()) start_engine();
    file.hold(bytes);
    zx_clear_error();
    compiler().kernels_asked = 0;

    const Refusal expected = expected_refusal(bytes);
    std::string errors;
    zx_status_t status = ZX_OK;
    {
        const KeptErrors kept;
        status = zx_gpu_init_from_file(file.path());
        errors = kept.text();
    }
    require_record(expected);
    require(status == expected.code && zx_gpu_is_ready() == (status == ZX_OK),
            "the device is ready if the kernel file is compiled");
    const std::string_view source = bytes.substr(0, bytes.find('\0'));
    if (has(expected.message, "compilation"))
        require(errors == "[ZORVEX] Kernel build error:\n" + std::string(build_log(source)) + "\n",
                "the compiler's message is printed whole");
    else
        require(errors.empty(), "nothing but the compiler's message is printed");
    if (status == ZX_OK) {
        require(compiler().source == source, "the compiler gets the file and nothing else");
        require(compiler().kernels_asked == 25, "every kernel is asked for");
    }
    zx_gpu_shutdown();
    require(compiler().kernels == 0 && compiler().programs <= 1, "what is made is let go");
}

std::vector<std::string> kernel_seeds() {
    using namespace std::string_literals;
    return {"__kernel void relu(__global float* x) { x[get_global_id(0)] = 0; }\n",
            "__kernel void vec_add(int n) {}\n__kernel void gelu(int n) {}\n\0"s,
            "__kernel void tanh_act() {\n#error no such thing\n}",
            "#refuse"s,
            "a\0b"s,
            "\0"s};
}

}  // namespace zx::fuzz

using zx::fuzz::compiler;
using zx::fuzz::handle;

extern "C" {

cl_int clGetPlatformIDs(cl_uint /*capacity*/, cl_platform_id* out, cl_uint* count) {
    if (count) *count = 1;
    if (out) *out = handle<cl_platform_id>();
    return CL_SUCCESS;
}

cl_int clGetPlatformInfo(cl_platform_id, cl_platform_info, std::size_t, void*, std::size_t*) {
    return CL_INVALID_VALUE;
}

cl_int clGetDeviceIDs(cl_platform_id, cl_device_type, cl_uint, cl_device_id* out, cl_uint* count) {
    if (count) *count = 1;
    if (out) *out = handle<cl_device_id>();
    return CL_SUCCESS;
}

cl_int clGetDeviceInfo(cl_device_id, cl_device_info, std::size_t, void*, std::size_t*) {
    return CL_INVALID_VALUE;
}

cl_context clCreateContext(const cl_context_properties*, cl_uint, const cl_device_id*,
                           void(CL_CALLBACK*)(const char*, const void*, std::size_t, void*), void*,
                           cl_int* error) {
    *error = CL_SUCCESS;
    return handle<cl_context>();
}

cl_command_queue clCreateCommandQueueWithProperties(cl_context, cl_device_id,
                                                    const cl_queue_properties*, cl_int* error) {
    *error = CL_SUCCESS;
    return handle<cl_command_queue>();
}

cl_program clCreateProgramWithSource(cl_context, cl_uint count, const char** strings,
                                     const std::size_t* lengths, cl_int* error) {
    zx::fuzz::require(count == 1 && lengths == nullptr, "a program is one text");
    compiler().source = strings[0];
    const bool refused = zx::fuzz::has(compiler().source, "#refuse");
    *error = refused ? CL_OUT_OF_HOST_MEMORY : CL_SUCCESS;
    compiler().programs += refused ? 0 : 1;
    return refused ? nullptr : handle<cl_program>();
}

cl_int clBuildProgram(cl_program, cl_uint, const cl_device_id*, const char* options,
                      void(CL_CALLBACK*)(cl_program, void*), void*) {
    zx::fuzz::require(std::strcmp(options, "-cl-fast-relaxed-math") == 0,
                      "kernels are compiled as stated");
    return zx::fuzz::has(compiler().source, "#error") ? CL_BUILD_PROGRAM_FAILURE : CL_SUCCESS;
}

cl_int clGetProgramBuildInfo(cl_program, cl_device_id, cl_program_build_info, std::size_t size,
                             void* out, std::size_t* needed) {
    const std::string_view log = zx::fuzz::build_log(compiler().source);
    if (needed) *needed = log.size();
    if (out) std::memcpy(out, log.data(), std::min(size, log.size()));
    return CL_SUCCESS;
}

cl_kernel clCreateKernel(cl_program, const char* name, cl_int* error) {
    ++compiler().kernels_asked;
    const bool found = zx::fuzz::has(compiler().source, "void " + std::string(name) + "(");
    *error = found ? CL_SUCCESS : CL_INVALID_KERNEL_NAME;
    compiler().kernels += found ? 1 : 0;
    return found ? handle<cl_kernel>() : nullptr;
}

cl_int clReleaseKernel(cl_kernel) {
    --compiler().kernels;
    return CL_SUCCESS;
}

cl_int clReleaseProgram(cl_program) {
    --compiler().programs;
    return CL_SUCCESS;
}
}
