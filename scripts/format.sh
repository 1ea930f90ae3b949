#!/usr/bin/env bash
# Formats every C++ file under src/ sim/ tests/ bench/ with clang-format, by
# the rules of .clang-format. With --check, changes nothing: lists the files
# that differ from their formatted text and exits non-zero when there are any.
set -euo pipefail
cd "$(dirname "$0")/.."

check=0
case ${1:-} in
    --check) check=1 ;;
    "") ;;
    *) echo "usage: $0 [--check]" >&2; exit 2 ;;
esac
if ! command -v clang-format >/dev/null; then
    echo "FAILED: no clang-format (scripts/install-deps.sh installs it)" >&2
    exit 2
fi

mapfile -d '' files < <(find src sim tests bench -type f \( -name '*.cpp' -o -name '*.h' \) -print0 | sort -z)
if [ $check = 0 ]; then
    clang-format -i --style=file "${files[@]}"
    exit 0
fi
differ=()
for f in "${files[@]}"; do
    clang-format --style=file "$f" | cmp -s - "$f" || differ+=("$f")
done
if [ ${#differ[@]} -gt 0 ]; then
    echo "FAILED: ${#differ[@]} of ${#files[@]} C++ files are not formatted (scripts/format.sh formats them):"
    printf '  %s\n' "${differ[@]}"
    exit 1
fi
echo "${#files[@]} C++ files formatted"
