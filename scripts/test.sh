#!/usr/bin/env bash
# Everything that must hold before a change lands, on a fresh Debian 12 machine.
#   scripts/test.sh            all steps
#   scripts/test.sh STEP ...   some of them; the steps are the functions named step_* below
set -euo pipefail
cd "$(dirname "$0")/.."

export CTEST_OUTPUT_ON_FAILURE=1
jobs=$(nproc)

configure_and_build() {
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
}

# The code looks as .clang-format says.
step_format() {
    git ls-files '*.c' '*.h' '*.cpp' '*.hpp' '*.inl' | xargs clang-format --dry-run -Werror
}

# GCC, optimised, as it is installed; every test, without OpenCL and with PoCL.
step_release() {
    configure_and_build release
    ctest --preset release --parallel "$jobs"
}

# Clang, and clang-tidy over every file but the tests, which ZORVEX_TIDY_TESTS adds.
step_tidy() {
    configure_and_build tidy
}

# AddressSanitizer and UndefinedBehaviorSanitizer over every test.
# LeakSanitizer now and then crashes on a thread of PoCL that is just ending ("Tracer caught signal
# 11"); what fails for a reason of its own fails again.
step_asan() {
    configure_and_build asan
    ctest --preset asan --parallel "$jobs" --repeat until-pass:2
}

# Oclgrind, a device that checks every access of the kernels, over the device tests of the release
# build.
step_oclgrind() {
    configure_and_build release
    scripts/oclgrind_tests.py build/release
}

# Valgrind over every test program that needs no device, in the release build.
step_valgrind() {
    cmake --preset release >/dev/null
    cmake --build --preset release
    scripts/valgrind_tests.py build/release
}

# The plain inner loops alone give the same results.
step_scalar() {
    configure_and_build scalar
    ctest --preset scalar --parallel "$jobs" --label-regex none
}

# The library compiles for 64-bit Arm, with the plain inner loops.
step_arm() {
    mkdir -p build/aarch64/include
    ln -sfn /usr/include/CL build/aarch64/include/CL
    cmake -S . -B build/aarch64 -G Ninja --toolchain cmake/aarch64-linux-gnu.cmake \
        -DZORVEX_WERROR=ON -DZORVEX_TOOLS=OFF -DZORVEX_TESTS=OFF \
        -DOpenCL_INCLUDE_DIR="$PWD/build/aarch64/include" -DOpenCL_LIBRARY=OpenCL >/dev/null
    cmake --build build/aarch64 --target zorvex_objects
}

scripts/dependencies.sh test
steps=("$@")
[ ${#steps[@]} -gt 0 ] || steps=(format release valgrind scalar asan oclgrind arm tidy)
for step in "${steps[@]}"; do
    echo "=== $step"
    SECONDS=0
    "step_$step"
    echo "=== $step passed in $SECONDS s"
done
