// The compressed sparse row matrix.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "common/refcount.hpp"
#include "zorvex.h"
#include "zx_memory/sparse_row.hpp"

#include <algorithm>

namespace {

constexpr zx::Module kModule{"src/zx_memory"};

void free_arrays(zx_sparse_t& matrix) {
    zx_free_aligned(matrix.values);
    zx_free_aligned(matrix.col_idx);
    zx_free_aligned(matrix.row_ptr);
}

// Writes into the device copy, or makes it when there is none.
zx_status_t upload(zx_buffer_t& buffer, bool exists, const void* host, std::uint64_t bytes) {
    if (exists) return zx_buffer_write(buffer, host, bytes);
    zx_buffer_release(buffer);  // what a first upload that failed in part has left
    buffer = zx_buffer_create_with_data(host, bytes, CL_MEM_READ_ONLY | CL_MEM_COPY_HOST_PTR);
    return buffer ? ZX_OK : ZX_ERR_BUFFER_CREATE;
}

}  // namespace

zx_sparse_t* zx_sparse_create(uint32_t rows, uint32_t cols, uint32_t nnz) {
    if (rows == 0 || cols == 0)
        return kModule.fail_null(ZX_ERR_INVALID_ARGUMENT, "Invalid sparse matrix dimensions");

    zx::AlignedPtr<zx_sparse_t> matrix = zx::make_zeroed<zx_sparse_t>();
    if (!matrix) return kModule.fail_null(ZX_ERR_OUT_OF_MEMORY, "Failed to allocate sparse matrix");
    matrix->refcount = 1;
    matrix->rows = rows;
    matrix->cols = cols;
    matrix->nnz = nnz;
    matrix->capacity = nnz;

    // No entries means no arrays and ends here, deliberately. rows + 1 wraps to 0 for the largest
    // number of rows, which ends here as well.
    matrix->values = static_cast<float*>(zx_calloc_aligned(nnz, sizeof(float)));
    matrix->col_idx = static_cast<std::uint32_t*>(zx_calloc_aligned(nnz, sizeof(std::uint32_t)));
    matrix->row_ptr =
        static_cast<std::uint32_t*>(zx_calloc_aligned(rows + 1, sizeof(std::uint32_t)));
    if (!matrix->values || !matrix->col_idx || !matrix->row_ptr) {
        free_arrays(*matrix);
        return kModule.fail_null(ZX_ERR_OUT_OF_MEMORY, "Failed to allocate sparse matrix arrays");
    }
    return matrix.release();
}

zx_sparse_t* zx_sparse_retain(zx_sparse_t* matrix) {
    if (matrix) zx::add_reference(matrix->refcount);
    return matrix;
}

void zx_sparse_release(zx_sparse_t* matrix) {
    if (!matrix || !zx::drop_reference(matrix->refcount)) return;
    zx_buffer_release(matrix->device_values);
    zx_buffer_release(matrix->device_col_idx);
    zx_buffer_release(matrix->device_row_ptr);
    free_arrays(*matrix);
    zx_free_aligned(matrix);
}

zx_tensor_t* zx_sparse_to_dense(const zx_sparse_t* matrix) {
    if (!matrix) return nullptr;
    zx_tensor_t* const dense = zx_tensor_zeros_2d(matrix->rows, matrix->cols);
    if (!dense) return nullptr;
    for (std::uint32_t row = 0; row < matrix->rows; ++row) {
        const zx::Range range = zx::row_range(*matrix, row);
        for (std::uint32_t i = range.begin; i < range.end; ++i)
            // An entry out of range is refused there, and so left out.
            (void)zx_tensor_set_2d(dense, row, matrix->col_idx[i], matrix->values[i]);
    }
    return dense;
}

float zx_sparse_get(const zx_sparse_t* matrix, uint32_t row, uint32_t col) {
    if (!matrix || row >= matrix->rows || col >= matrix->cols) return 0.0f;
    return zx::value_at(*matrix, zx::row_range(*matrix, row), col);
}

