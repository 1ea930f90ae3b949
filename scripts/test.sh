#!/usr/bin/env bash
# Installs what is missing (Debian 12), builds the daemon, the simulator and
# the tests, and runs every test: unit and end-to-end tests on the normal
# build, the unit tests again under AddressSanitizer and
# UndefinedBehaviorSanitizer, and the concurrency tests under
# ThreadSanitizer. Run as root (the tests use private mount and network
# namespaces). Exits non-zero when anything fails.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

scripts/install-deps.sh

echo "== build =="
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"

echo "== build with address and undefined-behaviour sanitizers =="
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DDORVAND_SANITIZE=address,undefined -DDORVAND_UNIT_ONLY=ON >/dev/null
cmake --build build-asan -j"$jobs"

echo "== build with thread sanitizer =="
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DDORVAND_SANITIZE=thread -DDORVAND_UNIT_ONLY=ON >/dev/null
cmake --build build-tsan -j"$jobs"

status=0
echo "== unit and end-to-end tests =="
ctest --test-dir build --output-on-failure -j"$jobs" || status=1
echo "== unit tests, ASan + UBSan =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -L unit -j"$jobs" || status=1
echo "== concurrency tests, TSan =="
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir build-tsan --output-on-failure -R 'Concurrency' -j"$jobs" || status=1
exit $status
