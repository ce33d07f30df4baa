#!/usr/bin/env bash
# Usage: scripts/fuzz.sh [SECONDS [TARGET...]]   (fuzzes each target, or the ones named, for
#        SECONDS, default 60, one after another)
#
# Builds the libFuzzer targets with clang under AddressSanitizer and UndefinedBehaviorSanitizer in
# build-fuzz, seeds each target's corpus with the generated seeds and the kept reproducers, and
# prints the executions and new findings of each target. Findings are written to
# build-fuzz/findings/TARGET/; once fixed, keep each one in fuzz/regressions/TARGET/, where
# scripts/test.sh replays it. The corpora grow in build-fuzz/corpus/ from run to run.
# request-guard checks the nesting guard's every decision against the tree the parser builds; it
# starts from the request target's seeds and reproducers, and its inputs may be long enough to
# reach the guard's largest parses.
set -euo pipefail

seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build="$root/build-fuzz"
targets=(request request-guard exif convert metadata)
[ $# -le 1 ] || targets=("${@:2}")

scripts/install-deps.sh
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARNELO_FUZZ=ON \
    -DVARNELO_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" \
    --target varnelo-fuzz-seeds "${targets[@]/#/fuzz-}" >/dev/null
"$build/fuzz/varnelo-fuzz-seeds" "$build/seeds"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
found=0
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    findings="$build/findings/$target"
    mkdir -p "$corpus" "$findings"
    source=${target%-guard}
    options=()
    [ "$target" = "$source" ] || options=(-max_len=40000 -dict=fuzz/request-guard.dict)
    cp -n "$build/seeds/$source/"* "$corpus/"
    cp -n fuzz/regressions/"$source"/* "$corpus/" 2>/dev/null || true
    before=$(find "$findings" -type f | wc -l)
    log="$build/fuzz-$target.log"
    "$build/fuzz/fuzz-$target" "${options[@]}" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 \
        -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" >"$log" 2>&1 || true
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    new=$(($(find "$findings" -type f | wc -l) - before))
    found=$((found + new))
    printf '%-8s %10s executions  %d new findings\n' "$target" "${executions:-?}" "$new"
    [ "$new" -eq 0 ] || echo "         see $log and $findings"
done
[ "$found" -eq 0 ]
