// The engine with an OpenCL device: GPU mode, the device without kernels, and every way back to
// CPU-only mode.

#include "capture.hpp"
#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "start_texts.hpp"
#include "zx_gpu/kernel_table.hpp"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

using zx::g_engine;
using zx::test::console_of;
using zx::test::Device;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::kCpuOnlyLines;
using zx::test::kNoKernelFile;
using zx::test::kWarning;
using zx::test::opencl;
using zx::test::plant_record;
using zx::test::write_file;

class DeviceEngine : public zx::test::EngineTest {
  protected:
    static void write_kernels() {
        write_file("zorvex_kernels.cl", "kernel void relu(global float* x, int n) {}\n");
    }
    const Device device_;
};

TEST_F(DeviceEngine, DescribesTheDeviceInItsRecord) {
    write_kernels();
    plant_record();
    start();
    EXPECT_EQ(g_engine.platform, device_.platform);
    EXPECT_EQ(g_engine.device, device_.device);
    EXPECT_NE(g_engine.context, nullptr);
    EXPECT_NE(g_engine.queue, nullptr);
    EXPECT_NE(g_engine.program, nullptr);
    EXPECT_EQ(zx_engine_platform_name(), device_.platform_name);
    EXPECT_EQ(zx_engine_device_name(), device_.device_name);
    EXPECT_EQ(zx_engine_global_memory(), device_.global_memory);
    EXPECT_EQ(g_engine.device_type, device_.type);
    EXPECT_EQ(g_engine.local_mem_size, device_.local_memory);
    EXPECT_EQ(g_engine.compute_units, device_.compute_units);
    EXPECT_EQ(g_engine.initialized, 1);
    EXPECT_EQ(g_engine.kernels_compiled, 1);
    EXPECT_EQ(g_engine.gpu_enabled, 1);
    EXPECT_TRUE(zx_engine_is_initialized());
    EXPECT_TRUE(zx_gpu_is_ready());
    expect_untouched();
}

TEST_F(DeviceEngine, AsksTheDeviceInAFixedOrder) {
    start();
    EXPECT_EQ(
        opencl().device_queries,
        (std::vector<cl_device_info>{CL_DEVICE_NAME, CL_DEVICE_TYPE, CL_DEVICE_GLOBAL_MEM_SIZE,
                                     CL_DEVICE_LOCAL_MEM_SIZE, CL_DEVICE_MAX_WORK_GROUP_SIZE,
                                     CL_DEVICE_MAX_COMPUTE_UNITS}));
}

TEST_F(DeviceEngine, MakesAPlainContextAndAnInOrderQueue) {
    start();
    EXPECT_EQ(opencl().count("clCreateContext"), 1);
    EXPECT_EQ(opencl().count("clCreateCommandQueueWithProperties"), 1);
    EXPECT_FALSE(opencl().context_has_properties);
    EXPECT_FALSE(opencl().queue_has_properties);
    cl_command_queue_properties properties = ~cl_command_queue_properties{0};
    ASSERT_EQ(clGetCommandQueueInfo(g_engine.queue, CL_QUEUE_PROPERTIES, sizeof(properties),
                                    &properties, nullptr),
              CL_SUCCESS);
    EXPECT_EQ(properties, 0U);
    cl_context context = nullptr;
    ASSERT_EQ(clGetCommandQueueInfo(g_engine.queue, CL_QUEUE_CONTEXT, sizeof(cl_context), &context,
                                    nullptr),
              CL_SUCCESS);
    EXPECT_EQ(context, g_engine.context);
}

