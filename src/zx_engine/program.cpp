// The engine's one OpenCL program: built from source text or from a file, in place of the one
// before it.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr zx::Module kModule{"src/zx_engine"};
using zx::g_engine;

constexpr std::uint64_t kMaxKernelFileBytes = 10485760;  // 10 MiB

void release_program() {
    if (g_engine.program) (void)clReleaseProgram(g_engine.program);
    g_engine.program = nullptr;
}

void print_build_log() {
    size_t size = 0;
    (void)clGetProgramBuildInfo(g_engine.program, g_engine.device, CL_PROGRAM_BUILD_LOG, 0, nullptr,
                                &size);
    // One byte more than reported: the text is terminated here, whatever the implementation does.
    char* log = static_cast<char*>(std::calloc(size + 1, 1));
    if (!log) return;
    (void)clGetProgramBuildInfo(g_engine.program, g_engine.device, CL_PROGRAM_BUILD_LOG, size, log,
                                nullptr);
    (void)std::fprintf(stderr, "[ZORVEX] Kernel build error:\n%s\n", log);
    std::free(log);
}

}  // namespace

zx_status_t zx_engine_compile_kernels(const char* source, const char* options) {
    if (!g_engine.initialized) return kModule.fail(ZX_ERR_ENGINE_NOT_INITIALIZED, nullptr);

    release_program();
    cl_int error = CL_SUCCESS;
    // Without a context OpenCL would refuse as well; asked here, no loader can trip over the null.
    if (g_engine.context && source)
        g_engine.program = clCreateProgramWithSource(g_engine.context, 1, &source, nullptr, &error);
    if (!g_engine.program || error != CL_SUCCESS) {
        release_program();
        return kModule.fail(ZX_ERR_KERNEL_COMPILE, "Failed to create program from source");
    }

    if (clBuildProgram(g_engine.program, 1, &g_engine.device, options, nullptr, nullptr) !=
        CL_SUCCESS) {
        print_build_log();
        release_program();
        return kModule.fail(ZX_ERR_KERNEL_COMPILE, "Kernel compilation failed");
    }
    g_engine.kernels_compiled = 1;
    return ZX_OK;
}

zx_status_t zx_engine_compile_kernels_file(const char* path, const char* options) {
    if (!path) return kModule.fail(ZX_ERR_NULL_POINTER, "Kernel file path is NULL");

    const zx::File file(std::fopen(path, "r"));
    if (!file) return kModule.fail(ZX_ERR_INVALID_ARGUMENT, "Could not open kernel file");
    if (std::fseek(file.get(), 0, SEEK_END) != 0)
        return kModule.fail(ZX_ERR_INVALID_ARGUMENT, "Could not seek kernel file");

    // 0 and the -1 of a failure wrap to the largest numbers, so one comparison refuses both.
    const auto size = static_cast<std::uint64_t>(std::ftell(file.get()));
    if (size - 1 >= kMaxKernelFileBytes)
        return kModule.fail(ZX_ERR_BUFFER_TOO_SMALL, "Kernel file size invalid or too large");
    if (std::fseek(file.get(), 0, SEEK_SET) != 0)
        return kModule.fail(ZX_ERR_INVALID_ARGUMENT, "Could not seek kernel file");

    const zx::AlignedPtr<char[]> source = zx::make_array<char>(size + 1);
    if (!source) return kModule.fail(ZX_ERR_OUT_OF_MEMORY, nullptr);
    // A file that shrank since is compiled as far as it goes.
    const size_t length = std::fread(source.get(), 1, size, file.get());
    source[length] = '\0';

    // A NUL would end the text early without a word; only as the very last byte it does no harm.
    if (length > 1 && std::memchr(source.get(), '\0', length - 1))
        return kModule.fail(ZX_ERR_DATA_CORRUPTED, "Kernel file contains null bytes");
    return zx_engine_compile_kernels(source.get(), options);
}

cl_kernel zx_kernel_get(const char* name) {
    if (!g_engine.kernels_compiled || !g_engine.program || !name) return nullptr;
    cl_int error = CL_SUCCESS;
    const cl_kernel kernel = clCreateKernel(g_engine.program, name, &error);
    return error == CL_SUCCESS ? kernel : nullptr;
}
