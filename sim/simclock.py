"""The event clock's supervisor: simulated time that waits for the sandbox.

One segment file (layout in preload/clock_segment.h) holds the simulated
monotonic clock and the wall clock's offset from it; every process under the
clock maps it through the preload library. A thread here looks at the kernel
state of every thread of those processes and of the Python threads enlisted
here (the ones that answer the daemon, as configd's do). Only when all
of them have slept, with no thread scheduled in between, over two looks a
settle interval apart does time move: to the earliest deadline of the timed
waits (the segment's wait slots, the waits of Python code here, the gates),
at most `scale` simulated seconds per real second of such quiet; the threads
whose deadline has come are kicked and time stands still again until they
have left their waits. A thread that keeps running (a loop that never
sleeps, a wait the clock does not see) would hold the clock forever: after
`hold_limit` real seconds held without a quiet look the clock paces instead (one
simulated second per real second up to the next deadline) and warns once
per process and call.
"""

import ctypes
import math
import mmap
import os
import signal
import struct
import threading
import time
from pathlib import Path

MAGIC, VERSION = 0x4B435644, 1
PROC_SLOTS, WAIT_SLOTS = 1024, 2048
PROCS_OFF = 64
WAITS_OFF = PROCS_OFF + PROC_SLOTS * 8
SIZE = WAITS_OFF + WAIT_SLOTS * 48
KICK_SIGNAL = signal.SIGRTMAX - 1
ASLEEP = frozenset("SZIXxTt")  # kernel task states of a thread that does not run
NS = 1_000_000_000

_libc = ctypes.CDLL(None, use_errno=True)
_SYS_TGKILL = 234 if os.uname().machine == "x86_64" else 131 if os.uname().machine == "aarch64" else 268


def describe(c: dict) -> str:
    """How a run's clock ran (its `report()` with the `kind`), one line."""
    if c.get("kind") != "event" or "simulated" not in c:
        return f"clock: {c.get('kind', 'affine')}, the daemon's time runs at the scale whatever it does"
    return (f"clock: event, {c['simulated']:.0f} simulated s in {c['real']:.0f} s of wall time, held "
            f"{c['held']:.0f} s for the sandbox's work, paced {c['paced']:.0f} s, {c['advances']} advances")


def _read(path: str) -> bytes | None:
    try:
        fd = os.open(path, os.O_RDONLY)
    except OSError:
        return None
    try:
        return os.read(fd, 512)
    except OSError:
        return None
    finally:
        os.close(fd)


