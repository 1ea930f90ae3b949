#!/usr/bin/env bash
# Measures what the smallest boards feel, on this machine: the footprint line
# of scripts/footprint.sh; the daemon's memory at the envelope in the
# simulator (768 known-AP lines, 30 VAPs with 802.11r on, 512 stored key
# holders, first full scans seeing 2,000 BSSs; /proc/PID/smaps_rollup); the
# CPU of scan ingestion against its floor (bench/ingest_floor.cpp: the
# same rows and log lines with nothing else, median of interleaved rounds);
# and the time from a neighbour event to the start of the transition script
# with 1 and 30 VAPs with 802.11r on. Builds what it needs in build/ and the
# footprint build. Run as root (private namespaces); takes 10 to 20 minutes,
# most of it the daemon reading back 512 key holders for 30 VAPs.
#   scripts/bench.sh [ROUNDS]     rounds of the ingestion benchmark (default 7)
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${1:-7}

echo "== footprint =="
scripts/footprint.sh | tail -1

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target dorvand dorvsim bench_ingest >/dev/null

echo "== memory at the envelope =="
/usr/bin/python3 bench/bench.py memory --dorvand build/dorvand --simlib build/sim/libdorvsim.so
echo "== scan ingestion =="
build/tests/bench_ingest "$rounds"
# The same work counted in system calls, which no load on the machine blurs.
if command -v strace >/dev/null; then
    counts=""
    for side in daemon floor; do
        rows=$(strace -c -o build/strace-$side.txt build/tests/bench_ingest 1 $side)
        calls=$(awk '$NF == "total" { print $4 }' build/strace-$side.txt)
        counts="$counts, $side $(awk -v c="$calls" -v r="$rows" 'BEGIN { printf "%.1f", c / r }')"
    done
    echo "system calls a row: ${counts#, }"
fi
echo "== event to transition script =="
/usr/bin/python3 bench/bench.py latency --dorvand build/dorvand --simlib build/sim/libdorvsim.so
