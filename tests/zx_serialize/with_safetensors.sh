#!/usr/bin/env bash
# Runs Python with the safetensors package: with_safetensors.sh FOLDER ARGUMENT...
#
# Debian does not have the package. The folder becomes a virtual environment over Debian's Python,
# with the package from PyPI in it; it is made on the first run and found on later ones. Where PyPI
# cannot be reached, says so and stands aside with status 77; every other failure is a failure.
set -euo pipefail
environment=$1
shift

if ! "$environment/bin/python" -c 'import safetensors' 2>/dev/null; then
    /usr/bin/python3 -m venv --clear --system-site-packages "$environment"
    if ! said=$("$environment/bin/pip" install --quiet --retries 1 --timeout 20 \
        safetensors==0.8.0 2>&1); then
        echo "$said"
        if grep -qE 'connection broken by|Could not fetch URL' <<<"$said"; then
            echo "PyPI cannot be reached, and the safetensors package is nowhere else: skipped."
            exit 77
        fi
        exit 1
    fi
fi
exec "$environment/bin/python" "$@"
