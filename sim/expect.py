"""Checks a scenario's expectations against a running (or ended) sandbox,
and reads the daemon's key-holder files and scan databases for them and for
the report.

Every check returns (holds, detail); the detail says what was found. The
expected values are written literally in the scenario, worked out from the
daemon's rules by the scenario's author; nothing here derives them from the
daemon's own output.
"""

from __future__ import annotations

import re
import sqlite3
from collections import Counter
from pathlib import Path

from sim.logwatch import BANDS, LogWatcher
from sim.scenario import Expectation, mac_text

KEY_HOLDERS = "/var/roam_key_holders"
AP2MAC = "/tmp/ap2_macaddr.txt"
AP2MAC_TMP = "/tmp/tmp_ap2_macaddr.txt"
FT_KEY_CHANGED = "/tmp/ft_key_changed.txt"
DB_FILES = {"2g": "/tmp/scan_db_2g", "5g": "/tmp/scan_db_5g", "5gh": "/tmp/scan_db_5gh"}
RECORD = 16
AP2_LINE_RE = re.compile(r"^ap2_macaddr_wifi([0-2])vap([0-9])=(.*)$")
BSSID_RE = re.compile(r"^[0-9A-F]{2}(:[0-9A-F]{2}){5}$")
FT_LINE_RE = re.compile(r"^ft_key_changed_wifi[0-2]vap[0-9]=1,-?[0-9]+$")


