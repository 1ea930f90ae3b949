#!/usr/bin/env bash
# Builds the daemon as it ships on the 32-bit ARM access points (the Device
# configuration: -Os, link-time optimisation, unused sections dropped, no
# exceptions or run-time type information in its own code, hardening, the C++
# run-time linked in) and prints what it costs there: the stripped size, its
# text, data and bss, and the shared libraries it needs. The last line is
#   armhf: N bytes stripped, needs LIB LIB ...
# Needs the cross toolchain and the armhf sysroot (scripts/install-deps.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
out=build-footprint-armhf

scripts/armhf-sysroot.sh
cmake --no-warn-unused-cli -S . -B "$out" -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake \
      -DCMAKE_BUILD_TYPE=Device -DDORVAND_STATIC_RUNTIME=ON -DBUILD_TESTING=OFF >/dev/null
cmake --build "$out" -j2 --target dorvand >/dev/null
# Measured as installed (stripped, without the build tree's run path).
rm -rf "$out/stage"
DESTDIR="$PWD/$out/stage" cmake --install "$out" --prefix /usr --strip >/dev/null
stripped=$out/stage/usr/sbin/dorvand
bytes=$(stat -c %s "$stripped")
needs=$(arm-linux-gnueabihf-readelf -d "$stripped" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')

# ld-linux is the C library's own loader; on ARM it also holds the stack
# protector's guard.
bss=$(arm-linux-gnueabihf-size "$stripped" | awk 'NR == 2 { print $3 }')
goal=met
[ "$bytes" -le 81920 ] || goal="NOT met"
[ "$bss" -le 8192 ] || goal="NOT met"
for lib in $needs; do
    case "$lib" in libc.so.6 | ld-linux-armhf.so.3 | libsqlite3.so.0) ;; *) goal="NOT met" ;; esac
done

echo "stripped size: $bytes bytes"
arm-linux-gnueabihf-size "$stripped" | awk 'NR == 2 { printf "text %d, data %d, bss %d\n", $1, $2, $3 }'
echo "shared libraries: ${needs% }"
echo "goal (at most 80 KiB stripped and 8 KiB of bss, needing only libc and libsqlite3): $goal"
echo "armhf: $bytes bytes stripped, needs ${needs% }"
[ "$goal" = met ]
