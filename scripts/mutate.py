#!/usr/bin/python3
"""Mutation testing: seeds one small fault at a time into src/ and checks that
the tests notice.

A scratch copy of the repository (the working tree, uncommitted changes
included, or --rev) is configured and built once; then for each sampled
mutant: apply it, rebuild incrementally, run the unit tests (ctest -L unit),
restore the file. Mutants the unit tests miss get a second chance against the
end-to-end suite. Mutation kinds: flip-cmp, off-by-one, remove-stmt, constant,
negate-if, return-value. Comments, string literals, preprocessor lines,
static_asserts, logging calls and va_* macros are never mutated.

Ids read "module/file:line kind: original -> mutated". The list of equivalent
mutants (--equivalent) names each by its key, the id without the line number:
"module/file kind: original -> mutated", so that edits elsewhere in the file
leave it valid. Every run draws a fresh seed unless --seed repeats one; the
sample is split across the modules in proportion to their share of all
mutants. The score is killed / (compiled and not equivalent); --report joins
runs and prints the mean over their seeds.
"""
import argparse
import fnmatch
import hashlib
import io
import json
import os
import re
import signal
import subprocess
import sys
import tarfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
SKIP_CALLS = r"\b(log_msg|syslog|vsyslog|static_assert|va_start|va_copy|va_end)\s*\("
KEYWORDS = {"return", "break", "continue", "goto", "throw", "delete", "case", "default", "using", "typedef",
            "namespace", "template", "else", "do", "co_return", "co_yield", "co_await"}
CMP_FLIP = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
CMP_OFF_BY_ONE = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
# The end-to-end files that exercise a module's behaviour most directly, run
# first against its survivors (with -x, the first failure ends the run); the
# rest follow, the broad scenario run first and the package installs last.
E2E_FIRST = {
    "base": ["test_hardening.py", "test_startup.py"],
    "board": ["test_scenarios.py", "test_startup.py"],
    "configstore": ["test_neighbours.py", "test_scenarios.py"],
    "daemon": ["test_startup.py", "test_startup_faults.py", "test_recovery.py", "test_hardening.py"],
    "eventloop": ["test_hardening.py", "test_startup.py"],
    "ftstatus": ["test_ft_status.py"],
    "neighbours": ["test_neighbours.py", "test_scenarios.py", "test_deployment.py"],
    "scan": ["test_scan.py", "test_recovery.py", "test_relief.py"],
}
E2E_ORDER = ["test_scenarios.py", "*", "test_package.py"]

# ---------------------------------------------------------------- mutants


def blank(chars, start, end, fill=" "):
    for k in range(start, end):
        if chars[k] != "\n":
            chars[k] = fill


def match_paren(text, open_pos):
    depth = 0
    for k in range(open_pos, len(text)):
        depth += {"(": 1, ")": -1}.get(text[k], 0)
        if depth == 0:
            return k
    return -1


def mask(text):
    """Returns text of the same length where only mutable code is left: comments,
    preprocessor lines and skipped calls become spaces, the insides of string and
    character literals become '_'. Offsets and line breaks stay where they were."""
    out, i, n = list(text), 0, len(text)
    while i < n:
        if text.startswith(("//", "/*"), i):
            closer = "\n" if text[i + 1] == "/" else "*/"
            end = text.find(closer, i + 2)
            end = n if end < 0 else end + len(closer.strip())
            blank(out, i, end)
            i = end
        elif text.startswith('R"', i) and not (i and (text[i - 1].isalnum() or text[i - 1] == "_")):
            delim = text[i + 2:text.index("(", i)]
            end = text.index(")" + delim + '"', i) + len(delim) + 2
            blank(out, i + 1, end - 1, "_")
            i = end
        elif text[i] == '"' or (text[i] == "'" and not (i and text[i - 1].isalnum())):
            j = i + 1
            while j < n and text[j] not in (text[i], "\n"):
                j += 2 if text[j] == "\\" else 1
            blank(out, i + 1, j, "_")
            i = j + 1
        else:
            i += 1
    masked = "".join(out)
    lines, pos, continued = masked.split("\n"), 0, False
    for line in lines:  # preprocessor lines and their continuations
        if continued or line.lstrip().startswith("#"):
            blank(out, pos, pos + len(line))
            continued = line.rstrip().endswith("\\")
        pos += len(line) + 1
    masked = "".join(out)
    for m in re.finditer(SKIP_CALLS, masked):
        close = match_paren(masked, m.end() - 1)
        blank(out, m.start(), close + 1 if close >= 0 else n)
    return "".join(out)


