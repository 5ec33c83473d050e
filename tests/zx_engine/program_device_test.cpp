// Programs and kernels on a device: what is built, what replaces what, what a failed build leaves.

#include "capture.hpp"
#include "engine_fixture.hpp"
#include "error_record.hpp"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

using zx::g_engine;
using zx::test::console_of;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::opencl;
using zx::test::plant_record;
using zx::test::write_file;

constexpr const char* kGood = "kernel void good(global float* x) { x[get_global_id(0)] = 1.0f; }\n";
constexpr const char* kBad = "kernel void bad(global float* x) { this is no statement }\n";
constexpr std::size_t kLargest = 10485760;

class DeviceProgram : public zx::test::EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        start();
        plant_record();
        opencl() = {};
    }

    static bool has_kernel(const char* name) {
        const cl_kernel kernel = zx_kernel_get(name);
        if (kernel) (void)clReleaseKernel(kernel);
        return kernel != nullptr;
    }

    // A file of this size that is a program with the kernel "good".
    static std::string program_of_size(std::size_t size) {
        std::string text = kGood;
        text.resize(size, ' ');
        return text;
    }
};

TEST_F(DeviceProgram, IsBuiltFromText) {
    EXPECT_EQ(g_engine.kernels_compiled, 0);
    EXPECT_EQ(zx_engine_compile_kernels(kGood, nullptr), ZX_OK);
    EXPECT_NE(g_engine.program, nullptr);
    EXPECT_EQ(g_engine.kernels_compiled, 1);
    EXPECT_TRUE(has_kernel("good"));
    EXPECT_FALSE(has_kernel("bad"));
    EXPECT_FALSE(has_kernel(""));
    EXPECT_EQ(zx_kernel_get(nullptr), nullptr);
    EXPECT_EQ(opencl().build_options, std::vector<std::string>{"(null)"});
    expect_untouched();
}

TEST_F(DeviceProgram, IsBuiltWithTheGivenOptions) {
    constexpr const char* kNeedsOption =
        "#ifndef WANTED\n#error\n#endif\nkernel void WANTED(global float* x) {}\n";
    EXPECT_EQ(zx_engine_compile_kernels(kNeedsOption, "-DWANTED=named"), ZX_OK);
    EXPECT_TRUE(has_kernel("named"));
    EXPECT_EQ(opencl().build_options, std::vector<std::string>{"-DWANTED=named"});
}

TEST_F(DeviceProgram, ReplacesTheOneBefore) {
    ASSERT_EQ(zx_engine_compile_kernels(kGood, nullptr), ZX_OK);
    opencl() = {};
    EXPECT_EQ(zx_engine_compile_kernels("kernel void other() {}", nullptr), ZX_OK);
    EXPECT_EQ(opencl().only({"clReleaseProgram", "clCreateProgramWithSource"}),
              (std::vector<std::string>{"clReleaseProgram", "clCreateProgramWithSource"}));
    EXPECT_TRUE(has_kernel("other"));
    EXPECT_FALSE(has_kernel("good"));
}

TEST_F(DeviceProgram, PrintsTheBuildLogOfAFailureWhateverTheVerbosity) {
    opencl().refused.insert("clBuildProgram");
    opencl().build_log = std::string("line 1: no\nline 2: 100%s\0", 25);
    for (const int verbosity : {-1, 0, 1, 2}) {
        SCOPED_TRACE(verbosity);
        zx_set_verbosity(verbosity);
        plant_record();
        const auto console = console_of(
            [] { EXPECT_EQ(zx_engine_compile_kernels(kGood, nullptr), ZX_ERR_KERNEL_COMPILE); });
        EXPECT_EQ(console.out, "");
        EXPECT_EQ(console.err, "[ZORVEX] Kernel build error:\nline 1: no\nline 2: 100%s\n");
        expect_recorded(206, "src/zx_engine", "Kernel compilation failed");
        EXPECT_EQ(g_engine.program, nullptr);
        EXPECT_EQ(g_engine.kernels_compiled, 0);
    }
}

TEST_F(DeviceProgram, PrintsBuildLogsOfAnyLength) {
    opencl().refused.insert("clBuildProgram");
    for (const std::size_t length : {0U, 1U, 255U, 256U, 4096U, 1000000U}) {
        SCOPED_TRACE(length);
        // The bytes alone: not every implementation counts a NUL at the end.
        opencl().build_log = std::string(length, 'x');
        const auto console = console_of(
            [] { EXPECT_EQ(zx_engine_compile_kernels(kGood, nullptr), ZX_ERR_KERNEL_COMPILE); });
        EXPECT_EQ(console.err, "[ZORVEX] Kernel build error:\n" + std::string(length, 'x') + "\n");
    }
}

TEST_F(DeviceProgram, ReportsASyntaxErrorWithTheCompilersLog) {
    const auto console = console_of(
        [] { EXPECT_EQ(zx_engine_compile_kernels(kBad, nullptr), ZX_ERR_KERNEL_COMPILE); });
    // The compiler may write to standard error itself.
    const std::size_t begin = console.err.find("[ZORVEX] Kernel build error:\n");
    ASSERT_NE(begin, std::string::npos) << console.err;
    EXPECT_NE(console.err.find("error: ", begin + 29), std::string::npos) << console.err;
    EXPECT_TRUE(console.err.ends_with("\n"));
    expect_recorded(206, "src/zx_engine", "Kernel compilation failed");
    EXPECT_EQ(g_engine.program, nullptr);
    EXPECT_EQ(g_engine.kernels_compiled, 0);
}

