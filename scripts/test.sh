#!/usr/bin/env bash
# Usage: scripts/test.sh   (installs dependencies, builds, runs every test; then the sanitizer trees)
#
# Three build trees, warnings as errors in each: release (every test, the long ones included),
# AddressSanitizer with UndefinedBehaviorSanitizer (every test but the long ones, and the replay
# of the fuzz seeds and kept reproducers), ThreadSanitizer (the tests that run threads or the
# service's process). Then the Debian package, built and checked as installed.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)
start=$SECONDS

scripts/install-deps.sh

echo "== release build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARNELO_WERROR=ON >/dev/null
cmake --build build -j "$jobs"
(cd build && ctest --output-on-failure -j "$jobs")

echo "== sanitizer build (address, undefined)"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVARNELO_SANITIZE=ON -DVARNELO_WERROR=ON \
    -DVARNELO_BENCH=OFF >/dev/null
cmake --build build-asan -j "$jobs"
export ASAN_OPTIONS=halt_on_error=1:abort_on_error=0:detect_leaks=1:exitcode=86
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1:exitcode=87
(cd build-asan && ctest --output-on-failure -j "$jobs" -LE long)

echo "== sanitizer build (thread)"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DVARNELO_TSAN=ON -DVARNELO_WERROR=ON \
    -DVARNELO_BENCH=OFF >/dev/null
cmake --build build-tsan -j "$jobs" --target varnelo_tests
export TSAN_OPTIONS=halt_on_error=1:exitcode=88:second_deadlock_stack=1
(cd build-tsan && ctest --output-on-failure -j "$jobs" -LE long \
    -R 'ServerTest|MainTest|XmlRpcTest|ImageMethodTest|TaskQueueTest|TaskTest|Thread|SemaphoreTest|BatchTest|Staged')

echo "== Debian package"
scripts/test-package.sh

echo "== all tests passed in $((SECONDS - start)) s"