def context(line, s, e, rep):
    """The changed token with a little of what surrounds it, before and after."""
    left = re.search(r"(\S+\s+)?\S*\s*$", line[:s]).group()
    right = re.match(r"\s*\S*", line[e:]).group()
    return left + line[s:e] + right, left + rep + right


def line_mutants(o, m, starts_stmt):
    """(start, end, replacement, kind, whole) for one line: o is the original
    text, m its masked copy; whole=True shows the changed span itself."""
    found = []
    for x in re.finditer(r"(?<![<>=!])(==|!=|<=|>=)(?![=>])|(?<=\s)(<|>)(?=\s)", m):
        op = x.group()
        found.append((x.start(), x.end(), CMP_FLIP[op], "flip-cmp", False))
        if op in CMP_OFF_BY_ONE:
            found.append((x.start(), x.end(), CMP_OFF_BY_ONE[op], "off-by-one", False))
    for x in re.finditer(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.'])", m):
        decl = re.search(r"([A-Za-z_]\w*)[\s*&]+[A-Za-z_]\w*\s*(\[[^\]]*\]\s*)*\[$", m[:x.start()])
        if decl and decl.group(1) not in KEYWORDS:
            continue  # an array's declared size, in any dimension
        digits = x.group(1)
        value = int(digits, 16) + 1 if digits[:2] in ("0x", "0X") else int(digits) + 1
        rep = (digits[:2] + format(value, "x") if digits[:2] in ("0x", "0X") else str(value)) + x.group(2)
        found.append((x.start(), x.end(), rep, "constant", False))
    for x in re.finditer(r"\bif\s*\(", m):
        close = match_paren(m, x.end() - 1)
        cond = m[x.end():close]
        if close < 0 or ";" in cond or re.match(r"\s*(const\s+)?[\w:<>]+[\s*&]+\w+\s*=[^=]", cond):
            continue  # goes on below, or declares a variable
        found.append((x.end() - 1, close + 1, "(!(" + o[x.end():close] + "))", "negate-if", True))
    stmt = m.strip()
    if not starts_stmt or stmt.count(";") != 1 or not stmt.endswith(";") or stmt.count("(") != stmt.count(")"):
        return found
    s, e = len(m) - len(m.lstrip()), len(m.rstrip())
    ret = re.fullmatch(r"return\s+(.+?)\s*;", stmt)
    if ret:
        value = ret.group(1)
        rep = {"0": "-1", "-1": "0", "true": "false", "false": "true"}.get(value, "{}")
        if value not in ("{}", "nullptr", "NULL"):
            found.append((s, e, f"return {rep};", "return-value", True))
    elif re.match(r"\w*", stmt).group() not in KEYWORDS and (
            re.fullmatch(r"[\w:.\->\[\]*&]+\s*\(.*\)\s*;", stmt)  # a call
            or re.fullmatch(r"[\w:.\->\[\]*]+\s*([-+*/%&|^]|<<|>>)?=[^=].*;", stmt)  # an assignment
            or re.fullmatch(r"(\+\+|--)[\w.\->\[\]]+\s*;|[\w.\->\[\]]+(\+\+|--)\s*;", stmt)):
        found.append((s, e, "{}", "remove-stmt", True))
    return found


def file_mutants(path, rel):
    text = path.read_bytes().decode()
    olines, mlines = text.split("\n"), mask(text).split("\n")
    depth, tail, mutants, seen = 0, ";", [], {}  # tail: the last line holding code
    for no, (o, m) in enumerate(zip(olines, mlines), 1):
        starts_stmt = depth == 0 and (tail[-1] in ";{}:)" or re.search(r"\b(else|do)$", tail))
        for s, e, rep, kind, whole in line_mutants(o, m, starts_stmt):
            orig, mutated = (o[s:e], rep) if whole else context(o, s, e, rep)
            change = f"{kind}: {orig.strip()} -> {mutated.strip()}"
            mid, key = f"{rel}:{no} {change}", f"{rel} {change}"
            seen[mid], seen[key] = seen.get(mid, 0) + 1, seen.get(key, 0) + 1
            mutants.append({"id": mid + (f" #{seen[mid]}" if seen[mid] > 1 else ""),
                            "key": key + (f" #{seen[key]}" if seen[key] > 1 else ""), "file": rel, "line": no,
                            "kind": kind, "module": rel.split("/")[0] if "/" in rel else "(top)",
                            "start": s, "end": e, "replacement": rep,
                            "line_text": o.strip(), "mutated_line": (o[:s] + rep + o[e:]).strip()})
        for c in m:
            depth += {"(": 1, ")": -1, "[": 1, "]": -1}.get(c, 0)
        tail = m.rstrip() if m.strip() else tail
    return mutants


def all_mutants(src):
    found = []
    for path in sorted(p for p in src.rglob("*") if p.suffix in (".cpp", ".h") and p.is_file()):
        found += file_mutants(path, path.relative_to(src).as_posix())
    return found


# ---------------------------------------------------------------- running


def run(cmd, timeout=None, cwd=None):
    """Runs cmd in its own process group; returns (rc, output), rc None on timeout."""
    proc = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            start_new_session=True)
    try:
        out = proc.communicate(timeout=timeout)[0]
        return proc.returncode, out
    except subprocess.TimeoutExpired:
        for sig, grace in ((signal.SIGINT, 30), (signal.SIGKILL, None)):
            try:
                os.killpg(proc.pid, sig)
                return None, proc.communicate(timeout=grace)[0]
            except (ProcessLookupError, subprocess.TimeoutExpired):
                pass
        return None, proc.communicate()[0]


