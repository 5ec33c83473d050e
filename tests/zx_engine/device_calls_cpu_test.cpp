// Buffers and kernel dispatch without a device, before start-up and in CPU-only mode: each reports
// its failure, and none gives a null handle to a driver.

#include "engine_fixture.hpp"
#include "error_record.hpp"

#include <CL/cl.h>

#include <gtest/gtest.h>

namespace {

using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::plant_record;

// Stands for a handle that is not null; nothing looks at what it points to, because there is no
// queue to use it with.
template <typename Handle>
Handle some_handle() {
    static int object = 0;
    return reinterpret_cast<Handle>(&object);
}

class DeviceCalls : public zx::test::EngineTest {
  protected:
    // The two states in which there is no queue.
    template <typename Check>
    void without_a_queue(Check check) {
        {
            SCOPED_TRACE("the engine does not run");
            plant_record();
            check();
        }
        start();
        SCOPED_TRACE("the engine is in CPU-only mode");
        plant_record();
        check();
    }
};

TEST_F(DeviceCalls, MakeNoBufferAndRecordNothing) {
    without_a_queue([] {
        const float host[4] = {};
        EXPECT_EQ(zx_buffer_create(16, CL_MEM_READ_WRITE), nullptr);
        EXPECT_EQ(zx_buffer_create(0, 0), nullptr);
        EXPECT_EQ(zx_buffer_create_with_data(host, 16, CL_MEM_READ_WRITE), nullptr);
        EXPECT_EQ(zx_buffer_create_with_data(nullptr, 16, CL_MEM_READ_WRITE), nullptr);
        expect_untouched();
    });
}

TEST_F(DeviceCalls, RefuseNullBuffersAndHostsSilently) {
    without_a_queue([] {
        float host[4] = {};
        cl_event event = nullptr;
        const zx_buffer_t buffer = some_handle<zx_buffer_t>();
        EXPECT_EQ(zx_buffer_write(nullptr, host, 16), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_buffer_write(buffer, nullptr, 16), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_buffer_write(nullptr, nullptr, 0), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_buffer_write_async(nullptr, host, 16, &event), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_buffer_write_async(buffer, nullptr, 16, nullptr), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_buffer_read(nullptr, host, 16), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_buffer_read(buffer, nullptr, 16), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_buffer_read_async(nullptr, host, 16, &event), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_buffer_read_async(buffer, nullptr, 16, nullptr), ZX_ERR_NULL_POINTER);
        expect_untouched();
    });
}

TEST_F(DeviceCalls, FailToTransferAndRecordIt) {
    without_a_queue([] {
        float host[4] = {};
        cl_event event = nullptr;
        const zx_buffer_t buffer = some_handle<zx_buffer_t>();
        EXPECT_EQ(zx_buffer_write(buffer, host, 16), ZX_ERR_TRANSFER);
        expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
        plant_record();
        EXPECT_EQ(zx_buffer_write_async(buffer, host, 16, &event), ZX_ERR_TRANSFER);
        expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
        plant_record();
        EXPECT_EQ(zx_buffer_read(buffer, host, 16), ZX_ERR_TRANSFER);
        expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
        plant_record();
        EXPECT_EQ(zx_buffer_read_async(buffer, host, 16, nullptr), ZX_ERR_TRANSFER);
        expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
    });
}

TEST_F(DeviceCalls, IgnoreTheReleaseOfNoBuffer) {
    without_a_queue([] {
        zx_buffer_release(nullptr);
        expect_untouched();
    });
}

TEST_F(DeviceCalls, FailToSetAnArgumentOfNoKernel) {
    without_a_queue([] {
        const int value = 3;
        EXPECT_EQ(zx_kernel_set_arg(nullptr, 0, sizeof(value), &value), ZX_ERR_KERNEL_EXEC);
        expect_recorded(207, "src/zx_engine", "Failed to set kernel argument");
    });
}

TEST_F(DeviceCalls, FailToLaunchAndRecordIt) {
    without_a_queue([] {
        EXPECT_EQ(zx_kernel_exec_1d(nullptr, 16, 0), ZX_ERR_KERNEL_EXEC);
        expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
        plant_record();
        EXPECT_EQ(zx_kernel_exec_1d(some_handle<cl_kernel>(), 16, 4), ZX_ERR_KERNEL_EXEC);
        expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
        plant_record();
        EXPECT_EQ(zx_kernel_exec_2d(nullptr, 16, 16, 4, 4), ZX_ERR_KERNEL_EXEC);
        expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
        plant_record();
        EXPECT_EQ(zx_kernel_exec_2d(some_handle<cl_kernel>(), 16, 16, 0, 0), ZX_ERR_KERNEL_EXEC);
        expect_recorded(207, "src/zx_engine", "Failed to execute kernel");
    });
}

TEST_F(DeviceCalls, FailToSynchronise) {
    plant_record();
    EXPECT_EQ(zx_engine_sync(), ZX_ERR_ENGINE_NOT_INITIALIZED);
    expect_untouched();
    start();
    EXPECT_EQ(zx_engine_sync(), ZX_ERR_KERNEL_EXEC);
    expect_recorded(207, "src/zx_engine", "Failed to synchronize");
}

}  // namespace
