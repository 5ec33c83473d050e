// Device copies of tensors and matrices where no device exists.

#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "owned.hpp"

#include <gtest/gtest.h>

namespace {

using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::plant_record;
using zx::test::SparsePtr;
using zx::test::TensorPtr;

class ResidencyWithoutDevice : public zx::test::EngineTest {
  protected:
    const TensorPtr tensor_{zx_tensor_create_2d(2, 3)};
    const SparsePtr matrix_{zx_sparse_create(2, 3, 1)};
};

TEST_F(ResidencyWithoutDevice, NeedsTheEngineToUpload) {
    plant_record();
    EXPECT_EQ(zx_tensor_to_device(tensor_.get()), ZX_ERR_ENGINE_NOT_INITIALIZED);
    EXPECT_EQ(zx_sparse_to_device(matrix_.get()), ZX_ERR_ENGINE_NOT_INITIALIZED);
    EXPECT_EQ(tensor_->on_device, 0);
    EXPECT_EQ(matrix_->on_device, 0);
    expect_untouched();
}

TEST_F(ResidencyWithoutDevice, RefusesNullBeforeItLooksAtTheEngine) {
    plant_record();
    for (const bool running : {false, true}) {
        if (running) start();
        EXPECT_EQ(zx_tensor_to_device(nullptr), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_tensor_to_host(nullptr), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_tensor_sync(nullptr), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_sparse_to_device(nullptr), ZX_ERR_NULL_POINTER);
    }
    expect_untouched();
}

TEST_F(ResidencyWithoutDevice, CannotMakeACopyInCpuOnlyMode) {
    start();
    plant_record();
    EXPECT_EQ(zx_tensor_to_device(tensor_.get()), ZX_ERR_BUFFER_CREATE);
    EXPECT_EQ(tensor_->on_device, 0);
    EXPECT_EQ(tensor_->device_buffer, nullptr);
    EXPECT_EQ(zx_sparse_to_device(matrix_.get()), ZX_ERR_BUFFER_CREATE);
    EXPECT_EQ(matrix_->on_device, 0);
    EXPECT_EQ(matrix_->device_values, nullptr);
    EXPECT_EQ(matrix_->device_col_idx, nullptr);
    EXPECT_EQ(matrix_->device_row_ptr, nullptr);
    expect_untouched();
}

TEST_F(ResidencyWithoutDevice, HasNothingToReadBackOrToSync) {
    plant_record();
    for (const bool running : {false, true}) {
        if (running) start();
        EXPECT_EQ(zx_tensor_to_host(tensor_.get()), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_OK);
        // The flag alone makes no copy.
        tensor_->on_device = 1;
        EXPECT_EQ(zx_tensor_sync(tensor_.get()), ZX_ERR_NULL_POINTER);
        EXPECT_EQ(tensor_->on_device, 1);
        tensor_->on_device = 0;
    }
    expect_untouched();
}

TEST_F(ResidencyWithoutDevice, FailsToTransferToACopyWithoutAQueue) {
    start();
    int object = 0;
    tensor_->device_buffer = reinterpret_cast<zx_buffer_t>(&object);
    plant_record();
    EXPECT_EQ(zx_tensor_to_device(tensor_.get()), ZX_ERR_TRANSFER);
    expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
    EXPECT_EQ(tensor_->on_device, 0);
    plant_record();
    tensor_->on_device = 1;
    EXPECT_EQ(zx_tensor_to_host(tensor_.get()), ZX_ERR_TRANSFER);
    expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
    EXPECT_EQ(tensor_->on_device, 1);
    tensor_->device_buffer = nullptr;
    tensor_->on_device = 0;
}

}  // namespace