TEST_F(DeviceProgram, IsGoneAfterAFailedBuildButTheFlagStays) {
    ASSERT_EQ(zx_engine_compile_kernels(kGood, nullptr), ZX_OK);
    (void)console_of(
        [] { EXPECT_EQ(zx_engine_compile_kernels(kBad, nullptr), ZX_ERR_KERNEL_COMPILE); });
    EXPECT_EQ(g_engine.program, nullptr);
    EXPECT_EQ(g_engine.kernels_compiled, 1);
    EXPECT_EQ(opencl().count("clReleaseProgram"), 2);
    plant_record();
    EXPECT_EQ(zx_kernel_get("good"), nullptr);
    expect_untouched();
}

TEST_F(DeviceProgram, IsReportedWhenItCannotBeMade) {
    ASSERT_EQ(zx_engine_compile_kernels(kGood, nullptr), ZX_OK);
    opencl().refused.insert("clCreateProgramWithSource");
    EXPECT_EQ(zx_engine_compile_kernels(kGood, nullptr), ZX_ERR_KERNEL_COMPILE);
    expect_recorded(206, "src/zx_engine", "Failed to create program from source");
    EXPECT_EQ(g_engine.program, nullptr);

    opencl() = {};
    plant_record();
    EXPECT_EQ(zx_engine_compile_kernels(nullptr, nullptr), ZX_ERR_KERNEL_COMPILE);
    expect_recorded(206, "src/zx_engine", "Failed to create program from source");
    EXPECT_EQ(g_engine.program, nullptr);
}

TEST_F(DeviceProgram, GivesANewKernelEachTime) {
    ASSERT_EQ(zx_engine_compile_kernels(kGood, nullptr), ZX_OK);
    const cl_kernel first = zx_kernel_get("good");
    const cl_kernel second = zx_kernel_get("good");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(clReleaseKernel(first), CL_SUCCESS);
    EXPECT_EQ(clReleaseKernel(second), CL_SUCCESS);

    opencl().refused.insert("clCreateKernel");
    EXPECT_EQ(zx_kernel_get("good"), nullptr);
    opencl() = {};
    // The flag counts as well as the program.
    g_engine.kernels_compiled = 0;
    EXPECT_EQ(zx_kernel_get("good"), nullptr);
    EXPECT_EQ(opencl().count("clCreateKernel"), 0);
    expect_untouched();
}

TEST_F(DeviceProgram, IsBuiltFromAFileOfTheLargestSizeOnly) {
    write_file("largest.cl", program_of_size(kLargest));
    EXPECT_EQ(zx_engine_compile_kernels_file("largest.cl", nullptr), ZX_OK);
    EXPECT_TRUE(has_kernel("good"));
    expect_untouched();

    write_file("larger.cl", program_of_size(kLargest + 1));
    EXPECT_EQ(zx_engine_compile_kernels_file("larger.cl", nullptr), ZX_ERR_BUFFER_TOO_SMALL);
    expect_recorded(102, "src/zx_engine", "Kernel file size invalid or too large");
    // A file that is refused leaves the program before it.
    EXPECT_TRUE(has_kernel("good"));
}

TEST_F(DeviceProgram, IsBuiltFromAFileThatEndsWithANul) {
    write_file("nul.cl", std::string(kGood) + '\0');
    EXPECT_EQ(zx_engine_compile_kernels_file("nul.cl", "-cl-fast-relaxed-math"), ZX_OK);
    EXPECT_TRUE(has_kernel("good"));
    EXPECT_EQ(opencl().build_options, std::vector<std::string>{"-cl-fast-relaxed-math"});
    expect_untouched();

    write_file("nul.cl", std::string(kGood) + '\0' + "\n");
    EXPECT_EQ(zx_engine_compile_kernels_file("nul.cl", nullptr), ZX_ERR_DATA_CORRUPTED);
    expect_recorded(402, "src/zx_engine", "Kernel file contains null bytes");
    EXPECT_TRUE(has_kernel("good"));
}

TEST_F(DeviceProgram, IsBuiltFromAFileAsFarAsItCouldBeRead) {
    write_file("short.cl", kGood);
    zx::test::system_shim().position = 4096;
    EXPECT_EQ(zx_engine_compile_kernels_file("short.cl", nullptr), ZX_OK);
    EXPECT_TRUE(has_kernel("good"));
    expect_untouched();
}

TEST_F(DeviceProgram, ReportsABrokenFileAsABrokenText) {
    write_file("bad.cl", kBad);
    const auto console = console_of([] {
        EXPECT_EQ(zx_engine_compile_kernels_file("bad.cl", nullptr), ZX_ERR_KERNEL_COMPILE);
    });
    EXPECT_NE(console.err.find("[ZORVEX] Kernel build error:\n"), std::string::npos);
    expect_recorded(206, "src/zx_engine", "Kernel compilation failed");
}

}  // namespace
