#!/usr/bin/env bash
# Builds the fuzz targets of tests/fuzz with clang (in build-fuzz) and runs
# each for SECONDS seconds (default 60), starting from its committed seeds
# (tests/fuzz/corpus/TARGET) plus what earlier runs found
# (build-fuzz/corpus/TARGET). Exits non-zero when any target reports a
# finding: a crash, a failed check, a leak, a timeout, undefined behaviour
# or running out of memory; the input is left in build-fuzz/findings/TARGET.
# Run as root: the targets that reach the daemon's files use a private mount
# namespace.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build-fuzz -DDORVAND_FUZZ=ON -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j"$jobs" >/dev/null

# The largest input each target is given: room for the lines longer than
# their bound, the most records or events a target looks at.
max_len() {
    case $1 in
        fuzz_event) echo 160 ;;
        fuzz_keyholders) echo 129 ;;
        fuzz_board) echo 1024 ;;
        fuzz_config) echo 1100 ;;
        fuzz_ap2mac) echo 2100 ;;
        fuzz_scan_report) echo 1024 ;;
        *) echo 4096 ;;
    esac
}

status=0
root=$(pwd)
for seeds in tests/fuzz/corpus/*/; do
    target=$(basename "$seeds")
    work="$root/build-fuzz/corpus/$target"
    findings="$root/build-fuzz/findings/$target"
    mkdir -p "$work" "$findings"
    log="$findings/last-run.log"
    if "$root/build-fuzz/tests/fuzz/$target" -max_total_time="$seconds" -max_len="$(max_len "$target")" \
            -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$findings/" \
            "$work" "$root/$seeds" >"$log" 2>&1; then
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
        rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
        printf '%-18s ok: %s inputs, %s a second\n' "$target" "$runs" "$rate"
    else
        status=1
        printf '%-18s FINDING (log: %s)\n' "$target" "$log"
        grep -E 'ERROR|SUMMARY|fuzz check failed|runtime error|Test unit written' "$log" | head -n 20 || true
    fi
done
exit $status
