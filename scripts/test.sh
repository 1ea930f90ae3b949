#!/usr/bin/env bash
# Installs what is missing (Debian 12), builds the daemon, the simulator and
# the tests, and runs every test: unit and end-to-end tests on the normal
# build; the unit tests and the end-to-end suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer (the daemon itself built
# with them); each fuzz target for 20 seconds; the unit tests that start
# threads under ThreadSanitizer; the armhf build (the access points' Device
# configuration, cross-compiled) with its unit tests under qemu-arm and every
# scenario run with the armhf daemon; the Debian packages for amd64 and armhf, left in
# dist/ (the end-to-end suite installs both and starts each daemon through
# the init script and the systemd unit, the armhf one under qemu-arm); and
# the unit tests once more as an ordinary user (nobody). First of all, the
# format check of the C++ sources. Run as root (the tests use private mount
# and network namespaces). Exits non-zero when anything fails, and so when a
# stage ran no test at all; the stages that failed are named at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

if [ -n "${DORVAND_E2E_SKIP_UNAVAILABLE:-}" ]; then
    echo "FAILED: DORVAND_E2E_SKIP_UNAVAILABLE is set: the test command runs every end-to-end test or fails"
    exit 2
fi

scripts/install-deps.sh

failed=()
echo "== format of the C++ sources (scripts/format.sh --check) =="
scripts/format.sh --check || failed+=("format")

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
# Only the executables that hold tests that start threads (label "threads").
cmake --build build-tsan -j"$jobs" --target test_base test_configstore test_neighbours test_ftstatus test_daemon

# stage NAME PATTERN COMMAND...: runs one stage, which fails when its
# command fails or when no line of its output matches PATTERN (one line per
# test run): a stage that tested nothing has not passed.
stage() {
    local name=$1 pattern=$2 log rc=0 ran
    shift 2
    echo "== $name =="
    log=$(mktemp)
    "$@" 2>&1 | tee "$log" || rc=$?
    ran=$(grep -cE "$pattern" "$log" || true)
    rm -f "$log"
    if [ "$rc" -ne 0 ]; then
        failed+=("$name")
    elif [ "$ran" -eq 0 ]; then
        echo "FAILED: $name: ran no test"
        failed+=("$name (ran no test)")
    fi
}
ctest_run='^ *[0-9]+/[0-9]+ Test +#'

stage "unit and end-to-end tests" "$ctest_run" \
    ctest --test-dir build --output-on-failure --no-tests=error -j"$jobs"

# ctest keeps its logs in the build: that one folder is lent to the user for the run.
as_nobody() {
    if ! setpriv --reuid=nobody --regid=nogroup --clear-groups test -x build/tests/test_base; then
        echo "FAILED: nobody cannot reach the build's test programs in $PWD/build (a folder above it is private)"
        return 1
    fi
    setpriv --reuid=nobody --regid=nogroup --clear-groups env HOME=/ \
        ctest --test-dir build --output-on-failure -L unit --no-tests=error -j"$jobs"
}
mkdir -p build/Testing/Temporary
chown -R nobody:nogroup build/Testing/Temporary
stage "unit tests as an ordinary user (nobody: no mount namespace, a private root instead)" "$ctest_run" as_nobody
chown -R "$(id -u):$(id -g)" build/Testing/Temporary

# The end-to-end suite here runs only its tests that start the daemon.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    stage "unit and end-to-end tests, ASan + UBSan (the daemon's reports fail the test that caused them)" \
    "$ctest_run" ctest --test-dir build-asan --output-on-failure --no-tests=error -j"$jobs"

stage "fuzz targets, 20 s each" '^fuzz_[a-z_0-9]+ +(ok|FINDING)' scripts/fuzz.sh 20

# Every unit test that starts threads: the label "threads" of tests/CMakeLists.txt.
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    stage "unit tests that start threads, TSan" "$ctest_run" \
    ctest --test-dir build-tsan --output-on-failure -L threads --no-tests=error -j"$jobs"

stage "unit tests, armhf under qemu-arm" "$ctest_run" \
    ctest --test-dir build-armhf --output-on-failure -L unit --no-tests=error -j"$jobs"

armhf_scenarios() {
    local f name log rc=0
    for f in sim/scenarios/*.toml; do
        name=$(basename "$f" .toml)
        log=build-armhf/sim-$name.log
        # Under qemu-arm the daemon keeps the affine clock, whose wall clock
        # cannot be stepped; the end-to-end suite runs such scenarios natively.
        if grep -q '^\[\[clock_step\]\]' "$f"; then
            echo "not run: scenario $name with the armhf daemon (it steps the wall clock)"
            continue
        fi
        if sim/run --target armhf --build build --build-armhf build-armhf --out "build-armhf/sim-out/$name" "$name" \
                >"$log" 2>&1; then
            grep -m1 "PASSED: scenario" "$log"
        else
            tail -40 "$log"
            echo "FAILED: scenario $name with the armhf daemon (full output in $log)"
            rc=1
        fi
    done
    return $rc
}
stage "scenarios with the armhf daemon under qemu-arm" '(PASSED|FAILED): scenario' armhf_scenarios

if [ ${#failed[@]} -gt 0 ]; then
    echo "FAILED stages:"
    printf '  %s\n' "${failed[@]}"
    exit 1
fi
echo "PASSED: every stage"
