#!/usr/bin/env bash
# Prepares build-deps/armhf-sysroot, the armhf libraries that the cross build
# links against and that qemu-arm loads: SQLite and GoogleTest unpacked from
# Debian's armhf packages, and the cross toolchain's own C and C++ run-time
# (libc6-armhf-cross, libstdc++6-armhf-cross) reached through lib/.
#
# The packages are fetched with a private apt state under build-deps/, so the
# host's dpkg gets no foreign architecture and its `apt-get update` stays
# clean while the armhf lists of a mirror lag behind. Does nothing when the
# sysroot is already there for the same package list.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(libsqlite3-0 libsqlite3-dev libgtest-dev libgmock-dev)
root=build-deps/armhf-sysroot
state=$PWD/build-deps/apt-armhf
stamp=$root/.packages
cross_lib=/usr/arm-linux-gnueabihf/lib

if [ ! -e "$cross_lib/ld-linux-armhf.so.3" ]; then
    echo "armhf-sysroot: the cross toolchain is missing (run scripts/install-deps.sh)" >&2
    exit 1
fi
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${packages[*]}" ]; then
    exit 0
fi

mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/debs"
: >"$state/status"
apt_opts=(-o APT::Architecture=armhf -o APT::Architectures=armhf
          -o Dir::State::Lists="$state/lists" -o Dir::Cache="$state/cache"
          -o Dir::State::status="$state/status" -o APT::Sandbox::User=root)
# A lagging index of one suite makes `update` fail while the others are
# usable; the download below is what has to succeed.
apt-get "${apt_opts[@]}" update -qq >/dev/null 2>&1 || true
(cd "$state/debs" && rm -f ./*.deb && apt-get "${apt_opts[@]}" download -qq "${packages[@]}")

rm -rf "$root"
mkdir -p "$root"
for deb in "$state/debs"/*.deb; do
    dpkg-deb -x "$deb" "$root"
done
# The guest's loader looks in /lib for the C library; qemu-arm -L maps that
# to this folder, so it points at the cross toolchain's run-time.
ln -s "$cross_lib" "$root/lib"
printf '%s' "${packages[*]}" >"$stamp"
echo "armhf-sysroot: $root ready ($(ls "$state/debs" | tr '\n' ' '))"