uint32_t* zx_sparse_row_ptr(const zx_sparse_t* matrix) {
    return matrix ? matrix->row_ptr : nullptr;
}

uint32_t* zx_sparse_col_idx(const zx_sparse_t* matrix) {
    return matrix ? matrix->col_idx : nullptr;
}

float* zx_sparse_values(const zx_sparse_t* matrix) {
    return matrix ? matrix->values : nullptr;
}

uint32_t zx_sparse_row_nnz(const zx_sparse_t* matrix, uint32_t row) {
    if (!matrix || row >= matrix->rows) return 0;
    const zx::Range range = zx::row_range(*matrix, row);
    return range.end - range.begin;
}

zx_status_t zx_sparse_get_row(const zx_sparse_t* matrix, uint32_t row, uint32_t* cols_out,
                              float* vals_out, uint32_t* count_out) {
    if (!matrix || row >= matrix->rows) return ZX_ERR_INDEX_OUT_OF_BOUNDS;
    const zx::Range range = zx::row_range(*matrix, row);
    const std::uint32_t count = range.end - range.begin;
    if (count_out) *count_out = count;
    if (!cols_out || !vals_out || count == 0) return ZX_OK;
    std::copy_n(matrix->col_idx + range.begin, count, cols_out);
    std::copy_n(matrix->values + range.begin, count, vals_out);
    return ZX_OK;
}

zx_status_t zx_sparse_to_device(zx_sparse_t* matrix) {
    if (!matrix) return ZX_ERR_NULL_POINTER;
    if (!zx_engine_is_initialized()) return ZX_ERR_ENGINE_NOT_INITIALIZED;

    const std::uint64_t entry_bytes = std::uint64_t{matrix->nnz} * sizeof(float);
    const std::uint64_t row_bytes = (std::uint64_t{matrix->rows} + 1) * sizeof(std::uint32_t);
    const struct {
        zx_buffer_t& buffer;
        const void* host;
        std::uint64_t bytes;
    } arrays[] = {{matrix->device_values, matrix->values, entry_bytes},
                  {matrix->device_col_idx, matrix->col_idx, entry_bytes},
                  {matrix->device_row_ptr, matrix->row_ptr, row_bytes}};

    // The first upload attempts all three and keeps what it got; a later one stops at a failure.
    const bool exists = matrix->device_values != nullptr;
    zx_status_t result = ZX_OK;
    for (const auto& array : arrays) {
        const zx_status_t status = upload(array.buffer, exists, array.host, array.bytes);
        if (status == ZX_OK) continue;
        if (exists) return status;
        result = status;
    }
    if (result != ZX_OK) return result;
    matrix->on_device = 1;
    return ZX_OK;
}

zx_status_t zx_sparse_validate(const zx_sparse_t* matrix) {
    if (!matrix) return ZX_ERR_NULL_POINTER;
    const std::uint32_t* const row_ptr = matrix->row_ptr;
    const std::uint32_t* const col_idx = matrix->col_idx;
    if (!matrix->values || !col_idx || !row_ptr) return ZX_ERR_INVALID_SPARSE;

    for (std::uint32_t row = 0; row < matrix->rows; ++row)
        if (row_ptr[row] > row_ptr[row + 1])
            return kModule.fail(ZX_ERR_INVALID_SPARSE, "row_ptr is not monotonic");
    if (row_ptr[matrix->rows] != matrix->nnz)
        return kModule.fail(ZX_ERR_INVALID_SPARSE, "row_ptr[rows] != nnz");

    for (std::uint32_t row = 0; row < matrix->rows; ++row)
        for (std::uint32_t i = row_ptr[row]; i < row_ptr[row + 1]; ++i) {
            if (col_idx[i] >= matrix->cols)
                return kModule.fail(ZX_ERR_INVALID_SPARSE, "Column index out of bounds");
            if (i > row_ptr[row] && col_idx[i] <= col_idx[i - 1])
                return kModule.fail(ZX_ERR_INVALID_SPARSE, "Column indices not sorted");
        }
    return ZX_OK;
}
