// Device copies of tensors: which copy is current, which way a sync goes, what is released.

#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "owned.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace {

using zx::test::BufferRequest;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::opencl;
using zx::test::plant_record;
using zx::test::TensorPtr;
using zx::test::Transfer;
using Numbers = std::vector<float>;

class TensorResidency : public zx::test::EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        start();
        tensor_.reset(zx_tensor_create_2d(2, 3));
        set_host(1.0f);
        plant_record();
        opencl() = {};
    }

    void TearDown() override {
        tensor_.reset();
        EngineTest::TearDown();
    }

    // Writes without the library, so that no flag changes.
    void set_host(float value) const {
        for (int i = 0; i < 6; ++i) tensor_->data[i] = value;
    }

    void set_device(float value) const {
        const Numbers numbers(6, value);
        ASSERT_EQ(zx_buffer_write(tensor_->device_buffer, numbers.data(), 24), ZX_OK);
    }

    [[nodiscard]] Numbers host() const { return {tensor_->data, tensor_->data + 6}; }

    [[nodiscard]] Numbers device() const {
        Numbers numbers(6);
        EXPECT_EQ(zx_buffer_read(tensor_->device_buffer, numbers.data(), 24), ZX_OK);
        return numbers;
    }

    TensorPtr tensor_;
};

TEST_F(TensorResidency, BeginsWithACopyOfTheHostData) {
    EXPECT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    ASSERT_NE(tensor_->device_buffer, nullptr);
    EXPECT_EQ(tensor_->on_device, 1);
    EXPECT_EQ(opencl().buffers, (std::vector<BufferRequest>{{1 | 32, 24, true}}));
    EXPECT_TRUE(opencl().transfers.empty());
    EXPECT_EQ(device(), Numbers(6, 1.0f));
    expect_untouched();
}

TEST_F(TensorResidency, KeepsItsBufferForLaterUploads) {
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    const zx_buffer_t buffer = tensor_->device_buffer;
    set_host(2.0f);
    EXPECT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    EXPECT_EQ(tensor_->device_buffer, buffer);
    EXPECT_EQ(opencl().buffers.size(), 1U);
    EXPECT_EQ(opencl().transfers, (std::vector<Transfer>{{true, true, 0, 24, false}}));
    EXPECT_EQ(device(), Numbers(6, 2.0f));
    EXPECT_EQ(tensor_->on_device, 1);
}

TEST_F(TensorResidency, IsReadBackIntoTheHostData) {
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    set_device(3.0f);
    opencl() = {};
    EXPECT_EQ(zx_tensor_to_host(tensor_.get()), ZX_OK);
    EXPECT_EQ(host(), Numbers(6, 3.0f));
    EXPECT_EQ(tensor_->on_device, 0);
    EXPECT_NE(tensor_->device_buffer, nullptr);
    EXPECT_EQ(opencl().transfers, (std::vector<Transfer>{{false, true, 0, 24, false}}));
    // A second time it is read back again: the buffer is there.
    set_device(4.0f);
    EXPECT_EQ(zx_tensor_to_host(tensor_.get()), ZX_OK);
    EXPECT_EQ(host(), Numbers(6, 4.0f));
    expect_untouched();
}

TEST_F(TensorResidency, SyncsTowardsTheStaleSide) {
    EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_OK);  // there is no other side yet
    EXPECT_EQ(tensor_->device_buffer, nullptr);

    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    set_device(5.0f);
    EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_OK);
    EXPECT_EQ(host(), Numbers(6, 5.0f));
    EXPECT_EQ(tensor_->on_device, 0);

    set_host(6.0f);
    EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_OK);
    EXPECT_EQ(device(), Numbers(6, 6.0f));
    EXPECT_EQ(tensor_->on_device, 1);
    expect_untouched();
}

TEST_F(TensorResidency, UploadsAtTheNextSyncAfterAHostWrite) {
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    set_device(7.0f);
    EXPECT_EQ(zx_tensor_set_2d(tensor_.get(), 1, 2, 9.0f), ZX_OK);
    EXPECT_EQ(tensor_->on_device, 0);
    EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_OK);
    EXPECT_EQ(device(), (Numbers{1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 9.0f}));
    EXPECT_EQ(tensor_->on_device, 1);
}

TEST_F(TensorResidency, ReadsBackAtTheNextSyncAfterAWriteThroughAPointer) {
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    zx_tensor_row_ptr(tensor_.get(), 0)[0] = 9.0f;
    EXPECT_EQ(tensor_->on_device, 1);
    EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_OK);
    EXPECT_EQ(host(), Numbers(6, 1.0f));
}

TEST_F(TensorResidency, IsNotChangedByInitialisers) {
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    zx_rng_fill_uniform(tensor_.get(), 0.0f, 1.0f);
    zx_rng_fill_xavier(tensor_.get(), 2, 3);
    zx_rng_fill_he(tensor_.get(), 2);
    EXPECT_EQ(tensor_->on_device, 1);
    EXPECT_EQ(device(), Numbers(6, 1.0f));
}

