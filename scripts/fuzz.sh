#!/usr/bin/env bash
# fuzz.sh [SECONDS]   run every fuzz target for so long (60), side by side, under the address and
#                     undefined-behaviour sanitizers
# Installs what is missing and builds into build-fuzz/ first. Inputs that reach new code are kept in
# build-fuzz/found/, those that end a target in build-fuzz/findings/: run the target with such a
# file as its argument. Ends with one line a target.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
seconds=${1-60}
install_missing clang libclang-rt-14-dev cmake ninja-build

cmake --preset fuzz
cmake --build --preset fuzz

targets=(tests/fuzz/*.seeds)
targets=("${targets[@]##*/}")
targets=("${targets[@]%.seeds}")
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true' EXIT
for target in "${targets[@]}"; do
    rm -rf build-fuzz/{findings,seeds}/"$target"
    mkdir -p build-fuzz/{findings,found,seeds}/"$target"
    number=0
    while IFS= read -r seed; do
        printf %b "$seed" >"build-fuzz/seeds/$target/$((number += 1))"
    done <"tests/fuzz/$target.seeds"
    nice -n 10 tests/support/isolated.sh "build-fuzz/tests/fuzz/fuzz_$target" \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="build-fuzz/findings/$target/" \
        "build-fuzz/found/$target" "build-fuzz/seeds/$target" >"build-fuzz/$target.log" 2>&1 &
    pids+=($!)
done

failed=0
for i in "${!targets[@]}"; do
    target=${targets[i]}
    ended=
    wait "${pids[i]}" || ended=" FAILED, see build-fuzz/$target.log" failed=1
    ran=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "build-fuzz/$target.log")
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build-fuzz/$target.log")
    findings=$(find "build-fuzz/findings/$target" -type f | wc -l)
    printf '%-15s %12s executions %6s seconds %3d findings%s\n' \
        "$target" "${runs:-?}" "${ran:-?}" "$findings" "$ended"
done
pids=()
exit "$failed"