TEST_F(DeviceEngine, PrefersTheTypeAskedForAndElseTakesAny) {
    using Types = std::set<cl_device_type>;
    const struct {
        const char* when;
        bool plain;
        cl_device_type type;
        Types asked;
    } cases[] = {
        {"there is one of the type", false, CL_DEVICE_TYPE_CPU, {CL_DEVICE_TYPE_CPU}},
        {"there is none of the type",
         false,
         CL_DEVICE_TYPE_ACCELERATOR,
         {CL_DEVICE_TYPE_ACCELERATOR, CL_DEVICE_TYPE_ALL}},
        {"no type is named", true, 0, {CL_DEVICE_TYPE_GPU, CL_DEVICE_TYPE_ALL}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        opencl() = {};
        zx_set_verbosity(0);
        ASSERT_EQ(c.plain ? zx_engine_init() : zx_engine_init_with_device(c.type), ZX_OK);
        const auto& asked = opencl().device_types_asked;
        EXPECT_EQ(Types(asked.begin(), asked.end()), c.asked);
        EXPECT_EQ(asked.front(), c.plain ? cl_device_type{CL_DEVICE_TYPE_GPU} : c.type);
        EXPECT_EQ(g_engine.device, device_.device);
        stop_and_release();
    }
}

TEST_F(DeviceEngine, CountsAsGpuOnlyInGpuModeOnAGpu) {
    const struct {
        const char* when;
        cl_device_type type;
        bool kernels;
        bool is_gpu;
    } cases[] = {
        {"a CPU with kernels", CL_DEVICE_TYPE_CPU, true, false},
        {"a GPU with kernels", CL_DEVICE_TYPE_GPU, true, true},
        {"the default GPU with kernels", CL_DEVICE_TYPE_GPU | CL_DEVICE_TYPE_DEFAULT, true, true},
        {"an accelerator with kernels", CL_DEVICE_TYPE_ACCELERATOR, true, false},
        {"a GPU without kernels", CL_DEVICE_TYPE_GPU, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        if (c.kernels)
            write_kernels();
        else
            std::filesystem::remove("zorvex_kernels.cl");
        opencl().device_type = c.type;
        start();
        EXPECT_EQ(zx_engine_is_gpu(), c.is_gpu);
        EXPECT_EQ(g_engine.device_type, c.type);
        stop_and_release();
    }
}

TEST_F(DeviceEngine, SaysWhatItDoesAsFarAsTheVerbosityAllows) {
    write_kernels();
    const std::string all = device_.lines() +
                            "[ZORVEX] Loading kernels from: ./zorvex_kernels.cl\n"
                            "[ZORVEX] GPU kernels cached\n";
    const std::string end =
        "[ZORVEX] GPU kernels released\n"
        "[ZORVEX] Engine shutdown complete\n";
    const struct {
        int verbosity;
        std::string at_start;
        std::string at_stop;
    } cases[] = {{-1, all, end}, {-9, all, end}, {0, "", ""}, {1, "", ""}, {2, all, end}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.verbosity);
        zx_set_verbosity(c.verbosity);
        EXPECT_EQ(console_of([] { EXPECT_EQ(zx_engine_init(), ZX_OK); }).out, c.at_start);
        EXPECT_EQ(console_of([] { zx_engine_shutdown(); }).out, c.at_stop);
        EXPECT_EQ(g_engine.verbosity, -1);
    }
}

TEST_F(DeviceEngine, WarnsWithoutKernelsUnlessItIsSilent) {
    const std::string all = device_.lines() + kWarning;
    const std::string end = "[ZORVEX] Engine shutdown complete\n";
    const struct {
        int verbosity;
        std::string at_start;
        std::string at_stop;
    } cases[] = {{-1, all, end}, {0, "", ""}, {1, kWarning, ""}, {2, all, end}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.verbosity);
        zx_set_verbosity(c.verbosity);
        plant_record();
        EXPECT_EQ(console_of([] { EXPECT_EQ(zx_engine_init(), ZX_OK); }).out, c.at_start);
        expect_recorded(2, "src/zx_gpu", kNoKernelFile);
        const zx::zx_engine_state left = g_engine;
        EXPECT_EQ(console_of([] { zx_engine_shutdown(); }).out, c.at_stop);
        (void)clReleaseCommandQueue(left.queue);
        (void)clReleaseContext(left.context);
    }
}

