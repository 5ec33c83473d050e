// A bound on single allocations of the library: a few bytes of a file may lawfully describe a model
// that fills any machine, and creating that one fails as it does where memory is short.
#pragma once

#include <cstdint>

namespace zx::fuzz {

// Larger ones fail. At first 64 KiB: filling more takes longer than everything else.
void set_allocation_limit(std::uint64_t bytes);
std::uint64_t allocation_limit();

}  // namespace zx::fuzz
