// Every block lies alone in its place; what is beside it or freed must not be touched, as ever.

#include "large_blocks.hpp"

#include "target.hpp"

#include <array>
#include <cstdint>
#include <new>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

namespace {

constexpr std::size_t kSmallestBytes = 128U << 10U;  // the sanitizer keeps smaller ones itself
constexpr std::size_t kPlaceBytes = 8U << 20U;
constexpr std::size_t kPlaces = 32;

class LargeBlocks {
  public:
    void reuse(bool is_on) { is_on_ = is_on; }
    // Null if the block fits no place, or all are taken.
    void* take(std::size_t bytes) {
        if (!is_on_ || bytes < kSmallestBytes || bytes >= kPlaceBytes) return nullptr;
        for (std::size_t place = 0; place < kPlaces; ++place) {
            if (taken_[place] != 0) continue;
            taken_[place] = bytes;
            char* const block = memory() + place * kPlaceBytes;
            ASAN_UNPOISON_MEMORY_REGION(block, bytes);
            return block;
        }
        return nullptr;
    }
    // False if the block is none of these.
    bool give_back(void* block) {
        if (memory_ == nullptr || block < memory_ || block >= memory_ + kPlaces * kPlaceBytes)
            return false;
        const std::size_t offset = static_cast<std::size_t>(static_cast<char*>(block) - memory_);
        std::size_t& taken = taken_[offset / kPlaceBytes];
        zx::fuzz::require(offset % kPlaceBytes == 0 && taken != 0, "a block is freed once");
        ASAN_POISON_MEMORY_REGION(block, taken);
        taken = 0;
        return true;
    }

  private:
    char* memory() {
        if (memory_ != nullptr) return memory_;
        memory_ = static_cast<char*>(mmap(nullptr, kPlaces * kPlaceBytes, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        ASAN_POISON_MEMORY_REGION(memory_, kPlaces * kPlaceBytes);
        return memory_;
    }

    bool is_on_ = false;
    char* memory_ = nullptr;
    std::array<std::size_t, kPlaces> taken_{};  // the bytes of the block there, 0 if none is
};

constinit LargeBlocks g_blocks;

}  // namespace

namespace zx::fuzz {

void reuse_large_blocks(bool is_on) {
    g_blocks.reuse(is_on);
}

}  // namespace zx::fuzz

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    void* const block = g_blocks.take(bytes);
    return block ? block : std::malloc(bytes);
}

void* operator new(std::size_t bytes) {
    if (void* const block = operator new(bytes, std::nothrow)) return block;
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    if (!g_blocks.give_back(block)) std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}
