// The kernel table does not trust the build alone: without a program there is nothing to fill it
// from. No build of the engine ends like that, so the engine's function is replaced at link time.

#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "zx_gpu/kernel_table.hpp"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string g_path;
std::string g_options;

class KernelCache : public zx::test::EngineTest {};

}  // namespace

// The linker prescribes this name.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" zx_status_t __wrap_zx_engine_compile_kernels_file(const char* path,
                                                             const char* options) {
    g_path = path;
    g_options = options;
    return ZX_OK;
}

namespace {

TEST_F(KernelCache, IsNotFilledWithoutAProgram) {
    start();
    zx::test::plant_record();
    EXPECT_EQ(zx_gpu_init_from_file("some.cl"), ZX_ERR_KERNEL_COMPILE);
    zx::test::expect_recorded(206, "src/zx_gpu", "Kernels not compiled");
    EXPECT_EQ(g_path, "some.cl");
    EXPECT_EQ(g_options, "-cl-fast-relaxed-math");
    EXPECT_FALSE(zx_gpu_is_ready());
    EXPECT_EQ(zx::g_kernels.ready, 0);

    zx::test::write_file("src/kernels/zorvex_kernels.cl", "kernel void relu(global float* x) {}");
    zx::test::plant_record();
    EXPECT_EQ(zx_gpu_init(), ZX_ERR_KERNEL_COMPILE);
    zx::test::expect_recorded(206, "src/zx_gpu", "Kernels not compiled");
    EXPECT_EQ(g_path, "src/kernels/zorvex_kernels.cl");
    EXPECT_FALSE(zx_gpu_is_ready());
}

}  // namespace
