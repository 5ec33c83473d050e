#include "target.hpp"

#include <algorithm>

namespace zx::fuzz {

const Target& target_named(std::string_view name) {
    const auto all = targets();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Target& t) { return t.name == name; });
    if (found != all.end()) return *found;
    (void)std::fprintf(stderr, "No target \"%.*s\". There are:", static_cast<int>(name.size()),
                       name.data());
    for (const Target& target : all)
        (void)std::fprintf(stderr, " %.*s", static_cast<int>(target.name.size()),
                           target.name.data());
    (void)std::fprintf(stderr, "\n");
    std::exit(2);
}

}  // namespace zx::fuzz

// An address sanitizer asks here for its options. What is freed is soon used again, so that a
// fuzzer's memory stays small.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the sanitizer's name.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1:quarantine_size_mb=4";
}
