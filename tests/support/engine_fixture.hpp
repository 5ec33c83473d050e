// The frame of every test that starts the engine: a folder of its own, untouched shims, and an
// engine that is idle before and after, with nothing left on the device.
#pragma once

#include "opencl_shim.hpp"
#include "system_shim.hpp"
#include "temp_folder.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace zx::test {

// Expects the engine record to be this one.
inline void expect_engine(const zx_engine_state& expected) {
    EXPECT_EQ(g_engine.platform, expected.platform);
    EXPECT_EQ(g_engine.device, expected.device);
    EXPECT_EQ(g_engine.context, expected.context);
    EXPECT_EQ(g_engine.queue, expected.queue);
    EXPECT_EQ(g_engine.program, expected.program);
    EXPECT_STREQ(g_engine.platform_name, expected.platform_name);
    EXPECT_STREQ(g_engine.device_name, expected.device_name);
    EXPECT_EQ(g_engine.device_type, expected.device_type);
    EXPECT_EQ(g_engine.global_mem_size, expected.global_mem_size);
    EXPECT_EQ(g_engine.local_mem_size, expected.local_mem_size);
    EXPECT_EQ(g_engine.max_work_group_size, expected.max_work_group_size);
    EXPECT_EQ(g_engine.compute_units, expected.compute_units);
    EXPECT_EQ(g_engine.initialized, expected.initialized);
    EXPECT_EQ(g_engine.kernels_compiled, expected.kernels_compiled);
    EXPECT_EQ(g_engine.gpu_enabled, expected.gpu_enabled);
    EXPECT_EQ(g_engine.verbosity, expected.verbosity);
}

class EngineTest : public testing::Test {
  protected:
    void SetUp() override {
        opencl() = {};
        system_shim() = {};
        // An installed kernel file of this machine must not be found.
        system_shim().root = folder_.root().string();
        zx_clear_error();
        ASSERT_FALSE(zx_engine_is_initialized());
        ASSERT_EQ(zx::g_engine.verbosity, -1);
    }

    void TearDown() override {
        opencl() = {};
        stop_and_release();
        system_shim() = {};
        EXPECT_EQ(release_objects_since({}), std::vector<std::string>{});
    }

    [[nodiscard]] const std::filesystem::path& root() const { return folder_.root(); }

    // Starts the engine without console lines.
    static void start(cl_device_type type = CL_DEVICE_TYPE_GPU) {
        zx_set_verbosity(0);
        ASSERT_EQ(zx_engine_init_with_device(type), ZX_OK);
    }

    // Stops the engine without console lines, and releases what it leaves on the device when it
    // runs without kernels. Shutting down does not wait for launches that nobody waited for, and
    // a program that ends while PoCL still compiles a kernel aborts.
    static void stop_and_release() {
        zx_set_verbosity(0);
        if (g_engine.initialized && g_engine.queue) (void)zx_engine_sync();
        zx_gpu_shutdown();
        const zx_engine_state left = g_engine;
        zx_engine_shutdown();
        zx_set_verbosity(-1);
        if (left.gpu_enabled) return;
        if (left.program) (void)clReleaseProgram(left.program);
        if (left.queue) (void)clReleaseCommandQueue(left.queue);
        if (left.context) (void)clReleaseContext(left.context);
    }

  private:
    TempFolder folder_;
};

}  // namespace zx::test
