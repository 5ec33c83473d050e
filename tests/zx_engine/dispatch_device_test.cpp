// Kernel arguments and launches on a device: what is passed on, and that kernels really run.

#include "engine_fixture.hpp"
#include "error_record.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace {

using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::Launch;
using zx::test::opencl;
using zx::test::plant_record;

// Each work-item writes what it knows about itself; `factor` tells launches apart.
constexpr const char* kSource =
    "kernel void line(global uint* out, uint factor) {\n"
    "    const size_t i = get_global_id(0);\n"
    "    out[i] = factor * (uint)i + 1u;\n"
    "}\n"
    "kernel void plane(global uint* out, uint factor) {\n"
    "    const size_t i = get_global_id(0);\n"
    "    const size_t j = get_global_id(1);\n"
    "    out[i * get_global_size(1) + j] = factor * (uint)i + (uint)j;\n"
    "}\n";
constexpr std::size_t kCount = 96;
using Numbers = std::vector<std::uint32_t>;

class Dispatch : public zx::test::EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        start();
        ASSERT_EQ(zx_engine_compile_kernels(kSource, nullptr), ZX_OK);
        line_ = zx_kernel_get("line");
        plane_ = zx_kernel_get("plane");
        const Numbers zeros(kCount);
        out_ = zx_buffer_create_with_data(zeros.data(), kCount * 4, CL_MEM_READ_WRITE);
        ASSERT_TRUE(line_ && plane_ && out_);
        plant_record();
        opencl() = {};
    }

    void TearDown() override {
        if (line_) (void)clReleaseKernel(line_);
        if (plane_) (void)clReleaseKernel(plane_);
        zx_buffer_release(out_);
        EngineTest::TearDown();
    }

    void set_arguments(cl_kernel kernel, std::uint32_t factor) const {
        ASSERT_EQ(zx_kernel_set_arg(kernel, 0, sizeof(zx_buffer_t), &out_), ZX_OK);
        ASSERT_EQ(zx_kernel_set_arg(kernel, 1, sizeof(factor), &factor), ZX_OK);
    }

    [[nodiscard]] Numbers result() const {
        Numbers numbers(kCount);
        EXPECT_EQ(zx_buffer_read(out_, numbers.data(), kCount * 4), ZX_OK);
        return numbers;
    }

    static Numbers line_of(std::size_t count, std::uint32_t factor) {
        Numbers expected(kCount);
        for (std::uint32_t i = 0; i < count; ++i) expected[i] = factor * i + 1;
        return expected;
    }

    static Numbers plane_of(std::uint32_t rows, std::uint32_t cols, std::uint32_t factor) {
        Numbers expected(kCount);
        for (std::uint32_t i = 0; i < rows; ++i)
            for (std::uint32_t j = 0; j < cols; ++j) expected[i * cols + j] = factor * i + j;
        return expected;
    }

    cl_kernel line_ = nullptr;
    cl_kernel plane_ = nullptr;
    zx_buffer_t out_ = nullptr;
};

TEST_F(Dispatch, LeavesTheWorkGroupToOpenClWhenLocalIsZero) {
    set_arguments(line_, 3);
    // A prime number, which no larger work-group divides.
    EXPECT_EQ(zx_kernel_exec_1d(line_, 89, 0), ZX_OK);
    EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{89}, {}, false, false}}));
    EXPECT_EQ(result(), line_of(89, 3));
    expect_untouched();
}

TEST_F(Dispatch, PassesALocalSizeOn) {
    set_arguments(line_, 5);
    EXPECT_EQ(zx_kernel_exec_1d(line_, 96, 8), ZX_OK);
    EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{96}, {8}, false, false}}));
    EXPECT_EQ(result(), line_of(96, 5));
    expect_untouched();
}

TEST_F(Dispatch, DoesNotRoundTheGlobalSizeUp) {
    set_arguments(line_, 7);
    // Devices differ in whether they accept a last work-group that is not full.
    const zx_status_t status = zx_kernel_exec_1d(line_, 90, 8);
    EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{90}, {8}, false, false}}));
    if (status == ZX_OK) {
        EXPECT_EQ(result(), line_of(90, 7));
        expect_untouched();
    } else {
        EXPECT_EQ(status, ZX_ERR_KERNEL_EXEC);
        expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
        EXPECT_EQ(result(), Numbers(kCount));
    }
}

