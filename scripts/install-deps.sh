#!/usr/bin/env bash
# Installs the Debian 12 packages that building, testing and the simulated
# access point need, when any of them is missing.
set -euo pipefail
packages=(g++ cmake make libgtest-dev libgmock-dev libsqlite3-dev sqlite3 python3 python3-pytest
          iproute2 util-linux procps python3-matplotlib)
# scripts/coverage.sh: its reports.
packages+=(gcovr)
# The fuzz targets: clang with its libFuzzer and sanitizer runtimes.
packages+=(clang libclang-rt-14-dev)
# scripts/format.sh, whose check the test command runs first.
packages+=(clang-format)
# The armhf build: Debian's cross compiler, and qemu-arm to run what it builds.
# (g++-multilib would remove the cross compiler: the 32-bit layouts are
# checked by the armhf build itself.)
packages+=(g++-arm-linux-gnueabihf qemu-user)
# systemd-analyze, which checks the package's unit; installing it starts
# nothing on a machine that was not booted with it.
packages+=(systemd)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq "${missing[@]}" >/dev/null
fi
# SQLite and GoogleTest for armhf, unpacked beside the project.
"$(dirname "$0")/armhf-sysroot.sh"
