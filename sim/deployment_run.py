"""Runs a deployment: one process supervises every access point of the
floor, each the unmodified daemon in its own sandbox (namespaces, scratch
root under OUT/aps/NAME, driver simulator, configd, /tmp/run/config, scan
databases), all on one deployment clock (the same T0 and scale). It plays
the peer daemon of every access point that runs one, follows each daemon's
log, applies the floor's events, prints progress and leaves in OUT:

    aps/NAME/          the access point's sandbox (root/, out/) and final/,
                       its key-holder files and databases before signal 10
    result.json        lives of every access point, events, memory and CPU

The peer of an access point sends its daemon, once the daemon's first
802.11r read is done, an AP_ADDITION and (unless the floor turns key-holder
events off) a KH_ADDITION for every member of the deployment that is up, on
every radio both have, naming the member's MAC of that radio; later the same
for every member that comes up, and an AP_DELETION on every shared radio for
every member that goes down or is replaced.
"""

from __future__ import annotations

import json
import os
import resource
import signal
import socket
import threading
import time
from collections import deque
from dataclasses import asdict, dataclass, field
from pathlib import Path

from sim.deployment import ApSpec, DEvent, Floor
from sim.expect import AP2MAC, DB_FILES, FT_KEY_CHANGED, KEY_HOLDERS, parse_records
from sim.logwatch import BANDS, LogWatcher
from sim.sandbox import DEFAULT_CLOCK, Sandbox, SandboxError
from sim.simclock import EventClock
from sim.scenario import FT_KEY, mac_text

POLL = 0.05  # real seconds between looks at the logs
HEARTBEAT = 3.0  # real seconds between progress lines
SAMPLE = 1.0  # real seconds between memory samples
QUIET = 3.0  # real seconds without a handled event after which a daemon whose log outran us counts as done
HANDLED = "Waiting for events from  pxlmd"
SIGNALS_HANDLED = ("ft_enabled_vaps = ", "dbcom get failed [")
AP_DELETION, AP_ADDITION, KH_ADDITION = 0, 1, 2
FINAL_FILES = [KEY_HOLDERS, AP2MAC, FT_KEY_CHANGED, *DB_FILES.values()]


@dataclass
class Life:
    """One run of an access point's daemon, in deployment seconds."""

    start: float
    ready: float | None = None
    end: float | None = None
    how: str = ""  # how it ended: kill, signal10, replaced, end, died
    exit_code: int | None = None
    key_holders_at_start: list[str] = field(default_factory=list)  # a file kept from the life before


@dataclass
class DeploymentResult:
    floor: str
    floor_path: str
    scale: float
    t0: float = 0.0
    end: float = 0.0  # deployment seconds at the final snapshot
    wall: float = 0.0
    cpu: float = 0.0  # seconds, this process and everything it started
    cpu_runner: float = 0.0  # seconds, this process alone (the peer, configd and syslog of every AP, the logs)
    peak_pss_mb: float = 0.0
    peak_rss_mb: float = 0.0
    peak_processes: int = 0
    lives: dict[str, list[Life]] = field(default_factory=dict)
    ft: dict[str, list[str]] = field(default_factory=dict)  # 802.11r VAPs at the end, as configured
    events: list[dict] = field(default_factory=list)  # name, at, applied
    datagrams: int = 0
    problems: list[str] = field(default_factory=list)
    clock: dict = field(default_factory=dict)  # kind; on the event clock: simulated, real, held, paced seconds
    stamp_scale: float = 1.0  # deployment seconds per second of the time stamps the sandboxes' programs write

    def save(self, path: Path) -> None:
        path.write_text(json.dumps(asdict(self), indent=1))

    @classmethod
    def load(cls, path: Path) -> "DeploymentResult":
        d = json.loads(path.read_text())
        d["lives"] = {k: [Life(**x) for x in v] for k, v in d["lives"].items()}
        return cls(**d)


class Node:
    """One access point while the deployment runs."""

    def __init__(self, apdef: ApSpec):
        self.apdef = apdef
        self.sb: Sandbox | None = None
        self.watcher: LogWatcher | None = None
        self.lives: list[Life] = []
        self.outbox: deque[bytes] = deque()
        self.sent = 0  # datagrams sent to the current life
        self.signals = 0
        self.ft = list(apdef.ft)

    @property
    def up(self) -> bool:
        return bool(self.lives) and self.lives[-1].end is None

    @property
    def ready(self) -> bool:
        return self.up and self.lives[-1].ready is not None


