#!/usr/bin/env bash
# Usage: scripts/test.sh   (installs dependencies, builds, runs every test; then again under ASan/UBSan)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)

scripts/install-deps.sh

echo "== release build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
(cd build && ctest --output-on-failure -j "$jobs")

echo "== sanitizer build (address, undefined)"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVARNELO_SANITIZE=ON >/dev/null
cmake --build build-asan -j "$jobs"
export ASAN_OPTIONS=halt_on_error=1:abort_on_error=0:detect_leaks=1:exitcode=86
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1:exitcode=87
(cd build-asan && ctest --output-on-failure -j "$jobs")

echo "== all tests passed"
