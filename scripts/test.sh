#!/usr/bin/env bash
# Installs what is missing (Debian 12), builds the daemon, the simulator and
# the tests, and runs every test: unit and end-to-end tests on the normal
# build; the unit tests and the end-to-end suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer (the daemon itself built
# with them); each fuzz target for 20 seconds; the concurrency tests under
# ThreadSanitizer; the armhf build (the access points' Device configuration,
# cross-compiled) with its unit tests under qemu-arm and every scenario run
# with the armhf daemon; the Debian packages for amd64 and armhf, left in
# dist/ (the end-to-end suite installs both and starts each daemon through
# the init script and the systemd unit, the armhf one under qemu-arm); and
# the unit tests once more as an ordinary user (nobody). Run as root (the
# tests use private mount and network namespaces). Exits non-zero when
# anything fails.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

scripts/install-deps.sh

echo "== build =="
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"

echo "== armhf build (cross-compiled, Device configuration) =="
cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake \
      -DCMAKE_BUILD_TYPE=Device -DDORVAND_STATIC_RUNTIME=ON >/dev/null
cmake --build build-armhf -j"$jobs"

echo "== Debian packages (amd64 and armhf) into dist/ =="
cmake -S . -B build-deb-amd64 -DCMAKE_BUILD_TYPE=Device -DBUILD_TESTING=OFF >/dev/null
cmake --build build-deb-amd64 -j"$jobs"
rm -rf dist && mkdir dist
for b in build-deb-amd64 build-armhf; do
    (cd "$b" && rm -rf packages && cpack >/dev/null)
    cp "$b"/packages/*.deb dist/
done
ls dist

echo "== build with address and undefined-behaviour sanitizers =="
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DDORVAND_SANITIZE=address,undefined -DDORVAND_UNIT_ONLY=OFF >/dev/null
cmake --build build-asan -j"$jobs"

echo "== build with thread sanitizer =="
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DDORVAND_SANITIZE=thread -DDORVAND_UNIT_ONLY=ON >/dev/null
# Only the executables that hold the concurrency tests.
cmake --build build-tsan -j"$jobs" --target test_neighbours test_ftstatus

status=0
echo "== unit and end-to-end tests =="
ctest --test-dir build --output-on-failure -j"$jobs" || status=1
echo "== unit tests as an ordinary user (nobody: no mount namespace, a private root instead) =="
# ctest keeps its logs in the build: that one folder is lent to the user for the run.
mkdir -p build/Testing/Temporary
chown -R nobody:nogroup build/Testing/Temporary
if ! setpriv --reuid=nobody --regid=nogroup --clear-groups test -x build/tests/test_base; then
    echo "FAILED: nobody cannot reach the build's test programs in $PWD/build (a folder above it is private)"
    status=1
elif ! setpriv --reuid=nobody --regid=nogroup --clear-groups env HOME=/ \
        ctest --test-dir build --output-on-failure -L unit --no-tests=error -j"$jobs"; then
    status=1
fi
chown -R "$(id -u):$(id -g)" build/Testing/Temporary
echo "== unit and end-to-end tests, ASan + UBSan (the daemon's reports fail the test that caused them) =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j"$jobs" || status=1
echo "== fuzz targets, 20 s each =="
scripts/fuzz.sh 20 || status=1
echo "== concurrency tests, TSan =="
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir build-tsan --output-on-failure -R 'Concurrency' -j"$jobs" || status=1
echo "== unit tests, armhf under qemu-arm =="
ctest --test-dir build-armhf --output-on-failure -L unit -j"$jobs" || status=1
echo "== scenarios with the armhf daemon under qemu-arm =="
for f in sim/scenarios/*.toml; do
    name=$(basename "$f" .toml)
    log=build-armhf/sim-$name.log
    if sim/run --target armhf --build build --build-armhf build-armhf --out "build-armhf/sim-out/$name" "$name" \
            >"$log" 2>&1; then
        grep -m1 "PASSED: scenario" "$log"
    else
        tail -40 "$log"
        echo "FAILED: scenario $name with the armhf daemon (full output in $log)"
        status=1
    fi
done
exit $status
