// Device buffers: creation, transfers both ways, with and without waiting.

#include "engine_fixture.hpp"
#include "error_record.hpp"

#include <gtest/gtest.h>
#include <numeric>
#include <vector>

namespace {

using zx::test::BufferRequest;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::opencl;
using zx::test::plant_record;
using zx::test::Transfer;

constexpr std::size_t kCount = 1000;
constexpr std::uint64_t kBytes = kCount * sizeof(float);

class DeviceBuffer : public zx::test::EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        start();
        plant_record();
        opencl() = {};
        std::iota(numbers_.begin(), numbers_.end(), 1.0f);
    }

    void TearDown() override {
        zx_buffer_release(buffer_);
        EngineTest::TearDown();
    }

    std::vector<float> numbers_ = std::vector<float>(kCount);
    zx_buffer_t buffer_ = nullptr;
};

TEST_F(DeviceBuffer, IsMadeWithTheGivenSizeAndFlags) {
    buffer_ = zx_buffer_create(kBytes, CL_MEM_READ_WRITE);
    ASSERT_NE(buffer_, nullptr);
    EXPECT_EQ(opencl().buffers, (std::vector<BufferRequest>{{1, kBytes, false}}));
    std::size_t size = 0;
    EXPECT_EQ(clGetMemObjectInfo(buffer_, CL_MEM_SIZE, sizeof(size), &size, nullptr), CL_SUCCESS);
    EXPECT_EQ(size, kBytes);
    expect_untouched();
}

TEST_F(DeviceBuffer, IsMadeWithACopyOfHostMemory) {
    const std::vector<float> before = numbers_;
    buffer_ = zx_buffer_create_with_data(numbers_.data(), kBytes, CL_MEM_READ_ONLY);
    ASSERT_NE(buffer_, nullptr);
    EXPECT_EQ(opencl().buffers, (std::vector<BufferRequest>{{4 | 32, kBytes, true}}));
    // Later changes of the host memory are of no concern.
    numbers_.assign(kCount, 0.0f);
    std::vector<float> back(kCount);
    EXPECT_EQ(zx_buffer_read(buffer_, back.data(), kBytes), ZX_OK);
    EXPECT_EQ(back, before);
    expect_untouched();
}

TEST_F(DeviceBuffer, IsNotMadeWhenOpenClRefuses) {
    EXPECT_EQ(zx_buffer_create(0, CL_MEM_READ_WRITE), nullptr);
    EXPECT_EQ(zx_buffer_create(kBytes, CL_MEM_READ_ONLY | CL_MEM_WRITE_ONLY), nullptr);
    EXPECT_EQ(zx_buffer_create(UINT64_MAX, CL_MEM_READ_WRITE), nullptr);
    EXPECT_EQ(zx_buffer_create_with_data(numbers_.data(), 0, CL_MEM_READ_WRITE), nullptr);
    EXPECT_EQ(zx_buffer_create_with_data(nullptr, kBytes, CL_MEM_READ_WRITE), nullptr);
    opencl().refused.insert("clCreateBuffer");
    EXPECT_EQ(zx_buffer_create(kBytes, CL_MEM_READ_WRITE), nullptr);
    EXPECT_EQ(zx_buffer_create_with_data(numbers_.data(), kBytes, CL_MEM_READ_WRITE), nullptr);
    expect_untouched();
}

TEST_F(DeviceBuffer, IsWrittenAndReadFromItsStart) {
    buffer_ = zx_buffer_create(kBytes, CL_MEM_READ_WRITE);
    EXPECT_EQ(zx_buffer_write(buffer_, numbers_.data(), kBytes), ZX_OK);
    const float replaced[2] = {-1.0f, -2.0f};
    EXPECT_EQ(zx_buffer_write(buffer_, replaced, sizeof(replaced)), ZX_OK);
    std::vector<float> back(kCount, 7.0f);
    EXPECT_EQ(zx_buffer_read(buffer_, back.data(), kBytes - sizeof(float)), ZX_OK);
    numbers_[0] = -1.0f;
    numbers_[1] = -2.0f;
    numbers_[kCount - 1] = 7.0f;  // was not read
    EXPECT_EQ(back, numbers_);
    EXPECT_EQ(opencl().transfers, (std::vector<Transfer>{{true, true, 0, kBytes, false},
                                                         {true, true, 0, 8, false},
                                                         {false, true, 0, kBytes - 4, false}}));
    expect_untouched();
}

