// Large pages behind large arrays. An array of many megabytes that is filled once costs a fault for
// every page of it, which at four kilobytes a page is a fifth of the time that loading a file
// takes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace zxtool {

// Of fewer bytes, at most one large page could be made.
inline constexpr std::size_t kFewBytes = 4U << 20U;

// Makes room for `count` elements in an empty or small vector and asks the system for large pages
// behind it. It is a wish: where it is not granted, nothing changes but the time.
template <class T>
void reserve_large(std::vector<T>& vector, std::size_t count) {
    vector.reserve(count);
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t skipped = -reinterpret_cast<std::uintptr_t>(vector.data()) % page;
    const std::size_t bytes = vector.capacity() * sizeof(T);
    if (bytes < kFewBytes) return;
    char* const first_page = reinterpret_cast<char*>(vector.data()) + skipped;
    (void)madvise(first_page, (bytes - skipped) / page * page, MADV_HUGEPAGE);
}

}  // namespace zxtool
