// What the fuzzers call; ZORVEX_FUZZ_TARGET names the target.

#include "large_blocks.hpp"
#include "target.hpp"

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

const zx::fuzz::Target& chosen() {
    static const zx::fuzz::Target& target = []() -> const zx::fuzz::Target& {
        const char* const name = std::getenv("ZORVEX_FUZZ_TARGET");
        return zx::fuzz::target_named(name ? name : "");
    }();
    return target;
}

std::string_view view(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming): the fuzzers' names.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zx::fuzz::reuse_large_blocks(true);
    chosen().read(view(data, size));
    zx::fuzz::reuse_large_blocks(false);
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned seed) {
    zx::fuzz::Random random(seed);
    std::string changed = chosen().mutate(std::string(view(data, size)), random);
    changed.resize(std::min(changed.size(), max_size));
    std::copy(changed.begin(), changed.end(), data);
    return changed.size();
}
// NOLINTEND(readability-identifier-naming)
