#!/usr/bin/env bash
# Usage: scripts/package.sh [OUTDIR]   (builds the Debian package and writes it into OUTDIR, default dist/)
#
# The package is built in build-package/ with the programs linked to Debian's shared libraries
# (not statically, as a local build links the service): security updates of the JPEG library
# then reach them, and dpkg-shlibdeps reads the package's dependencies off them. The compiler and
# linker flags are Debian's own (dpkg-buildflags: fortified functions, stack protector, full
# RELRO).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=$(realpath -m "${1:-dist}")
cd "$root"
build="$root/build-package"
jobs=$(nproc 2>/dev/null || echo 2)

scripts/install-deps.sh
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DVARNELO_STATIC_RUNTIME=OFF \
    -DVARNELO_BENCH=OFF -DVARNELO_WERROR=ON -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON \
    -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)" \
    -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" >/dev/null
cmake --build "$build" -j "$jobs" --target varnelo varnelo-batch man-pages package-changelog
rm -rf "$build/cpack"
(cd "$build" && cpack -G DEB -B "$build/cpack" >/dev/null)
mkdir -p "$out"
for deb in "$build"/cpack/*.deb; do
    cp "$deb" "$out/"
    echo "$out/$(basename "$deb")"
done
