"""The Debian packages of dist/ as dpkg installs them, the unit as systemd-analyze reads it, and each package's daemon
(armhf under qemu-arm) started and stopped by the init script's watcher and by the unit as systemd would; and the
watcher alone, against a daemon that dies."""

import configparser
import contextlib
import os
import shlex
import shutil
import signal
import sqlite3
import subprocess
import time
from pathlib import Path

import pytest

from e2e_helpers import (KH_ADDITION, NEIGHBOUR, assert_clean_exit, event, ft_table, record, refresh_line, scan_config,
                         scan_idle, send_and_wait, unavailable)
from sim.expect import read_table
from sim.sandbox import Emulation, Sandbox

REPO = Path(__file__).resolve().parents[2]
HOST = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True).stdout.strip()
ARCHES = [HOST, "armhf"] if HOST != "armhf" else [HOST]
FILES = ["/etc/init.d/dorvand", "/usr/lib/systemd/system/dorvand.service", "/usr/sbin/dorvand"]
UNIT = "/usr/lib/systemd/system/dorvand.service"
# What procd does with the init script, for the one instance it describes:
# `start` runs the instance's command as the process procd would supervise
# (in the foreground here); procd's stop is SIGTERM to that process.
RC_COMMON = b"""#!/bin/sh
. "$1"
procd_open_instance() { :; }
procd_close_instance() { :; }
procd_set_param() {
\t[ "$1" = command ] || return 0
\tshift
\texec "$@"
}
[ "$2" = start ] && start_service
exit 1
"""
SCANNED = "02:00:00:00:00:06"
DRIVER = {"radios": {0: {"channels": [{"ieee": 6, "bss": [{"bssid": SCANNED}]}]}}}


def run(*cmd) -> str:
    r = subprocess.run(cmd, capture_output=True, text=True)
    assert r.returncode == 0, f"{' '.join(map(str, cmd))}:\n{r.stdout}{r.stderr}"
    return r.stdout


def package(arch: str) -> Path:
    debs = sorted((REPO / "dist").glob(f"dorvand_*_{arch}.deb"))
    if not debs:
        unavailable(f"no {arch} package in dist/ (scripts/test.sh makes it)")
    return debs[-1]


def install(deb: Path, arch: str, root: Path) -> Path:
    """dpkg's install of `deb` into an empty root."""
    for d in ("info", "updates", "triggers"):
        (root / "var/lib/dpkg" / d).mkdir(parents=True)
    (root / "var/lib/dpkg/status").touch()
    if arch != HOST:
        # The root's own dpkg database, as on a machine that installs both.
        run("dpkg", f"--root={root}", "--add-architecture", arch)
    # The empty root has none of the packages it depends on.
    run("dpkg", f"--root={root}", "--force-depends", "--log=/dev/null", "-i", deb)
    return root


def emulation(arch: str) -> Emulation | None:
    if arch == HOST:
        return None
    emu = Emulation("qemu-arm", REPO / "build-armhf/sim/libdorvsim.so", REPO / "build-deps/armhf-sysroot")
    if not shutil.which(emu.qemu) or not emu.simlib.is_file() or not emu.sysroot.is_dir():
        unavailable(f"no {emu.qemu}, {emu.simlib} or {emu.sysroot} (scripts/test.sh makes them)")
    return emu


def watch_script(init: str) -> str:
    """The watcher's shell text, as the init script gives it to procd."""
    return init.split("WATCH='", 1)[1].split("'\n", 1)[0]


def read_unit(root: Path) -> dict[str, str]:
    unit = configparser.ConfigParser(interpolation=None)
    unit.optionxform = str
    unit.read_string((root / UNIT.lstrip("/")).read_text())
    return dict(unit["Service"])


@pytest.fixture(scope="module", params=ARCHES)
def installed(request, tmp_path_factory):
    """(arch, root) of the package installed into a scratch root."""
    arch = request.param
    return arch, install(package(arch), arch, tmp_path_factory.mktemp(f"root-{arch}"))


