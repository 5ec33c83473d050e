// The engine where no OpenCL platform exists: CPU-only mode, its console lines, its way back.

#include "capture.hpp"
#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "generator_state.hpp"
#include "reference_rng.hpp"

#include <gtest/gtest.h>
#include <thread>

namespace {

using zx::g_engine;
using zx::test::console_of;
using zx::test::generator_state;
using zx::test::ReferenceRng;
using zx::test::system_shim;

class CpuOnlyEngine : public zx::test::EngineTest {};

void expect_idle_record() {
    zx::test::expect_engine({.verbosity = -1});
    for (const char byte : g_engine.platform_name) EXPECT_EQ(byte, '\0');
    for (const char byte : g_engine.device_name) EXPECT_EQ(byte, '\0');
}

TEST_F(CpuOnlyEngine, IsIdleAtFirst) {
    expect_idle_record();
    EXPECT_FALSE(zx_engine_is_initialized());
    EXPECT_FALSE(zx_engine_is_gpu());
    EXPECT_STREQ(zx_engine_platform_name(), "");
    EXPECT_STREQ(zx_engine_device_name(), "");
    EXPECT_EQ(zx_engine_global_memory(), 0U);
}

TEST_F(CpuOnlyEngine, DescribesItself) {
    zx::test::plant_record();
    start();
    EXPECT_TRUE(zx_engine_is_initialized());
    EXPECT_FALSE(zx_engine_is_gpu());
    EXPECT_STREQ(zx_engine_platform_name(), "CPU");
    EXPECT_STREQ(zx_engine_device_name(), "CPU (BLAS/SIMD)");
    EXPECT_EQ(zx_engine_global_memory(), 0U);
    EXPECT_EQ(g_engine.initialized, 1);
    EXPECT_EQ(g_engine.gpu_enabled, 0);
    EXPECT_EQ(g_engine.kernels_compiled, 0);
    EXPECT_EQ(g_engine.compute_units, 1U);
    EXPECT_EQ(g_engine.device_type, 0U);
    EXPECT_EQ(g_engine.context, nullptr);
    EXPECT_EQ(g_engine.queue, nullptr);
    EXPECT_EQ(g_engine.program, nullptr);
    // A computer without OpenCL is no failure.
    zx::test::expect_untouched();
}

TEST_F(CpuOnlyEngine, StartsForEveryDeviceType) {
    for (const cl_device_type type :
         {cl_device_type{CL_DEVICE_TYPE_CPU}, cl_device_type{CL_DEVICE_TYPE_ALL}, cl_device_type{0},
          ~cl_device_type{0}}) {
        start(type);
        EXPECT_STREQ(zx_engine_platform_name(), "CPU");
        zx_engine_shutdown();
    }
}

TEST_F(CpuOnlyEngine, LooksForNoKernels) {
    zx::test::write_file("zorvex_kernels.cl", "this is no program");
    start();
    EXPECT_FALSE(zx_gpu_is_ready());
    EXPECT_EQ(zx_get_last_error(), ZX_OK);
}

TEST_F(CpuOnlyEngine, SaysWhatItDoesAsFarAsTheVerbosityAllows) {
    const struct {
        int verbosity;
        const char* at_start;
        const char* at_stop;
    } cases[] = {
        {-1,
         "[ZORVEX] Engine initialized (CPU-only mode)\n"
         "[ZORVEX] OpenCL not available, using BLAS/SIMD fallback\n",
         "[ZORVEX] Engine shutdown complete\n"},
        {-7,
         "[ZORVEX] Engine initialized (CPU-only mode)\n"
         "[ZORVEX] OpenCL not available, using BLAS/SIMD fallback\n",
         "[ZORVEX] Engine shutdown complete\n"},
        {0, "", ""},
        {1, "", ""},
        {2,
         "[ZORVEX] Engine initialized (CPU-only mode)\n"
         "[ZORVEX] OpenCL not available, using BLAS/SIMD fallback\n",
         "[ZORVEX] Engine shutdown complete\n"},
        {3,
         "[ZORVEX] Engine initialized (CPU-only mode)\n"
         "[ZORVEX] OpenCL not available, using BLAS/SIMD fallback\n",
         "[ZORVEX] Engine shutdown complete\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.verbosity);
        zx_set_verbosity(c.verbosity);
        const auto at_start = console_of([] { EXPECT_EQ(zx_engine_init(), ZX_OK); });
        EXPECT_EQ(at_start.out, c.at_start);
        EXPECT_EQ(at_start.err, "");
        EXPECT_EQ(g_engine.verbosity, c.verbosity);
        const auto at_stop = console_of([] { zx_engine_shutdown(); });
        EXPECT_EQ(at_stop.out, c.at_stop);
        EXPECT_EQ(at_stop.err, "");
    }
}

TEST_F(CpuOnlyEngine, RefusesASecondStartAndChangesNothing) {
    system_shim().now = 1234567;
    start();
    const zx::zx_engine_state before = g_engine;
    system_shim().now = 7654321;
    zx_set_verbosity(2);
    for (const bool with_device : {false, true}) {
        zx::test::plant_record();
        const auto console = console_of([&] {
            EXPECT_EQ(
                with_device ? zx_engine_init_with_device(CL_DEVICE_TYPE_CPU) : zx_engine_init(),
                ZX_ERR_ENGINE_ALREADY_INITIALIZED);
        });
        EXPECT_EQ(console.out + console.err, "");
        zx::test::expect_recorded(201, "src/zx_engine", "Engine already initialized");
    }
    zx_set_verbosity(before.verbosity);
    zx::test::expect_engine(before);
    EXPECT_EQ(generator_state(), ReferenceRng(1234567).state());
}

TEST_F(CpuOnlyEngine, SeedsTheStartingThreadFromTheClock) {
    system_shim().now = 1234567;
    start();
    EXPECT_EQ(generator_state(), (ReferenceRng::State{6457827717110365317U, 3203168211198807973U,
                                                      9817491932198370423U, 4593380528125082431U}));
    std::thread([] { EXPECT_EQ(generator_state(), ReferenceRng::kInitial); }).join();
}

TEST_F(CpuOnlyEngine, ForgetsEverythingWhenItStops) {
    start();
    zx_engine_shutdown();
    expect_idle_record();
    EXPECT_EQ(zx_get_verbosity(), 2);
    EXPECT_FALSE(zx_engine_is_initialized());
    EXPECT_STREQ(zx_engine_platform_name(), "");
    EXPECT_STREQ(zx_engine_device_name(), "");
}

TEST_F(CpuOnlyEngine, DoesNothingWhenItIsStoppedButDoesNotRun) {
    zx_set_verbosity(2);
    const auto console = console_of([] { zx_engine_shutdown(); });
    EXPECT_EQ(console.out + console.err, "");
    // In particular the level is kept.
    EXPECT_EQ(g_engine.verbosity, 2);
    zx_set_verbosity(0);
    zx_engine_shutdown();
    EXPECT_EQ(g_engine.verbosity, 0);
}

TEST_F(CpuOnlyEngine, StartsAgainAfterItWasStopped) {
    for (int round = 0; round < 3; ++round) {
        start();
        EXPECT_TRUE(zx_engine_is_initialized());
        zx_engine_shutdown();
        EXPECT_FALSE(zx_engine_is_initialized());
    }
    EXPECT_EQ(zx_get_last_error(), ZX_OK);
}

}  // namespace
