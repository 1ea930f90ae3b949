"""Runs one scenario: sets up the sandbox, runs the unmodified daemon through
the scenario's timeline while printing its progress, checks the
expectations, stops the daemon with signal 10 and keeps every artefact in
the output folder:

    root/, out/        the sandbox (the daemon's files, syslog.txt, ...)
    final/             the key-holder files and scan databases just before
                       signal 10 (the daemon removes roam_key_holders at exit)
    dorvand_log.txt    the whole log, rotated parts included
    result.json        what the run reached and how each expectation came out
"""

from __future__ import annotations

import json
import shutil
import signal
import threading
import time
from dataclasses import asdict, dataclass, field
from pathlib import Path

from sim.expect import AP2MAC, DB_FILES, FT_KEY_CHANGED, KEY_HOLDERS, Checker
from sim.logwatch import BANDS, LogWatcher
from sim.sandbox import Emulation, Sandbox
from sim.scenario import DRIVER_ERRORS, Event, Scenario, until_milestone

POLL = 0.02  # real seconds between looks at the log
EPSILON = 1e-6  # daemon seconds: the event clock stops at an event's time, rounded up to its nanosecond
HEARTBEAT = 5.0  # real seconds between progress lines when nothing changes
FINAL_FILES = [KEY_HOLDERS, AP2MAC, FT_KEY_CHANGED, *DB_FILES.values()]


@dataclass
class Outcome:
    where: str
    what: str
    phase: str
    ok: bool
    detail: str


@dataclass
class RunResult:
    scenario: str
    scenario_path: str
    scale: float
    t0: float = 0.0
    wall: float = 0.0
    daemon_seconds: float = 0.0
    exit_code: int | None = None
    milestones: dict = field(default_factory=dict)
    stages: dict = field(default_factory=dict)
    holds: dict = field(default_factory=dict)
    problems: list[str] = field(default_factory=list)  # the run itself went wrong
    outcomes: list[Outcome] = field(default_factory=list)
    faults: list[dict] = field(default_factory=list)  # each [[fault]]: rule, armed, fired, calls, ...
    clock: dict = field(default_factory=dict)  # kind; on the event clock: simulated, real, held, paced seconds
    stamp_scale: float = 1.0  # daemon seconds per second of the time stamps the sandbox's programs write

    @property
    def passed(self) -> bool:
        return not self.problems and all(o.ok for o in self.outcomes)

    def failures(self) -> list[str]:
        return self.problems + [f"{o.where} {o.what}: {o.detail}" for o in self.outcomes if not o.ok]

    def save(self, path: Path) -> None:
        path.write_text(json.dumps(asdict(self), indent=1))

    @classmethod
    def load(cls, path: Path) -> "RunResult":
        d = json.loads(path.read_text())
        d["outcomes"] = [Outcome(**o) for o in d.get("outcomes", [])]
        return cls(**d)