def source_files(rev):
    """{relative path: (bytes, mode)} of the working tree (tracked and untracked,
    not ignored) or of a committed revision."""
    if rev:
        blob = subprocess.run(["git", "-C", str(REPO), "archive", rev], check=True, capture_output=True).stdout
        with tarfile.open(fileobj=io.BytesIO(blob)) as tar:
            return {t.name: (tar.extractfile(t).read(), t.mode) for t in tar if t.isfile()}
    names = subprocess.run(["git", "-C", str(REPO), "ls-files", "-z", "-co", "--exclude-standard"], check=True,
                           capture_output=True, text=True).stdout.split("\0")
    return {n: ((REPO / n).read_bytes(), (REPO / n).stat().st_mode & 0o777) for n in names if (REPO / n).is_file()}


def sync_copy(files, dest):
    """Makes dest hold exactly files, rewriting only what changed so that the
    build stays incremental between runs."""
    for path in [p for p in dest.rglob("*") if p.is_file() and p.relative_to(dest).as_posix() not in files]:
        path.unlink()
    for name, (data, mode) in files.items():
        path = dest / name
        if not path.is_file() or path.read_bytes() != data:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(data)
        os.chmod(path, mode & 0o777)


def short_name(test):
    return test.split("  # ")[0]  # drops GetParam() dumps, which hold addresses


def cmake_regex(names):
    return "^(" + "|".join(re.sub(r"([][^$.()*+?|\\])", r"\\\1", n) for n in names) + ")( |$)"


