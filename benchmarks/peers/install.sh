#!/usr/bin/env bash
# Makes a virtual environment with the libraries that the benchmarks compare with, from PyPI, and
# installs Debian's build of faiss: benchmarks/peers/install.sh FOLDER
# Fails where PyPI cannot be reached; Debian's faiss is left out where it cannot be installed.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
folder=${1:?usage: install.sh FOLDER}

[ -x "$folder/bin/python3" ] || /usr/bin/python3 -m venv "$folder"
"$folder/bin/pip" install --quiet --disable-pip-version-check --only-binary :all: \
    --requirement "$here/requirements.txt"

if ! dpkg-query --show python3-faiss >/dev/null 2>&1; then
    as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    "${as_root[@]}" apt-get install -y -qq --no-install-recommends python3-faiss >&2 ||
        echo "python3-faiss cannot be installed; faiss is measured from PyPI only" >&2
fi
