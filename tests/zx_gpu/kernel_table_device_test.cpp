// The kernel table on a device: filling, emptying, and what outlives what.

#include "capture.hpp"
#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "zx_gpu/kernel_table.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using zx::g_engine;
using zx::g_kernels;
using zx::test::console_of;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::opencl;
using zx::test::plant_record;
using zx::test::write_file;

constexpr const char* kCached = "[ZORVEX] GPU kernels cached\n";
constexpr const char* kReleased = "[ZORVEX] GPU kernels released\n";
constexpr const char* kBroken = "kernel void relu(global float* x) { this does not parse }\n";

// A kernel file with all kernels, less those that are named.
std::string kernels_without(const std::vector<std::string>& missing) {
    std::string text;
    for (const std::string name : zx::kKernelNames) {
        bool wanted = true;
        for (const std::string& other : missing) wanted = wanted && other != name;
        if (wanted) text += "kernel void " + name + "(global float* x) { x[0] = 1.0f; }\n";
    }
    return text;
}

std::string name_of(cl_kernel kernel) {
    char name[64] = {};
    EXPECT_EQ(clGetKernelInfo(kernel, CL_KERNEL_FUNCTION_NAME, sizeof(name), name, nullptr),
              CL_SUCCESS);
    return name;
}

void expect_empty_table() {
    EXPECT_FALSE(zx_gpu_is_ready());
    EXPECT_EQ(g_kernels.ready, 0);
    for (const cl_kernel kernel : g_kernels.kernels) EXPECT_EQ(kernel, nullptr);
}

class KernelTable : public zx::test::EngineTest {
  protected:
    // The engine without kernels, silent unless a test wants to hear it.
    void SetUp() override {
        EngineTest::SetUp();
        start();
        ASSERT_FALSE(zx_gpu_is_ready());
        plant_record();
        opencl() = {};
    }
};

TEST_F(KernelTable, HoldsAKernelOfEachNameInItsSlot) {
    write_file("zorvex_kernels.cl", kernels_without({}));
    EXPECT_EQ(zx_gpu_init(), ZX_OK);
    EXPECT_TRUE(zx_gpu_is_ready());
    EXPECT_EQ(g_kernels.ready, 1);
    for (std::size_t id = 0; id < 25; ++id) {
        ASSERT_NE(g_kernels.kernels[id], nullptr) << id;
        EXPECT_EQ(name_of(g_kernels.kernels[id]), zx::kKernelNames[id]);
    }
    EXPECT_EQ(opencl().count("clCreateKernel"), 25);
    EXPECT_EQ(opencl().build_options, std::vector<std::string>{"-cl-fast-relaxed-math"});
    EXPECT_EQ(g_engine.kernels_compiled, 1);
    expect_untouched();
}

TEST_F(KernelTable, LeavesTheSlotsOfMissingNamesEmpty) {
    write_file("zorvex_kernels.cl", kernels_without({"reduce_max", "dense_forward", "gelu"}));
    zx_set_verbosity(2);
    const auto console = console_of([] { EXPECT_EQ(zx_gpu_init(), ZX_OK); });
    EXPECT_EQ(console.out,
              std::string("[ZORVEX] Loading kernels from: ./zorvex_kernels.cl\n") + kCached);
    EXPECT_TRUE(zx_gpu_is_ready());
    EXPECT_EQ(g_kernels.kernels[zx::kReduceMax], nullptr);
    EXPECT_EQ(g_kernels.kernels[zx::kDenseForward], nullptr);
    EXPECT_EQ(g_kernels.kernels[zx::kGelu], nullptr);
    EXPECT_NE(g_kernels.kernels[zx::kReduceSum], nullptr);
    EXPECT_NE(g_kernels.kernels[zx::kDenseForwardRelu], nullptr);
    expect_untouched();
    // Only the kernels that are there are released.
    opencl() = {};
    zx_gpu_shutdown();
    EXPECT_EQ(opencl().count("clReleaseKernel"), 22);
}

