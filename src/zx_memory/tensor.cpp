// The dense tensor: creation, element access, reference counting, and the copy on the device.

#include "common/module.hpp"
#include "common/owned.hpp"
#include "common/refcount.hpp"
#include "zorvex.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr zx::Module kModule{"src/zx_memory"};
constexpr std::uint32_t kMaxRank = 4;

// The number of elements; false when the product exceeds 2^63 - 1. An extent of 0 makes it 0, and
// what follows cannot overflow any more.
bool element_count(const std::uint32_t* dims, std::uint32_t ndim, std::uint64_t& count) {
    count = 1;
    for (std::uint32_t axis = 0; axis < ndim; ++axis) {
        if (count != 0 && dims[axis] != 0 && count > INT64_MAX / dims[axis]) return false;
        count *= dims[axis];
    }
    return true;
}

// A wrapped tensor may claim more elements than 64 bits count bytes; no buffer holds it.
bool fits_a_buffer(const zx_tensor_t& tensor) {
    return tensor.size <= UINT64_MAX / sizeof(float);
}

// 32 bits wide, deliberately: it wraps at 2^32 elements.
std::uint32_t flat_index(const zx_tensor_t& tensor, std::uint32_t row, std::uint32_t col) {
    return row * tensor.dims[1] + col;
}

bool has_rows(const zx_tensor_t* tensor) {
    return tensor && tensor->data && tensor->ndim >= 2;
}

}  // namespace

zx_tensor_t* zx_tensor_create(int ndim, const uint32_t* dims) {
    if (ndim < 1 || ndim > static_cast<int>(kMaxRank) || !dims)
        return kModule.fail_null(ZX_ERR_INVALID_ARGUMENT, "Invalid tensor dimensions");

    zx::AlignedPtr<zx_tensor_t> tensor = zx::make_zeroed<zx_tensor_t>();
    if (!tensor) return kModule.fail_null(ZX_ERR_OUT_OF_MEMORY, "Failed to allocate tensor");
    tensor->refcount = 1;
    tensor->ndim = static_cast<std::uint8_t>(ndim);
    std::fill_n(tensor->dims, kMaxRank, 1U);
    std::copy_n(dims, ndim, tensor->dims);

    // A tensor without elements is refused under the same text, deliberately.
    std::uint64_t count = 0;
    if (!element_count(dims, tensor->ndim, count) || count == 0)
        return kModule.fail_null(ZX_ERR_OVERFLOW, "Tensor size overflow");
    tensor->size = count;
    tensor->capacity = count;
    tensor->data = static_cast<float*>(zx_calloc_aligned(count, sizeof(float)));
    if (!tensor->data)
        return kModule.fail_null(ZX_ERR_OUT_OF_MEMORY, "Failed to allocate tensor data");
    tensor->owns_data = 1;
    return tensor.release();
}

zx_tensor_t* zx_tensor_create_1d(uint32_t size) {
    return zx_tensor_create(1, &size);
}

zx_tensor_t* zx_tensor_create_2d(uint32_t rows, uint32_t cols) {
    const std::uint32_t dims[2] = {rows, cols};
    return zx_tensor_create(2, dims);
}

zx_tensor_t* zx_tensor_zeros(int ndim, const uint32_t* dims) {
    return zx_tensor_create(ndim, dims);
}

zx_tensor_t* zx_tensor_zeros_2d(uint32_t rows, uint32_t cols) {
    return zx_tensor_create_2d(rows, cols);
}

zx_tensor_t* zx_tensor_wrap(float* data, uint32_t ndim, const uint32_t* dims) {
    if (ndim < 1 || ndim > kMaxRank || !data || !dims) return nullptr;

    zx::AlignedPtr<zx_tensor_t> tensor = zx::make_zeroed<zx_tensor_t>();
    if (!tensor) return nullptr;
    tensor->refcount = 1;
    tensor->ndim = static_cast<std::uint8_t>(ndim);
    std::copy_n(dims, ndim, tensor->dims);  // the other extents stay 0, unlike a created tensor's
    std::uint64_t count = 0;
    if (!element_count(dims, ndim, count)) count = 0;
    tensor->size = count;
    tensor->capacity = count;
    tensor->data = data;
    return tensor.release();
}

zx_tensor_t* zx_tensor_retain(zx_tensor_t* tensor) {
    if (tensor) zx::add_reference(tensor->refcount);
    return tensor;
}