class EventClock:
    """The clock of one sandbox or of a whole deployment."""

    def __init__(self, path, scale: float = 100.0, wall0: float | None = None, settle: float = 0.002,
                 hold_limit: float = 20.0, warn=None):
        """path: the segment file. scale: at most this many simulated seconds
        per real second (0: no bound, time jumps). wall0: the wall clock at
        the start (default the host's)."""
        self.path = Path(path)
        self.scale = float(scale)
        self.settle = settle
        self.hold_limit = hold_limit
        self._warn = warn or (lambda text: print(f"dorvsim clock: {text}", flush=True))
        fd = os.open(self.path, os.O_RDWR | os.O_CREAT | os.O_TRUNC | os.O_NOFOLLOW, 0o644)
        try:
            os.ftruncate(fd, SIZE)
            self._m = mmap.mmap(fd, SIZE)
        finally:
            os.close(fd)
        now = time.monotonic_ns()
        wall0 = time.time() if wall0 is None else wall0
        struct.pack_into("<IIIIqqQII", self._m, 0, MAGIC, VERSION, 0, KICK_SIGNAL, now,
                         int(wall0 * NS) - now, 0, PROC_SLOTS, WAIT_SLOTS)
        self.start_ns = now
        self.wall0 = wall0
        self._lock = threading.Condition()
        self._py_waits: dict[int, int] = {}  # id -> deadline (monotonic ns)
        self._gates: list = []
        self._threads: list[threading.Thread] = []  # enlisted Python threads
        self._thread: threading.Thread | None = None
        self._stop = threading.Event()
        self._warned: set = set()
        self.stats = {"advances": 0, "held": 0.0, "paced": 0.0, "real": 0.0}
        self._real0 = time.monotonic()

    # ---- time ---------------------------------------------------------------------

    def now_ns(self) -> int:
        return struct.unpack_from("<q", self._m, 16)[0]

    def wall(self) -> float:
        """The sandbox's wall clock, epoch seconds."""
        now, off = struct.unpack_from("<qq", self._m, 16)
        return (now + off) / NS

    def elapsed(self) -> float:
        """Simulated seconds since the clock began."""
        return (self.now_ns() - self.start_ns) / NS

    def _write(self, now: int | None = None, offset: int | None = None) -> None:
        seq = struct.unpack_from("<I", self._m, 8)[0]
        struct.pack_into("<I", self._m, 8, seq + 1)
        if now is not None:
            struct.pack_into("<q", self._m, 16, now)
        if offset is not None:
            struct.pack_into("<q", self._m, 24, offset)
        struct.pack_into("<I", self._m, 8, seq + 2)

    def step_wall(self, seconds: float) -> None:
        """Steps the wall clock by `seconds` (backwards when negative), as an
        administrator or a time daemon would; the monotonic clock goes on.
        Waits on the wall clock are kicked to look again."""
        with self._lock:
            off = struct.unpack_from("<q", self._m, 24)[0]
            self._write(offset=off + int(seconds * NS))
            for tid, pid, _, wall, _ in self._slots():
                if wall:
                    self._kick(pid, tid)

    # ---- Python participants --------------------------------------------------------

    def sleep(self, seconds: float, timeout: float | None = None) -> bool:
        """Lets `seconds` of simulated time pass for the calling thread; the
        clock will not run past its end. False when `timeout` real seconds
        ran out first."""
        return self.wait_until(self.now_ns() + int(seconds * NS), timeout)

    def wait_until(self, deadline_ns: int, timeout: float | None = None) -> bool:
        key = object()
        end = None if timeout is None else time.monotonic() + timeout
        with self._lock:
            self._py_waits[id(key)] = deadline_ns
            try:
                while self.now_ns() < deadline_ns:
                    left = None if end is None else end - time.monotonic()
                    if left is not None and left <= 0:
                        return False
                    self._lock.wait(0.2 if left is None else min(left, 0.2))
                return True
            finally:
                del self._py_waits[id(key)]
                self._lock.notify_all()

    def enlist(self, thread: threading.Thread) -> None:
        """Counts a Python thread as part of the sandbox: time stands still
        while it runs. Enlist it before starting it: until it has started it
        holds the clock, so no thread it answers can time out meanwhile."""
        with self._lock:
            self._threads = [t for t in self._threads if not t.ident or t.is_alive()] + [thread]

    def nudge(self, pid: int) -> None:
        """Wakes the timed waits of process `pid` for one look around (the
        preload library's wake hook) without ending them."""
        for tid, wpid, _, _, _ in self._slots():
            if wpid == pid:
                self._kick(wpid, tid)

    def add_gate(self, gate) -> None:
        """gate() -> the simulated elapsed seconds the clock may not pass
        (None: no bound); asked before each advance, from the clock's thread."""
        self._gates.append(gate)

    # ---- the supervisor ----------------------------------------------------------

    def start(self) -> "EventClock":
        self._thread = threading.Thread(target=self._run, name="event-clock", daemon=True)
        self._thread.start()
        return self

    def stop(self) -> None:
        self._stop.set()
        if self._thread:
            self._thread.join(5)
        self.stats["real"] = time.monotonic() - self._real0

    def close(self) -> None:
        self.stop()
        self._m.close()

    def report(self) -> dict:
        """How the clock ran: simulated and real seconds, and the real seconds
        it stood still for work in the sandbox (held) or paced."""
        real = time.monotonic() - self._real0 if self._thread and self._thread.is_alive() else self.stats["real"]
        return {"simulated": round(self.elapsed(), 3), "real": round(real, 3),
                "held": round(self.stats["held"], 3), "paced": round(self.stats["paced"], 3),
                "advances": self.stats["advances"],
                "waits": struct.unpack_from("<Q", self._m, 32)[0]}

    def _procs(self) -> list[int]:
        pids = []
        for i in range(PROC_SLOTS):
            pid = struct.unpack_from("<i", self._m, PROCS_OFF + 8 * i)[0]
            if pid:
                if os.path.exists(f"/proc/{pid}"):
                    pids.append(pid)
                else:
                    struct.pack_into("<i", self._m, PROCS_OFF + 8 * i, 0)
        return pids

    def _slots(self):
        """(tid, pid, deadline, wall, call) of each timed wait under way."""
        out = []
        for i in range(WAIT_SLOTS):
            off = WAITS_OFF + 48 * i
            tid, pid, deadline, wall = struct.unpack_from("<iiqi", self._m, off)
            if tid and deadline:
                call = bytes(self._m[off + 24:off + 48]).split(b"\0")[0].decode(errors="replace")
                out.append((tid, pid, deadline, wall, call))
        return out

    def _free_dead_slots(self) -> None:
        for i in range(WAIT_SLOTS):
            off = WAITS_OFF + 48 * i
            tid, pid = struct.unpack_from("<ii", self._m, off)
            if tid and not os.path.exists(f"/proc/{pid}/task/{tid}"):
                struct.pack_into("<iiq", self._m, off, 0, 0, 0)

    def _look(self) -> dict:
        """tid -> (state, times scheduled) of every thread under the clock."""
        seen = {}
        tasks = []
        for pid in self._procs():
            try:
                tasks += [(pid, t) for t in os.listdir(f"/proc/{pid}/task")]
            except OSError:
                continue
        for th in list(self._threads):
            if th.native_id is None:
                seen[-id(th)] = ("R", b"", 0)  # about to start
            elif th.is_alive():
                tasks.append((os.getpid(), str(th.native_id)))
        for pid, t in tasks:
            stat = _read(f"/proc/{pid}/task/{t}/stat")
            sched = _read(f"/proc/{pid}/task/{t}/schedstat")
            if stat and sched:
                seen[int(t)] = (chr(stat[stat.rindex(b")") + 2]), sched.split()[2], pid)
        return seen

    def _kick(self, pid: int, tid: int) -> None:
        _libc.syscall(_SYS_TGKILL, pid, tid, KICK_SIGNAL)

    def _next(self, now: int, offset: int):
        """The earliest deadline (monotonic ns), or 'due' while a wait whose
        deadline has come has not left yet."""
        best = None
        for tid, pid, deadline, wall, _ in self._slots():
            d = deadline - offset if wall else deadline
            if d <= now and os.path.exists(f"/proc/{pid}/task/{tid}"):
                self._kick(pid, tid)
                return "due"
            if d <= now:  # a process killed in its wait
                self._free_dead_slots()
                continue
            best = d if best is None else min(best, d)
        for d in self._py_waits.values():
            if d <= now:
                self._lock.notify_all()
                return "due"
            best = d if best is None else min(best, d)
        for gate in self._gates:
            g = gate()
            if g is not None:
                d = self.start_ns + math.ceil(g * NS)
                if d <= now:
                    return "due"
                best = d if best is None else min(best, d)
        return best

    def _run(self) -> None:
        before = None
        last = time.monotonic()
        held_since = None  # real time at which the clock began to be held
        budget = 0.0
        n = 0
        while not self._stop.is_set():
            time.sleep(self.settle)
            look = self._look()
            t = time.monotonic()
            dt, last = t - last, t
            struct.pack_into("<q", self._m, 48, time.monotonic_ns())
            n += 1
            if n % 500 == 0:
                self._free_dead_slots()
            quiet = before is not None and look.keys() == before.keys() and all(
                s[0] in ASLEEP and before[k][:2] == s[:2] for k, s in look.items())
            before = look
            if quiet:
                held_since = None
            elif held_since is None:
                held_since = t
            paced = not quiet and t - held_since > self.hold_limit
            if not quiet and not paced:
                self.stats["held"] += dt
                budget = 0.0
                continue
            with self._lock:
                now, offset = struct.unpack_from("<qq", self._m, 16)
                nxt = self._next(now, offset)
                if nxt == "due":
                    continue
                if paced:
                    self._tell_holders(look)
                    self.stats["paced"] += dt
                    step = dt * NS
                else:
                    budget += dt * self.scale * NS if self.scale else float("inf")
                    step = budget
                target = now + int(min(step, 1e18))
                if nxt is not None:
                    target = min(target, nxt)
                if target <= now:
                    continue
                self._write(now=target)
                budget = max(0.0, budget - (target - now)) if not paced else 0.0
                self.stats["advances"] += 1
                for tid, pid, deadline, wall, _ in self._slots():
                    if (deadline - offset if wall else deadline) <= target:
                        self._kick(pid, tid)
                self._lock.notify_all()

    def _tell_holders(self, look: dict) -> None:
        for tid, (state, _, pid) in look.items():
            if state in ASLEEP:
                continue
            comm = (_read(f"/proc/{pid}/task/{tid}/comm") or b"?").decode(errors="replace").strip()
            call = (_read(f"/proc/{pid}/task/{tid}/syscall") or b"?").split(b" ")[0].decode(errors="replace")
            if (pid, comm, call) not in self._warned:
                self._warned.add((pid, comm, call))
                self._warn(f"pid {pid} ({comm}, thread {tid}, system call {call}) has held the clock for "
                           f"{self.hold_limit:g} s; pacing at one simulated second per second")
