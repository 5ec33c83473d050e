// Local owners for what crosses the flat interface as a plain pointer: from the moment a resource
// exists one of these holds it, and release() stands only where it is handed on.
#pragma once

#include "zorvex.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

namespace zx {

struct AlignedFree {
    void operator()(void* block) const { zx_free_aligned(block); }
};
struct TensorRelease {
    void operator()(zx_tensor_t* tensor) const { zx_tensor_release(tensor); }
};
struct SparseRelease {
    void operator()(zx_sparse_t* matrix) const { zx_sparse_release(matrix); }
};
struct ModelRelease {
    void operator()(zx_model_t* model) const { zx_model_release(model); }
};
struct LayerFree {
    void operator()(zx_layer_t* layer) const { zx_layer_free(layer); }
};
struct InteractionsFree {
    void operator()(zx_interactions_t* set) const { zx_interactions_free(set); }
};
struct BufferRelease {
    using pointer = zx_buffer_t;  // the handle is a pointer already
    void operator()(zx_buffer_t buffer) const { zx_buffer_release(buffer); }
};
struct FileClose {
    // For files that are read, and for the formats whose writers do not test their writes.
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};

template <typename T>
using AlignedPtr = std::unique_ptr<T, AlignedFree>;
using TensorPtr = std::unique_ptr<zx_tensor_t, TensorRelease>;
using SparsePtr = std::unique_ptr<zx_sparse_t, SparseRelease>;
using ModelPtr = std::unique_ptr<zx_model_t, ModelRelease>;
using LayerPtr = std::unique_ptr<zx_layer_t, LayerFree>;
using InteractionsPtr = std::unique_ptr<zx_interactions_t, InteractionsFree>;
using BufferPtr = std::unique_ptr<zx_buffer_t, BufferRelease>;
using File = std::unique_ptr<std::FILE, FileClose>;

// A record whose bytes are all zero; null if memory is short.
template <typename T>
AlignedPtr<T> make_zeroed() {
    return AlignedPtr<T>(static_cast<T*>(zx_calloc_aligned(1, sizeof(T))));
}

// An array of `count` zero-filled elements; null if count is 0 or memory is short.
template <typename T>
AlignedPtr<T[]> make_zeroed_array(std::uint64_t count) {
    return AlignedPtr<T[]>(static_cast<T*>(zx_calloc_aligned(count, sizeof(T))));
}

// The same with undefined contents.
template <typename T>
AlignedPtr<T[]> make_array(std::uint64_t count) {
    if (count > INT64_MAX / sizeof(T)) return nullptr;
    return AlignedPtr<T[]>(static_cast<T*>(zx_malloc_aligned(count * sizeof(T))));
}

}  // namespace zx
