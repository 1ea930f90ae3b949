"""Follows the daemon's log while it runs: keeps the whole text across
rotations, and turns log lines into milestones (the daemon second at which
something first happened, counted from the start) and a stage per band for
the progress line.

Milestones: "start", "ready" (the first 802.11r read is done); per band B
(2g, 5g, 5gh): "B.triggered" (a full scan was triggered), "B.full" (its
results are stored), "B.batchN" (the N-th batch scan began) and
"B.batchN.done" (its marker file is gone again); "exit".
"""

from __future__ import annotations

import calendar
import os
import re
import time
from dataclasses import dataclass, field
from pathlib import Path

ENTRY_RE = re.compile(r"^\[(\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4})\] \[(\w+)\s*\] : ")
SECONDS_RE = re.compile(r" : (\d+) seconds")
BATCH_PERIOD = 1800
READY_TEXT = "ft_enabled_vaps  = "
EXIT_TEXT = "[dorvand] Exiting from daemon"

BANDS = {
    "2g": {"radio": 0, "h": "2g", "rogue": "Rogue AP enabled for 2.4GHz radio",
           "not_started": "Could not start scan on 2.4GHz radio", "marker": "tmp/DB2G_UPDATION_IN_PROGRESS"},
    "5g": {"radio": 1, "h": "5gl", "rogue": "Rogue AP enabled for 5GHz radio",
           "not_started": "Could not start scan on 5GHz radio", "marker": "tmp/DB5G_UPDATION_IN_PROGRESS"},
    "5gh": {"radio": 2, "h": "5gh", "rogue": "Rogue AP enabled for 5GHz High radio",
            "not_started": "Could not start scan on 5GHz High radio", "marker": "tmp/DB5GH_UPDATION_IN_PROGRESS"},
}


@dataclass
class BandState:
    stage: str = "waiting for the 802.11r read"
    batches: int = 0
    batches_done: int = 0
    holds: dict[str, int] = field(default_factory=dict)  # why scans waited, and how often

    def hold(self, why: str) -> None:
        self.holds[why] = self.holds.get(why, 0) + 1
        self.stage = f"held: {why}"