def test_package_contents(installed):
    """dpkg installs the daemon, the init script and the unit and nothing else; no maintainer script enables or
    starts anything; the init script is a conffile; the package names its architecture and the libraries'
    packages; the daemon is a hardened position-independent executable."""
    arch, root = installed
    listed = run("dpkg", f"--root={root}", "-L", "dorvand").split()
    assert sorted(f for f in listed if not (root / f.lstrip("/")).is_dir()) == FILES
    assert sorted(p.name for p in (root / "var/lib/dpkg/info").glob("dorvand.*")) == [
        "dorvand.conffiles", "dorvand.list", "dorvand.md5sums"]
    assert (root / "var/lib/dpkg/info/dorvand.conffiles").read_text() == "/etc/init.d/dorvand\n"
    assert os.stat(root / "etc/init.d/dorvand").st_mode & 0o777 == 0o755
    fields = run("dpkg-deb", "-f", package(arch), "Architecture", "Depends")
    assert f"Architecture: {arch}" in fields
    assert "libc6 (" in fields and "libsqlite3-0 (" in fields
    dynamic = run("readelf", "-W", "-h", "-d", "--dyn-syms", root / "usr/sbin/dorvand")
    assert "DYN (Position-Independent Executable" in dynamic
    assert "BIND_NOW" in dynamic and "__stack_chk_fail" in dynamic
    assert "_chk@" in dynamic.replace("__stack_chk_fail@", ""), "no fortified libc call"


def test_package_unit_verifies(installed, tmp_path):
    """systemd-analyze verify accepts the unit as installed, without a message: a forking service followed through
    /tmp/dorvand.pid, stopped with signal 10, restarted on failure."""
    if not shutil.which("systemd-analyze") or not Path("/usr/lib/systemd/system/sysinit.target").exists():
        unavailable("no systemd-analyze and systemd's own units (Debian's systemd package)")
    arch, installed_root = installed
    root = tmp_path / "root"
    # The unit's default dependencies are systemd's own units: the host's.
    shutil.copytree("/usr/lib/systemd/system", root / "usr/lib/systemd/system", symlinks=True)
    shutil.copytree(installed_root / "usr", root / "usr", symlinks=True, dirs_exist_ok=True)
    r = subprocess.run(["systemd-analyze", f"--root={root}", "--man=no", "verify", "dorvand.service"],
                       capture_output=True, text=True)
    assert (r.returncode, r.stdout + r.stderr) == (0, "")
    service = read_unit(root)
    assert {k: service.get(k) for k in ("Type", "PIDFile", "ExecStart", "KillSignal", "Restart")} == {
        "Type": "forking", "PIDFile": "/tmp/dorvand.pid", "ExecStart": "/usr/sbin/dorvand",
        "KillSignal": "SIGUSR1", "Restart": "on-failure"}


def serve(sb) -> None:
    """The daemon stores a neighbour's key holder and what its first scan of the 2.4 GHz band heard."""
    sb.wait_for_log(refresh_line(1), timeout=60)
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION), timeout=30)
    assert sb.path("/var/roam_key_holders").read_bytes() == record("0A:1B:2C:3D:4E:5F")

    def scanned():
        try:
            rows = scan_idle(sb, [0]) and read_table(sb.path("/tmp/scan_db_2g"), "SCANNED_AP_DETAILS")
        except sqlite3.Error:
            return None  # the daemon is writing
        return rows and [(r["MAC"], r["CHANNEL"]) for r in rows]
    assert sb.wait_for(scanned, 60, "the first full scan of wifi0 in /tmp/scan_db_2g") == [(SCANNED, 6)]


def sandbox_for(installed, simlib, command, files=None) -> Sandbox:
    """The simulated access point, not yet started, for the installed daemon started through `command`."""
    arch, root = installed
    return Sandbox(root / "usr/sbin/dorvand", simlib, board="TRM226", config=scan_config([0]), driver=DRIVER,
                   configd=ft_table([(0, 0)], radios=2), scale=200, emulation=emulation(arch), command=command,
                   files=files, keep=bool(os.environ.get("DORVSIM_KEEP")))


def test_package_init_script_starts_and_stops(installed, simlib):
    """The installed init script's procd instance, its watcher, starts the installed daemon (armhf: under qemu-arm),
    which detaches and serves while the watcher stays; procd's stop (SIGTERM to the instance) reaches the daemon as
    signal 10: the daemon's clean exit (status 0, its files removed) and the watcher's status 0."""
    _, root = installed
    init = root / "etc/init.d/dorvand"
    files = {"/etc/rc.common": (RC_COMMON, 0o755), "/etc/init.d/dorvand": (init.read_bytes(), 0o755)}
    with sandbox_for(installed, simlib, ["/etc/init.d/dorvand", "start"], files) as sb:
        watcher = sb.status()["launcher_pid"]
        cmdline = Path(f"/proc/{watcher}/cmdline").read_bytes().decode().split("\0")
        assert cmdline[:3] == ["/bin/sh", "-c", watch_script(init.read_text())]
        serve(sb)
        assert sb.status()["launcher_status"] is None, "the watcher ended while the daemon runs"
        os.kill(watcher, signal.SIGTERM)
        sb.wait_exit(30)
        assert sb.status()["exits"][str(watcher)] == 0
        assert_clean_exit(sb, sb.exit_code())


