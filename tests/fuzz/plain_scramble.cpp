// The changes that know nothing, for programs that have no fuzzer to make them.

#include "target.hpp"

#include <algorithm>
#include <cstdint>

// Flips a bit, puts a byte in or takes one out.
// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size,
                                        std::size_t max_size) {
    using zx::fuzz::below;
    static zx::fuzz::Random random(1);
    const std::size_t at = below(random, size + 1);
    const auto value = static_cast<std::uint8_t>(below(random, 256));
    if (below(random, 2) == 0 && at < size) {
        data[at] ^= static_cast<std::uint8_t>(1U << below(random, 8));
        return size;
    }
    if (size < max_size && below(random, 2) == 0) {
        std::copy_backward(data + at, data + size, data + size + 1);
        data[at] = value;
        return size + 1;
    }
    if (at == size) return size;
    std::copy(data + at + 1, data + size, data + at);
    return size - 1;
}
