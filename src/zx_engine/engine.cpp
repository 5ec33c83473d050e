// Start-up and shut-down of the engine. Every failure on the way to the device ends in CPU-only
// mode or, once context and queue stand, in a device without kernels; the caller is told by console
// lines only.

#include "common/module.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr zx::Module kModule{"src/zx_engine"};
using zx::g_engine;

// The first platform is the only one that is ever used, so the others are not even fetched.
bool find_platform() {
    cl_uint count = 0;
    if (clGetPlatformIDs(0, nullptr, &count) != CL_SUCCESS || count == 0) return false;
    if (clGetPlatformIDs(1, &g_engine.platform, nullptr) != CL_SUCCESS) return false;
    (void)clGetPlatformInfo(g_engine.platform, CL_PLATFORM_NAME, sizeof(g_engine.platform_name),
                            g_engine.platform_name, nullptr);
    return true;
}

bool take_first_device(cl_device_type type) {
    cl_uint count = 0;
    if (clGetDeviceIDs(g_engine.platform, type, 0, nullptr, &count) != CL_SUCCESS || count == 0)
        return false;
    return clGetDeviceIDs(g_engine.platform, type, 1, &g_engine.device, nullptr) == CL_SUCCESS;
}

// A query that fails leaves its field as it was.
template <typename Field>
void query_device(cl_device_info what, Field& field) {
    (void)clGetDeviceInfo(g_engine.device, what, sizeof(field), &field, nullptr);
}

void describe_device() {
    query_device(CL_DEVICE_NAME, g_engine.device_name);
    query_device(CL_DEVICE_TYPE, g_engine.device_type);
    query_device(CL_DEVICE_GLOBAL_MEM_SIZE, g_engine.global_mem_size);
    query_device(CL_DEVICE_LOCAL_MEM_SIZE, g_engine.local_mem_size);
    // The property is a size_t and the field is not, deliberately: most implementations refuse the
    // query, and nothing reads the field.
    query_device(CL_DEVICE_MAX_WORK_GROUP_SIZE, g_engine.max_work_group_size);
    query_device(CL_DEVICE_MAX_COMPUTE_UNITS, g_engine.compute_units);
}

bool open_device() {
    cl_int error = CL_SUCCESS;
    g_engine.context = clCreateContext(nullptr, 1, &g_engine.device, nullptr, nullptr, &error);
    if (error != CL_SUCCESS || !g_engine.context) return false;

    g_engine.queue =
        clCreateCommandQueueWithProperties(g_engine.context, g_engine.device, nullptr, &error);
    if (error == CL_SUCCESS && g_engine.queue) return true;
    (void)clReleaseContext(g_engine.context);
    g_engine.context = nullptr;
    return false;
}

bool find_and_open_device(cl_device_type type) {
    if (!find_platform()) return false;
    if (!take_first_device(type) && !take_first_device(CL_DEVICE_TYPE_ALL)) return false;
    describe_device();
    return open_device();
}

void set_state(bool on_gpu) {
    g_engine.program = nullptr;
    g_engine.initialized = 1;
    g_engine.kernels_compiled = 0;
    g_engine.gpu_enabled = on_gpu ? 1 : 0;
}

// Prints one line, if the verbosity allows it at this moment.
template <typename... Args>
void inform(const char* format, Args... args) {
    if (zx::prints_information()) (void)std::printf(format, args...);
}

void start_with_device() {
    set_state(true);
    constexpr double kGibibytesPerByte = 0x1p-30;
    inform("%s", "[ZORVEX] Engine initialized (GPU mode)\n");
    inform("[ZORVEX] Platform: %s\n", g_engine.platform_name);
    inform("[ZORVEX] Device: %s\n", g_engine.device_name);
    inform("[ZORVEX] Global Memory: %.2f GB\n",
           static_cast<double>(g_engine.global_mem_size) * kGibibytesPerByte);
    inform("[ZORVEX] Compute Units: %" PRIu32 "\n", g_engine.compute_units);

    if (zx_gpu_init() == ZX_OK) return;
    if (zx::prints_warnings())
        (void)std::puts("[ZORVEX] Warning: GPU kernels not initialized (CPU fallback)");
    g_engine.gpu_enabled = 0;
}

void start_without_device() {
    std::memset(g_engine.platform_name, 0, sizeof(g_engine.platform_name));
    std::memset(g_engine.device_name, 0, sizeof(g_engine.device_name));
    std::memcpy(g_engine.platform_name, "CPU", sizeof("CPU"));
    std::memcpy(g_engine.device_name, "CPU (BLAS/SIMD)", sizeof("CPU (BLAS/SIMD)"));
    g_engine.device_type = 0;
    g_engine.global_mem_size = 0;
    g_engine.compute_units = 1;
    set_state(false);
    inform("%s", "[ZORVEX] Engine initialized (CPU-only mode)\n");
    inform("%s", "[ZORVEX] OpenCL not available, using BLAS/SIMD fallback\n");
}

}  // namespace

zx_status_t zx_engine_init(void) {
    return zx_engine_init_with_device(CL_DEVICE_TYPE_GPU);
}

zx_status_t zx_engine_init_with_device(cl_device_type device_type) {
    if (g_engine.initialized)
        return kModule.fail(ZX_ERR_ENGINE_ALREADY_INITIALIZED, "Engine already initialized");

    zx_rng_seed(static_cast<std::uint64_t>(std::time(nullptr)));
    if (find_and_open_device(device_type))
        start_with_device();
    else
        start_without_device();
    return ZX_OK;
}

void zx_engine_shutdown(void) {
    if (!g_engine.initialized) return;
    // Tied to this flag alone, deliberately: without kernels, context and queue stay unreleased.
    if (g_engine.gpu_enabled) {
        zx_gpu_shutdown();
        if (g_engine.program) (void)clReleaseProgram(g_engine.program);
        if (g_engine.queue) (void)clReleaseCommandQueue(g_engine.queue);
        if (g_engine.context) (void)clReleaseContext(g_engine.context);
    }
    inform("%s", "[ZORVEX] Engine shutdown complete\n");
    g_engine = {};
}

bool zx_engine_is_initialized(void) {
    return g_engine.initialized != 0;
}

const char* zx_engine_platform_name(void) {
    return g_engine.platform_name;
}

const char* zx_engine_device_name(void) {
    return g_engine.device_name;
}

uint64_t zx_engine_global_memory(void) {
    return g_engine.global_mem_size;
}

bool zx_engine_is_gpu(void) {
    return g_engine.gpu_enabled && (g_engine.device_type & CL_DEVICE_TYPE_GPU) != 0;
}