class Runner:
    def __init__(self, args):
        self.args, self.repo, self.build = args, args.work / "repo", args.work / "build"
        self.error = ""  # the first error line of the last build
        self.unit_excluded, self.e2e_excluded = [], []  # tests failing on the unmutated tree
        self.e2e_timeout = None
        self.deadline = None  # time.time() by which the current mutant must be done
        self.e2e_kills = {}  # module: e2e files that killed its mutants so far, most recent first

    def left(self):
        return None if self.deadline is None else max(1.0, self.deadline - time.time())

    def compile(self):
        rc, out = run(["cmake", "--build", str(self.build), f"-j{self.args.j}"], timeout=self.left())
        self.error = next((ln.strip() for ln in out.splitlines() if "error:" in ln), "")
        if rc is None:
            self.error = "(build timed out)"
        if rc != 0 and "Error running test executable" in out:
            return "discovery"  # a test binary crashed while listing its tests
        return rc == 0

    def unit(self, all_tests=False):
        """Names of the failing unit tests ([] when all pass)."""
        cmd = ["ctest", "--test-dir", str(self.build), "-L", "unit", "--no-tests=error", f"-j{self.args.j}",
               "--timeout", str(self.args.unit_timeout)]
        cmd += [] if all_tests or self.args.per_test else ["--stop-on-failure"]
        cmd += ["-E", cmake_regex(self.unit_excluded)] if self.unit_excluded else []
        guard = self.args.unit_timeout * 20 + 60  # ctest times out single tests
        rc, out = run(cmd, timeout=min(guard, self.left() or guard))
        failed = [short_name(t) for t in re.findall(r"^\s*\d+ - (.+) \([^()]+\)$", out, re.M)]
        return failed or ([] if rc == 0 else ["(ctest " + ("timed out)" if rc is None else f"exit {rc})")])

    def e2e_files(self, module):
        """The end-to-end files, those most likely to fail for a mutant of module first."""
        files = sorted(p.name for p in (self.repo / "tests" / "e2e").glob("test_*.py"))
        rank = {}
        for name in self.e2e_kills.get(module, []) + E2E_FIRST.get(module, []):
            rank.setdefault(name, len(rank))
        order = {name: k for k, name in enumerate(E2E_ORDER)}
        return sorted(files, key=lambda f: (rank.get(f, len(rank)), order.get(f, order["*"]), f))

    def e2e(self, all_tests=False, module=None):
        """Node ids of the failing end-to-end tests ([] when all pass)."""
        cmd = list(self.e2e_cmd)
        if not all_tests:
            top = str(self.repo / "tests" / "e2e")
            for k in [k for k, a in enumerate(cmd) if a.rstrip("/") == top]:
                cmd[k:k + 1] = [f"{top}/{f}" for f in self.e2e_files(module)]
            cmd.append("-x")
        cmd += [f"--deselect={t}" for t in self.e2e_excluded]
        timeout = self.e2e_timeout if self.left() is None else min(self.e2e_timeout, self.left())
        rc, out = run(cmd, cwd=self.repo, timeout=timeout)
        failed = re.findall(r"^(?:FAILED|ERROR) (\S+)", out, re.M)
        return failed or ([] if rc == 0 else ["(pytest " + ("timed out)" if rc is None else f"exit {rc})")])

    def prepare(self):
        self.repo.mkdir(parents=True, exist_ok=True)
        sync_copy(source_files(self.args.rev), self.repo)
        run(["cmake", "-S", str(self.repo), "-B", str(self.build), "-DCMAKE_BUILD_TYPE=RelWithDebInfo"])
        t0 = time.time()
        if self.compile() is not True:
            sys.exit(f"mutate: the unmodified tree does not build (cmake --build {self.build})")
        self.unit_excluded = self.unit(all_tests=True)
        print(f"baseline built and unit-tested in {time.time() - t0:.0f}s", flush=True)
        if self.unit_excluded:
            print("warning: failing without any mutant, left out: " + ", ".join(self.unit_excluded))
        listing = subprocess.run(["ctest", "--test-dir", str(self.build), "--show-only=json-v1"],
                                 capture_output=True, text=True, check=True).stdout
        tests = json.loads(listing)["tests"]
        self.unit_tests = sorted({short_name(t["name"]) for t in tests if any("unit" in label for label in labels(t))}
                                 - set(self.unit_excluded))
        e2e = [t for t in tests if "e2e" in labels(t)]
        # Run from the copy's top with it as pytest's root, so that the node ids
        # pytest reports are the ones --deselect takes.
        self.e2e_cmd = e2e[0]["command"] + [f"--rootdir={self.repo}"] if e2e else None

    def apply(self, mutant):
        path = self.repo / "src" / mutant["file"]
        original = path.read_bytes()
        lines = original.decode().split("\n")
        line = lines[mutant["line"] - 1]
        lines[mutant["line"] - 1] = line[:mutant["start"]] + mutant["replacement"] + line[mutant["end"]:]
        path.write_bytes("\n".join(lines).encode())
        return path, original

    def trial(self, mutant, stage):
        """Applies, builds and tests one mutant within the per-mutant timeout;
        returns 'no-compile' or the list of failing tests (a test run cut by the
        timeout counts as failing: the test command would not have passed). The
        file is restored (and touched) whatever happens."""
        limit = self.args.timeout or (self.e2e_timeout if stage == "e2e" else 600)
        self.deadline = time.time() + limit
        path, original = self.apply(mutant)
        try:
            built = self.compile()
            if built == "discovery":
                return ["(test discovery)"]
            if not built:
                return "no-compile"
            return self.unit() if stage == "unit" else self.e2e(module=mutant["module"])
        finally:
            self.deadline = None
            path.write_bytes(original)
            os.utime(path)  # newer than the mutant's objects, so they are rebuilt