class Checker:
    def __init__(self, sb, watcher: LogWatcher):
        self.sb = sb
        self.watcher = watcher

    def check(self, x: Expectation) -> tuple[bool, str]:
        try:
            return getattr(self, "_" + x.kind)(x.args)
        except (OSError, sqlite3.Error) as e:
            return False, f"{type(e).__name__}: {e}"

    def _file(self, a: dict) -> tuple[bool, str]:
        path = self.sb.path(a["file"])
        if not path.exists():
            return not a["exists"], f"{a['file']} is missing"
        if not a["exists"]:
            return False, f"{a['file']} exists"
        text = path.read_bytes().decode("utf-8", "replace")
        if a["text"] is not None and text != a["text"]:
            return False, f"{a['file']}: {first_difference(a['text'].splitlines(), text.splitlines())}"
        lines = text.splitlines()
        if a["lines"] is not None:
            if len(lines) != len(a["lines"]):
                return False, f"{a['file']} has {len(lines)} lines, expected {len(a['lines'])}"
            if a["unordered"]:
                lines = sorted(lines, key=lambda ln: ln.partition("=")[0])
                want = sorted(a["lines"], key=lambda ln: ln.partition("=")[0])
            else:
                want = a["lines"]
            for n, (w, g) in enumerate(zip(want, lines), 1):
                if not line_equal(w, g, a["unordered"]):
                    return False, f"{a['file']} line {n} is {g!r}, expected {w!r}"
        for want in a["has_lines"]:
            if not any(line_equal(want, got, a["unordered"]) for got in lines):
                return False, f"{a['file']} has no line {want!r}{closest_line(want, lines)}"
        return True, f"{len(lines)} lines"

    def _key_holders(self, a: dict) -> tuple[bool, str]:
        data = read_bytes(self.sb.path(KEY_HOLDERS))
        if data is None:
            return False, f"{KEY_HOLDERS} is missing"
        got = parse_records(data)
        same = Counter(got) == Counter(a["records"]) if a["unordered"] else got == a["records"]
        if len(data) % RECORD or not same:
            return False, f"{len(data)} bytes: {format_records(got)}, expected {format_records(a['records'])}"
        return True, f"{len(got)} records"

    def _db(self, a: dict) -> tuple[bool, str]:
        rows = read_table(self.sb.path(DB_FILES[a["db"]]), a["table"])
        if rows is None:
            return False, f"no database {DB_FILES[a['db']]}"
        for want in a["rows"]:
            if not any(all(row.get(k) == v for k, v in want.items()) for row in rows):
                return False, f"{a['db']} {a['table']} has no row {want}{closest_row(want, rows)}"
        if a["count"] is not None and len(rows) != a["count"]:
            return False, f"{a['db']} {a['table']} has {len(rows)} rows, expected {a['count']}"
        return True, f"{len(rows)} rows"

    def _script_runs(self, a: dict) -> tuple[bool, str]:
        return in_range(len(self.sb.script_runs()), a, "script runs")

    def _script_run(self, a: dict) -> tuple[bool, str]:
        runs = self.sb.script_runs()
        i = a["script_run"]
        if not -len(runs) <= (i - 1 if i > 0 else i) < len(runs):
            return False, f"only {len(runs)} script runs"
        run = runs[i - 1 if i > 0 else i]
        if a["new_key_changes"] is not None:
            index = i - 1 if i > 0 else len(runs) + i
            before = len((runs[index - 1]["ft_key_changed.txt"] or b"").splitlines()) if index else 0
            got = (run["ft_key_changed.txt"] or b"").decode("utf-8", "replace").splitlines()[before:]
            if got != a["new_key_changes"]:
                return False, f"run {i}: new ft_key_changed.txt lines: {first_difference(a['new_key_changes'], got)}"
        for key, name in (("ap2_macaddr", "ap2_macaddr.txt"), ("ft_key_changed", "ft_key_changed.txt")):
            if a[key] is not None:
                got = (run[name] or b"").decode("utf-8", "replace").splitlines()
                if got != a[key]:
                    return False, f"run {i}: {name}: {first_difference(a[key], got)}"
        if a["records"] is not None:
            got = parse_records(run["roam_key_holders"] or b"")
            if got != a["records"]:
                return False, f"run {i}: roam_key_holders {format_records(got)}, expected {format_records(a['records'])}"
        return True, f"run {i} of {len(runs)}"

    def _log(self, a: dict) -> tuple[bool, str]:
        return in_range(self.watcher.count(a["log"]), a, f"log lines with {a['log']!r}")

    def _syslog(self, a: dict) -> tuple[bool, str]:
        n = sum(a["syslog"] in m for m in self.sb.syslog_lines())
        return in_range(n, a, f"syslog lines with {a['syslog']!r}")

    def _requests(self, a: dict) -> tuple[bool, str]:
        recs = [r for r in self.sb.requests(a["requests"]) if all(r.get(k) == v for k, v in a["fields"].items())]
        return in_range(len(recs), a, f"driver requests {a['requests']} {a['fields'] or ''}".rstrip())

    def _running(self, a: dict) -> tuple[bool, str]:
        alive = self.sb.running() and self.sb.exit_code() is None
        return alive == a["running"], "the daemon " + ("runs" if alive else f"has ended ({self.sb.exit_code()})")

    def _exit_code(self, a: dict) -> tuple[bool, str]:
        code = self.sb.exit_code()
        return code == a["exit_code"], f"exit code {code}"

    def _consistent(self, a: dict) -> tuple[bool, str]:
        problems = consistency_problems(self.sb.path)
        if a["consistent"]:
            return not problems, "; ".join(problems[:4]) or "files consistent"
        return bool(problems), "; ".join(problems[:4]) or "files consistent"


# ---- the key-holder files --------------------------------------------------------------


def read_bytes(path: Path) -> bytes | None:
    try:
        return path.read_bytes()
    except FileNotFoundError:
        return None


def parse_records(data: bytes) -> list[tuple[bytes, int, int]]:
    """(MAC, active, family) of every whole 16-byte record; the two link
    words are ignored, as every reader of the file does."""
    return [(data[i + 8:i + 14], data[i + 14], data[i + 15]) for i in range(0, len(data) - RECORD + 1, RECORD)]


def format_records(records) -> str:
    return "[" + ", ".join(f"{mac_text(m)} {act} {fam}" for m, act, fam in records) + "]"