class Runner:
    def __init__(self, scenario: Scenario, dorvand, simlib, out: Path, scale: float | None = None, echo=print,
                 emulation: Emulation | None = None):
        self.sc = scenario
        self.out = Path(out)
        self.echo = echo
        self.driver = scenario.driver_state()
        opts = scenario.sandbox_options(scale)
        opts["driver"] = self.driver
        self.sb = Sandbox(dorvand, simlib, scratch=self.out, emulation=emulation, **opts)
        self.watcher = LogWatcher(self.sb.root)
        self.bands = scenario.scanning_bands()
        self.result = RunResult(scenario.name, str(scenario.path or ""), self.sb.scale)
        self._pending = list(enumerate(scenario.events))
        self._sent = {"datagrams": 0, "signals": 0}  # for knowing when all were handled
        self._last_progress = (None, 0.0)
        self._lock = threading.Lock()  # the watcher and the pending events, shared with the clock's gate
        self.result.stamp_scale = 1.0 if self.sb.clock_kind == "event" else self.sb.scale

    def run(self) -> RunResult:
        start = time.time()
        try:
            self.sb.start()
            self.watcher.t0 = self.result.t0 = self.sb.t0
            if self.sb.clock:
                self.sb.clock.add_gate(self._gate)
            self.echo(f"dorvand runs as pid {self.sb.pid()}: board {self.sc.board}, scale {self.sb.scale:g} "
                      f"daemon seconds per second, until {self.sc.until}")
            self._timeline()
            self._settle()
            self._snapshot()
            self._check("end")
            self.result.exit_code = self.sb.stop()
            self.watcher.poll()
            self._check("exit")
        finally:
            self._fault_outcomes()
            self.sb.close()
            self.result.problems += [f"sanitizer report of the daemon:\n{r}" for r in self.sb.sanitizer_reports]
            self.result.clock = {"kind": self.sb.clock_kind, **(self.sb.clock_report or {})}
            self.result.wall = time.time() - start
            self.result.milestones = dict(self.watcher.milestones)
            self.result.stages = {b: self.watcher.bands[b].stage for b in self.bands}
            self.result.holds = {b: self.watcher.bands[b].holds for b in self.bands}
            (self.out / "dorvand_log.txt").write_text(self.watcher.text())
            self.result.save(self.out / "result.json")
        return self.result

    # ---- the timeline -------------------------------------------------------------------

    def _timeline(self) -> None:
        until, plus = until_milestone(self.sc.until)
        while True:
            now = self.sb.daemon_seconds(time.time())
            with self._lock:
                self.watcher.poll(now)
                self._fire_due(now)
            self._progress(now)
            reached = self.watcher.reached(until, self.bands)
            if reached is not None and now >= reached + plus:
                break
            if self.sb.exit_code() is not None or not self.sb.running():
                self.watcher.poll(now)
                if until != "exit":
                    self.result.problems.append(f"the daemon ended at {now:.0f} s, before reaching {self.sc.until}")
                break
            if now > self.sc.limit:
                self.result.problems.append(f"{self.sc.until} not reached within {self.sc.limit:.0f} daemon seconds")
                break
            time.sleep(POLL)
        self.result.daemon_seconds = self.sb.daemon_seconds(time.time())
        self._progress(self.result.daemon_seconds, force=True)
        for _, ev in self._pending:
            self.result.problems.append(f"{ev.where} ({ev.describe()}, {ev.after}+{ev.at:g}) never came due")

    def _gate(self) -> float | None:
        """For the event clock: the daemon seconds it may not pass before the
        next scenario event is done (the log read first, for milestones).
        While the timeline is busy it holds the clock where it is."""
        if not self._lock.acquire(blocking=False):
            return 0.0
        try:
            self.watcher.poll()
            due = [base + ev.at for _, ev in self._pending
                   if (base := self.watcher.reached(ev.after, self.bands)) is not None]
            return min(due) + self.sb.clock_base if due else None
        finally:
            self._lock.release()

    def _fire_due(self, now: float) -> None:
        due = []
        for n, ev in self._pending:
            base = self.watcher.reached(ev.after, self.bands)
            if base is not None and now >= base + ev.at - EPSILON:
                due.append((base + ev.at, n, ev))
        for _, n, ev in sorted(due, key=lambda d: d[:2]):
            self._pending.remove((n, ev))
            try:
                self._apply(ev)
                self.echo(f"  {now:6.0f} s  event {ev.describe()}")
            except Exception as e:  # a scenario step that could not be done is the run's failure
                self.result.problems.append(f"{ev.where} ({ev.describe()}) failed at {now:.0f} s: {e}")

    def _apply(self, ev: Event) -> None:
        a, sb = ev.args, self.sb
        if ev.do == "fault":
            sb.arm_fault(a["rule"], a["optional"])
        elif ev.do == "fault_off":
            sb.faults.disarm(a["rule"])
        elif "data" in a:
            sb.send_event(a["data"])
            self._sent["datagrams"] += 1
        elif ev.do == "ft_status":
            for key, value in a["vaps"].items():
                sb.configd.set_value(key, value)
            sb.send_signal(signal.SIGRTMIN, a["value"])
            self._sent["signals"] += 1
        elif ev.do == "signal":
            sb.send_signal(a["number"], a["value"])
        elif ev.do == "link":
            for name in a["names"]:
                sb.set_link(name, a["up"])
        elif ev.do == "configd" and a["mode"] == "stall":
            sb.configd.stall(a["times"])
        elif ev.do == "configd" and a["mode"] == "close":
            sb.configd.close_after_request(a["times"])
        elif ev.do == "configd":
            sb.configd.answer_normally()
        elif ev.do == "clock_step":
            by = a["by"] if a["by"] is not None else a["to"] - sb.daemon_time()
            sb.step_clock(by)
            # Milestones stay on the start's timeline: the log's stamps moved.
            self.watcher.t0 += by
        else:
            self._driver_change(ev.do, a)
            sb.set_driver(self.driver)

    def _driver_change(self, do: str, a: dict) -> None:
        if do == "voice":
            self.driver.radios[a["radio"]].voice_bit = int(a["on"])
        elif do == "cac":
            self.driver.cac[a["vap"]] = a["state"]
        elif do == "driver":
            radio = self.driver.radios[a["radio"]]
            for key, attr in DRIVER_ERRORS.items():
                if key in a:
                    setattr(radio, attr, a[key])

    def _progress(self, now: float, force: bool = False) -> None:
        stages = " | ".join(f"{b}: {self.watcher.bands[b].stage}" for b in self.bands) or "no band scans"
        last, when = self._last_progress
        if force or stages != last or time.time() - when >= HEARTBEAT:
            runs = self.sb.path("/dorvsim/runs/fast_bss_transition.sh")
            kh = self.sb.path(KEY_HOLDERS)
            counts = (f"key holders {kh.stat().st_size // 16 if kh.exists() else 0}, "
                      f"script runs {len(list(runs.iterdir())) if runs.is_dir() else 0}")
            self.echo(f"  {now:6.0f} s  {stages}  [{counts}]")
            self._last_progress = (stages, time.time())

    # ---- the end -----------------------------------------------------------------------------

    def _settle(self, timeout: float = 30.0) -> None:
        """Before the files are looked at: waits until the daemon has handled
        every datagram and SIGRTMIN sent (a busy machine makes it fall behind
        the timeline) and no band's scan writes its database. The event
        thread logs its wait before every receive; the signal handler ends
        with the mask, or with the failed read that made it give up."""
        deadline = time.time() + timeout
        markers = [self.sb.root / info["marker"] for info in BANDS.values()]
        w = self.watcher
        while time.time() < deadline and self.sb.running():
            w.poll(self.sb.daemon_seconds(time.time()))
            datagrams = w.count("Waiting for events from  pxlmd") - 1
            signals = w.count("ft_enabled_vaps = ") + w.count("dbcom get failed [")
            if datagrams >= self._sent["datagrams"] and signals >= self._sent["signals"] \
                    and not any(m.exists() for m in markers):
                return
            time.sleep(POLL)
        if self.sb.running():
            self.result.problems.append(f"the daemon was still busy {timeout:.0f} s after the run's end")

    def _snapshot(self) -> None:
        final = self.out / "final"
        final.mkdir(exist_ok=True)
        for rel in FINAL_FILES:
            src = self.sb.path(rel)
            if src.is_file():
                shutil.copyfile(src, final / src.name)

    def _fault_outcomes(self) -> None:
        """Each [[fault]]: whether it was armed and what it failed; one that
        was armed and never fired fails the run, unless optional."""
        fired = self.sb.faults_fired()
        armed = {h.rule for h in self.sb.faults.ever}
        for f in self.sc.faults:
            mine = [x for x in fired if x["rule"] == f.rule]
            self.result.faults.append({
                "rule": f.rule, "where": f.where, "after": f.after, "at": f.at, "lasts": f.lasts,
                "optional": f.optional, "armed": f.rule in armed, "fired": len(mine),
                "first": mine[0]["t"] - self.sb.t0 if mine else None,
                "last": mine[-1]["t"] - self.sb.t0 if mine else None,
                "failures": sorted({f"{x['call']} {x['path']} {x.get('errno') or 'short=' + x['short']}"
                                    for x in mine}),
            })
            if f.rule in armed and not f.optional:
                self.result.outcomes.append(Outcome(f.where, f"fault {f.rule!r} fires", "end", bool(mine),
                                                    f"fired {len(mine)} times" if mine else "never fired"))

    def _check(self, phase: str) -> None:
        checker = Checker(self.sb, self.watcher)
        for x in self.sc.expectations:
            if x.phase == phase:
                ok, detail = checker.check(x)
                self.result.outcomes.append(Outcome(x.where, x.describe(), phase, ok, detail))
