// The kernel table where no OpenCL platform exists: nothing can be loaded, and each attempt says
// why.

#include "capture.hpp"
#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "zx_gpu/kernel_table.hpp"

#include <gtest/gtest.h>

namespace {

using zx::test::console_of;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::plant_record;
using zx::test::write_file;

constexpr const char* kNotFound =
    "Kernel file not found. Searched: ./, src/kernels/, ../src/kernels/, "
    "/usr/local/share/zorvex/, /usr/share/zorvex/";

class KernelTableWithoutDevice : public zx::test::EngineTest {};

void expect_empty_table() {
    EXPECT_FALSE(zx_gpu_is_ready());
    EXPECT_EQ(zx::g_kernels.ready, 0);
    for (const cl_kernel kernel : zx::g_kernels.kernels) EXPECT_EQ(kernel, nullptr);
}

TEST_F(KernelTableWithoutDevice, NeedsTheEngine) {
    write_file("zorvex_kernels.cl", "kernel void relu(global float* x, int n) {}");
    plant_record();
    EXPECT_EQ(zx_gpu_init(), ZX_ERR_ENGINE_NOT_INITIALIZED);
    expect_recorded(200, "src/zx_gpu", "Engine not initialized");
    for (const char* path :
         {"zorvex_kernels.cl", "missing.cl", static_cast<const char*>(nullptr)}) {
        plant_record();
        EXPECT_EQ(zx_gpu_init_from_file(path), ZX_ERR_ENGINE_NOT_INITIALIZED);
        expect_recorded(200, "src/zx_gpu", "Engine not initialized");
    }
    expect_empty_table();
}

TEST_F(KernelTableWithoutDevice, ReportsWhatItSearchedWhenThereIsNoFile) {
    start();
    zx_set_verbosity(2);
    plant_record();
    const auto console = console_of([] { EXPECT_EQ(zx_gpu_init(), ZX_ERR_INVALID_ARGUMENT); });
    EXPECT_EQ(console.out + console.err, "");
    expect_recorded(2, "src/zx_gpu", kNotFound);
    expect_empty_table();
}

TEST_F(KernelTableWithoutDevice, FailsToBuildTheFileItFinds) {
    write_file("zorvex_kernels.cl", "kernel void relu(global float* x, int n) {}");
    start();
    const struct {
        int verbosity;
        const char* printed;
    } cases[] = {{-1, "[ZORVEX] Loading kernels from: ./zorvex_kernels.cl\n"},
                 {0, ""},
                 {1, ""},
                 {2, "[ZORVEX] Loading kernels from: ./zorvex_kernels.cl\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.verbosity);
        zx_set_verbosity(c.verbosity);
        plant_record();
        const auto console = console_of([] { EXPECT_EQ(zx_gpu_init(), ZX_ERR_KERNEL_COMPILE); });
        EXPECT_EQ(console.out, c.printed);
        EXPECT_EQ(console.err, "");
        expect_recorded(206, "src/zx_engine", "Failed to create program from source");
        expect_empty_table();
    }
}

TEST_F(KernelTableWithoutDevice, PassesOnWhatIsWrongWithTheFileItFinds) {
    write_file("zorvex_kernels.cl", "");
    start();
    EXPECT_EQ(zx_gpu_init(), ZX_ERR_BUFFER_TOO_SMALL);
    expect_recorded(102, "src/zx_engine", "Kernel file size invalid or too large");
    expect_empty_table();
}

TEST_F(KernelTableWithoutDevice, PassesOnWhatIsWrongWithTheGivenFile) {
    start();
    zx_set_verbosity(2);
    write_file("empty.cl", "");
    write_file("nul.cl", std::string("a\0b", 3));
    write_file("good.cl", "kernel void relu(global float* x, int n) {}");
    const struct {
        const char* path;
        zx_status_t code;
        const char* message;
    } cases[] = {
        {nullptr, 3, "Kernel file path is NULL"},
        {"missing.cl", 2, "Could not open kernel file"},
        {"empty.cl", 102, "Kernel file size invalid or too large"},
        {"nul.cl", 402, "Kernel file contains null bytes"},
        {"good.cl", 206, "Failed to create program from source"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        plant_record();
        const auto console = console_of([&] { EXPECT_EQ(zx_gpu_init_from_file(c.path), c.code); });
        EXPECT_EQ(console.out + console.err, "");
        expect_recorded(c.code, "src/zx_engine", c.message);
        expect_empty_table();
    }
}

TEST_F(KernelTableWithoutDevice, IsNotReleasedWhenItIsEmpty) {
    zx_set_verbosity(2);
    plant_record();
    const auto console = console_of([] { zx_gpu_shutdown(); });
    EXPECT_EQ(console.out + console.err, "");
    expect_empty_table();
    expect_untouched();
}

TEST_F(KernelTableWithoutDevice, NamesItsKernelsInAFixedOrder) {
    constexpr const char* kNames[] = {"dense_forward",
                                      "dense_forward_relu",
                                      "matmul_tiled",
                                      "matmul_simple",
                                      "embedding_lookup",
                                      "batched_dot_product",
                                      "score_all_items",
                                      "relu",
                                      "leaky_relu",
                                      "sigmoid",
                                      "tanh_act",
                                      "gelu",
                                      "softmax_rows",
                                      "cosine_similarity",
                                      "layer_norm",
                                      "vec_add",
                                      "vec_add_vec4",
                                      "vec_scale",
                                      "vec_axpy",
                                      "vec_axpy_vec4",
                                      "bpr_gradient_update",
                                      "bpr_batch_update",
                                      "batched_score",
                                      "reduce_sum",
                                      "reduce_max"};
    ASSERT_EQ(std::size(kNames), 25U);
    ASSERT_EQ(std::size(zx::g_kernels.kernels), 25U);
    for (std::size_t id = 0; id < 25; ++id) EXPECT_STREQ(zx::kKernelNames[id], kNames[id]);
    EXPECT_EQ(zx::kBprBatchUpdate, 21U);
    EXPECT_EQ(zx::kBatchedScore, 22U);
}

}  // namespace