TEST_F(KernelTable, IsReadyEvenWithoutASingleKernel) {
    write_file("zorvex_kernels.cl", "kernel void something_else(global float* x) { x[0] = 1.0f; }");
    EXPECT_EQ(zx_gpu_init(), ZX_OK);
    EXPECT_TRUE(zx_gpu_is_ready());
    for (const cl_kernel kernel : g_kernels.kernels) EXPECT_EQ(kernel, nullptr);
    opencl() = {};
    zx_gpu_shutdown();
    EXPECT_EQ(opencl().count("clReleaseKernel"), 0);
    EXPECT_FALSE(zx_gpu_is_ready());
}

TEST_F(KernelTable, IsFilledOnlyOnce) {
    write_file("zorvex_kernels.cl", kernels_without({}));
    ASSERT_EQ(zx_gpu_init(), ZX_OK);
    const zx::KernelTable before = g_kernels;
    opencl() = {};
    zx_set_verbosity(2);
    const auto console = console_of([] {
        EXPECT_EQ(zx_gpu_init(), ZX_OK);
        EXPECT_EQ(zx_gpu_init_from_file("missing.cl"), ZX_OK);
        EXPECT_EQ(zx_gpu_init_from_file(nullptr), ZX_OK);
    });
    EXPECT_EQ(console.out + console.err, "");
    EXPECT_TRUE(opencl().calls.empty());
    for (std::size_t id = 0; id < 25; ++id) EXPECT_EQ(g_kernels.kernels[id], before.kernels[id]);
    expect_untouched();
}

TEST_F(KernelTable, IsFilledFromAGivenFileWithoutASearch) {
    write_file("zorvex_kernels.cl", kBroken);
    write_file("elsewhere/mine.cl", kernels_without({"relu"}));
    zx_set_verbosity(2);
    const auto console =
        console_of([] { EXPECT_EQ(zx_gpu_init_from_file("elsewhere/mine.cl"), ZX_OK); });
    EXPECT_EQ(console.out, kCached);
    EXPECT_EQ(console.err, "");
    EXPECT_TRUE(zx_gpu_is_ready());
    EXPECT_EQ(g_kernels.kernels[zx::kRelu], nullptr);
    EXPECT_NE(g_kernels.kernels[zx::kGelu], nullptr);
    EXPECT_EQ(opencl().build_options, std::vector<std::string>{"-cl-fast-relaxed-math"});
    // GPU mode, which was given up at start-up, does not come back by itself.
    EXPECT_EQ(g_engine.gpu_enabled, 0);
    EXPECT_FALSE(zx_engine_is_gpu());
}

TEST_F(KernelTable, StaysEmptyWhenTheBuildFails) {
    write_file("zorvex_kernels.cl", kBroken);
    zx_set_verbosity(0);
    for (const bool from_file : {false, true}) {
        plant_record();
        const auto console = console_of([&] {
            EXPECT_EQ(from_file ? zx_gpu_init_from_file("zorvex_kernels.cl") : zx_gpu_init(),
                      ZX_ERR_KERNEL_COMPILE);
        });
        EXPECT_EQ(console.out, "");
        EXPECT_NE(console.err.find("[ZORVEX] Kernel build error:\n"), std::string::npos);
        expect_recorded(206, "src/zx_engine", "Kernel compilation failed");
        expect_empty_table();
    }
}

TEST_F(KernelTable, StaysEmptyWhenTheFileIsRefused) {
    EXPECT_EQ(zx_gpu_init_from_file(nullptr), ZX_ERR_NULL_POINTER);
    expect_recorded(3, "src/zx_engine", "Kernel file path is NULL");
    EXPECT_EQ(zx_gpu_init_from_file("missing.cl"), ZX_ERR_INVALID_ARGUMENT);
    expect_recorded(2, "src/zx_engine", "Could not open kernel file");
    expect_empty_table();
}

TEST_F(KernelTable, IsEmptiedAndFilledAgain) {
    write_file("zorvex_kernels.cl", kernels_without({}));
    zx_set_verbosity(2);
    for (int round = 0; round < 2; ++round) {
        const auto at_start = console_of([] { EXPECT_EQ(zx_gpu_init(), ZX_OK); });
        EXPECT_EQ(at_start.out,
                  std::string("[ZORVEX] Loading kernels from: ./zorvex_kernels.cl\n") + kCached);
        opencl() = {};
        const auto at_stop = console_of([] { zx_gpu_shutdown(); });
        EXPECT_EQ(at_stop.out, kReleased);
        expect_empty_table();
        EXPECT_EQ(opencl().count("clReleaseKernel"), 25);
        // The program belongs to the engine.
        EXPECT_EQ(opencl().count("clReleaseProgram"), 0);
        EXPECT_NE(g_engine.program, nullptr);
        // A second time there is nothing to do and to say.
        EXPECT_EQ(console_of([] { zx_gpu_shutdown(); }).out, "");
    }
}

