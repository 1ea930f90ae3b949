"""Helpers for the scan tests: the configuration lines that turn scanning on,
the driver requests of one radio with their daemon times, the daemon's log as
timed entries, the scan databases' rows, and the timing checks."""

from __future__ import annotations

import calendar
import re
import sqlite3
import time
from contextlib import closing
from dataclasses import dataclass

ROGUE_LINE = "system:wlanSettings:wlanSettingTable:wlan{radio}:rogueApDetection {value}\n"
KNOWN_AP_LINE = "system:apList:knownApTable:wlan{radio}:{name}:{mac} {attrs}\n"
FT_STATUS_KEY = "system:vapSettings:vapSettingTable:wlan{radio}:vap{vap}:11rStatus"
SCAN_DBS = ("/tmp/scan_db_2g", "/tmp/scan_db_5g", "/tmp/scan_db_5gh")
MARKERS = ("/tmp/DB2G_UPDATION_IN_PROGRESS", "/tmp/DB5G_UPDATION_IN_PROGRESS", "/tmp/DB5GH_UPDATION_IN_PROGRESS")

# How late a timer may fire, or a short wait may end, in real seconds: the
# event loop's own overhead plus scheduling delays on a busy test machine.
# Shell commands are never inside the intervals measured with it.
JITTER_REAL = 0.02
# How early a timer may seem to fire: the rounding of the loop's clock ticks
# and of the request log's times.
EARLY = 0.5

_IFNAME_RE = re.compile(r"^(?:wifi|ath)(\d)")
_ENTRY_RE = re.compile(r"^\[(\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4})\] \[(\w+) *\] : ", re.M)


def scan_config(rogue: dict[int, int], known_aps: tuple[str, ...] = ()) -> str:
    """/tmp/run/config text: the rogue-AP setting of each radio in `rogue`
    (radio -> value) and the given known-AP lines."""
    text = "".join(ROGUE_LINE.format(radio=r, value=v) for r, v in sorted(rogue.items()))
    return text + "".join(known_aps)


def ft_table(radios: int, enabled: tuple[tuple[int, int], ...] = ()) -> dict[str, str]:
    """configd's table: the 802.11r status of every VAP, 1 for the
    (radio, vap) pairs in `enabled`, else 0."""
    return {FT_STATUS_KEY.format(radio=r, vap=v): "1" if (r, v) in enabled else "0"
            for r in range(radios) for v in range(10)}


def radio_of(rec: dict) -> int | None:
    m = _IFNAME_RE.match(rec.get("if", ""))
    return int(m.group(1)) if m else None


def band_requests(sb, radio: int, req: str | None = None) -> list[dict]:
    """The driver requests on radio `radio`'s interfaces (wifiN, wifiNvapM,
    athN), optionally only those of kind `req`, each with its daemon time
    as the float under "time"."""
    out = []
    for rec in sb.requests(req):
        if radio_of(rec) == radio:
            out.append(dict(rec, time=float(rec["t"])))
    return out


def radio_flags(sb, radio: int) -> list[dict]:
    """The up-state checks of the radio interface wifiN itself."""
    return [r for r in band_requests(sb, radio, "flags") if r["if"] == f"wifi{radio}"]


@dataclass
class LogEntry:
    time: int  # daemon epoch seconds, whole
    level: str
    text: str  # the message as logged, its own newline included


def log_entries(sb) -> list[LogEntry]:
    """The daemon's log as entries, in order."""
    text = sb.log_text()
    marks = list(_ENTRY_RE.finditer(text))
    out = []
    for i, m in enumerate(marks):
        end = marks[i + 1].start() if i + 1 < len(marks) else len(text)
        body = text[m.end():end]
        stamp = calendar.timegm(time.strptime(m.group(1), "%a %b %d %H:%M:%S %Y"))
        out.append(LogEntry(stamp, m.group(2), body[:-1] if body.endswith("\n") else body))
    return out


def read_rows(sb, radio: int, table: str, order: str) -> list[tuple]:
    """All rows of `table` in radio's scan database, read-only. Call it only
    while the daemon writes no database: it uses no busy time-out."""
    uri = f"file:{sb.path(SCAN_DBS[radio])}?mode=ro"
    with closing(sqlite3.connect(uri, uri=True)) as db:
        return db.execute(f"SELECT * FROM {table} ORDER BY {order}").fetchall()


def scan_cycle_idle(sb, radios) -> bool:
    """True when no scan of these radios is writing its database."""
    return not any(sb.path(MARKERS[r]).exists() for r in radios)


def jitter(sb) -> float:
    """JITTER_REAL in the sandbox's daemon seconds."""
    return JITTER_REAL * sb.scale


def assert_fired_on_time(what: str, due: float, actual: float, busy: list[tuple[float, float]], slack: float,
                         due_latest: float | None = None):
    """A timer due at `due` (at the latest `due_latest`, when its exact
    registration time is not known) ran at `actual`: never early, and late
    only by `slack` after the event-loop thread came free (busy: the
    (start, end) daemon times of other work that held the thread)."""
    assert actual >= due - EARLY, f"{what}: ran at {actual:.1f}, expected not before {due:.1f}"
    ready = due if due_latest is None else due_latest
    for start, end in sorted(busy):
        # Work that took the thread first and ended before ours ran.
        if start <= ready + slack and ready < end <= actual + EARLY:
            ready = end
    assert actual - ready <= slack, (f"{what}: ran at {actual:.1f}, expected by {ready + slack:.1f} "
                                     f"(due {due:.1f}, thread free from {ready:.1f})")


def assert_retries(what: str, tries: list[float], next_tries: list[float], period: float,
                   busy: list[tuple[float, float]], slack: float) -> int:
    """Each try in `tries` was followed `period` daemon-seconds later by the
    next one in `next_tries` (see assert_fired_on_time). Returns how many
    retries were checked."""
    checked = 0
    for t in tries:
        later = [u for u in next_tries if u > t]
        if later:
            assert_fired_on_time(what, t + period, min(later), busy, slack)
            checked += 1
    return checked


def full_scan_window(sb, radio: int) -> tuple[float, float] | None:
    """Daemon times of the radio's first full scan, from its VAP search to
    its channel-list request (to its last request while it still runs);
    None before the scan was triggered."""
    reqs = band_requests(sb, radio)
    acs = next((i for i, r in enumerate(reqs) if r["req"] == "acs_start"), None)
    if acs is None:
        return None
    begin = max(i for i, r in enumerate(reqs[:acs]) if r["req"] == "flags" and r["if"] == f"wifi{radio}")
    end = next((r for r in reqs if r["req"] == "chan_info"), reqs[-1])
    return reqs[begin]["time"], end["time"]


def batch_window(sb, radio: int) -> tuple[float, float] | None:
    """Daemon times of everything the radio did after its first full scan;
    None before then."""
    reqs = band_requests(sb, radio)
    end = next((i for i, r in enumerate(reqs) if r["req"] == "chan_info"), None)
    rest = reqs[end + 1:] if end is not None else []
    return (rest[0]["time"], rest[-1]["time"]) if rest else None


def scan_windows(sb, radio: int) -> list[tuple[float, float]]:
    """The radio's full and batch scan windows seen so far: the times in
    which its scans held the event-loop thread."""
    return [w for w in (full_scan_window(sb, radio), batch_window(sb, radio)) if w]
