// The aligned allocator behind every allocation of the library. 128 bytes hold two cache lines, the
// unit that adjacent-line prefetchers fetch, and any vector.

#include "zorvex.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kAlignment = 128;
constexpr std::uint64_t kMaxBytes = INT64_MAX;

}  // namespace

void* zx_malloc_aligned(uint64_t size) {
    if (size == 0) return nullptr;
    void* block = nullptr;
    return posix_memalign(&block, kAlignment, size) == 0 ? block : nullptr;
}

void* zx_calloc_aligned(uint64_t count, uint64_t size) {
    if (count == 0 || size == 0 || count > kMaxBytes / size) return nullptr;
    void* const block = zx_malloc_aligned(count * size);
    if (block) std::memset(block, 0, count * size);
    return block;
}

void* zx_realloc_aligned(void* old, uint64_t old_size, uint64_t new_size) {
    if (new_size == 0) {
        zx_free_aligned(old);
        return nullptr;
    }
    void* const block = zx_malloc_aligned(new_size);
    if (!block || !old) return block;
    std::memcpy(block, old, std::min(old_size, new_size));
    zx_free_aligned(old);
    return block;
}

void zx_free_aligned(void* block) {
    std::free(block);
}
