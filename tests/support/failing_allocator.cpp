#include "failing_allocator.hpp"

#include <cerrno>
#include <cstddef>

namespace {

std::uint64_t g_requests = 0;
std::uint64_t g_base = 0;
std::uint64_t g_failing = 0;  // 0: none
bool g_and_later = false;
bool g_failed = false;

}  // namespace

// The linker gives the wrapped function and the wrapper these names.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {

int __real_posix_memalign(void** out, std::size_t alignment, std::size_t size);

int __wrap_posix_memalign(void** out, std::size_t alignment, std::size_t size) {
    const std::uint64_t number = ++g_requests - g_base;
    const bool refuse =
        g_failing != 0 && (number == g_failing || (g_and_later && number > g_failing));
    if (refuse) {
        g_failed = true;
        return ENOMEM;
    }
    return __real_posix_memalign(out, alignment, size);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace zx::test {

FailingAllocator::FailingAllocator(std::uint64_t nth, bool and_later) {
    g_base = g_requests;
    g_failing = nth;
    g_and_later = and_later;
    g_failed = false;
}

FailingAllocator::~FailingAllocator() {
    g_failing = 0;
}

std::uint64_t FailingAllocator::requests() const {
    return g_requests - g_base;
}

bool FailingAllocator::failed() const {
    return g_failed;
}

std::uint64_t allocation_requests() {
    return g_requests;
}

}  // namespace zx::test
