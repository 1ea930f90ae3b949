"""Fault rules for a sandbox's daemon: the control file the preload library
re-reads while the daemon runs (root/dorvsim/faults) and the log of what
fired (root/dorvsim/faults.fired). The rule language is the preload
library's (sim/faults/fault_core.h, sim/README.md); it refuses a bad rule.

Control file: one rule a line, after a "# generation N" line. The library
answers each load with "t=T loaded generation=N rules=K" and each rule it
refuses with 't=T refused "bad fault rule ...: REASON"' in the log; each
firing is 't=T fired rule="RULE" call=CALL path="PATH" errno=NAME' (or
short=N).
"""

from __future__ import annotations

import os
import re
import time
from dataclasses import dataclass
from pathlib import Path

CONTROL_IN_ROOT = "/dorvsim/faults"
FIRED_IN_ROOT = "/dorvsim/faults.fired"
ENV = {"DORVSIM_FAULTS_FILE": CONTROL_IN_ROOT, "DORVSIM_FAULTS_FIRED": FIRED_IN_ROOT}

FIRED_RE = re.compile(r'^t=([\d.]+) fired rule="([^"]*)" call=(\w+) path="([^"]*)" (errno|short)=(\S+)$')
LOADED_RE = re.compile(r"^t=[\d.]+ loaded generation=(\d+) rules=(\d+)$")
REFUSED_RE = re.compile(r'^t=[\d.]+ refused "(.*)"$')


class FaultError(Exception):
    pass


@dataclass(frozen=True)
class FaultHandle:
    """An armed rule: its text with blanks collapsed, as the library keeps it."""
    rule: str
    optional: bool = False


def canonical(rule: str) -> str:
    return " ".join(rule.split())


def read_fired(path: Path) -> list[dict]:
    """The firings of a fired log: t (daemon seconds), rule, call, path, and
    errno or short."""
    try:
        text = path.read_text(errors="replace")
    except OSError:
        return []
    out = []
    for line in text.splitlines():
        m = FIRED_RE.match(line)
        if m:
            out.append({"t": float(m.group(1)), "rule": m.group(2), "call": m.group(3), "path": m.group(4),
                        m.group(5): m.group(6)})
    return out


class Faults:
    """The fault rules of one sandbox root. `running` says whether a daemon
    is there to answer (then arming waits for it to load the rules)."""

    def __init__(self, root: Path, running, timeout: float = 10.0, nudge=None):
        self.control = root / CONTROL_IN_ROOT.lstrip("/")
        self.log = root / FIRED_IN_ROOT.lstrip("/")
        self.running = running
        self.timeout = timeout
        self.nudge = nudge  # makes an idle daemon look at the control file (the event clock's)
        self.armed: list[FaultHandle] = []   # in the control file now
        self.ever: list[FaultHandle] = []    # every rule armed since the start
        self._generation = 0
        self._raised: list[str] = []         # refusals arm() has raised

    def arm(self, rule: str, optional: bool = False) -> FaultHandle:
        if ";" in rule or "\n" in rule:
            raise FaultError(f"one rule at a time: {rule!r}")
        h = FaultHandle(canonical(rule), optional)
        if any(a.rule == h.rule for a in self.armed):
            raise FaultError(f"already armed: {h.rule!r}")
        self.armed.append(h)
        refused = self._publish()
        if refused:
            self.armed.remove(h)
            self._publish()
            self._raised += refused
            raise FaultError(refused[0])
        self.ever.append(h)
        return h

    def disarm(self, rule: str) -> None:
        """Disarms one rule, by its text."""
        self.armed = [h for h in self.armed if h.rule != canonical(rule)]
        self._publish()

    def disarm_all(self) -> None:
        self.armed = []
        self._publish()

    def fired(self) -> list[dict]:
        return read_fired(self.log)

    def count(self, h: FaultHandle) -> int:
        return sum(1 for f in self.fired() if f["rule"] == h.rule)

    def unfired(self) -> list[FaultHandle]:
        """Rules armed without `optional` that never fired."""
        done = {f["rule"] for f in self.fired()}
        return [h for h in self.ever if not h.optional and h.rule not in done]

    def refusals(self) -> list[str]:
        """Refusals nobody was told of: rules armed before the daemon ran."""
        try:
            lines = self.log.read_text(errors="replace").splitlines()
        except OSError:
            return []
        refused = [_unescape(m.group(1)) for m in map(REFUSED_RE.match, lines) if m]
        return [r for r in refused if r not in self._raised]

    def _publish(self) -> list[str]:
        """Writes the control file; once the running daemon has loaded it,
        returns what it refused of it."""
        self._generation += 1
        gen = self._generation
        self.control.parent.mkdir(parents=True, exist_ok=True)
        tmp = self.control.with_name(self.control.name + ".tmp")
        tmp.write_text(f"# generation {gen}\n" + "".join(h.rule + "\n" for h in self.armed))
        before = len(self._lines())
        os.replace(tmp, self.control)
        if not self.running():
            return []
        deadline = time.monotonic() + self.timeout
        while time.monotonic() < deadline:
            lines = self._lines()[before:]
            for i, line in enumerate(lines):
                m = LOADED_RE.match(line)
                if m and int(m.group(1)) >= gen:
                    return [_unescape(r.group(1)) for r in map(REFUSED_RE.match, lines[:i]) if r]
            if not self.running():
                return []
            if self.nudge:
                self.nudge()
            time.sleep(0.06)
        raise FaultError(f"the daemon did not load the fault rules (generation {gen}) within {self.timeout}s")

    def _lines(self) -> list[str]:
        try:
            return self.log.read_text(errors="replace").splitlines()
        except OSError:
            return []


def problems(sets: list[Faults]) -> str | None:
    """What fails a test that armed these rules: a rule armed without
    `optional` that never fired, or a rule the daemon refused."""
    unfired = [repr(h.rule) for f in sets for h in f.unfired()]
    if unfired:
        return "armed fault(s) never fired: " + ", ".join(unfired)
    refused = [r for f in sets for r in f.refusals()]
    return "fault rule(s) refused: " + "; ".join(refused) if refused else None


def _unescape(text: str) -> str:
    return re.sub(r"\\x([0-9a-f]{2})", lambda m: chr(int(m.group(1), 16)), text)
