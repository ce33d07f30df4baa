#!/usr/bin/env bash
# Usage: scripts/bench.sh [benchmark options]   (builds Release in build-bench and runs the resampler benchmarks)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVARNELO_BENCH=ON >/dev/null
cmake --build build-bench -j "$jobs" --target varnelo_bench
build-bench/bench/varnelo_bench "$@"
