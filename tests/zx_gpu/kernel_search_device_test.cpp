// The search for the kernel file: seven places, and the first readable one wins.

#include "capture.hpp"
#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "zx_gpu/kernel_table.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

using zx::test::console_of;
using zx::test::expect_recorded;
using zx::test::plant_record;
using zx::test::write_file;

// In the order of the search.
constexpr const char* kPlaces[] = {
    "./zorvex_kernels.cl",
    "src/kernels/zorvex_kernels.cl",
    "../src/kernels/zorvex_kernels.cl",
    "../share/zorvex/zorvex_kernels.cl",
    "/usr/local/share/zorvex/zorvex_kernels.cl",
    "/usr/share/zorvex/zorvex_kernels.cl",
    "/opt/homebrew/share/zorvex/zorvex_kernels.cl",
};

class KernelSearch : public zx::test::EngineTest {
  protected:
    // Where a place of the search really is: the absolute ones are looked up below root().
    [[nodiscard]] std::filesystem::path real(const std::string& place) const {
        return place.starts_with("/") ? root() / place.substr(1) : std::filesystem::path(place);
    }

    void put(const std::string& place, const std::string& text) const {
        write_file(real(place), text);
    }
};

TEST_F(KernelSearch, TakesTheFirstPlaceThatHasAFile) {
    start();
    // Each file has one kernel of its own, which shows that it was this one that was built.
    for (std::size_t i = 0; i < std::size(kPlaces); ++i)
        put(kPlaces[i], std::string("kernel void ") + zx::kKernelNames[i] + "(global float* x) {}");
    for (std::size_t i = 0; i < std::size(kPlaces); ++i) {
        SCOPED_TRACE(kPlaces[i]);
        zx_set_verbosity(2);
        const auto console = console_of([] { EXPECT_EQ(zx_gpu_init(), ZX_OK); });
        EXPECT_EQ(console.out, std::string("[ZORVEX] Loading kernels from: ") + kPlaces[i] +
                                   "\n[ZORVEX] GPU kernels cached\n");
        for (std::size_t id = 0; id < std::size(kPlaces); ++id)
            EXPECT_EQ(zx::g_kernels.kernels[id] != nullptr, id == i);
        zx_set_verbosity(0);
        zx_gpu_shutdown();
        ASSERT_TRUE(std::filesystem::remove(real(kPlaces[i])));
    }
    plant_record();
    EXPECT_EQ(zx_gpu_init(), ZX_ERR_INVALID_ARGUMENT);
    expect_recorded(2, "src/zx_gpu",
                    "Kernel file not found. Searched: ./, src/kernels/, ../src/kernels/, "
                    "/usr/local/share/zorvex/, /usr/share/zorvex/");
}

TEST_F(KernelSearch, DoesNotGoOnWhenTheFirstFileIsBroken) {
    start();
    put(kPlaces[0], "");
    put(kPlaces[1], "kernel void relu(global float* x) {}");
    EXPECT_EQ(zx_gpu_init(), ZX_ERR_BUFFER_TOO_SMALL);
    expect_recorded(102, "src/zx_engine", "Kernel file size invalid or too large");
    EXPECT_FALSE(zx_gpu_is_ready());
}

TEST_F(KernelSearch, StopsAtAFolderOfThatNameToo) {
    start();
    ASSERT_TRUE(std::filesystem::create_directory("zorvex_kernels.cl"));
    put(kPlaces[1], "kernel void relu(global float* x) {}");
    EXPECT_NE(zx_gpu_init(), ZX_OK);
    EXPECT_STREQ(zx_get_error_context()->file, "src/zx_engine");
    EXPECT_FALSE(zx_gpu_is_ready());
}

TEST_F(KernelSearch, PassesOverAFileThatIsNotThereAnyMore) {
    start();
    ASSERT_EQ(symlink("nowhere", "zorvex_kernels.cl"), 0);
    put(kPlaces[1], "kernel void relu(global float* x) {}");
    EXPECT_EQ(zx_gpu_init(), ZX_OK);
    EXPECT_NE(zx::g_kernels.kernels[zx::kRelu], nullptr);
}

TEST_F(KernelSearch, PassesOverAFileThatMayNotBeRead) {
    start();
    put(kPlaces[0], "kernel void gelu(global float* x) {}");
    put(kPlaces[1], "kernel void relu(global float* x) {}");
    zx::test::system_shim().unreadable = kPlaces[0];
    EXPECT_EQ(zx_gpu_init(), ZX_OK);
    EXPECT_NE(zx::g_kernels.kernels[zx::kRelu], nullptr);
}

TEST_F(KernelSearch, HappensWhenTheEngineStarts) {
    put(kPlaces[4], "kernel void relu(global float* x) {}");
    zx_set_verbosity(2);
    const auto console = console_of([] { EXPECT_EQ(zx_engine_init(), ZX_OK); });
    EXPECT_TRUE(console.out.ends_with(
        "[ZORVEX] Loading kernels from: /usr/local/share/zorvex/zorvex_kernels.cl\n"
        "[ZORVEX] GPU kernels cached\n"));
    EXPECT_TRUE(zx_gpu_is_ready());
    EXPECT_EQ(zx::g_engine.gpu_enabled, 1);
}

}  // namespace