TEST_F(KernelTable, PrintsAsFarAsTheVerbosityAllows) {
    write_file("zorvex_kernels.cl", kernels_without({}));
    for (const int verbosity : {-1, 0, 1, 2}) {
        SCOPED_TRACE(verbosity);
        const bool speaks = verbosity != 0 && verbosity != 1;
        zx_set_verbosity(verbosity);
        EXPECT_EQ(
            console_of([] { EXPECT_EQ(zx_gpu_init(), ZX_OK); }).out,
            speaks ? std::string("[ZORVEX] Loading kernels from: ./zorvex_kernels.cl\n") + kCached
                   : "");
        EXPECT_EQ(console_of([] { zx_gpu_shutdown(); }).out, speaks ? kReleased : "");
    }
}

TEST_F(KernelTable, OutlivesAnEngineThatHadGivenUpGpuMode) {
    write_file("zorvex_kernels.cl", kernels_without({}));
    ASSERT_EQ(zx_gpu_init(), ZX_OK);
    ASSERT_EQ(g_engine.gpu_enabled, 0);
    const zx::zx_engine_state left = g_engine;
    zx_engine_shutdown();
    EXPECT_FALSE(zx_gpu_is_ready());
    EXPECT_EQ(g_kernels.ready, 1);

    // The next engine takes the table as it is and loads nothing.
    zx_set_verbosity(2);
    const auto console = console_of([] { EXPECT_EQ(zx_engine_init(), ZX_OK); });
    EXPECT_EQ(console.out.find("Loading kernels from"), std::string::npos);
    EXPECT_EQ(console.out.find("Warning"), std::string::npos);
    EXPECT_TRUE(zx_gpu_is_ready());
    EXPECT_EQ(g_engine.gpu_enabled, 1);
    EXPECT_EQ(g_engine.program, nullptr);
    EXPECT_EQ(console_of([] { zx_engine_shutdown(); }).out,
              std::string(kReleased) + "[ZORVEX] Engine shutdown complete\n");
    expect_empty_table();

    (void)clReleaseProgram(left.program);
    (void)clReleaseCommandQueue(left.queue);
    (void)clReleaseContext(left.context);
}

TEST_F(KernelTable, RunsTheKernelsOfTheFile) {
    write_file("zorvex_kernels.cl",
               "kernel void vec_scale(global float* x, float s, int n) {\n"
               "    const int i = (int)get_global_id(0);\n"
               "    if (i < n) x[i] *= s;\n"
               "}\n");
    ASSERT_EQ(zx_gpu_init(), ZX_OK);
    const cl_kernel kernel = g_kernels.kernels[zx::kVecScale];
    ASSERT_NE(kernel, nullptr);
    float numbers[5] = {1.0f, -2.0f, 3.0f, 4.0f, 0.5f};
    const zx_buffer_t buffer =
        zx_buffer_create_with_data(numbers, sizeof(numbers), CL_MEM_READ_WRITE);
    const float factor = 2.0f;
    const cl_int count = 4;
    EXPECT_EQ(zx_kernel_set_arg(kernel, 0, sizeof(zx_buffer_t), &buffer), ZX_OK);
    EXPECT_EQ(zx_kernel_set_arg(kernel, 1, sizeof(factor), &factor), ZX_OK);
    EXPECT_EQ(zx_kernel_set_arg(kernel, 2, sizeof(count), &count), ZX_OK);
    EXPECT_EQ(zx_kernel_exec_1d(kernel, 5, 0), ZX_OK);
    EXPECT_EQ(zx_buffer_read(buffer, numbers, sizeof(numbers)), ZX_OK);
    EXPECT_EQ(std::vector<float>(numbers, numbers + 5),
              (std::vector<float>{2.0f, -4.0f, 6.0f, 8.0f, 0.5f}));
    zx_buffer_release(buffer);
}

}  // namespace