def labels(test):
    return next((p["value"] for p in test.get("properties", []) if p["name"] == "LABELS"), [])


# ---------------------------------------------------------------- reports


def greedy_cover(kills):
    """A small set of tests that together kill every mutant any test kills."""
    left, chosen = set().union(*kills.values()) if kills else set(), []
    while left:
        best = max(sorted(kills), key=lambda t: len(kills[t] & left))
        chosen.append((best, len(kills[best] & left)))
        left -= kills[best]
    return chosen


STATUSES = (("killed-unit", "by unit"), ("killed-e2e", "by e2e only"), ("survived", "survived"),
            ("no-compile", "no compile"), ("equivalent", "equivalent"))


def scores(mutants, e2e):
    """(unit-only score, unit + e2e score) in percent, None where nothing counts
    or the e2e stage was not run: killed / (compiled and not equivalent)."""
    counted = [m for m in mutants if m["status"] in ("killed-unit", "killed-e2e", "survived")]
    if not counted:
        return None, None
    unit = 100 * sum(m["status"] == "killed-unit" for m in counted) / len(counted)
    both = 100 * sum(m["status"] != "survived" for m in counted) / len(counted)
    return unit, both if e2e else None


def pct(x):
    return "-" if x is None else f"{x:.0f}%"


def e2e_times(mutants):
    """One line on how long the e2e stage took per unit survivor, or ''."""
    done = [m for m in mutants if "e2e_seconds" in m]
    if not done:
        return ""
    part = []
    for title, ms in (("killed", [m for m in done if m["status"] == "killed-e2e"]),
                      ("survived", [m for m in done if m["status"] == "survived"])):
        if ms:
            secs = sorted(m["e2e_seconds"] for m in ms)
            part.append(f"{len(ms)} {title}: mean {sum(secs) / len(secs):.0f}s, longest {secs[-1]:.0f}s")
    return "e2e stage per unit survivor: " + "; ".join(part)


