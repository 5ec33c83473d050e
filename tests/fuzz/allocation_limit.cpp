#include "allocation_limit.hpp"

#include <cerrno>
#include <cstddef>

namespace {

std::uint64_t g_limit = 64U << 10U;

}  // namespace

// Every allocation of the library goes through posix_memalign, which the linker wraps; it gives the
// function and the wrapper these names.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {

int __real_posix_memalign(void** out, std::size_t alignment, std::size_t size);

int __wrap_posix_memalign(void** out, std::size_t alignment, std::size_t size) {
    return size > g_limit ? ENOMEM : __real_posix_memalign(out, alignment, size);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace zx::fuzz {

void set_allocation_limit(std::uint64_t bytes) {
    g_limit = bytes;
}

std::uint64_t allocation_limit() {
    return g_limit;
}

}  // namespace zx::fuzz
