// The changes to model files for AFL++, which loads them beside its own.

#include "mutators.hpp"
#include "target.hpp"

#include <algorithm>
#include <cstdint>

namespace {

struct Mutator {
    zx::fuzz::Random random;
    std::string changed;
};

}  // namespace

// The names and arguments are those that AFL++ looks for.
extern "C" {

void* afl_custom_init(void* /*fuzzer*/, unsigned seed) {
    return new Mutator{.random = zx::fuzz::Random(seed), .changed = {}};
}

std::size_t afl_custom_fuzz(Mutator* mutator, std::uint8_t* data, std::size_t size,
                            std::uint8_t** out, std::uint8_t* /*other*/, std::size_t /*other_size*/,
                            std::size_t max_size) {
    std::string& changed = mutator->changed;
    changed =
        zx::fuzz::mutate_container({reinterpret_cast<const char*>(data), size}, mutator->random);
    changed.resize(std::min(changed.size(), max_size));
    *out = reinterpret_cast<std::uint8_t*>(changed.data());
    return changed.size();
}

void afl_custom_deinit(Mutator* mutator) {
    delete mutator;
}
}
