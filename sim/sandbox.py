"""Runs the unmodified daemon as root in private mount and network namespaces
over a scratch root, with the simulated driver and clock preloaded.

The host's /etc, /tmp, /var, /usr and /dev are never changed: the daemon is
chrooted into SCRATCH/root, whose /usr is an overlay of the host's /usr (the
upper layer holds the simulated tools), and whose /dev/log is a socket bound
here. root/tmp, root/var and root/dorvsim are plain scratch directories, so the
daemon's files and sockets are reachable from the host side directly.

Scratch layout:
    root/                 the daemon's /
    root/dorvsim/         the simulator's own files (the daemon never looks):
        state             driver state (sim/driver_state.py)
        reqlog            every driver request, one key=value line each
        calls/TOOL.log    arguments of each run of wifitool, ifconfig, ...
        runs/SCRIPT/NNNNN copies of the key-holder files at each script run
        ctl/              switches for the simulated tools
        faults            fault rules, re-read while the daemon runs (sim/faults.py)
        faults.fired      what they failed, one line a firing
    usr-upper/, usr-work/ the overlay's layers
    out/                  ns_init config and status, its output, syslog.txt
"""

from __future__ import annotations

import calendar
import ctypes
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

from sim import faults
from sim.driver_state import DriverState, write_atomic
from sim.simclock import EventClock
from sim.syslog_sink import SyslogSink

SIM_DIR = Path(__file__).resolve().parent
DAEMON_IN_ROOT = "/usr/sbin/dorvand"
SIMLIB_IN_ROOT = "/usr/lib/dorvsim/libdorvsim.so"
CLOCK_IN_ROOT = "/dorvsim/clock"
# The clock a sandbox runs on unless told (DORVSIM_CLOCK_KIND overrides it).
DEFAULT_CLOCK = "event"
# qemu-user's -L folder for an emulated daemon: the guest looks up every path
# there first, so the same LD_PRELOAD names the target's preload library for
# the daemon and the host's for the shells and tools it starts.
GUEST_ROOT_IN_ROOT = "/usr/lib/dorvsim/guest"
# An emulated daemon started by a command of its own (an init script, a
# unit's ExecStart): the target's binary, which DAEMON_IN_ROOT then runs under
# qemu-user as the kernel's binfmt_misc would (named dorvand, as the preload
# library serves only the process of that name).
TARGET_DAEMON_IN_ROOT = "/usr/lib/dorvsim/target/dorvand"
EXIT_SIGNAL = 10
DEFAULT_SCALE = 100.0
DEFAULT_LINKS = {"wifi0": True, "wifi0vap0": True, "wifi1": True, "wifi1vap0": True,
                 "wifi2": True, "wifi2vap0": True}
FAKE_TOOLS = {
    "local/bin/fast_bss_transition.sh": "fast_bss_transition.sh",
    "local/bin/check_configd_child": "check_configd_child",
    "sbin/wifitool": "wifitool",
    "sbin/ifconfig": "ifconfig",
}
DEVICES = ("/dev/null", "/dev/zero", "/dev/urandom")
PATH_ENV = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
LOG_PATH = "tmp/log/dorvand_log"
PID_PATH = "tmp/dorvand.pid"
SYSLOG_RE = re.compile(r"^<(\d+)>(\w{3} [ \d]\d \d\d:\d\d:\d\d) ([^:\[\s]+)(?:\[\d+\])?: (.*)$", re.S)
LOG_TIME_RE = re.compile(r"^\[(\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4})\] ")
UNIX_PATH_MAX = 107
# Where a daemon built with AddressSanitizer or UndefinedBehaviorSanitizer
# writes its reports (it has detached from any terminal): one file per
# process, REPORTS_IN_ROOT.PID.
REPORTS_IN_ROOT = "/dorvsim/sanitizer/report"
SANITIZER_ENV = {
    # The simulator's library is preloaded ahead of the runtime.
    "ASAN_OPTIONS": f"log_path={REPORTS_IN_ROOT}:verify_asan_link_order=0:detect_leaks=1",
    "UBSAN_OPTIONS": f"log_path={REPORTS_IN_ROOT}:print_stacktrace=1:halt_on_error=1",
}
# How long a daemon built for coverage (DORVAND_COVERAGE) gets to write its
# counters on SIGTERM when the sandbox is ended, before SIGKILL. Below
# terminate()'s own wait for ns_init.
COVERAGE_TERM_GRACE = 2.0
COVERAGE_TERM_STATUS = 143  # its exit status then: 128 + SIGTERM, as a shell reports it


class SandboxError(Exception):
    pass


