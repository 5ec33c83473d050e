// Device copies of sparse matrices.

#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "owned.hpp"
#include "sparse_matrices.hpp"

#include <gtest/gtest.h>
#include <vector>

namespace {

using zx::test::BufferRequest;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::opencl;
using zx::test::plant_record;
using zx::test::SparsePtr;
using zx::test::Transfer;

template <typename Number>
std::vector<Number> contents(zx_buffer_t buffer, std::size_t count) {
    std::vector<Number> numbers(count);
    EXPECT_EQ(zx_buffer_read(buffer, numbers.data(), count * sizeof(Number)), ZX_OK);
    return numbers;
}

class SparseResidency : public zx::test::EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        start();
        matrix_ = zx::test::example_matrix();
        plant_record();
        opencl() = {};
    }

    void TearDown() override {
        matrix_.reset();
        EngineTest::TearDown();
    }

    void expect_device_equals_host() const {
        EXPECT_EQ(contents<float>(matrix_->device_values, 6),
                  std::vector<float>(matrix_->values, matrix_->values + 6));
        EXPECT_EQ(contents<std::uint32_t>(matrix_->device_col_idx, 6),
                  std::vector<std::uint32_t>(matrix_->col_idx, matrix_->col_idx + 6));
        EXPECT_EQ(contents<std::uint32_t>(matrix_->device_row_ptr, 5),
                  std::vector<std::uint32_t>(matrix_->row_ptr, matrix_->row_ptr + 5));
    }

    SparsePtr matrix_;
};

TEST_F(SparseResidency, BeginsWithCopiesOfTheThreeArrays) {
    EXPECT_EQ(zx_sparse_to_device(matrix_.get()), ZX_OK);
    EXPECT_EQ(matrix_->on_device, 1);
    EXPECT_EQ(opencl().buffers, (std::vector<BufferRequest>{
                                    {4 | 32, 24, true}, {4 | 32, 24, true}, {4 | 32, 20, true}}));
    EXPECT_TRUE(opencl().transfers.empty());
    expect_device_equals_host();
    expect_untouched();
}

TEST_F(SparseResidency, IsRenewedByAnotherUpload) {
    ASSERT_EQ(zx_sparse_to_device(matrix_.get()), ZX_OK);
    const zx_sparse_t before = *matrix_;
    matrix_->values[3] = 40.0f;
    matrix_->col_idx[5] = 0;
    matrix_->row_ptr[1] = 1;
    // Edits of the host arrays leave the flag alone.
    EXPECT_EQ(matrix_->on_device, 1);
    opencl() = {};
    EXPECT_EQ(zx_sparse_to_device(matrix_.get()), ZX_OK);
    EXPECT_TRUE(opencl().buffers.empty());
    EXPECT_EQ(opencl().transfers, (std::vector<Transfer>{{true, true, 0, 24, false},
                                                         {true, true, 0, 24, false},
                                                         {true, true, 0, 20, false}}));
    EXPECT_EQ(matrix_->device_values, before.device_values);
    EXPECT_EQ(matrix_->device_col_idx, before.device_col_idx);
    EXPECT_EQ(matrix_->device_row_ptr, before.device_row_ptr);
    EXPECT_EQ(matrix_->on_device, 1);
    expect_device_equals_host();
    expect_untouched();
}

TEST_F(SparseResidency, KeepsTheCopiesThatCouldBeMade) {
    const struct {
        int refused;
        bool values, col_idx, row_ptr;
    } cases[] = {{1, false, true, true}, {2, true, false, true}, {3, true, true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.refused);
        SparsePtr matrix = zx::test::example_matrix();
        opencl() = {};
        opencl().refused_once["clCreateBuffer"] = c.refused;
        EXPECT_EQ(zx_sparse_to_device(matrix.get()), ZX_ERR_BUFFER_CREATE);
        // All three are attempted.
        EXPECT_EQ(opencl().count("clCreateBuffer"), 3);
        EXPECT_EQ(matrix->device_values != nullptr, c.values);
        EXPECT_EQ(matrix->device_col_idx != nullptr, c.col_idx);
        EXPECT_EQ(matrix->device_row_ptr != nullptr, c.row_ptr);
        EXPECT_EQ(matrix->on_device, 0);
        matrix.reset();
        EXPECT_EQ(opencl().count("clReleaseMemObject"), 2);
    }
    expect_untouched();
}

TEST_F(SparseResidency, WritesIntoNothingWhereACopyIsMissing) {
    opencl().refused_once["clCreateBuffer"] = 2;
    ASSERT_EQ(zx_sparse_to_device(matrix_.get()), ZX_ERR_BUFFER_CREATE);
    // With the values there, the next upload writes; there is nothing to write the columns to.
    opencl() = {};
    EXPECT_EQ(zx_sparse_to_device(matrix_.get()), ZX_ERR_NULL_POINTER);
    EXPECT_EQ(opencl().count("clEnqueueWriteBuffer"), 1);
    EXPECT_EQ(opencl().count("clCreateBuffer"), 0);
    EXPECT_EQ(matrix_->on_device, 0);
    expect_untouched();
}

TEST_F(SparseResidency, StopsAtTheFirstTransferThatFails) {
    ASSERT_EQ(zx_sparse_to_device(matrix_.get()), ZX_OK);
    for (const int refused : {1, 2, 3}) {
        SCOPED_TRACE(refused);
        opencl() = {};
        opencl().refused_once["clEnqueueWriteBuffer"] = refused;
        plant_record();
        EXPECT_EQ(zx_sparse_to_device(matrix_.get()), ZX_ERR_TRANSFER);
        expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
        EXPECT_EQ(opencl().count("clEnqueueWriteBuffer"), refused);
        // The flag is never cleared.
        EXPECT_EQ(matrix_->on_device, 1);
    }
}

TEST_F(SparseResidency, EndsWithTheLastReference) {
    ASSERT_EQ(zx_sparse_to_device(matrix_.get()), ZX_OK);
    (void)zx_sparse_retain(matrix_.get());
    zx_sparse_release(matrix_.get());
    EXPECT_EQ(opencl().count("clReleaseMemObject"), 0);
    matrix_.reset();
    EXPECT_EQ(opencl().count("clReleaseMemObject"), 3);
}

TEST_F(SparseResidency, IsOfNoConcernToTheDenseForm) {
    ASSERT_EQ(zx_sparse_to_device(matrix_.get()), ZX_OK);
    const zx::test::TensorPtr dense(zx_sparse_to_dense(matrix_.get()));
    ASSERT_TRUE(dense);
    EXPECT_EQ(dense->on_device, 0);
    EXPECT_EQ(dense->device_buffer, nullptr);
}

}  // namespace