TEST_F(Dispatch, LaunchesInTwoDimensions) {
    set_arguments(plane_, 100);
    EXPECT_EQ(zx_kernel_exec_2d(plane_, 8, 12, 4, 3), ZX_OK);
    EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{8, 12}, {4, 3}, false, false}}));
    EXPECT_EQ(result(), plane_of(8, 12, 100));
    expect_untouched();
}

TEST_F(Dispatch, PassesAPairOfLocalSizesOnlyWhenBothAreThere) {
    const struct {
        std::uint64_t local_0, local_1;
        std::vector<std::size_t> passed;
    } cases[] = {{16, 0, {}}, {0, 16, {}}, {0, 0, {}}, {1, 1, {1, 1}}, {2, 4, {2, 4}}};
    std::uint32_t factor = 50;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.local_0 << " and " << c.local_1);
        opencl() = {};
        set_arguments(plane_, ++factor);
        EXPECT_EQ(zx_kernel_exec_2d(plane_, 4, 8, c.local_0, c.local_1), ZX_OK);
        EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{4, 8}, c.passed, false, false}}));
        EXPECT_EQ(result(), plane_of(4, 8, factor));
    }
    expect_untouched();
}

TEST_F(Dispatch, RunsLaunchesInTheirOrderWithoutWaiting) {
    for (const std::uint32_t factor : {2U, 4U, 6U}) {
        set_arguments(line_, factor);
        EXPECT_EQ(zx_kernel_exec_1d(line_, kCount, 0), ZX_OK);
    }
    EXPECT_EQ(opencl().count("clFinish"), 0);
    EXPECT_EQ(zx_engine_sync(), ZX_OK);
    EXPECT_EQ(opencl().count("clFinish"), 1);
    EXPECT_EQ(result(), line_of(kCount, 6));
}

TEST_F(Dispatch, RecordsArgumentsThatOpenClRefuses) {
    const std::uint32_t value = 1;
    const struct {
        const char* when;
        cl_kernel kernel;
        std::uint32_t index;
        std::uint64_t size;
    } cases[] = {
        {"there is no such argument", line_, 2, sizeof(value)},
        {"its size is wrong", line_, 1, 1},
        {"there is no kernel", nullptr, 0, sizeof(value)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        plant_record();
        EXPECT_EQ(zx_kernel_set_arg(c.kernel, c.index, c.size, &value), ZX_ERR_KERNEL_EXEC);
        expect_recorded(207, "src/zx_engine", "Failed to set kernel argument");
    }
}

TEST_F(Dispatch, RecordsLaunchesThatOpenClRefuses) {
    set_arguments(line_, 1);
    set_arguments(plane_, 1);
    opencl().refused.insert("clEnqueueNDRangeKernel");
    EXPECT_EQ(zx_kernel_exec_1d(line_, kCount, 0), ZX_ERR_KERNEL_EXEC);
    expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
    plant_record();
    EXPECT_EQ(zx_kernel_exec_2d(plane_, 8, 12, 4, 4), ZX_ERR_KERNEL_EXEC);
    expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
    opencl() = {};

    // A work-group that is larger than any device's.
    plant_record();
    EXPECT_EQ(zx_kernel_exec_1d(line_, 1ULL << 40, 1ULL << 40), ZX_ERR_KERNEL_EXEC);
    expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
    plant_record();
    EXPECT_EQ(zx_kernel_exec_1d(nullptr, kCount, 0), ZX_ERR_KERNEL_EXEC);
    expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
    plant_record();
    EXPECT_EQ(zx_kernel_exec_2d(nullptr, 8, 12, 0, 0), ZX_ERR_KERNEL_EXEC);
    expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
    EXPECT_EQ(result(), Numbers(kCount));
}

}  // namespace
