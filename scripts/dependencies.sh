#!/usr/bin/env bash
# Installs what is missing from Debian 12: scripts/dependencies.sh build|test|fuzz
#   build  compilers, build tools and the libraries that the library and the tool use
#   test   also what the tests and checks use
#   fuzz   what the fuzzers use beside the build's
set -euo pipefail

packages=(
    ca-certificates cmake g++ ninja-build pkg-config
    ocl-icd-opencl-dev opencl-headers
    libcli11-dev libfmt-dev libxxhash-dev nlohmann-json3-dev zlib1g-dev
)
if [ "${1:-build}" = test ]; then
    packages+=(
        libbenchmark-dev libgmock-dev libgtest-dev oclgrind pocl-opencl-icd
        clang clang-format clang-tidy doxygen g++-aarch64-linux-gnu
        binutils git python3 python3-numpy python3-venv valgrind
        abigail-tools dpkg-dev file lintian man-db zsh
    )
fi
if [ "${1:-build}" = fuzz ]; then
    packages+=(afl++ clang libgtest-dev)
fi

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query --show --showformat='${Status}' "$package" 2>/dev/null || true)
    [ "$status" = 'install ok installed' ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

echo "Installing from Debian: ${missing[*]}" >&2
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq >&2
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
