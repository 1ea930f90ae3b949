"""The Debian package of this machine's architecture (dist/, made by the test
command) as dpkg installs it: the daemon alone, hardened, which starts on the
simulated access point and ends cleanly on signal 10; and the procd init
script's watcher, which follows the self-detaching daemon."""

import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

from sim.sandbox import Sandbox

REPO = Path(__file__).resolve().parents[2]


def run(*cmd) -> str:
    r = subprocess.run(cmd, capture_output=True, text=True)
    assert r.returncode == 0, f"{' '.join(map(str, cmd))}:\n{r.stdout}{r.stderr}"
    return r.stdout


@pytest.fixture
def deb():
    arch = run("dpkg", "--print-architecture").strip()
    debs = sorted((REPO / "dist").glob(f"dorvand_*_{arch}.deb"))
    if not debs:
        pytest.skip(f"no {arch} package in dist/ (scripts/test.sh makes it)")
    return debs[-1], arch


def test_package_installs_and_runs(deb, simlib, tmp_path):
    """dpkg installs the package into an empty root with /usr/sbin/dorvand as its only file; the package names the
    host's architecture and the libraries' packages; the daemon is a hardened position-independent executable that
    starts, detaches, writes its pid file and exits 0 on signal 10."""
    path, arch = deb
    root = tmp_path / "root"
    for d in ("info", "updates", "triggers"):
        (root / "var/lib/dpkg" / d).mkdir(parents=True)
    (root / "var/lib/dpkg/status").touch()
    # The empty root has none of the packages it depends on.
    run("dpkg", f"--root={root}", "--force-depends", "--log=/dev/null", "-i", path)
    listed = run("dpkg", f"--root={root}", "-L", "dorvand").split()
    assert [f for f in listed if not (root / f.lstrip("/")).is_dir()] == ["/usr/sbin/dorvand"]
    fields = run("dpkg-deb", "-f", path, "Architecture", "Depends")
    assert f"Architecture: {arch}" in fields
    assert "libc6 (" in fields and "libsqlite3-0 (" in fields

    daemon = root / "usr/sbin/dorvand"
    dynamic = run("readelf", "-W", "-d", "--dyn-syms", daemon)
    assert "BIND_NOW" in dynamic and "PIE" in dynamic and "__stack_chk_fail" in dynamic
    assert "_chk@" in dynamic.replace("__stack_chk_fail@", ""), "no fortified libc call"
    with Sandbox(daemon, simlib, board="TRM226") as sb:
        sb.wait_for_log("[dorvand] radio_type = Dual Radio | product_id = TRM226\n")
        assert sb.stop() == 0
        assert not sb.path("/tmp/dorvand.pid").exists()


FAKE_DAEMON = r"""#!/bin/sh
# Detaches like dorvand: the started process exits at once, the child writes
# "PID\n" and NULs to the pid file and ends on signal 10, removing it.
pidfile=PIDFILE
sh -c 'trap "rm -f $1; exit 0" USR1
       printf "%d\n\0\0" $$ >"$1"
       while :; do sleep 1 & wait $!; done' detached "$pidfile" </dev/null >/dev/null 2>&1 &
"""


@pytest.mark.parametrize("end", ["stop", "death"])
def test_init_script_watcher_follows_detached_daemon(tmp_path, end):
    """The procd instance of packaging/dorvand.init outlives the started process and stays while the detached
    daemon lives; procd's stop (SIGTERM) reaches the daemon as signal 10 and ends the instance with 0, the daemon's
    death ends it with 1 (so that procd respawns it)."""
    fake, pidfile = tmp_path / "fake", tmp_path / "dorvand.pid"
    fake.write_text(FAKE_DAEMON.replace("PIDFILE", str(pidfile)))
    fake.chmod(0o755)
    script = (REPO / "packaging/dorvand.init").read_text()
    watch = script.split("WATCH='", 1)[1].split("\n'\n", 1)[0]
    # As procd runs the instance: /bin/sh -c "$WATCH" dorvand-watch PROG PIDFILE
    proc = subprocess.Popen(["/bin/sh", "-c", watch, "dorvand-watch", str(fake), str(pidfile)])
    daemon, ended = None, False
    try:
        deadline = time.monotonic() + 10
        while not (pidfile.exists() and pidfile.read_bytes().strip(b"\0").strip().isdigit()):
            assert time.monotonic() < deadline and proc.poll() is None, "no pid file from the detached fake"
            time.sleep(0.05)
        daemon = int(pidfile.read_bytes().split(b"\n")[0])
        time.sleep(1.5)
        assert proc.poll() is None, "the watcher ended while the daemon runs"
        if end == "stop":
            proc.send_signal(signal.SIGTERM)
            assert proc.wait(15) == 0
            ended = not pidfile.exists()
            assert ended, "the daemon did not get signal 10"
        else:
            os.kill(daemon, signal.SIGKILL)
            ended = True
            assert proc.wait(15) == 1
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait(5)
        if daemon and not ended:
            os.kill(daemon, signal.SIGKILL)