void zx_tensor_release(zx_tensor_t* tensor) {
    if (!tensor || !zx::drop_reference(tensor->refcount)) return;
    zx_buffer_release(tensor->device_buffer);
    if (tensor->owns_data == 1) zx_free_aligned(tensor->data);
    zx_free_aligned(tensor);
}

float zx_tensor_get_2d(const zx_tensor_t* tensor, uint32_t row, uint32_t col) {
    if (!has_rows(tensor) || row >= tensor->dims[0] || col >= tensor->dims[1]) return 0.0f;
    return tensor->data[flat_index(*tensor, row, col)];
}

zx_status_t zx_tensor_set_2d(zx_tensor_t* tensor, uint32_t row, uint32_t col, float value) {
    if (!has_rows(tensor)) return ZX_ERR_NULL_POINTER;  // one axis only gets this too, deliberately
    if (row >= tensor->dims[0] || col >= tensor->dims[1]) return ZX_ERR_INDEX_OUT_OF_BOUNDS;
    tensor->data[flat_index(*tensor, row, col)] = value;
    tensor->on_device = 0;
    return ZX_OK;
}

float* zx_tensor_row_ptr(const zx_tensor_t* tensor, uint32_t row) {
    if (!has_rows(tensor) || row >= tensor->dims[0]) return nullptr;
    // A caller's extents may promise rows beyond any memory, so the address is a number first.
    const std::uint64_t offset = std::uint64_t{row} * tensor->dims[1] * sizeof(float);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): see above
    return reinterpret_cast<float*>(reinterpret_cast<std::uintptr_t>(tensor->data) + offset);
}

float* zx_tensor_data(const zx_tensor_t* tensor) {
    return tensor ? tensor->data : nullptr;
}

uint64_t zx_tensor_size(const zx_tensor_t* tensor) {
    return tensor ? tensor->size : 0;
}

uint8_t zx_tensor_ndim(const zx_tensor_t* tensor) {
    return tensor ? tensor->ndim : std::uint8_t{0};
}

uint32_t zx_tensor_dim(const zx_tensor_t* tensor, uint32_t axis) {
    return tensor && axis < tensor->ndim && axis < kMaxRank ? tensor->dims[axis] : 0;
}

zx_tensor_t* zx_tensor_clone(const zx_tensor_t* tensor) {
    if (!tensor) return nullptr;
    zx_tensor_t* const clone = zx_tensor_create(tensor->ndim, tensor->dims);
    // The two sizes differ only in a record made by hand.
    if (clone && tensor->data)
        std::memcpy(clone->data, tensor->data, std::min(clone->size, tensor->size) * sizeof(float));
    return clone;
}

zx_status_t zx_tensor_to_device(zx_tensor_t* tensor) {
    if (!tensor) return ZX_ERR_NULL_POINTER;
    if (!zx_engine_is_initialized()) return ZX_ERR_ENGINE_NOT_INITIALIZED;
    if (!fits_a_buffer(*tensor)) return ZX_ERR_BUFFER_CREATE;

    const std::uint64_t bytes = tensor->size * sizeof(float);
    if (tensor->device_buffer) {
        const zx_status_t status = zx_buffer_write(tensor->device_buffer, tensor->data, bytes);
        if (status != ZX_OK) return status;
    } else {
        tensor->device_buffer = zx_buffer_create_with_data(
            tensor->data, bytes, CL_MEM_READ_WRITE | CL_MEM_COPY_HOST_PTR);
        if (!tensor->device_buffer) return ZX_ERR_BUFFER_CREATE;
    }
    tensor->on_device = 1;
    return ZX_OK;
}

zx_status_t zx_tensor_to_host(zx_tensor_t* tensor) {
    if (!tensor || !tensor->device_buffer) return ZX_ERR_NULL_POINTER;
    if (!fits_a_buffer(*tensor)) return ZX_ERR_BUFFER_CREATE;
    const zx_status_t status =
        zx_buffer_read(tensor->device_buffer, tensor->data, tensor->size * sizeof(float));
    if (status == ZX_OK) tensor->on_device = 0;
    return status;
}

zx_status_t zx_tensor_sync(zx_tensor_t* tensor) {
    if (!tensor) return ZX_ERR_NULL_POINTER;
    if (tensor->on_device == 1) return zx_tensor_to_host(tensor);
    if (tensor->device_buffer) return zx_tensor_to_device(tensor);
    return ZX_OK;
}