def seed_report(run):
    """The table of one seed's run (its shards joined), then what did not count
    and what survived."""
    mutants = run["mutants"]
    print(f"\nseed {run['seed']}: {len(mutants)} mutants, " + ("unit + e2e" if run["e2e"] else "unit only"))
    print("module          " + "".join(f"{t:>12}" for _, t in STATUSES) + "  unit score    +e2e")
    for mod in sorted({m["module"] for m in mutants}) + ["all"]:
        ms = [m for m in mutants if mod in ("all", m["module"])]
        unit, both = scores(ms, run["e2e"])
        print(f"{mod:<16}" + "".join(f"{sum(m['status'] == s for m in ms):>12}" for s, _ in STATUSES)
              + f"{pct(unit):>12}{pct(both):>8}")
    for title, status in (("did not compile", "no-compile"), ("equivalent (not scored)", "equivalent"),
                          ("survivors", "survived")):
        chosen = [m for m in mutants if m["status"] == status]
        print(f"\n{title}: {len(chosen)}")
        for m in chosen:
            print(f"  {m['id']}" + (f"\n      {m['mutated_line']}" if status == "survived" else ""))
    if e2e_times(mutants):
        print("\n" + e2e_times(mutants))


def mean_report(runs):
    """Per module and overall: each seed's scores and their mean."""
    modules = sorted({m["module"] for r in runs for m in r["mutants"]}) + ["all"]
    seeds = [str(r["seed"]) for r in runs]
    print(f"\nmean over {len(runs)} seeds ({', '.join(seeds)}), killed / (compiled and not equivalent)")
    for title, which in (("unit only", 0), ("unit + e2e", 1)):
        print(f"\n{title:<16}" + "".join(f"{s[:10]:>11}" for s in seeds) + "       mean")
        for mod in modules:
            got = [scores([m for m in r["mutants"] if mod in ("all", m["module"])], r["e2e"])[which] for r in runs]
            known = [x for x in got if x is not None]
            mean = sum(known) / len(known) if known else None
            print(f"{mod:<16}" + "".join(f"{pct(x):>11}" for x in got) + f"{pct(mean):>11}"
                  + (f"  (of {len(known)} seeds)" if known and len(known) < len(got) else ""))


def join_runs(results):
    """Result files grouped by seed: the shards of one sample become one run."""
    runs = {}
    for res in results:
        run = runs.setdefault(res["seed"], {"seed": res["seed"], "e2e": res["e2e"], "mutants": []})
        run["e2e"] = run["e2e"] and res["e2e"]
        run["mutants"] += res["mutants"]
    return list(runs.values())


def report(runs, runner=None, per_test=False):
    for run in runs:
        seed_report(run)
    if len(runs) > 1:
        mean_report(runs)
    if per_test:
        mutants = runs[0]["mutants"]
        kills = {t: set() for t in runner.unit_tests}
        for m in mutants:
            for t in m.get("unit_failed", []):
                kills.setdefault(t, set()).add(m["id"])
        idle = [t for t in runner.unit_tests if not kills[t]]
        print(f"\nunit tests that killed no mutant: {len(idle)} of {len(runner.unit_tests)}")
        for t in idle:
            print(f"  {t}")
        cover = greedy_cover(kills)
        print(f"\na greedy set of {len(cover)} unit tests killing all {sum(n for _, n in cover)} unit-killed mutants:")
        for t, n in cover:
            print(f"  {t} (+{n})")


def unit_stage(runner, mutants, equivalent):
    for k, m in enumerate(mutants, 1):
        t0, tag = time.time(), f"[{k}/{len(mutants)}] {m['id']} ..."
        if m["key"] in equivalent:
            m["status"] = "equivalent"
            print(f"{tag} listed as equivalent, not run", flush=True)
            continue
        res = runner.trial(m, "unit")
        m["seconds"] = round(time.time() - t0, 1)
        if res == "no-compile":
            m["status"], m["error"], verdict = "no-compile", runner.error, "did not compile"
        else:
            m["unit_failed"] = res
            m["status"] = "killed-unit" if res else "survived"
            verdict = f"killed (unit: {', '.join(res[:3])})" if res else "survived unit"
        print(f"{tag} {verdict} {m['seconds']}s", flush=True)


