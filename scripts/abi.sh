#!/usr/bin/env bash
# The library's binary interface, functions and the types they take, against that of the last
# release, which tests/packaging/zorvex.abi holds.
#   scripts/abi.sh check [FOLDER]   says what was removed or changed; what was added is welcome
#   scripts/abi.sh dump [FOLDER]    writes the interface as it is now, at a release
# The library is built in FOLDER (build/abi), with what describes its types.
set -euo pipefail
source=$(cd "$(dirname "$0")/.." && pwd)
released=$source/tests/packaging/zorvex.abi
action=${1:-}
folder=${2:-$source/build/abi}
if [[ $action != check && $action != dump ]]; then
    echo "usage: scripts/abi.sh check|dump [FOLDER]" >&2
    exit 2
fi

for program in abidw abidiff; do
    if ! command -v "$program" >/dev/null; then
        echo "not run: $program is missing (Debian: abigail-tools)" >&2
        exit 77
    fi
done

# The description must not depend on the machine: no folders, no processor.
cmake -S "$source" -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZORVEX_TOOLS=OFF \
    -DZORVEX_TESTS=OFF -DCMAKE_CXX_FLAGS="\"-ffile-prefix-map=$source/=\"" >/dev/null
cmake --build "$folder" --target zorvex >/dev/null
abidw --exported-interfaces-only --type-id-style hash --no-parameter-names --no-show-locs \
    --no-corpus-path --no-comp-dir-path --no-architecture --no-elf-needed --no-write-default-sizes \
    --out-file "$folder/zorvex.abi" "$folder/src/libzorvex.so"

if [ "$action" = dump ]; then
    cp "$folder/zorvex.abi" "$released"
else
    abidiff --no-added-syms "$released" "$folder/zorvex.abi"
fi