TEST_F(DeviceEngine, PrintsTheMemoryInGibibytes) {
    const struct {
        cl_ulong bytes;
        const char* printed;
    } cases[] = {
        {8589934592U, "8.00"},
        {1073741824U, "1.00"},
        {0, "0.00"},
        {5368709U, "0.00"},
        {5368710U, "0.01"},
        {1610612736U, "1.50"},
        {1ULL << 63, "8589934592.00"},  // an unsigned number
    };
    for (const auto& c : cases) {
        opencl().global_memory = c.bytes;
        const auto console = console_of([] { EXPECT_EQ(zx_engine_init(), ZX_OK); });
        EXPECT_EQ(console.out, device_.lines(c.printed) + kWarning);
        EXPECT_EQ(zx_engine_global_memory(), c.bytes);
        stop_and_release();
    }
}

TEST_F(DeviceEngine, KeepsContextAndQueueWithoutKernels) {
    start();
    EXPECT_TRUE(zx_engine_is_initialized());
    EXPECT_FALSE(zx_engine_is_gpu());
    EXPECT_FALSE(zx_gpu_is_ready());
    EXPECT_EQ(g_engine.gpu_enabled, 0);
    EXPECT_EQ(g_engine.kernels_compiled, 0);
    EXPECT_EQ(zx_engine_device_name(), device_.device_name);
    const zx_buffer_t buffer = zx_buffer_create(64, CL_MEM_READ_WRITE);
    EXPECT_NE(buffer, nullptr);
    zx_buffer_release(buffer);
    EXPECT_EQ(zx_engine_sync(), ZX_OK);
}

TEST_F(DeviceEngine, TurnsGpuModeOffForABrokenKernelFile) {
    write_file("zorvex_kernels.cl", "kernel void relu(global float* x) { this does not parse }\n");
    zx_set_verbosity(1);
    const auto console = console_of([] { EXPECT_EQ(zx_engine_init(), ZX_OK); });
    EXPECT_EQ(console.out, kWarning);
    EXPECT_NE(console.err.find("[ZORVEX] Kernel build error:\n"), std::string::npos);
    expect_recorded(206, "src/zx_engine", "Kernel compilation failed");
    EXPECT_EQ(g_engine.gpu_enabled, 0);
    EXPECT_EQ(g_engine.program, nullptr);
    EXPECT_NE(g_engine.queue, nullptr);
    EXPECT_FALSE(zx_gpu_is_ready());
}

TEST_F(DeviceEngine, ReleasesKernelsProgramQueueAndContextInThisOrder) {
    const std::set<std::string> releases = {"clReleaseKernel", "clReleaseProgram",
                                            "clReleaseCommandQueue", "clReleaseContext"};
    write_kernels();
    start();
    opencl() = {};
    zx_engine_shutdown();
    EXPECT_EQ(opencl().only(releases),
              (std::vector<std::string>{"clReleaseKernel", "clReleaseProgram",
                                        "clReleaseCommandQueue", "clReleaseContext"}));
    zx::test::expect_engine({.verbosity = -1});
    EXPECT_FALSE(zx_gpu_is_ready());
}

TEST_F(DeviceEngine, ReleasesNothingWhenGpuModeIsOff) {
    start();
    // Even a program that was built since stays.
    ASSERT_EQ(zx_engine_compile_kernels("kernel void f() {}", nullptr), ZX_OK);
    const zx::zx_engine_state left = g_engine;
    opencl() = {};
    zx_engine_shutdown();
    EXPECT_EQ(opencl().calls, std::vector<std::string>{});
    zx::test::expect_engine({.verbosity = -1});
    EXPECT_EQ(clReleaseProgram(left.program), CL_SUCCESS);
    EXPECT_EQ(clReleaseCommandQueue(left.queue), CL_SUCCESS);
    EXPECT_EQ(clReleaseContext(left.context), CL_SUCCESS);
}

TEST_F(DeviceEngine, RefusesASecondStartAndChangesNothing) {
    write_kernels();
    start();
    const zx::zx_engine_state before = g_engine;
    opencl() = {};
    EXPECT_EQ(zx_engine_init_with_device(CL_DEVICE_TYPE_CPU), ZX_ERR_ENGINE_ALREADY_INITIALIZED);
    expect_recorded(201, "src/zx_engine", "Engine already initialized");
    zx::test::expect_engine(before);
    EXPECT_EQ(opencl().calls, std::vector<std::string>{});
    EXPECT_TRUE(zx_gpu_is_ready());
}

