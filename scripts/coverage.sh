#!/usr/bin/env bash
# Line and branch coverage of src/ by the unit tests and the end-to-end suite.
# Builds build-cov/ (-DDORVAND_COVERAGE=ON: instrumented, unoptimised, no
# sanitizers, src/ without exceptions as on the boards), zeroes the counters,
# runs the unit tests and the end-to-end suite against the instrumented daemon
# (the sandbox binds the build's folder into each daemon's root, so the
# counters of every run, concurrent ones too, merge into the build's files),
# then prints coverage per folder of src/ and writes build-cov/coverage/:
# index.html (with a page per file), summary.json, lines.txt and branches.txt
# (gcovr's per file, the lines not covered) and gaps.txt (the files with the
# most branches missed first, their lines never run and their lines with a
# branch never taken). Throw branches and branches the compiler made
# unreachable are left out; lines and regions marked GCOVR_EXCL_LINE or
# GCOVR_EXCL_START ... GCOVR_EXCL_STOP are not counted. Run as root, like the
# tests. Exits non-zero when a test failed.
#
#   scripts/coverage.sh                         everything (about 20 minutes)
#   scripts/coverage.sh --unit                  the unit tests only
#   scripts/coverage.sh --e2e [PYTEST ARGS]     end-to-end tests only: all, or
#                                               e.g. tests/e2e/test_scan.py -k cac
#   scripts/coverage.sh --keep ...              add to the counters already there
#   scripts/coverage.sh --report                only the report of those counters
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-cov
out=$build/coverage
jobs=${COVERAGE_JOBS:-2}

unit=1 e2e=1 zero=1 e2e_args=()
while [ $# -gt 0 ]; do
    case $1 in
        --unit) e2e=0 ;;
        --e2e) unit=0; shift; e2e_args=("$@"); break ;;
        --keep) zero=0 ;;
        --report) unit=0 e2e=0 zero=0 ;;
        *) echo "usage: $0 [--keep] [--unit | --e2e [PYTEST ARGS] | --report]" >&2; exit 2 ;;
    esac
    shift
done
[ ${#e2e_args[@]} -gt 0 ] || e2e_args=(tests/e2e)

if ! command -v gcovr >/dev/null; then
    echo "installing: gcovr"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq gcovr >/dev/null
fi

status=0
if [ $unit = 1 ] || [ $e2e = 1 ]; then
    echo "== coverage build ($build) =="
    cmake -S . -B $build -DCMAKE_BUILD_TYPE=Debug -DDORVAND_COVERAGE=ON >/dev/null
    cmake --build $build -j"$jobs"
    if [ $zero = 1 ]; then
        find $build -name '*.gcda' -delete
    fi
    if [ $unit = 1 ]; then
        echo "== unit tests =="
        ctest --test-dir $build --output-on-failure -L unit --no-tests=error -j"$jobs" || status=1
    fi
    if [ $e2e = 1 ]; then
        echo "== end-to-end tests: ${e2e_args[*]} =="
        /usr/bin/python3 -m pytest -q -p no:cacheprovider "${e2e_args[@]}" \
            --dorvand=$build/dorvand --simlib=$build/sim/libdorvsim.so || status=1
    fi
fi

echo "== coverage of src/ =="
rm -rf $out && mkdir -p $out
# Branches of exceptions are left out. gcov marks a call's exception edge
# only where the call ran, and most of src/ is built twice (the daemon's
# libraries and the unit tests' own), so gcovr's own filter would keep the
# unmarked edge of the copy that never ran as a branch never taken: keep the
# marks, merge the copies (a mark from either stays), then drop them.
gcov_opts=(--root . --filter 'src/' --exclude-unreachable-branches)
gcovr "${gcov_opts[@]}" -j"$jobs" --json $out/marked.json $build
/usr/bin/python3 - "$out" <<'EOF'
import json, sys

out = sys.argv[1]
data = json.load(open(f"{out}/marked.json"))
for f in data["files"]:
    for line in f["lines"]:
        line["branches"] = [b for b in line["branches"] if not b["throw"]]
json.dump(data, open(f"{out}/coverage.json", "w"))
EOF
rm $out/marked.json
gcovr --add-tracefile $out/coverage.json --json-summary-pretty --json-summary $out/summary.json \
      --html-details $out/index.html --html-title "dorvand: src/ by the unit and end-to-end tests"
gcovr --add-tracefile $out/coverage.json --txt $out/lines.txt
gcovr --add-tracefile $out/coverage.json --branches --txt $out/branches.txt
/usr/bin/python3 - "$out" <<'EOF'
import collections, json, sys

out = sys.argv[1]
files = json.load(open(f"{out}/summary.json"))["files"]
folders = collections.defaultdict(lambda: [0, 0, 0, 0])
for f in files:
    for name in (f["filename"].rsplit("/", 1)[0] + "/", "src"):
        for n, key in enumerate(("line_covered", "line_total", "branch_covered", "branch_total")):
            folders[name][n] += f[key]


def pct(covered, total):
    return 100.0 * covered / total if total else 100.0


def ranges(numbers):
    spans = []
    for n in numbers:
        if spans and spans[-1][1] == n - 1:
            spans[-1][1] = n
        else:
            spans.append([n, n])
    return ",".join(str(a) if a == b else f"{a}-{b}" for a, b in spans)


# gaps.txt: per file, most missed branches first, the lines never run and
# the lines with a branch never taken (taken/total).
gaps = []
for f in json.load(open(f"{out}/coverage.json"))["files"]:
    lines = [l for l in f["lines"] if not l["gcovr/noncode"] and not l["gcovr/excluded"]]
    unrun = [l["line_number"] for l in lines if l["count"] == 0]
    partial = [(l["line_number"], sum(b["count"] > 0 for b in l["branches"]), len(l["branches"]))
               for l in lines if any(b["count"] == 0 for b in l["branches"])]
    missed = sum(total - taken for _, taken, total in partial)
    gaps.append((-missed, f["file"], unrun, partial))
with open(f"{out}/gaps.txt", "w") as g:
    for minus, name, unrun, partial in sorted(gaps):
        g.write(f"{name}: {-minus} branches missed, {len(unrun)} lines not run\n")
        g.write(f"  lines not run: {ranges(unrun) or '-'}\n")
        g.write(f"  branches missed: {' '.join(f'{n}({t}/{a})' for n, t, a in partial) or '-'}\n")

print(f"{'folder':<18}{'lines':>16}{'':>9}{'branches':>16}")
for name in sorted(k for k in folders if k != "src"):
    lc, lt, bc, bt = folders[name]
    print(f"{name:<18}{lc:>7} / {lt:<6}{pct(lc, lt):>6.1f}%{bc:>9} / {bt:<6}{pct(bc, bt):>6.1f}%")
lc, lt, bc, bt = folders["src"]
print(f"src: {pct(lc, lt):.1f}% lines, {pct(bc, bt):.1f}% branches")
EOF
exit $status