TEST_F(TensorResidency, FailsWhenTheCopyCannotBeMade) {
    opencl().refused.insert("clCreateBuffer");
    EXPECT_EQ(zx_tensor_to_device(tensor_.get()), ZX_ERR_BUFFER_CREATE);
    EXPECT_EQ(tensor_->on_device, 0);
    EXPECT_EQ(tensor_->device_buffer, nullptr);
    EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_OK);
    expect_untouched();

    // OpenCL has no buffers without bytes.
    opencl() = {};
    float number = 0.0f;
    const std::uint32_t dims[1] = {0};
    const TensorPtr empty(zx_tensor_wrap(&number, 1, dims));
    EXPECT_EQ(zx_tensor_to_device(empty.get()), ZX_ERR_BUFFER_CREATE);
    expect_untouched();
}

TEST_F(TensorResidency, RefusesMoreElementsThan64BitsCountBytes) {
    // In 64 bits these elements would be 0 bytes, and four more of them 16.
    const std::uint32_t dims[2] = {0x80000000U, 0x80000000U};
    float numbers[4] = {1.0f, 2.0f, 3.0f, 4.0f};
    const TensorPtr wrapped(zx_tensor_wrap(numbers, 2, dims));
    ASSERT_EQ(wrapped->size, 0x4000000000000000U);
    for (const std::uint64_t more : {0U, 4U}) {
        wrapped->size += more;
        EXPECT_EQ(zx_tensor_to_device(wrapped.get()), ZX_ERR_BUFFER_CREATE);
        EXPECT_EQ(wrapped->device_buffer, nullptr);
        EXPECT_EQ(wrapped->on_device, 0);
    }
    EXPECT_TRUE(opencl().calls.empty());
    // Whether there is room for what bytes can be counted of is for OpenCL to say.
    opencl().refused.insert("clCreateBuffer");
    wrapped->size = 0x3fffffffffffffffU;
    EXPECT_EQ(zx_tensor_to_device(wrapped.get()), ZX_ERR_BUFFER_CREATE);
    EXPECT_EQ(opencl().buffers, (std::vector<BufferRequest>{{1 | 32, 0xfffffffffffffffcU, true}}));
    expect_untouched();

    // A tensor that has a buffer is neither written into it nor read from it.
    opencl() = {};
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    opencl() = {};
    for (const std::uint8_t on_device : {std::uint8_t{0}, std::uint8_t{1}}) {
        tensor_->on_device = on_device;
        tensor_->size = 0x4000000000000004U;
        EXPECT_EQ(zx_tensor_to_device(tensor_.get()), ZX_ERR_BUFFER_CREATE);
        EXPECT_EQ(zx_tensor_to_host(tensor_.get()), ZX_ERR_BUFFER_CREATE);
        EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_ERR_BUFFER_CREATE);
        EXPECT_EQ(tensor_->on_device, on_device);
    }
    EXPECT_TRUE(opencl().calls.empty());
    expect_untouched();
}

TEST_F(TensorResidency, KeepsTheFlagWhenATransferFails) {
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    opencl().refused.insert("clEnqueueReadBuffer");
    EXPECT_EQ(zx_tensor_to_host(tensor_.get()), ZX_ERR_TRANSFER);
    expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
    EXPECT_EQ(tensor_->on_device, 1);
    plant_record();
    EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_ERR_TRANSFER);
    expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
    EXPECT_EQ(tensor_->on_device, 1);

    EXPECT_EQ(zx_tensor_set_2d(tensor_.get(), 0, 0, 2.0f), ZX_OK);
    opencl().refused = {"clEnqueueWriteBuffer"};
    for (const bool sync : {false, true}) {
        plant_record();
        EXPECT_EQ(sync ? zx_tensor_sync(tensor_.get()) : zx_tensor_to_device(tensor_.get()),
                  ZX_ERR_TRANSFER);
        expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
        EXPECT_EQ(tensor_->on_device, 0);
    }
}

TEST_F(TensorResidency, IsNotInheritedByAClone) {
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    set_device(8.0f);
    const TensorPtr clone(zx_tensor_clone(tensor_.get()));
    ASSERT_TRUE(clone);
    EXPECT_EQ(clone->device_buffer, nullptr);
    EXPECT_EQ(clone->on_device, 0);
    // The host data is what is cloned, even where the device copy is the current one.
    EXPECT_EQ(clone->data[0], 1.0f);
}

TEST_F(TensorResidency, EndsWithTheLastReference) {
    ASSERT_EQ(zx_tensor_to_device(tensor_.get()), ZX_OK);
    (void)zx_tensor_retain(tensor_.get());
    zx_tensor_release(tensor_.get());
    EXPECT_EQ(opencl().count("clReleaseMemObject"), 0);
    tensor_.reset();
    EXPECT_EQ(opencl().count("clReleaseMemObject"), 1);
}

TEST_F(TensorResidency, WorksForBorrowedData) {
    float numbers[4] = {1.0f, 2.0f, 3.0f, 4.0f};
    const std::uint32_t dims[2] = {2, 2};
    TensorPtr wrapped(zx_tensor_wrap(numbers, 2, dims));
    ASSERT_EQ(zx_tensor_to_device(wrapped.get()), ZX_OK);
    for (float& number : numbers) number = 0.0f;
    ASSERT_EQ(zx_tensor_to_host(wrapped.get()), ZX_OK);
    EXPECT_EQ(numbers[3], 4.0f);
    wrapped.reset();
    EXPECT_EQ(opencl().count("clReleaseMemObject"), 1);
    EXPECT_EQ(numbers[0], 1.0f);
}

}  // namespace