TEST_F(DeviceEngine, StartsAgainAfterItWasStopped) {
    write_kernels();
    for (int round = 0; round < 3; ++round) {
        start();
        EXPECT_TRUE(zx_gpu_is_ready());
        zx_engine_shutdown();
        EXPECT_FALSE(zx_engine_is_initialized());
        EXPECT_EQ(zx_get_verbosity(), 2);
    }
}

TEST_F(DeviceEngine, FallsBackToTheHostWhenOpenClRefuses) {
    const struct {
        const char* when;
        const char* refused;
        int once;  // 0: always
    } cases[] = {
        {"platforms cannot be counted", "clGetPlatformIDs", 0},
        {"platforms cannot be fetched", "clGetPlatformIDs", 2},
        {"there are no devices", "clGetDeviceIDs", 0},
        {"there is no context", "clCreateContext", 0},
        {"there is no queue", "clCreateCommandQueueWithProperties", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        opencl() = {};
        if (c.once != 0)
            opencl().refused_once[c.refused] = c.once;
        else
            opencl().refused.insert(c.refused);
        zx_set_verbosity(2);
        plant_record();
        const auto console = console_of([] { EXPECT_EQ(zx_engine_init(), ZX_OK); });
        EXPECT_EQ(console.out, kCpuOnlyLines);
        EXPECT_EQ(console.err, "");
        expect_untouched();
        EXPECT_TRUE(zx_engine_is_initialized());
        EXPECT_FALSE(zx_engine_is_gpu());
        EXPECT_STREQ(zx_engine_platform_name(), "CPU");
        EXPECT_STREQ(zx_engine_device_name(), "CPU (BLAS/SIMD)");
        EXPECT_EQ(zx_engine_global_memory(), 0U);
        EXPECT_EQ(g_engine.device_type, 0U);
        EXPECT_EQ(g_engine.compute_units, 1U);
        EXPECT_EQ(g_engine.context, nullptr);
        EXPECT_EQ(g_engine.queue, nullptr);
        EXPECT_EQ(g_engine.gpu_enabled, 0);
        // What was made on the way is released.
        const bool had_context = opencl().count("clCreateCommandQueueWithProperties") == 1;
        EXPECT_EQ(opencl().count("clReleaseContext"), had_context ? 1 : 0);
        opencl() = {};
        zx_engine_shutdown();
        EXPECT_EQ(opencl().calls, std::vector<std::string>{});
    }
}

TEST_F(DeviceEngine, FallsBackToTheHostWhenNothingIsThere) {
    opencl().platform_count = 0;
    start();
    EXPECT_STREQ(zx_engine_platform_name(), "CPU");
    zx_engine_shutdown();

    opencl() = {};
    opencl().device_count = 0;
    start();
    EXPECT_STREQ(zx_engine_platform_name(), "CPU");
    EXPECT_EQ(opencl().device_types_asked,
              (std::vector<cl_device_type>{CL_DEVICE_TYPE_GPU, CL_DEVICE_TYPE_ALL}));
}

TEST_F(DeviceEngine, TakesAnyDeviceWhenTheQueryForTheTypeFails) {
    opencl().refused_once["clGetDeviceIDs"] = 1;
    start(CL_DEVICE_TYPE_CPU);
    EXPECT_EQ(opencl().device_types_asked[0], cl_device_type{CL_DEVICE_TYPE_CPU});
    EXPECT_EQ(opencl().device_types_asked[1], cl_device_type{CL_DEVICE_TYPE_ALL});
    EXPECT_EQ(g_engine.device, device_.device);
}

TEST_F(DeviceEngine, DoesNotMindADeviceThatDescribesNothing) {
    opencl().refused.insert("clGetDeviceInfo");
    start();
    EXPECT_STREQ(zx_engine_device_name(), "");
    EXPECT_EQ(zx_engine_global_memory(), 0U);
    EXPECT_EQ(g_engine.compute_units, 0U);
    EXPECT_NE(g_engine.queue, nullptr);
}

}  // namespace
