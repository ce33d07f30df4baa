#!/usr/bin/env bash
# Usage: scripts/test.sh   (installs dependencies, builds, runs every test; then the sanitizer trees)
#
# Three build trees from CMakePresets.json, warnings as errors in each: dev (release, every test,
# the long ones included), asan (AddressSanitizer with UndefinedBehaviorSanitizer: every test but
# the long ones, and the replay of the fuzz seeds and kept reproducers), tsan (ThreadSanitizer:
# every test labelled `threads`, that is every test that runs threads or the service's process).
# Then the Debian package, built and checked as installed.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)
start=$SECONDS

scripts/install-deps.sh

echo "== release build"
cmake --preset dev >/dev/null
cmake --build --preset dev -j "$jobs"
ctest --preset dev -j "$jobs"

echo "== sanitizer build (address, undefined)"
cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs"
export ASAN_OPTIONS=halt_on_error=1:abort_on_error=0:detect_leaks=1:exitcode=86
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1:exitcode=87
ctest --preset asan -j "$jobs"

echo "== sanitizer build (thread)"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$jobs"
export TSAN_OPTIONS=halt_on_error=1:exitcode=88:second_deadlock_stack=1
ctest --preset tsan -j "$jobs"

echo "== Debian package"
scripts/test-package.sh

echo "== all tests passed in $((SECONDS - start)) s"