TEST_F(DeviceBuffer, TransfersWithoutWaitingGiveAnEvent) {
    buffer_ = zx_buffer_create(kBytes, CL_MEM_READ_WRITE);
    cl_event written = nullptr;
    EXPECT_EQ(zx_buffer_write_async(buffer_, numbers_.data(), kBytes, &written), ZX_OK);
    ASSERT_NE(written, nullptr);
    std::vector<float> back(kCount);
    cl_event read = nullptr;
    EXPECT_EQ(zx_buffer_read_async(buffer_, back.data(), kBytes, &read), ZX_OK);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(clWaitForEvents(1, &read), CL_SUCCESS);
    // The queue is in order, so the write has completed as well.
    cl_int status = CL_QUEUED;
    EXPECT_EQ(clGetEventInfo(written, CL_EVENT_COMMAND_EXECUTION_STATUS, sizeof(status), &status,
                             nullptr),
              CL_SUCCESS);
    EXPECT_EQ(status, CL_COMPLETE);
    EXPECT_EQ(back, numbers_);
    EXPECT_EQ(clReleaseEvent(written), CL_SUCCESS);
    EXPECT_EQ(clReleaseEvent(read), CL_SUCCESS);
    EXPECT_EQ(opencl().transfers, (std::vector<Transfer>{{true, false, 0, kBytes, true},
                                                         {false, false, 0, kBytes, true}}));
    expect_untouched();
}

TEST_F(DeviceBuffer, TransfersWithoutEventAreAwaitedBySync) {
    buffer_ = zx_buffer_create(kBytes, CL_MEM_READ_WRITE);
    std::vector<float> back(kCount);
    EXPECT_EQ(zx_buffer_write_async(buffer_, numbers_.data(), kBytes, nullptr), ZX_OK);
    EXPECT_EQ(zx_buffer_read_async(buffer_, back.data(), kBytes, nullptr), ZX_OK);
    EXPECT_EQ(zx_engine_sync(), ZX_OK);
    EXPECT_EQ(back, numbers_);
}

TEST_F(DeviceBuffer, TransfersThatOpenClRefusesAreRecorded) {
    buffer_ = zx_buffer_create(kBytes, CL_MEM_READ_WRITE);
    cl_event event = nullptr;
    std::vector<float> too_much(kCount + 1);
    const std::uint64_t too_many_bytes = kBytes + sizeof(float);
    EXPECT_EQ(zx_buffer_write(buffer_, too_much.data(), too_many_bytes), ZX_ERR_TRANSFER);
    expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
    plant_record();
    EXPECT_EQ(zx_buffer_write_async(buffer_, too_much.data(), too_many_bytes, &event),
              ZX_ERR_TRANSFER);
    expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
    plant_record();
    EXPECT_EQ(zx_buffer_read(buffer_, too_much.data(), too_many_bytes), ZX_ERR_TRANSFER);
    expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
    plant_record();
    EXPECT_EQ(zx_buffer_read_async(buffer_, too_much.data(), too_many_bytes, &event),
              ZX_ERR_TRANSFER);
    expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
}

TEST_F(DeviceBuffer, TransfersOfNothingReachNoQueue) {
    buffer_ = zx_buffer_create(kBytes, CL_MEM_READ_WRITE);
    EXPECT_EQ(zx_buffer_write(nullptr, numbers_.data(), kBytes), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_buffer_write(buffer_, nullptr, kBytes), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_buffer_write_async(buffer_, nullptr, kBytes, nullptr), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_buffer_read(nullptr, numbers_.data(), kBytes), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_buffer_read(buffer_, nullptr, kBytes), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(zx_buffer_read_async(buffer_, nullptr, kBytes, nullptr), ZX_ERR_NULL_POINTER);
    EXPECT_TRUE(opencl().transfers.empty());
    expect_untouched();
}

TEST_F(DeviceBuffer, IsReleasedOnceAndNeverWhenNull) {
    const zx_buffer_t buffer = zx_buffer_create(kBytes, CL_MEM_READ_WRITE);
    zx_buffer_release(buffer);
    EXPECT_EQ(opencl().count("clReleaseMemObject"), 1);
    zx_buffer_release(nullptr);
    EXPECT_EQ(opencl().count("clReleaseMemObject"), 1);
    expect_untouched();
}

TEST_F(DeviceBuffer, SyncReportsAQueueThatFails) {
    EXPECT_EQ(zx_engine_sync(), ZX_OK);
    EXPECT_EQ(opencl().count("clFinish"), 1);
    expect_untouched();
    opencl().refused.insert("clFinish");
    EXPECT_EQ(zx_engine_sync(), ZX_ERR_KERNEL_EXEC);
    expect_recorded(207, "src/zx_engine", "Failed to synchronize");
}

}  // namespace
