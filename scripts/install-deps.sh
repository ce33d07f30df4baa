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
    clang
    scdoc man-db dpkg-dev lintian
    libimage-exiftool-perl  # the tests' independent reader of the metadata varnelo-batch writes
)

if [ "$(id -u)" -eq 0 ]; then
    sudo=()
else
    sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
updated=false

# Installs those of the packages named that are missing.
install() {
    local missing=() p
    for p in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$p")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$updated" = false ]; then
        "${sudo[@]}" apt-get update -qq
        updated=true
    fi
    "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

install "${packages[@]}"
# The fuzzers link clang's own runtime, packaged per clang version (libclang-rt-14-dev beside
# Debian 12's clang 14): the one for the clang installed.
clang_major=$(clang -dumpversion | cut -d. -f1)
install "libclang-rt-${clang_major}-dev"