def e2e_stage(runner, survivors):
    t0 = time.time()
    if runner.compile() is not True:
        sys.exit("mutate: the restored tree does not build")
    runner.e2e_excluded = runner.e2e(all_tests=True)
    runner.e2e_timeout = 3 * (time.time() - t0) + 60
    print(f"\ne2e baseline in {time.time() - t0:.0f}s", flush=True)
    if runner.e2e_excluded:
        print("warning: failing without any mutant, deselected: " + ", ".join(runner.e2e_excluded))
    for k, m in enumerate(survivors, 1):
        t0 = time.time()
        res = runner.trial(m, "e2e")
        m["e2e_seconds"] = round(time.time() - t0, 1)
        m["e2e_failed"] = res if res != "no-compile" else []
        m["status"] = "no-compile" if res == "no-compile" else "killed-e2e" if res else "survived"
        verdict = f"killed (e2e: {', '.join(res[:2])})" if m["status"] == "killed-e2e" else m["status"]
        print(f"[e2e {k}/{len(survivors)}] {m['id']} ... {verdict} {m['e2e_seconds']:.0f}s", flush=True)
        kills = runner.e2e_kills.setdefault(m["module"], [])
        for name in reversed([f.split("::")[0].rsplit("/", 1)[-1] for f in m["e2e_failed"] if "::" in f]):
            kills[:] = [name] + [x for x in kills if x != name]


def new_seed():
    return int.from_bytes(os.urandom(4), "big") or int(time.time())


def sample(pool, size, seed):
    """Indexes into pool of the sampled mutants: size split across the modules in
    proportion to their share of the pool (at least one each, the rounding
    going to the largest remainders), each module's quota taken in the order of
    a hash of the seed and of what the mutant changes. The hash leaves out the
    line number, so an edit elsewhere in src/ leaves the rest of the sample as
    it was and runs before and after an edit can be compared."""
    counts, ranked = {}, {}
    for k, m in enumerate(pool):
        key = "\0".join(str(m[f]) for f in ("file", "kind", "line_text", "start", "replacement"))
        counts[key] = counts.get(key, 0) + 1
        ranked.setdefault(m["module"], []).append(
            (hashlib.sha256(f"{seed}\0{key}\0{counts[key]}".encode()).digest(), k))
    if not size or size >= len(pool):
        return list(range(len(pool)))
    share = {mod: size * len(r) / len(pool) for mod, r in ranked.items()}
    quota = {mod: max(1, int(x)) for mod, x in share.items()}
    while sum(quota.values()) > size and max(quota.values()) > 1:  # the minimums pushed it over
        quota[max((q for q in quota if quota[q] > 1), key=lambda q: (quota[q] - share[q], q))] -= 1
    while sum(quota.values()) < size:
        quota[max((q for q in quota if quota[q] < len(ranked[q])), key=lambda q: (share[q] - quota[q], q))] += 1
    return sorted(k for mod, r in ranked.items() for _, k in sorted(r)[:quota[mod]])