def consistency_problems(path) -> list[str]:
    """What is wrong with the files a running daemon leaves between two
    updates; `path` maps a daemon path to the host. Whole, distinct
    key-holder records; one well-formed line per VAP in ap2_macaddr.txt;
    well-formed key-change lines; no temporary file left; sound databases.
    (Which BSSIDs a line holds depends on the history of the VAP's 802.11r
    status, so that is left to the scenarios' exact expectations.)"""
    out = []
    data = read_bytes(path(KEY_HOLDERS)) or b""
    if len(data) % RECORD:
        out.append(f"{KEY_HOLDERS} is {len(data)} bytes, not whole 16-byte records")
    records = parse_records(data)
    if len({r[0] for r in records}) != len(records):
        out.append(f"{KEY_HOLDERS} holds a MAC twice")
    if path(AP2MAC_TMP).exists():
        out.append(f"{AP2MAC_TMP} left behind")
    vaps: set[tuple[int, int]] = set()
    for line in text_lines(path(AP2MAC)):
        m = AP2_LINE_RE.match(line)
        words = m.group(3).split() if m else []
        if not m or not all(BSSID_RE.match(w) for w in words):
            out.append(f"malformed line {line!r} in {AP2MAC}")
            continue
        key = (int(m.group(1)), int(m.group(2)))
        if key in vaps:
            out.append(f"two lines for wifi{key[0]}vap{key[1]} in {AP2MAC}")
        vaps.add(key)
    out += [f"malformed line {ln!r} in {FT_KEY_CHANGED}" for ln in text_lines(path(FT_KEY_CHANGED))
            if not FT_LINE_RE.match(ln)]
    for band, rel in DB_FILES.items():
        if path(rel).exists() and not path("/" + BANDS[band]["marker"]).exists():
            verdict = db_integrity(path(rel))
            if verdict != "ok":
                out.append(f"{rel}: {verdict}")
    return out


def text_lines(path: Path) -> list[str]:
    try:
        return path.read_text(errors="replace").splitlines()
    except FileNotFoundError:
        return []


# ---- databases ---------------------------------------------------------------------------------


def read_table(path: Path, table: str) -> list[dict] | None:
    """Every row of a scan database's table, None when the file is missing.
    Read-only: the daemon writes without a busy time-out, so the reader must
    not hold a lock longer than one read."""
    if not path.exists():
        return None
    con = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=0.5)
    try:
        con.row_factory = sqlite3.Row
        return [dict(r) for r in con.execute(f"SELECT * FROM {table}")]
    finally:
        con.close()


def db_integrity(path: Path) -> str:
    try:
        con = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=0.5)
        try:
            return con.execute("PRAGMA integrity_check").fetchone()[0]
        finally:
            con.close()
    except sqlite3.Error as e:
        return str(e)


def closest_row(want: dict, rows: list[dict]) -> str:
    key = next(iter(want))
    near = [r for r in rows if r.get(key) == want[key]]
    return f"; found {near[0]}" if near else f"; no row with {key}={want[key]!r}"


# ---- comparing and describing ---------------------------------------------------------------


def line_equal(want: str, got: str, unordered: bool) -> bool:
    """Equal lines; unordered: the same key and the same words after the
    '=', in any order (for files whose order depends on which band's scan
    came first)."""
    if not unordered:
        return want == got
    wk, _, wv = want.partition("=")
    gk, _, gv = got.partition("=")
    return wk == gk and Counter(wv.split()) == Counter(gv.split())


def in_range(n: int, a: dict, what: str) -> tuple[bool, str]:
    lo, hi = a["min"], a["max"]
    ok = n >= lo and (hi is None or n <= hi)
    want = f"{lo}" if hi == lo else (f"at least {lo}" if hi is None else f"{lo} to {hi}")
    return ok, f"{n} {what} (expected {want})"


def closest_line(want: str, lines: list[str]) -> str:
    key = want.split("=", 1)[0] + "="
    near = [ln for ln in lines if ln.startswith(key)]
    if near:
        return f"; it has {near[0]!r}"
    return f"; it has {len(lines)} lines" + (f", the first {lines[0]!r}" if lines else "")


def first_difference(want: list[str], got: list[str]) -> str:
    for i, (w, g) in enumerate(zip(want, got), 1):
        if w != g:
            return f"line {i} is {g!r}, expected {w!r}"
    if len(want) != len(got):
        n = min(len(want), len(got))
        extra = got[n] if len(got) > n else want[n]
        return f"{len(got)} lines, expected {len(want)}; line {n + 1}: {extra!r}"
    return "the same"
