// Finds the kernel file, has the engine build it, and keeps one kernel object per name for the
// device operations.

#include "zx_gpu/kernel_table.hpp"

#include "common/module.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr zx::Module kModule{"src/zx_gpu"};
constexpr const char* kBuildOptions = "-cl-fast-relaxed-math";

using zx::g_kernels;

constexpr const char* KERNEL_SEARCH_PATHS[] = {
    "./zorvex_kernels.cl",
    "src/kernels/zorvex_kernels.cl",
    "../src/kernels/zorvex_kernels.cl",
    "../share/zorvex/zorvex_kernels.cl",
    "/usr/local/share/zorvex/zorvex_kernels.cl",
    "/usr/share/zorvex/zorvex_kernels.cl",
    "/opt/homebrew/share/zorvex/zorvex_kernels.cl",
    nullptr,
};

const char* find_kernel_file() {
    for (const char* const* path = KERNEL_SEARCH_PATHS; *path; ++path)
        if (access(*path, R_OK) == 0) return *path;
    return nullptr;
}

zx_status_t compile_and_cache_kernels() {
    if (!zx::g_engine.kernels_compiled)
        return kModule.fail(ZX_ERR_KERNEL_COMPILE, "Kernels not compiled");

    // A kernel that the file lacks leaves its slot null; the operation that needs it fails later.
    for (std::uint32_t id = 0; id < zx::kKernelCount; ++id)
        g_kernels.kernels[id] = zx_kernel_get(zx::kKernelNames[id]);
    g_kernels.ready = 1;
    if (zx::prints_information()) (void)std::puts("[ZORVEX] GPU kernels cached");
    return ZX_OK;
}

zx_status_t build_and_cache(const char* path) {
    const zx_status_t status = zx_engine_compile_kernels_file(path, kBuildOptions);
    return status == ZX_OK ? compile_and_cache_kernels() : status;
}

}  // namespace

zx_status_t zx_gpu_init(void) {
    if (g_kernels.ready) return ZX_OK;
    if (!zx_engine_is_initialized())
        return kModule.fail(ZX_ERR_ENGINE_NOT_INITIALIZED, "Engine not initialized");

    const char* const path = find_kernel_file();
    // The text names five of the seven places, deliberately.
    if (!path)
        return kModule.fail(ZX_ERR_INVALID_ARGUMENT,
                            "Kernel file not found. Searched: ./, src/kernels/, ../src/kernels/, "
                            "/usr/local/share/zorvex/, /usr/share/zorvex/");
    if (zx::prints_information()) (void)std::printf("[ZORVEX] Loading kernels from: %s\n", path);
    return build_and_cache(path);
}

zx_status_t zx_gpu_init_from_file(const char* path) {
    if (g_kernels.ready) return ZX_OK;
    if (!zx_engine_is_initialized())
        return kModule.fail(ZX_ERR_ENGINE_NOT_INITIALIZED, "Engine not initialized");
    return build_and_cache(path);
}

void zx_gpu_shutdown(void) {
    if (!g_kernels.ready) return;
    for (const cl_kernel kernel : g_kernels.kernels)
        if (kernel) (void)clReleaseKernel(kernel);
    g_kernels = {};
    if (zx::prints_information()) (void)std::puts("[ZORVEX] GPU kernels released");
}

bool zx_gpu_is_ready(void) {
    return g_kernels.ready && zx_engine_is_initialized();
}