class LogWatcher:
    """poll() reads what the log gained; times come from the lines' own
    time stamps (the daemon's accelerated clock) less `t0`, the start."""

    def __init__(self, root: Path, t0: float = 0.0, keep: bool = True):
        """keep: hold the whole text (for text() and count() of any text);
        without it only the texts given to track() are counted, which is
        what a deployment of many daemons can afford."""
        self.root = Path(root)
        self.keep = keep
        self.counts: dict[str, int] = {}
        self.gaps = 0  # parts of the log lost to rotation before they were read
        self.path = self.root / "tmp/log/dorvand_log"
        self.t0 = t0
        self.now = 0.0  # daemon seconds of the latest line read
        self.bytes_read = 0
        self.milestones: dict[str, float] = {"start": 0.0}
        self.bands = {b: BandState() for b in BANDS}
        self._chunks: list[str] = []
        self._ino: int | None = None
        self._off = 0
        self._partial = b""

    def poll(self, now: float | None = None) -> None:
        """Reads new lines; `now` (daemon seconds) times what only polling
        sees: a batch scan's marker file going away."""
        lines = self._new_lines()
        for line in lines:
            self._on_line(line)
        for line in reversed(lines):  # the time of the latest line; the others' only where they matter
            if self._stamp(line):
                break
        self._check_batches(self.now if now is None else now)

    def text(self) -> str:
        """Everything the daemon logged so far, rotations included."""
        if len(self._chunks) > 1:
            self._chunks = ["".join(self._chunks)]
        return self._chunks[0] if self._chunks else ""

    def count(self, text: str) -> int:
        return self.counts[text] if text in self.counts else self.text().count(text)

    def track(self, *texts: str) -> None:
        """Counts these texts from now on, whether the text is kept or not."""
        for t in texts:
            self.counts.setdefault(t, 0)

    def skip_existing(self) -> None:
        """Reads only what the log gains from now on (a daemon started again
        appends to the log of the one before)."""
        st = _stat(self.path)
        self._ino, self._off = (st.st_ino, st.st_size) if st else (None, 0)

    def reached(self, milestone: str, bands: list[str]) -> float | None:
        """When a milestone was reached; "full" and "batchN" need every band
        in `bands` (their batch scans done)."""
        if milestone == "full" or re.fullmatch(r"batch\d+", milestone):
            suffix = ".full" if milestone == "full" else f".{milestone}.done"
            times = [self.milestones.get(b + suffix) for b in bands]
            return max(times) if times and None not in times else None
        return self.milestones.get(milestone)

    # ---- reading --------------------------------------------------------------------

    def _new_lines(self) -> list[str]:
        # (inode, offset) says what has been read; after a rotation the rest
        # of that inode is read from the backup that now holds it.
        data = b""
        cur = _stat(self.path)
        if self._ino is not None and (cur is None or cur.st_ino != self._ino):
            found = False
            for backup in (Path(f"{self.path}.1"), Path(f"{self.path}.0")):  # oldest first
                st = _stat(backup)
                if st is not None and found:  # rotated twice: a whole part written since
                    self._off = 0
                    data += self._read(backup)
                elif st is not None and st.st_ino == self._ino:
                    found = True
                    data += self._read(backup)
            self.gaps += not found  # rotated out before it was read
            self._ino, self._off = (cur.st_ino, 0) if cur else (None, 0)
        if cur is not None:
            if self._ino is None:
                self._ino, self._off = cur.st_ino, 0
            data += self._read(self.path)
        if not data:
            return []
        self.bytes_read += len(data)
        data = self._partial + data
        cut = data.rfind(b"\n") + 1
        self._partial = data[cut:]
        text = data[:cut].decode("utf-8", "replace")
        if self.keep:
            self._chunks.append(text)
        for t in self.counts:
            self.counts[t] += text.count(t)
        return text.splitlines()

    def _read(self, path: Path) -> bytes:
        try:
            with open(path, "rb") as f:
                f.seek(self._off)
                data = f.read()
        except FileNotFoundError:
            return b""
        self._off += len(data)
        return data

    # ---- interpreting -----------------------------------------------------------------

    def _mark(self, name: str) -> None:
        self.milestones.setdefault(name, self.now)

    def _stamp(self, line: str) -> bool:
        m = ENTRY_RE.match(line)
        if m:
            stamp = calendar.timegm(time.strptime(m.group(1), "%a %b %d %H:%M:%S %Y"))
            self.now = max(self.now, stamp - self.t0)
        return m is not None

    def _on_line(self, line: str) -> None:
        if not (READY_TEXT in line or EXIT_TEXT in line or "scan" in line or "radio" in line):
            return
        self._stamp(line)
        if READY_TEXT in line:
            self._mark("ready")
            for st in self.bands.values():
                if st.stage.startswith("waiting"):
                    st.stage = "checking rogue-AP detection"
        elif EXIT_TEXT in line:
            self._mark("exit")
            for st in self.bands.values():
                st.stage = "daemon exited"
        elif "scan" in line or "radio" in line:
            for band, info in BANDS.items():
                self._band_line(band, info, line)

    def _band_line(self, band: str, info: dict, line: str) -> None:
        st, h, r = self.bands[band], info["h"], info["radio"]
        if info["rogue"] in line:
            st.stage = "starting"
        elif f"The radio wifi{r} is down" in line:
            st.hold("radio down")
        elif f"start_{h}_scan_timer : " in line:
            m = SECONDS_RE.search(line)
            st.stage = f"first scan at {self.now + int(m.group(1)):.0f} s" if m else "first scan scheduled"
        elif f"trigger_{h}_full_scan" in line:
            self._full_line(band, st, line)
        elif f"No active vap found for scan on wifi{r}" in line:
            st.hold("no VAP up")
        elif info["not_started"] in line:
            st.hold("no usable VAP")
        elif f"trigger_{h}_batch_scan" in line:
            if "The total channel count is" in line:
                st.batches += 1
                self._mark(f"{band}.batch{st.batches}")
                st.stage = f"batch {st.batches} scanning"
            elif "Skipping the scan" in line:
                st.hold("batch skipped")
            elif "CAC timer running" in line:
                st.hold("CAC")

    def _full_line(self, band: str, st: BandState, line: str) -> None:
        if "voice traffic" in line:
            st.hold("voice call")
        elif "CAC timer running" in line:
            st.hold("CAC")
        elif "scan success" in line:
            self._mark(f"{band}.triggered")
            st.stage = "full scan running"
        elif "Failed to trigger" in line:
            st.hold("trigger failed")
        elif "parsed scan result" in line:
            self._mark(f"{band}.full")
            st.stage = f"full scan done, batch 1 at {self.now + BATCH_PERIOD:.0f} s"
        elif "Failed to process" in line:
            st.hold("results failed")

    def _check_batches(self, now: float) -> None:
        for band, st in self.bands.items():
            if st.batches > st.batches_done and not (self.root / BANDS[band]["marker"]).exists():
                st.batches_done = st.batches
                self.milestones.setdefault(f"{band}.batch{st.batches}.done", max(now, self.now))
                st.stage = f"batch {st.batches} done, next at {max(now, self.now) + BATCH_PERIOD:.0f} s"


def level_of(line: str) -> str | None:
    """The level name of a log line ("ERROR", "INFO", ...), None for a
    continuation line."""
    m = ENTRY_RE.match(line)
    return m.group(2) if m else None


def _stat(path: Path):
    try:
        return os.stat(path)
    except FileNotFoundError:
        return None
