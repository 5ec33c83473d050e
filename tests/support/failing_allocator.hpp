// Makes chosen allocations of the library fail. Every allocation of the library goes through
// posix_memalign, which the test programs wrap at link time; the wrapper counts and, on request,
// refuses.
#pragma once

#include <cstdint>

namespace zx::test {

// While it lives, allocation number `nth` of the process (counted from 1 at construction) fails,
// and with `and_later` every one after it.
class FailingAllocator {
  public:
    explicit FailingAllocator(std::uint64_t nth, bool and_later = false);
    ~FailingAllocator();
    FailingAllocator(const FailingAllocator&) = delete;
    FailingAllocator& operator=(const FailingAllocator&) = delete;

    // How many allocations were asked for since construction.
    [[nodiscard]] std::uint64_t requests() const;
    // Whether one was refused.
    [[nodiscard]] bool failed() const;
};

// How many allocations the process has asked for in all.
std::uint64_t allocation_requests();

}  // namespace zx::test