@dataclass(frozen=True)
class Emulation:
    """A daemon built for another architecture, run under qemu-user. qemu:
    the emulator (qemu-arm); simlib: the preload library built for the
    target; sysroot: the target's libraries (scripts/armhf-sysroot.sh), whose
    lib/ links to the cross toolchain's C and C++ run-time."""
    qemu: str
    simlib: Path
    sysroot: Path

    # qemu-user keeps the host's first two real-time signals for itself: the
    # host's SIGRTMIN+2+n reaches the guest as its SIGRTMIN+n, and a host
    # SIGRTMIN would end the guest.
    RT_SHIFT = 2

    def host_signal(self, sig: int) -> int:
        return sig + self.RT_SHIFT if sig >= signal.SIGRTMIN else sig

    @property
    def comm(self) -> str:
        """The process name of the emulated daemon: the emulator's."""
        return Path(self.qemu).name[:15]


class Sandbox:
    """One simulated access point. Use as a context manager, or call start()
    and close(). Every process it starts is ended by close(), by pid."""

    def __init__(self, dorvand, simlib, *, scratch=None, board: str | bytes | None = "TRM238",
                 config: str = "", links: dict[str, bool] | None = None,
                 driver: DriverState | dict | None = None, scale: float = DEFAULT_SCALE,
                 configd: dict | None = None, keep: bool = False, t0: float | None = None,
                 emulation: Emulation | None = None, command: list[str] | None = None,
                 files: dict[str, tuple[bytes, int]] | None = None, clock: str | EventClock | None = None,
                 wall0: float | None = None):
        """board: the product id (or the raw bytes of /etc/board; None: no
        file). config: text of /tmp/run/config. links: interface name -> up,
        the board's radios and VAPs (default DEFAULT_LINKS). driver: the
        simulated driver's answers. scale: daemon seconds per real second.
        configd: the configuration store's table, served on /tmp/confd_get
        (None: no configd). keep: leave the scratch folder behind. t0: the
        real time at which the daemon's clock agrees with the host's (default:
        the launch), shared by the access points of one deployment.
        emulation: run `dorvand`, built for another architecture, under
        qemu-user (`simlib` is then the host's library, for the programs the
        daemon starts). command: start the daemon (/usr/sbin/dorvand) through
        this command, as an init system would (an init script, a unit's
        ExecStart), instead of directly; the process may stay, as a watcher
        does, and the daemon's pid is then the one its pid file names. files:
        path in the root -> (bytes, mode), added to the root. clock: "event"
        (the default: simulated time that waits for the sandbox, at most
        `scale` times real time), "affine" (the daemon's clock runs `scale`
        times real time, whatever it does), or an EventClock shared with other
        sandboxes (a deployment's). wall0: the event clock's wall clock at
        its start, epoch seconds (default the host's)."""
        self.dorvand = Path(dorvand)
        self.simlib = Path(simlib)
        self.emulation = emulation
        self.command = list(command) if command else None
        self.files = dict(files or {})
        self.board = board
        self.config = config
        self.links = dict(DEFAULT_LINKS if links is None else links)
        self.driver = driver if isinstance(driver, DriverState) else DriverState.from_dict(driver)
        self.scale = float(scale)
        # Under qemu-user the guest's library would be kicked with a host
        # signal number: emulated daemons keep the affine clock.
        clock = "affine" if emulation else clock or os.environ.get("DORVSIM_CLOCK_KIND", DEFAULT_CLOCK)
        if clock not in ("event", "affine") and not isinstance(clock, EventClock):
            raise SandboxError(f"unknown clock {clock!r}")
        self.clock_kind = "affine" if clock == "affine" else "event"
        self.clock: EventClock | None = clock if isinstance(clock, EventClock) else None
        self._own_clock = self.clock is None and self.clock_kind == "event"
        self.wall0 = wall0
        self.clock_report: dict | None = None  # how the sandbox's own event clock ran, filled by close()
        self.clock_base = 0.0  # the clock's elapsed seconds at the daemon's start
        self.configd_table = configd
        self.keep = keep or scratch is not None
        self.scratch = Path(scratch).resolve() if scratch else Path(tempfile.mkdtemp(prefix="dorvsim-"))
        self.root = self.scratch / "root"
        self.out = self.scratch / "out"
        self.t0 = t0 or 0.0
        self._fixed_t0 = t0 is not None
        self._prepared = False
        self._proc: subprocess.Popen | None = None
        self._ns_log = None
        self._pid: int | None = None
        self._syslog: SyslogSink | None = None
        self.configd = None  # the ConfigdSim serving /tmp/confd_get, while running
        self.sanitized = _is_sanitized(self.dorvand)
        # A coverage daemon writes its counters to the build's absolute
        # paths: that folder is bound into the root at the same path.
        self.coverage_dir = None if emulation else _coverage_dir(self.dorvand)
        self.sanitizer_reports: list[str] = []  # filled by close()
        self.faults = faults.Faults(self.root, self._daemon_running,
                                    timeout=30.0 if emulation else 10.0, nudge=self._nudge)

    # ---- life cycle -----------------------------------------------------------

    def __enter__(self):
        try:
            return self.start()
        except BaseException:
            self.close()
            raise

    def __exit__(self, *exc):
        self.close()

    def start(self, wait: bool = True, timeout: float | None = None) -> "Sandbox":
        """Builds the root and starts the daemon; with `wait`, returns once
        the daemon has written its pid file. Once the daemon and everything
        below it have ended, start() runs it again over the same root (an
        access point that comes back): its files, syslog and configd stay."""
        if self.running():
            raise SandboxError("the sandbox still runs")
        if not self._prepared:
            self.prepare()
        self._pid = None
        if self.clock_kind == "event":
            seg = self.path(CLOCK_IN_ROOT)
            seg.unlink(missing_ok=True)
            os.link(self.clock.path, seg)
            self.clock_base = self.clock.elapsed()
            if not self._fixed_t0:
                self.t0 = self.clock.wall()
        elif not self._fixed_t0:
            self.t0 = time.time()
        if self._ns_log:
            self._ns_log.close()
        (self.out / "ns_status.json").unlink(missing_ok=True)  # an earlier run's pids and exits
        cfg = self._ns_config()
        cfg_path = self.out / "ns_init.json"
        cfg_path.write_text(json.dumps(cfg, indent=1))
        self._ns_log = open(self.out / "ns_init.log", "wb")
        # Should this process die, unshare is killed and ns_init gets
        # SIGTERM, on which it ends everything below it.
        guard = ["setpriv", "--pdeathsig", "KILL"] if shutil.which("setpriv") else []
        self._proc = subprocess.Popen(
            guard + ["unshare", "-m", "-n", "--fork", "--kill-child=TERM", "/usr/bin/python3",
                     str(SIM_DIR / "ns_init.py"), str(cfg_path)],
            stdin=subprocess.DEVNULL, stdout=self._ns_log, stderr=subprocess.STDOUT)
        if wait:
            # An emulated start-up (its shell commands included) is several times slower.
            timeout = timeout or (30.0 if self.emulation else 10.0)
            try:
                self.wait_for(self._pid_file_written, timeout, "the detached daemon to write /tmp/dorvand.pid")
            except BaseException:
                self.terminate()
                raise
        return self

    def prepare(self) -> "Sandbox":
        """The slow part of start(): the root, syslog and configd. Starting
        many access points at once prepares them all first, so that their
        daemons come up close together."""
        self._build_root()
        if self.clock_kind == "event" and self.clock is None:
            self.clock = EventClock(self.scratch / "clock", self.scale, wall0=self.wall0).start()
        self.path("/dev/log").unlink(missing_ok=True)
        self._syslog = SyslogSink(_sock_path(self.path("/dev/log")), self.out / "syslog.txt")
        self._syslog.start()
        self._start_configd()
        self._prepared = True
        return self

    def stop(self, timeout: float = 10.0) -> int | None:
        """Sends signal 10, waits for every process of the sandbox to end and
        returns the daemon's exit code (None when it had to be killed)."""
        pid = self.pid()
        if pid and self.running() and self.exit_code() is None:
            _kill(pid, EXIT_SIGNAL)
        try:
            self.wait_exit(timeout)
        except SandboxError:
            self.terminate()
            return None
        return self.exit_code()

    def terminate(self) -> None:
        """Ends every process of the sandbox without asking the daemon."""
        if not self._proc:
            return
        init_pid = self.status().get("init_pid")
        if self._proc.poll() is None and init_pid:
            _kill(init_pid, signal.SIGTERM)  # ns_init kills what is below it
            try:
                self._proc.wait(3)
            except subprocess.TimeoutExpired:
                pass
        if self._proc.poll() is None:
            for pid in (self._pid, init_pid):
                if pid and str(pid) not in self.status().get("exits", {}):
                    _kill(pid, signal.SIGKILL)
            self._proc.kill()
            self._proc.wait(5)

    def close(self) -> None:
        """Ends whatever still runs and removes the scratch folder (unless kept)."""
        try:
            if self._proc and self._proc.poll() is None:
                self.terminate()
        finally:
            self._stop_configd()
            if self._syslog:
                self._syslog.stop()
            if self._ns_log:
                self._ns_log.close()
                self._ns_log = None
            self.sanitizer_reports = self._read_sanitizer_reports()
            if self._own_clock and self.clock:
                self.clock_report = self.clock.report()
                self.clock.close()
                self.clock = None
            if not self.keep and not self.running():
                shutil.rmtree(self.scratch, ignore_errors=True)

    def running(self) -> bool:
        """True while any process of the sandbox is alive."""
        return self._proc is not None and self._proc.poll() is None

    def wait_exit(self, timeout: float = 10.0) -> None:
        """Waits until the daemon and everything below it have ended."""
        if not self._proc:
            return
        try:
            self._proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise SandboxError(f"the sandbox's processes still run after {timeout}s; "
                               f"log tail:\n{self._log_tail()}") from None

    def status(self) -> dict:
        """ns_init's status: init_pid, daemon_pids, exits (pid -> exit code;
        negative: killed by that signal), done."""
        try:
            return json.loads((self.out / "ns_status.json").read_text())
        except (OSError, ValueError):
            return {}

    def exit_code(self) -> int | None:
        """The daemon's exit code once it has ended, else None."""
        st = self.status()
        pid = self.pid()
        code = st.get("exits", {}).get(str(pid)) if pid else None
        return code

    # ---- accessors ------------------------------------------------------------

    def path(self, rel: str) -> Path:
        """A path of the daemon's file system, e.g. path("/tmp/dorvand.pid")."""
        return self.root / rel.lstrip("/")

    def pid(self) -> int | None:
        """The detached daemon's process id, as reaped by ns_init (None until
        the daemon has detached)."""
        if self._pid is None:
            pids = self.status().get("daemon_pids") or []
            self._pid = pids[0] if pids else None
        if self._pid is None and self.command:
            # The starting command may stay (a watcher), so ns_init cannot
            # tell the daemon by its launcher's end: its pid file names it.
            pid = self._read_pid_file()
            if pid and pid != self.status().get("launcher_pid") and _comm(pid) == self._daemon_comm():
                self._pid = pid
        return self._pid

    def arm_fault(self, rule: str, optional: bool = False) -> faults.FaultHandle:
        """Arms a fault rule (sim/README.md) for the daemon; once it runs,
        returns after the daemon has taken the rule. Raises FaultError for a
        rule it refuses. Unless `optional`, the test fixture fails a test
        whose armed rule never fired."""
        return self.faults.arm(rule, optional)

    def disarm_faults(self) -> None:
        """Disarms every rule; their firings stay on record."""
        self.faults.disarm_all()

    def faults_fired(self, handle: faults.FaultHandle | None = None) -> list[dict]:
        """Every firing (t, rule, call, path, errno or short), or one rule's."""
        fired = self.faults.fired()
        return [f for f in fired if f["rule"] == handle.rule] if handle else fired

    def _nudge(self) -> None:
        """On the event clock a daemon that waits makes no call that would
        look at the fault control file: its timed waits are woken to look."""
        pid = self.pid()
        if self.clock and pid:
            self.clock.nudge(pid)

    def _daemon_running(self) -> bool:
        return self.running() and self.pid() is not None and self.exit_code() is None

    def daemon_time(self, real: float | None = None) -> float:
        """The daemon's wall clock (epoch seconds) now (the event clock), or
        at real time `real` (the affine clock)."""
        if self.clock:
            return self.clock.wall()
        real = time.time() if real is None else real
        return self.t0 + (real - self.t0) * self.scale

    def sleep_daemon(self, seconds: float) -> None:
        """Lets `seconds` of daemon time pass."""
        if self.clock:
            self.clock.sleep(seconds)
        else:
            time.sleep(seconds / self.scale)

    def step_clock(self, seconds: float) -> None:
        """Steps the sandbox's wall clock by `seconds` while it runs (the
        monotonic clock goes on); the event clock only."""
        if not self.clock:
            raise SandboxError("only the event clock's wall clock can be stepped")
        self.clock.step_wall(seconds)

    def stamp_seconds(self, stamp: float) -> float:
        """Daemon seconds since the start of a time stamp the sandbox's
        programs wrote (the transition script's `time`): the wall clock they
        read is the daemon's on the event clock, the host's on the affine."""
        return stamp - self.t0 if self.clock_kind == "event" else (stamp - self.t0) * self.scale

    def log_text(self) -> str:
        """The daemon's log, backups first."""
        parts = []
        for rel in (LOG_PATH + ".1", LOG_PATH + ".0", LOG_PATH):
            try:
                parts.append(self.path(rel).read_bytes().decode("utf-8", "replace"))
            except FileNotFoundError:
                pass
        return "".join(parts)

    def log_times(self, text: str) -> list[float]:
        """Daemon times (epoch seconds, whole seconds) of the log lines
        containing `text`."""
        out = []
        for line in self.log_text().splitlines():
            m = LOG_TIME_RE.match(line)
            if m and text in line:
                out.append(calendar.timegm(time.strptime(m.group(1), "%a %b %d %H:%M:%S %Y")))
        return out

    def syslog_records(self) -> list[tuple[int, str]]:
        """(priority, message) of every syslog line received so far."""
        out = []
        for raw in self._syslog.lines() if self._syslog else []:
            m = SYSLOG_RE.match(raw)
            out.append((int(m.group(1)), m.group(4)) if m else (-1, raw))
        return out

    def syslog_lines(self) -> list[str]:
        """The messages received on /dev/log, without their headers."""
        return [msg for _, msg in self.syslog_records()]

    def requests(self, req: str | None = None) -> list[dict]:
        """The driver requests logged by the simulator (optionally only those
        with req=`req`), as dicts of their key=value words."""
        try:
            text = self.path("/dorvsim/reqlog").read_text(errors="replace")
        except FileNotFoundError:
            return []
        return [rec for rec in parse_reqlog(text) if req is None or rec.get("req") == req]

    def tool_calls(self, tool: str) -> list[str]:
        """Argument lines of every run of a simulated tool (wifitool, ifconfig,
        check_configd_child)."""
        try:
            return self.path(f"/dorvsim/calls/{tool}.log").read_text().splitlines()
        except FileNotFoundError:
            return []

    def script_runs(self, script: str = "fast_bss_transition.sh") -> list[dict[str, bytes | None]]:
        """One dict per run of the transition script: what ap2_macaddr.txt,
        ft_key_changed.txt and roam_key_holders held (None: absent)."""
        base = self.path(f"/dorvsim/runs/{script}")
        runs = []
        for d in sorted(base.iterdir()) if base.is_dir() else []:
            run = {}
            for name in ("ap2_macaddr.txt", "ft_key_changed.txt", "roam_key_holders"):
                f = d / name
                run[name] = f.read_bytes() if f.exists() else None
            runs.append(run)
        return runs

    def script_run_times(self, script: str = "fast_bss_transition.sh") -> list[float | None]:
        """The real time (epoch seconds) of each run of the transition script,
        in the order of script_runs(); None where it was not recorded."""
        base = self.path(f"/dorvsim/runs/{script}")
        out = []
        for d in sorted(base.iterdir()) if base.is_dir() else []:
            try:
                out.append(float((d / "time").read_text().strip()))
            except (OSError, ValueError):
                out.append(None)
        return out

    def daemon_seconds(self, real: float | None = None) -> float:
        """Daemon seconds since the start: now (the event clock, on its
        monotonic clock, which steps of the wall clock leave alone), or at
        real time `real` (epoch seconds, the affine clock)."""
        if self.clock:
            return self.clock.elapsed() - self.clock_base
        return ((time.time() if real is None else real) - self.t0) * self.scale

    # ---- actions --------------------------------------------------------------

    def send_signal(self, sig: int, value: int | None = None) -> None:
        """Sends `sig` to the daemon; with `value`, queued with that integer
        (as a SIGRTMIN carrying a VAP mask is)."""
        pid = self._need_pid()
        if self.emulation:
            sig = self.emulation.host_signal(sig)
        if value is None:
            os.kill(pid, sig)
            return
        libc = ctypes.CDLL(None, use_errno=True)

        class sigval(ctypes.Union):
            _fields_ = [("sival_int", ctypes.c_int), ("sival_ptr", ctypes.c_void_p)]

        libc.sigqueue.argtypes = [ctypes.c_int, ctypes.c_int, sigval]
        v = sigval()
        v.sival_int = ctypes.c_int(value).value  # the low 32 bits, as the daemon reads them
        if libc.sigqueue(pid, sig, v) != 0:
            err = ctypes.get_errno()
            raise OSError(err, f"sigqueue({pid}, {sig}): {os.strerror(err)}")

    def set_link(self, name: str, up: bool) -> None:
        """Brings an interface of the sandbox up or down."""
        self._ip("link", "set", name, "up" if up else "down")

    def add_link(self, name: str, up: bool = True) -> None:
        self._ip("link", "add", name, "type", "veth", "peer", "name", f"dsx{name}"[:15])
        if up:
            self.set_link(name, True)

    def del_link(self, name: str) -> None:
        self._ip("link", "del", name)

    def link_states(self) -> dict[str, bool]:
        """Interface name -> administratively up, as the daemon sees them."""
        out = self._ip("-j", "link", "show")
        return {link["ifname"]: "UP" in link.get("flags", []) for link in json.loads(out)}

    def send_event(self, data: bytes) -> None:
        """Sends one datagram to the daemon's event socket /tmp/roam_sock."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
            s.sendto(data, _sock_path(self.path("/tmp/roam_sock")))

    def start_beside(self, timeout: float = 10.0) -> subprocess.CompletedProcess:
        """Starts the daemon once more in the running sandbox, as a second
        start on the same access point would, and returns that launch (exit
        code, stdout, stderr). A daemon that detaches instead is killed, by
        the pid it wrote, so nothing outlives the sandbox."""
        init_pid = self.status().get("init_pid")
        if not init_pid or not self.running():
            raise SandboxError("the sandbox is not running")
        cfg = json.loads((self.out / "ns_init.json").read_text())
        env = [f"{k}={v}" for k, v in cfg["env"].items()]
        r = subprocess.run(["nsenter", f"--mount=/proc/{init_pid}/ns/mnt", f"--net=/proc/{init_pid}/ns/net",
                            "chroot", str(self.root), "/usr/bin/env", "-i", *env, *cfg["daemon"]],
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout)
        if r.returncode == 0:
            deadline = time.monotonic() + 2
            while time.monotonic() < deadline and self._read_pid_file() in (None, self.pid()):
                time.sleep(0.02)
            other = self._read_pid_file()
            if other and other != self.pid():
                _kill(other, signal.SIGKILL)
        return r

    def set_driver(self, driver: DriverState | dict) -> None:
        """Replaces the driver's answers; the daemon's next request sees them."""
        self.driver = driver if isinstance(driver, DriverState) else DriverState.from_dict(driver)
        self.driver.write(self.path("/dorvsim/state"))

    def set_tool_rc(self, tool: str, rc: int | None) -> None:
        """Makes a simulated tool exit with `rc` (None: 0 again)."""
        f = self.path(f"/dorvsim/ctl/{tool}.rc")
        f.parent.mkdir(parents=True, exist_ok=True)
        if rc is None:
            f.unlink(missing_ok=True)
        else:
            write_atomic(f, f"{int(rc)}\n".encode())

    def set_configd_busy(self, busy: bool) -> None:
        """While busy, check_configd_child removes /tmp/FT_Configd_Child_Check."""
        f = self.path("/dorvsim/ctl/configd_busy")
        if busy:
            f.parent.mkdir(parents=True, exist_ok=True)
            f.touch()
        else:
            f.unlink(missing_ok=True)

    # ---- waiting --------------------------------------------------------------

    def wait_for(self, predicate, timeout: float, what: str, interval: float = 0.02):
        """Polls `predicate` until it gives a true value, which is returned.
        Fails with a message naming `what` and the log's tail."""
        deadline = time.monotonic() + timeout
        while True:
            value = predicate()
            if value:
                return value
            if time.monotonic() >= deadline:
                raise AssertionError(f"timed out after {timeout}s waiting for {what}; "
                                     f"sandbox {'running' if self.running() else 'ended'}, "
                                     f"log tail:\n{self._log_tail()}\nns_init output:\n{self._ns_output()}")
            if self._proc and self._proc.poll() is not None:
                # Everything has ended: nothing new can appear.
                deadline = min(deadline, time.monotonic() + 0.2)
            time.sleep(interval)

    def wait_for_log(self, text: str, timeout: float = 5.0, count: int = 1) -> str:
        """Waits until `text` appears `count` times in the daemon's log."""
        self.wait_for(lambda: self.log_text().count(text) >= count, timeout,
                      f"{text!r} in the daemon log" + (f" {count} times" if count > 1 else ""))
        return self.log_text()

    def wait_for_syslog(self, text: str, timeout: float = 5.0) -> list[str]:
        self.wait_for(lambda: any(text in m for m in self.syslog_lines()), timeout,
                      f"{text!r} in syslog")
        return self.syslog_lines()

    def wait_for_request(self, req: str, timeout: float = 5.0, count: int = 1, **match) -> list[dict]:
        """Waits for `count` driver requests of kind `req` whose fields equal
        `match` (values compared as text)."""
        def found():
            recs = [r for r in self.requests(req) if all(r.get(k) == str(v) for k, v in match.items())]
            return recs if len(recs) >= count else None
        return self.wait_for(found, timeout, f"{count} driver request(s) {req} {match}")

    # ---- set-up ---------------------------------------------------------------

    def _build_root(self) -> None:
        if (self.root / "usr").exists() and any((self.root / "usr").iterdir()):
            raise SandboxError(f"{self.root}/usr is not empty: is another sandbox using {self.scratch}?")
        for d in ("etc", "tmp/run", "tmp/log", "var", "dev", "proc", "usr", "dorvsim/calls", "dorvsim/runs",
                  "dorvsim/ctl", "dorvsim/sanitizer"):
            (self.root / d).mkdir(parents=True, exist_ok=True)
        for d in (self.scratch / "usr-upper", self.scratch / "usr-work", self.out):
            d.mkdir(parents=True, exist_ok=True)
        for link in ("bin", "lib", "lib64", "sbin"):
            if not (self.root / link).is_symlink():
                (self.root / link).symlink_to(f"usr/{link}")
        for dev in DEVICES:
            (self.root / dev.lstrip("/")).touch()
        if self.coverage_dir:
            (self.root / self.coverage_dir.lstrip("/")).mkdir(parents=True, exist_ok=True)
        self.path("/tmp").chmod(0o1777)
        (self.root / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/sh\n")
        (self.root / "etc/group").write_text("root:x:0:\n")
        self._copy_alternatives()
        if self.board is not None:
            board = self.board if isinstance(self.board, bytes) else f"ProductID={self.board}\n".encode()
            (self.root / "etc/board").write_bytes(board)
        self.path("/tmp/run/config").write_text(self.config)
        self.driver.write(self.path("/dorvsim/state"))
        self._install_upper()
        for rel, (data, mode) in self.files.items():
            # /usr is the overlay: its files go to the upper layer.
            dest = (self.scratch / "usr-upper" / rel[len("/usr/"):] if rel.startswith("/usr/")
                    else self.path(rel))
            dest.parent.mkdir(parents=True, exist_ok=True)
            dest.write_bytes(data)
            dest.chmod(mode)

    def _copy_alternatives(self) -> None:
        """Debian reaches some tools through /etc/alternatives (awk is
        /usr/bin/awk -> /etc/alternatives/awk -> /usr/bin/mawk); the root's
        own /etc needs those links, or the daemon's shell pipelines fail."""
        host = Path("/etc/alternatives")
        if not host.is_dir():
            return
        dest = self.root / "etc/alternatives"
        dest.mkdir(exist_ok=True)
        for link in host.iterdir():
            if link.is_symlink() and not (dest / link.name).is_symlink():
                (dest / link.name).symlink_to(os.readlink(link))

    def _install_upper(self) -> None:
        upper = self.scratch / "usr-upper"
        for rel, fake in FAKE_TOOLS.items():
            dest = upper / rel
            dest.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(SIM_DIR / "fakes" / fake, dest)
        wrapped = self.emulation and self.command
        for src, rel in ((self.dorvand, TARGET_DAEMON_IN_ROOT if wrapped else DAEMON_IN_ROOT),
                         (self.simlib, SIMLIB_IN_ROOT)):
            if not src.is_file():
                raise SandboxError(f"missing {src}")
            dest = upper / rel[len("/usr/"):]
            dest.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(src, dest)
        if self.emulation:
            self._install_guest_root(upper / GUEST_ROOT_IN_ROOT[len("/usr/"):])
        if wrapped:
            wrapper = upper / DAEMON_IN_ROOT[len("/usr/"):]
            wrapper.write_text("#!/bin/sh\nexec " + " ".join(self._emulated_command(TARGET_DAEMON_IN_ROOT)) + ' "$@"\n')
            wrapper.chmod(0o755)

    def _install_guest_root(self, guest: Path) -> None:
        """The emulated daemon's own libraries under qemu's -L folder: the
        target's preload library and shared libraries, and lib/ for the
        toolchain's run-time (its link resolves through the root's /usr)."""
        emu = self.emulation
        libs = sorted(emu.sysroot.glob("usr/lib/*/*.so.*"))
        if not emu.simlib.is_file() or not libs or not (emu.sysroot / "lib").is_symlink():
            raise SandboxError(f"missing {emu.simlib} or the target's libraries in {emu.sysroot} "
                               "(scripts/armhf-sysroot.sh)")
        dest = guest / SIMLIB_IN_ROOT.lstrip("/")
        dest.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(emu.simlib, dest)
        for lib in libs:
            dest = guest / lib.relative_to(emu.sysroot)
            dest.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(lib, dest)
        (guest / "lib").symlink_to(os.readlink(emu.sysroot / "lib"))

    def _daemon_command(self) -> tuple[list[str], dict[str, str]]:
        """The command that starts the daemon and the environment variables
        it needs beyond the simulator's: the preload library, given to the
        emulated daemon only (qemu itself must not load it)."""
        preload = {"LD_PRELOAD": SIMLIB_IN_ROOT}
        if self.command:
            return self.command, {} if self.emulation else preload
        if not self.emulation:
            return [DAEMON_IN_ROOT], preload
        return self._emulated_command(DAEMON_IN_ROOT), {}

    def _emulated_command(self, daemon: str) -> list[str]:
        qemu = f"/usr/bin/{Path(self.emulation.qemu).name}"
        return [qemu, "-L", GUEST_ROOT_IN_ROOT, "-E", f"LD_PRELOAD={SIMLIB_IN_ROOT}", daemon]

    def _daemon_comm(self) -> str:
        return self.emulation.comm if self.emulation else "dorvand"

    def _ns_config(self) -> dict:
        for name in self.links:
            if not re.fullmatch(r"[A-Za-z0-9_.-]{1,15}", name) or name.startswith("dsim"):
                raise SandboxError(f"bad interface name {name!r}")
        command, preload = self._daemon_command()
        return {
            "root": str(self.root),
            "usr_upper": str(self.scratch / "usr-upper"),
            "usr_work": str(self.scratch / "usr-work"),
            "binds": list(DEVICES) + ([self.coverage_dir] if self.coverage_dir else []),
            # SIGTERM first, so that a coverage daemon's counters are kept.
            "term_grace": COVERAGE_TERM_GRACE if self.coverage_dir else 0.0,
            # The sanitizer runtimes read /proc/self/maps.
            "proc": self.sanitized,
            "links": [[name, bool(up)] for name, up in self.links.items()],
            "status": str(self.out / "ns_status.json"),
            "daemon": command,
            "daemon_comm": self._daemon_comm(),
            "env": {
                "PATH": PATH_ENV,
                "TZ": "UTC",
                **preload,
                "DORVSIM_STATE": "/dorvsim/state",
                "DORVSIM_REQLOG": "/dorvsim/reqlog",
                "DORVSIM_SCALE": repr(self.scale),
                "DORVSIM_T0": f"{self.t0:.6f}",
                **({"DORVSIM_CLOCK": CLOCK_IN_ROOT} if self.clock_kind == "event" else {}),
                **faults.ENV,
                **(SANITIZER_ENV if self.sanitized else {}),
            },
        }

    def _start_configd(self) -> None:
        if self.configd_table is None:
            return
        from sim.configd_sim import ConfigdSim
        self.configd = ConfigdSim(str(self.path("/tmp/confd_get")), self.configd_table, clock=self.clock)
        self.configd.start()

    def _stop_configd(self) -> None:
        if self.configd:
            self.configd.stop()
            self.configd = None  # the ConfigdSim serving /tmp/confd_get, while running

    # ---- helpers --------------------------------------------------------------

    def _read_pid_file(self) -> int | None:
        try:
            text = self.path("/" + PID_PATH).read_bytes().split(b"\0")[0].strip()
            return int(text) if text.isdigit() and len(text) < 8 else None
        except OSError:
            return None

    def _pid_file_written(self) -> bool:
        pid = self.pid()
        return pid is not None and self._read_pid_file() == pid

    def _need_pid(self) -> int:
        pid = self.pid()
        if not pid:
            raise SandboxError("the daemon's pid is not known (it has not detached yet)")
        return pid

    def _ip(self, *args: str) -> str:
        init_pid = self.status().get("init_pid")
        if not init_pid or not self.running():
            raise SandboxError("the sandbox is not running")
        r = subprocess.run(["nsenter", f"--net=/proc/{init_pid}/ns/net", "ip", *args], capture_output=True,
                           text=True)
        if r.returncode != 0:
            raise SandboxError(f"ip {' '.join(args)}: {r.stderr.strip()}")
        return r.stdout

    def _read_sanitizer_reports(self) -> list[str]:
        folder = self.path(REPORTS_IN_ROOT).parent
        try:
            return [p.read_text(errors="replace") for p in sorted(folder.iterdir())]
        except OSError:
            return []

    def _log_tail(self, lines: int = 15) -> str:
        return "\n".join(self.log_text().splitlines()[-lines:])

    def _ns_output(self) -> str:
        try:
            return (self.out / "ns_init.log").read_text(errors="replace")[-2000:]
        except OSError:
            return ""


def parse_reqlog(text: str) -> list[dict]:
    """The simulator's request log as dicts of each line's key=value words
    (quoted values keep their quotes)."""
    return [dict(re.findall(r'(\w+)=("[^"]*"|\S*)', line)) for line in text.splitlines()]


def _is_sanitized(binary: Path) -> bool:
    """True for a daemon built with AddressSanitizer or UndefinedBehaviorSanitizer."""
    try:
        data = binary.read_bytes()
    except OSError:
        return False
    return b"__asan_init" in data or b"__ubsan_handle_" in data


def _coverage_dir(binary: Path) -> str | None:
    """For a daemon built with gcov's counters: the build folder that holds
    every counter file it writes (their absolute paths are compiled in).
    None for any other binary."""
    try:
        data = binary.read_bytes()
    except OSError:
        return None
    files = {m.decode(errors="replace") for m in re.findall(rb"(/[\x21-\x7e]+\.gcda)\0", data)}
    if not files:
        return None
    folder = os.path.commonpath([os.path.dirname(f) for f in files])
    return folder if folder != "/" else None


def _comm(pid: int) -> str:
    try:
        return Path(f"/proc/{pid}/comm").read_text().strip()
    except OSError:
        return ""


def _kill(pid: int, sig: int) -> None:
    try:
        os.kill(pid, sig)
    except ProcessLookupError:
        pass


def _sock_path(path: Path) -> str:
    s = str(path)
    if len(s.encode()) > UNIX_PATH_MAX:
        raise SandboxError(f"socket path too long for AF_UNIX ({len(s)} bytes): {s}; use a shorter scratch folder")
    return s