class DeploymentRunner:
    def __init__(self, floor: Floor, dorvand, simlib, out: Path, scale: float | None = None, echo=print):
        self.fl = floor
        self.dorvand, self.simlib = dorvand, simlib
        self.out = Path(out)
        self.scale = float(scale or floor.scale)
        self.echo = echo
        self.nodes = {a.name: Node(a) for a in floor.aps}
        self.members = [a for a in floor.aps if not a.spare]
        self.result = DeploymentResult(floor.name, str(floor.path or ""), self.scale)
        self.t0 = 0.0
        self._pending = list(floor.events)
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._last_progress = 0.0
        self._last_sample = 0.0
        # One clock for the whole floor: the event clock (unless the
        # environment asks for the affine one), whose segment every sandbox
        # maps.
        self._clock_kind = os.environ.get("DORVSIM_CLOCK_KIND", DEFAULT_CLOCK)
        self.clock: EventClock | None = None  # made by the start
        self._clock_base = 0.0
        self._lock = threading.Lock()  # the timeline's state, shared with the clock's gate
        self.result.clock = {"kind": self._clock_kind}
        self.result.stamp_scale = 1.0 if self._clock_kind == "event" else self.scale

    def now(self) -> float:
        if self.clock:
            return self.clock.elapsed() - self._clock_base
        return (time.time() - self.t0) * self.scale

    def run(self) -> DeploymentResult:
        wall = time.time()
        try:
            self._start_all()
            self._timeline()
            self._settle()
            self._snapshot()
        finally:
            self._stop_all()
            self._sock.close()
            if self.clock:
                self.result.clock.update(self.clock.report())
                self.clock.close()
            self.result.wall = time.time() - wall
            usage = [resource.getrusage(w) for w in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)]
            self.result.cpu = sum(u.ru_utime + u.ru_stime for u in usage)
            self.result.cpu_runner = usage[0].ru_utime + usage[0].ru_stime
            self.result.lives = {n: node.lives for n, node in self.nodes.items() if node.lives}
            self.result.ft = {n: node.ft for n, node in self.nodes.items() if node.lives}
            self.result.save(self.out / "result.json")
        return self.result

    # ---- starting and stopping access points ------------------------------------------------

    def _start_all(self) -> None:
        first = [self.nodes[a.name] for a in self.members]
        if self._clock_kind == "event":
            self.out.mkdir(parents=True, exist_ok=True)
            self.clock = EventClock(self.out / "clock", self.scale).start()
            self.clock.add_gate(self._gate)
        for node in self.nodes.values():  # the slow part first, so that the daemons come up close together
            node.sb = self._sandbox(node.apdef).prepare()
        if self.clock:
            self._clock_base = self.clock.elapsed()
        self.t0 = self.result.t0 = self.clock.wall() if self.clock else time.time()
        for node in first:
            self._launch(node, update=False)
        self._update_drivers()
        self.echo(f"{len(first)} access points started within {self.now():.0f} deployment seconds; "
                  f"scale {self.scale:g}, until {self.fl.until:g} s")

    def _sandbox(self, apdef: ApSpec) -> Sandbox:
        return Sandbox(self.dorvand, self.simlib, scratch=self.out / "aps" / apdef.name, board=apdef.board,
                       config=self.fl.config_text(apdef, self.members), links=self.fl.links(apdef),
                       configd=self.fl.configd_table(apdef), scale=self.scale, t0=0.0,
                       clock=self.clock or "affine")

    def _launch(self, node: Node, update: bool = True) -> None:
        """Starts the node's daemon (again), without waiting for it, with
        the configuration file and the scans of the deployment as it is now."""
        sb = node.sb
        sb.t0 = self.t0
        _write(sb.path("/tmp/run/config"), self.fl.config_text(node.apdef, self.members))
        sb.set_driver(self.fl.driver_state(node.apdef, [n.apdef for n in self.nodes.values() if n.up] + [node.apdef]))
        kept = parse_records(sb.path(KEY_HOLDERS).read_bytes()) if sb.path(KEY_HOLDERS).exists() else []
        node.watcher = LogWatcher(sb.root, t0=self.t0, keep=False)
        node.watcher.track(HANDLED, *SIGNALS_HANDLED)
        node.watcher.skip_existing()
        node.outbox.clear()
        node.sent = node.signals = 0
        for ev in [e for e in self._pending if e.ap == node.apdef.name and e.do == "configd" and e.at <= self.now()]:
            self._do(ev, node, self.now())  # configd misbehaves from the daemon's first read on
        sb.start(wait=False)
        node.lives.append(Life(self.now(), key_holders_at_start=[mac_text(m) for m, _, _ in kept]))
        for other in self.nodes.values():
            if other is not node and other.ready and other.apdef.peer:
                self._announce(node.apdef, other)
        if update:
            self._update_drivers()

    def _down(self, node: Node, how: str) -> None:
        life = node.lives[-1]
        life.end, life.how = self.now(), how
        node.outbox.clear()
        for other in self.nodes.values():
            if other is not node and other.ready and other.apdef.peer:
                for r in range(min(other.apdef.radio_count, node.apdef.radio_count)):
                    other.outbox.append(_datagram(node.apdef, AP_DELETION, r))
        self._update_drivers()

    def _update_drivers(self) -> None:
        """Every running daemon's scans see the access points now up."""
        up = [n.apdef for n in self.nodes.values() if n.up]
        for n in self.nodes.values():
            if n.up:
                n.sb.set_driver(self.fl.driver_state(n.apdef, up))

    def _stop_all(self) -> None:
        """Signal 10 to every daemon at once, then waits for each."""
        up = [n for n in self.nodes.values() if n.up]
        for node in up:
            try:
                node.sb.send_signal(10)
            except (OSError, SandboxError):
                pass  # not detached yet, or gone: stop() below ends it
        for node in self.nodes.values():
            if node.sb is None:
                continue
            life = node.lives[-1]
            if node in up:
                try:
                    node.sb.wait_exit(10)
                    life.exit_code = node.sb.exit_code()
                except SandboxError:
                    life.exit_code = node.sb.stop()
                life.end, life.how = self.now(), "end"
            elif life.exit_code is None and life.how != "died":
                node.sb.wait_exit(10)
                life.exit_code = node.sb.exit_code()
            node.sb.close()

    # ---- the peer --------------------------------------------------------------------------

    def _announce(self, member: ApSpec, to: Node) -> None:
        for r in range(min(to.apdef.radio_count, member.radio_count)):
            to.outbox.append(_datagram(member, AP_ADDITION, r))
            if self.fl.key_holder_events:
                to.outbox.append(_datagram(member, KH_ADDITION, r))

    def _on_ready(self, node: Node) -> None:
        if node.apdef.peer:
            for other in self.nodes.values():
                if other is not node and other.up:
                    self._announce(other.apdef, node)

    def _flush(self) -> None:
        """Sends what each peer has queued, as far as the daemon's socket
        takes it (a unix datagram socket queues only a few)."""
        for node in self.nodes.values():
            path = str(node.sb.path("/tmp/roam_sock")) if node.sb else ""
            while node.outbox and node.ready:
                try:
                    self._sock.sendto(node.outbox[0], socket.MSG_DONTWAIT, path)
                except BlockingIOError:
                    break
                except OSError as e:
                    self.result.problems.append(f"{node.apdef.name}: an event could not be sent: {e}")
                    node.outbox.clear()
                    break
                node.outbox.popleft()
                node.sent += 1
                self.result.datagrams += 1

    # ---- the timeline ----------------------------------------------------------------------

    def _gate(self) -> float | None:
        """For the event clock: the deployment seconds it may not pass. It
        stays where it is while the timeline is busy, a daemon has become
        ready unnoticed or the peer has events queued for a ready one; else
        it stops at the next event's time."""
        if not self._lock.acquire(blocking=False):
            return 0.0
        try:
            for node in self.nodes.values():
                if node.up and node.watcher:
                    node.watcher.poll()
                    if node.lives[-1].ready is None and "ready" in node.watcher.milestones:
                        return 0.0
                    if node.ready and node.outbox:
                        return 0.0
            return min(ev.at for ev in self._pending) + self._clock_base if self._pending else None
        finally:
            self._lock.release()

    def _timeline(self) -> None:
        while True:
            self._lock.acquire()
            now = self.now()
            for node in self.nodes.values():
                if node.up:
                    self._follow(node, now)
            self._fire_due(now)
            self._flush()
            self._lock.release()
            if time.time() - self._last_progress >= HEARTBEAT:
                self._progress(now)
            if time.time() - self._last_sample >= SAMPLE:
                self._sample()
            if now >= self.fl.until:
                break
            time.sleep(POLL)
        self._progress(self.now())
        for ev in self._pending:
            self.result.problems.append(f"{ev.where} ({ev.name} at {ev.at:g} s) never came due")

    def _follow(self, node: Node, now: float) -> None:
        node.watcher.poll(now)
        life = node.lives[-1]
        if life.ready is None and "ready" in node.watcher.milestones:
            life.ready = node.watcher.milestones["ready"]
            self._on_ready(node)
        if not node.sb.running():
            self.result.problems.append(f"{node.apdef.name}: the daemon ended at {now:.0f} s "
                                        f"(exit code {node.sb.exit_code()})")
            life.exit_code = node.sb.exit_code()
            self._down(node, "died")

    def _fire_due(self, now: float) -> None:
        for ev in [e for e in self._pending if e.at <= now + 1e-6]:
            node = self.nodes[ev.ap]
            if ev.do == "ft_status" and not node.ready or ev.do == "configd" and not node.up:
                continue  # waits for the access point to run
            self._do(ev, node, now)

    def _do(self, ev: DEvent, node: Node, now: float) -> None:
        self._pending.remove(ev)
        try:
            self._apply(ev, node)
            self.result.events.append({"name": ev.name, "at": ev.at, "applied": now})
            self.echo(f"  {now:6.0f} s  event {ev.name} {_args(ev)}")
        except Exception as e:  # a step that could not be done is the run's failure
            self.result.problems.append(f"{ev.where} ({ev.name}) failed at {now:.0f} s: {e}")

    def _apply(self, ev: DEvent, node: Node) -> None:
        a = ev.args
        if ev.do == "fail" or ev.do == "replace":
            if not node.up:
                raise RuntimeError(f"{ev.ap} is not running")
            how = a.get("how", "signal10")
            node.sb.send_signal(signal.SIGKILL if how == "kill" else 10)
            self._down(node, how if ev.do == "fail" else "replaced")
            self._flush()
        if ev.do == "replace":
            by = self.nodes[a["by"]]
            self.members = [by.apdef if m is node.apdef else m for m in self.members]
            for other in self.nodes.values():  # the new member in every configuration file
                if other.up:
                    _write(other.sb.path("/tmp/run/config"), self.fl.config_text(other.apdef, self.members))
            self._start(by)
        elif ev.do == "start":
            self._start(node)
        elif ev.do == "ft_status":
            for vap, value in a["vaps"].items():
                node.sb.configd.set_value(FT_KEY.format(r=vap[4], v=vap[8]), str(value))
                node.ft = [v for v in node.ft if v != vap] + ([vap] if value == 1 else [])
            node.sb.send_signal(signal.SIGRTMIN, a["value"])
            node.signals += 1
        elif ev.do == "configd":
            cd = node.sb.configd
            {"stall": cd.stall, "close": cd.close_after_request}.get(a["mode"], lambda times: cd.answer_normally())(
                a["times"])

    def _start(self, node: Node) -> None:
        if node.up:
            raise RuntimeError(f"{node.apdef.name} is already running")
        if node.lives:
            node.sb.wait_exit(10)
            node.lives[-1].exit_code = node.sb.exit_code()
        self._launch(node)

    def _progress(self, now: float) -> None:
        self._last_progress = time.time()
        up = [n for n in self.nodes.values() if n.up]
        upnames = {n.apdef.name for n in up}
        owner = {a.key_holder(): a.name for a in self.fl.aps}
        held = covered = wanted = stale = 0
        for n in up:
            p = n.sb.path(KEY_HOLDERS)
            khs = {owner.get(m) for m, _, _ in parse_records(p.read_bytes())} if p.exists() else set()
            cands = [o.name for o in self.fl.aps if o.name in upnames and o is not n.apdef
                     and self.fl.candidate(n.apdef, o)]
            held += len(khs)
            wanted += len(cands)
            covered += sum(c in khs for c in cands)
            stale += sum(k not in upnames or k == n.apdef.name for k in khs)
        scanned = sum(any(f"{b}.full" in n.watcher.milestones for b in BANDS) for n in up)
        self.echo(f"  {now:6.0f} s  up {len(up)}, ready {sum(n.ready for n in up)} | key holders {held}: "
                  f"roaming candidates covered {covered} of {wanted}, stale {stale} | "
                  f"first scans done on {scanned} | events sent {self.result.datagrams}")

    def _sample(self) -> None:
        """Memory of this process and everything below it: the sum of the
        proportional set sizes (shared pages counted once) and of the
        resident sizes."""
        self._last_sample = time.time()
        pss = rss = 0
        pids = _descendants(os.getpid())
        for pid in pids:
            try:
                for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
                    if line.startswith("Pss:"):
                        pss += int(line.split()[1])
                    elif line.startswith("Rss:"):
                        rss += int(line.split()[1])
            except (OSError, ValueError, IndexError):
                pass
        r = self.result
        r.peak_pss_mb = max(r.peak_pss_mb, pss / 1024)
        r.peak_rss_mb = max(r.peak_rss_mb, rss / 1024)
        r.peak_processes = max(r.peak_processes, len(pids))

    # ---- the end ------------------------------------------------------------------------------

    def _settle(self) -> None:
        """Waits until every daemon has handled what was sent to it: it has
        logged one wait for the next event per datagram, or (when its log
        rotated faster than it was read) has gone quiet."""
        timeout = 30.0 + 2 * len(self.nodes)
        deadline = time.time() + timeout
        seen: dict[str, tuple[int, float]] = {}
        while time.time() < deadline:
            now = self.now()
            busy = []
            for node in self.nodes.values():
                if node.up:
                    self._follow(node, now)
                    w = node.watcher
                    handled = w.count(HANDLED) - 1
                    if seen.get(node.apdef.name, (None,))[0] != handled:
                        seen[node.apdef.name] = (handled, time.time())
                    quiet = w.gaps and time.time() - seen[node.apdef.name][1] > QUIET
                    if node.outbox or handled < node.sent and not quiet \
                            or sum(w.count(t) for t in SIGNALS_HANDLED) < node.signals and not quiet:
                        busy.append(node.apdef.name)
            self._flush()
            if not busy:
                return
            time.sleep(POLL)
        self.result.problems.append(f"still busy {timeout:.0f} s after the end: {', '.join(busy)}")

    def _snapshot(self, timeout: float = 10.0) -> None:
        """The files of every running daemon; a database once its scan is
        not writing it."""
        self.result.end = self.now()
        deadline = time.time() + timeout
        for node in self.nodes.values():
            if not node.up:
                continue
            final = node.sb.scratch / "final"
            final.mkdir(exist_ok=True)
            for rel in FINAL_FILES:
                marker = next((node.sb.path("/" + b["marker"]) for band, b in BANDS.items() if rel == DB_FILES[band]),
                              None)
                while marker and marker.exists() and time.time() < deadline:
                    time.sleep(POLL)
                src = node.sb.path(rel)
                if src.is_file():
                    final.joinpath(src.name).write_bytes(src.read_bytes())


def _datagram(member: ApSpec, kind: int, radio: int) -> bytes:
    return member.radio_mac(radio) + bytes([kind, member.family, radio])


def _descendants(root: int) -> list[int]:
    children: dict[int, list[int]] = {}
    for d in Path("/proc").iterdir():
        if d.name.isdigit():
            try:
                ppid = int((d / "stat").read_text().rsplit(")", 1)[1].split()[1])
            except (OSError, ValueError, IndexError):
                continue
            children.setdefault(ppid, []).append(int(d.name))
    out, todo = [root], [root]
    while todo:
        kids = children.get(todo.pop(), [])
        out += kids
        todo += kids
    return out


def _write(path: Path, text: str) -> None:
    tmp = path.with_name(path.name + ".sim")
    tmp.write_text(text)
    tmp.replace(path)


def _args(ev: DEvent) -> str:
    return " ".join(f"{k}={v}" for k, v in ev.args.items() if k != "value")
