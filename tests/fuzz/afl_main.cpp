// The readers of the library for AFL++, many inputs a process; ZORVEX_FUZZ_TARGET names the target.

#include "target.hpp"

#include <cstdint>
#include <unistd.h>

__AFL_FUZZ_INIT();

int main() {
    const char* const name = std::getenv("ZORVEX_FUZZ_TARGET");
    const zx::fuzz::Target& target = zx::fuzz::target_named(name ? name : "");
    __AFL_INIT();
    const auto* const input = reinterpret_cast<const char*>(__AFL_FUZZ_TESTCASE_BUF);
    constexpr unsigned kInputs = 100'000;
    while (__AFL_LOOP(kInputs))
        target.read({input, static_cast<std::size_t>(__AFL_FUZZ_TESTCASE_LEN)});
}
