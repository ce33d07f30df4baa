#!/usr/bin/env bash
# Usage: scripts/install-deps.sh   (installs the Debian packages the build, tests and fuzzers need)
set -euo pipefail

packages=(
    g++ cmake pkg-config
    libtinyxml-dev
    libjpeg62-turbo-dev
    libexiv2-dev
    libgtest-dev
    libbenchmark-dev
    clang libclang-rt-14-dev
    scdoc man-db dpkg-dev lintian
    libimage-exiftool-perl  # the tests' independent reader of the metadata varnelo-batch writes
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    sudo=()
else
    sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