def read_equivalent(path, pool, only):
    """The keys listed in path; warns of those no mutant of pool has (stale after
    an edit of the file they name), unless --only left their file out."""
    if not path.is_file():
        return set()
    keys = {ln.strip() for ln in path.read_text().splitlines() if ln.strip() and not ln.lstrip().startswith("#")}
    files = {m["file"] for m in pool}
    stale = sorted(k for k in keys - {m["key"] for m in pool} if not only or k.split(" ")[0] in files)
    if stale:
        print(f"warning: {path.name} lists mutants that src/ no longer has:\n  " + "\n  ".join(stale))
    return keys


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--seed", type=int, help="picks the sample; a fresh one each run unless given (the same seed: "
                    "the same mutants, but for those an edit changed)")
    ap.add_argument("--sample", type=int, default=120, help="how many mutants (0: all), split across the modules "
                    "in proportion to their share")
    ap.add_argument("--work", type=Path, default=Path("/tmp/dorvand-mutate"), help="scratch folder")
    ap.add_argument("--json", type=Path, help="result file (default WORK/mutants.json)")
    ap.add_argument("--only", help="glob on the file below src/, e.g. 'scan/*' or 'neighbours/kh_*.cpp'")
    ap.add_argument("--rev", help="mutate this commit instead of the working tree")
    ap.add_argument("--equivalent", type=Path, default=REPO / "scripts" / "mutate-equivalent.txt",
                    help="keys of mutants known to be equivalent, one a line")
    ap.add_argument("--no-e2e", action="store_true", help="stop after the unit tests")
    ap.add_argument("--per-test", action="store_true", help="run every unit test on every mutant")
    ap.add_argument("--list", action="store_true", help="print the sampled mutants and stop")
    ap.add_argument("--unit-timeout", type=int, default=30, help="seconds per unit test")
    ap.add_argument("--timeout", type=int, help="seconds for one mutant's build and tests, in each stage (default: "
                    "600 for the unit stage, three times the unmodified e2e run and a minute for the e2e stage); "
                    "tests cut by it count as failing")
    ap.add_argument("-j", type=int, default=2, help="build and ctest jobs")
    ap.add_argument("--shard", help="K/N: run only every N-th sampled mutant from the K-th (1-based), so that N runs "
                    "with their own --work and one --seed share one sample; join them with --report")
    ap.add_argument("--report", type=Path, nargs="+", help="print the report of these result files (the shards "
                    "of one seed joined, the mean over the seeds) and stop")
    args = ap.parse_args()
    if args.report:
        report(join_runs([json.loads(f.read_text()) for f in args.report]))
        return
    if args.shard and args.seed is None:
        ap.error("--shard needs --seed: the shards of one sample share its seed")
    if args.seed is None:
        args.seed = new_seed()
    print(f"seed {args.seed} (--seed {args.seed} repeats this sample)", flush=True)
    args.work = args.work.resolve()
    runner = Runner(args)
    if args.list:
        runner.repo.mkdir(parents=True, exist_ok=True)
        sync_copy(source_files(args.rev), runner.repo)
    else:
        runner.prepare()

    full = all_mutants(runner.repo / "src")
    pool = [m for m in full if not args.only or fnmatch.fnmatch(m["file"], args.only)
            or fnmatch.fnmatch("src/" + m["file"], args.only)]
    mutants = [pool[k] for k in sample(pool, args.sample, args.seed)]
    per_module = {}
    for m in mutants:
        per_module[m["module"]] = per_module.get(m["module"], 0) + 1
    print(f"{len(mutants)} of {len(pool)} mutants (seed {args.seed}): "
          + ", ".join(f"{mod} {n}" for mod, n in sorted(per_module.items())), flush=True)
    if args.shard:
        k, n = (int(x) for x in args.shard.split("/"))
        mutants = mutants[k - 1::n]
        print(f"shard {k} of {n}: {len(mutants)} mutants", flush=True)
    equivalent = read_equivalent(args.equivalent, full, args.only)
    if args.list:
        print("\n".join("  " + m["id"] + ("  (equivalent)" if m["key"] in equivalent else "") for m in mutants))
        return

    started = time.time()
    unit_stage(runner, mutants, equivalent)
    survivors = [m for m in mutants if m["status"] == "survived"]
    if survivors and not args.no_e2e and runner.e2e_cmd:
        e2e_stage(runner, survivors)
    run_ = {"seed": args.seed, "e2e": not args.no_e2e and bool(runner.e2e_cmd), "mutants": mutants}
    report([run_], runner, args.per_test)
    print(f"\n{len(mutants)} mutants in {(time.time() - started) / 60:.1f} min (seed {args.seed})")
    out = args.json or args.work / "mutants.json"
    out.write_text(json.dumps({"seed": args.seed, "sample": args.sample, "rev": args.rev or "working tree",
                               "only": args.only, "shard": args.shard, "e2e": run_["e2e"], "mutants": mutants},
                              indent=1))
    print(f"results: {out}")


if __name__ == "__main__":
    main()