def test_package_unit_starts_and_stops(installed, simlib):
    """The unit's start and stop as systemd runs a forking service: ExecStart's process exits 0 once the daemon has
    detached; PIDFile then names the running daemon, the main process, which serves; KillSignal to it alone ends it
    cleanly (status 0, its files removed) within TimeoutStopSec, so Restart=on-failure leaves it stopped."""
    _, root = installed
    service = read_unit(root)
    with sandbox_for(installed, simlib, shlex.split(service["ExecStart"])) as sb:
        sb.wait_for(lambda: sb.status().get("launcher_status") is not None, 30, "ExecStart's process to end")
        assert sb.status()["launcher_status"] == 0
        main = int(sb.path(service["PIDFile"]).read_bytes().split(b"\n")[0])
        assert main == sb.pid() and main in sb.status()["daemon_pids"]
        serve(sb)
        os.kill(main, signal.Signals[service["KillSignal"]])
        sb.wait_exit(float(service["TimeoutStopSec"]))
        assert_clean_exit(sb, sb.exit_code())


FAKE_DAEMON = r"""#!/bin/sh
# Detaches like dorvand: the started process exits at once, the child writes
# "PID\n" and NULs to the pid file and ends on signal 10, removing it. While
# one lives, another start refuses, naming it.
pidfile=PIDFILE
if [ -s "$pidfile" ] && read -r pid <"$pidfile" && kill -0 "$pid" 2>/dev/null; then
    echo "[dorvand] Another dorvand (pid $pid) holds $pidfile: not started" >&2
    exit 1
fi
sh -c 'trap "rm -f $1; exit 0" USR1
       printf "%d\n\0\0" $$ >"$1"
       while :; do sleep 1 & wait $!; done' detached "$pidfile" </dev/null >/dev/null 2>&1 &
"""


def watching(proc) -> bool:
    """The watcher has come to its loop over the daemon's life (its `sleep 5` runs), or has ended."""
    kids = Path(f"/proc/{proc.pid}/task/{proc.pid}/children")
    return proc.poll() is not None or any(
        Path(f"/proc/{k}/cmdline").read_bytes() == b"sleep\x005\x00" for k in (kids.read_text().split() if
                                                                           kids.exists() else []))


@pytest.mark.parametrize("end", ["death", "respawn"])
def test_init_script_watcher_follows_detached_daemon(tmp_path, end):
    """The procd instance of packaging/dorvand.init outlives the started process and watches the detached daemon;
    the daemon's death ends it with 1 (so that procd respawns it). An instance respawned while the daemon still runs
    (its watcher killed) keeps the daemon's pid file, follows that daemon and passes procd's stop (SIGTERM) on to it
    as signal 10, ending with 0."""
    fake, pidfile = tmp_path / "fake", tmp_path / "dorvand.pid"
    fake.write_text(FAKE_DAEMON.replace("PIDFILE", str(pidfile)))
    fake.chmod(0o755)
    watch = watch_script((REPO / "packaging/dorvand.init").read_text())

    def watcher():
        # As procd runs the instance: /bin/sh -c "$WATCH" dorvand-watch PROG PIDFILE
        proc = subprocess.Popen(["/bin/sh", "-c", watch, "dorvand-watch", str(fake), str(pidfile)])
        deadline = time.monotonic() + 20
        while not watching(proc) and time.monotonic() < deadline:
            time.sleep(0.05)
        assert proc.poll() is None and watching(proc), "the watcher does not watch a running daemon"
        return proc

    proc = watcher()
    daemon = int(pidfile.read_bytes().split(b"\n")[0])
    try:
        if end == "respawn":
            proc.kill()
            proc.wait(5)
            proc = watcher()
            assert int(pidfile.read_bytes().split(b"\n")[0]) == daemon, "the running daemon lost its pid file"
            proc.send_signal(signal.SIGTERM)
            assert proc.wait(15) == 0
            assert not pidfile.exists(), "the daemon did not get signal 10"
        else:
            os.kill(daemon, signal.SIGKILL)
            assert proc.wait(15) == 1
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait(5)
        with contextlib.suppress(ProcessLookupError):
            os.kill(daemon, signal.SIGKILL)
