"""A root daemon on a shared box: links planted at its fixed paths, a foreign sender, a hung transition script, a
reader holding a scan database, a SIGRTMIN storm with a datagram flood, kill -9 in event streams."""

import os
import random
import signal
import stat
import subprocess
import sqlite3
import threading
import time

import pytest

from e2e_helpers import (AP_ADDITION, AP_DELETION, ENABLED, KH_ADDITION, LINE_VAP0, LINE_VAP12, MARKERS, SCAN_DB,
                         event, ft_table, ready, record, scan_config, scanning, send_and_wait, wait_batches)
from sim.expect import AP2MAC, FT_KEY_CHANGED, KEY_HOLDERS, consistency_problems

NEIGHBOURS = ["0A:1B:2C:3D:4E:50", "0A:1B:2C:3D:5E:50", "0A:1B:2C:3D:6E:50"]  # key holders ...:5F
DRIVER = {"radios": {0: {"channels": [{"ieee": ch, "bss": [{"bssid": f"02:00:00:00:{ch:02X}:{n:02X}", "ssid": "n"}
                                                           for n in range(10)]} for ch in (1, 6, 11)]}}}
HANG = "/dorvsim/ctl/fast_bss_transition.sh.hang"
KILLED = '[dorvand] Killed "/usr/local/bin/fast_bss_transition.sh": still running after 30 s\n'

LINKED = ["/tmp/dorvand.pid", "/tmp/log/dorvand_log", "/tmp/ap2_macaddr.txt", "/tmp/tmp_ap2_macaddr.txt",
          "/tmp/ft_key_changed.txt", "/var/roam_key_holders", "/var/roam_key_holders.tmp", MARKERS[0], SCAN_DB]


@pytest.mark.parametrize("kind", ["symlink", "hardlink"])
def test_hardening_planted_links(sandbox, tmp_path, kind):
    """Links planted at every path the daemon writes leave their targets (other files of the system) untouched; the
    daemon goes on as without those files and writes the key-holder files anew in place of the links."""
    sb = sandbox(start=False, scratch=tmp_path / "sb", config=scan_config([0]), driver=DRIVER,
                 configd=ft_table(ENABLED))
    victims = {}
    for i, rel in enumerate(LINKED):
        victim = sb.path(f"/etc/victim{i}")
        victim.parent.mkdir(parents=True, exist_ok=True)
        victim.write_text(f"not the daemon's {i}\n")
        link = sb.path(rel)
        link.parent.mkdir(parents=True, exist_ok=True)
        if kind == "symlink":
            link.symlink_to(f"/etc/victim{i}")
        else:
            os.link(victim, link)
        victims[victim] = (victim.read_bytes(), victim.stat().st_mode, victim.stat().st_mtime_ns)
    sb.start(wait=False)
    sb.wait_for(sb.pid, 10, "the daemon to detach")
    # The log is a planted link too: the first 802.11r read shows at configd.
    sb.wait_for(lambda: len(sb.configd.requests()) == 30, 10, "the first 802.11r read of every VAP")
    sb.send_event(event(NEIGHBOURS[0], KH_ADDITION))
    sb.wait_for(lambda: sb.requests("chan_info"), 10, "the first full scan of wlan0")
    for victim, (data, mode, mtime) in victims.items():
        assert (victim.read_bytes(), victim.stat().st_mode, victim.stat().st_mtime_ns) == (data, mode, mtime), \
            f"{victim} was changed through a link"
    sb.wait_for(lambda: sb.path(AP2MAC).is_file() and sb.path(AP2MAC).read_text().splitlines() == [
        LINE_VAP0, LINE_VAP12], 10, "the ap2_macaddr lines written in place of the link")
    assert sb.path(KEY_HOLDERS).read_bytes() == record("0A:1B:2C:3D:4E:5F")
    assert sb.running() and sb.script_runs(), "the daemon should have gone on and run the script"


def test_hardening_foreign_sender(sandbox):
    """The event socket is root's alone (mode 0600); a datagram of uid 65534, sent after a chmod opened it, is
    dropped with one line and changes nothing, while root's next event is applied."""
    sb = ready(sandbox)
    sock = sb.path("/tmp/roam_sock")
    assert stat.S_IMODE(sock.stat().st_mode) == 0o600
    sock.chmod(0o666)
    send_as_nobody = ("import os, socket, sys; s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); "
                      "s.connect(sys.argv[1]); os.setuid(65534); s.send(bytes.fromhex(sys.argv[2]))")
    subprocess.run(["/usr/bin/python3", "-c", send_as_nobody, str(sock), event(NEIGHBOURS[0], KH_ADDITION).hex()],
                   check=True)
    sb.wait_for_log("[dorvand] Event from uid 65534 dropped: only root may send events\n", timeout=5)
    log = send_and_wait(sb, event(NEIGHBOURS[1], KH_ADDITION))
    assert log.count("Event received [") == 1, "only root's event should have been handled"
    assert sb.path(KEY_HOLDERS).read_bytes() == record("0A:1B:2C:3D:5E:5F")
    assert len(sb.script_runs()) == 1


def test_hardening_hung_script(sandbox):
    """A transition script that never ends is killed after the daemon's 30 s; meanwhile nothing is lost: the next
    event and a SIGRTMIN are applied once it is gone. Signal 10 during a hung run ends the daemon with the script,
    without waiting for the script's bound."""
    sb = ready(sandbox)
    hang = sb.path(HANG)
    hang.touch()
    sb.send_event(event(NEIGHBOURS[0], KH_ADDITION))
    sb.wait_for(lambda: len(sb.script_runs()) == 1, 5, "the first script run")
    hung_at = time.monotonic()
    sb.send_event(event(NEIGHBOURS[1], KH_ADDITION))
    sb.send_signal(signal.SIGRTMIN, 1)
    sb.wait_for_log(KILLED, timeout=40)
    hang.unlink()
    if sb.clock:  # the bound is the daemon's 30 s, from the script's start to the kill's log line
        assert 29 <= sb.log_times(KILLED.rstrip("\n"))[0] - sb.script_run_times()[0] <= 31  # whole-second stamps
    else:
        assert time.monotonic() - hung_at >= 29, "the script was killed before its bound"
    sb.wait_for_log("ft_enabled_vaps = 00001001 \n", timeout=10)
    sb.wait_for(lambda: len(sb.script_runs()) == 2, 10, "the run of the second event")
    assert sb.path(AP2MAC).read_text().splitlines() == [
        "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70 "
        "0A:1B:2C:3D:5E:50 0A:1B:2C:3D:5E:60 0A:1B:2C:3D:5E:70",
        "ap2_macaddr_wifi1vap2=0A:1B:2C:3D:4E:52 0A:1B:2C:3D:4E:62 0A:1B:2C:3D:4E:72 "
        "0A:1B:2C:3D:5E:52 0A:1B:2C:3D:5E:62 0A:1B:2C:3D:5E:72"]

    hang.touch()
    sb.send_event(event(NEIGHBOURS[2], KH_ADDITION))
    sb.wait_for(lambda: len(sb.script_runs()) == 3, 5, "the hung script run")
    assert sb.stop() == 0
    assert sb.log_text().count(KILLED) == 1, "signal 10 waited for the hung script's bound"


def test_hardening_db_reader(sandbox):
    """A reader that holds the scan database while a batch scan stores new BSSs makes the scan's writes wait; none
    is lost."""
    sb = scanning(sandbox)
    sb.set_driver(DRIVER)  # ten BSSs a channel from the next scan on
    db = sqlite3.connect(sb.path(SCAN_DB), isolation_level=None)
    db.execute("BEGIN")
    # The read lock is held until the end of the transaction.
    assert db.execute("SELECT COUNT(*) FROM SCANNED_AP_DETAILS").fetchone()[0] == 3
    # A write has begun while the reader holds the database, and cannot end before it lets go.
    sb.wait_for(sb.path(SCAN_DB + "-journal").exists, 10, "a write of the batch scan")
    db.execute("COMMIT")
    wait_batches(sb, 1)
    assert "database is locked" not in sb.log_text()
    assert db.execute("SELECT COUNT(*) FROM SCANNED_AP_DETAILS").fetchone()[0] == 30
    assert db.execute("SELECT COUNT(*) FROM CHANNEL_DETAILS").fetchone()[0] == 3
    db.close()


def test_hardening_signal_storm_and_flood(sandbox):
    """Thousands of SIGRTMIN and malformed datagrams cost a few updates; an event sent after the flood is handled,
    and a real change signalled right after the storm is applied within seconds."""
    sb = ready(sandbox, [(0, 0)], 0x1)
    send_and_wait(sb, event(NEIGHBOURS[0], KH_ADDITION))
    rng = random.Random(11)
    for n in range(3000):
        sb.send_signal(signal.SIGRTMIN, 0)
        if n % 3 == 0:
            sb.send_event(bytes(rng.randrange(256) for _ in range(rng.randrange(0, 24))))
    sb.send_event(event("0A:1B:2C:3D:7E:50", AP_ADDITION))
    sb.wait_for_log("0a:1b:2c:3d:7e:50 present = Yes", timeout=20)
    sb.configd.set_value("system:vapSettings:vapSettingTable:wlan1:vap2:11rStatus", "1")
    sb.send_signal(signal.SIGRTMIN, 1 << 12)
    sb.wait_for(lambda: "ap2_macaddr_wifi1vap2=" in sb.path(AP2MAC).read_text(), 5, "wifi1vap2's line")
    assert sb.log_text().count("Received ") < 100, "signals pending together should make one update"
    assert sb.running()


@pytest.mark.parametrize("trial", range(3))
def test_hardening_kill_during_events(sandbox, trial):
    """kill -9 in a stream of additions and deletions, once a random number of them have written their key-change
    lines, never leaves a torn file."""
    rng = random.Random(trial)
    sb = ready(sandbox, scale=200)
    stop = threading.Event()

    def stream():
        while not stop.is_set():
            mac = f"0A:1B:2C:3D:{rng.randrange(4):02X}:50"
            try:
                sb.send_event(event(mac, rng.choice([KH_ADDITION, KH_ADDITION, AP_DELETION])))
            except OSError:
                return  # the daemon is gone
            time.sleep(0.002)  # a peer's pace, not a flood

    def lines():
        return sb.path(FT_KEY_CHANGED).read_bytes().count(b"\n") if sb.path(FT_KEY_CHANGED).exists() else 0

    sender = threading.Thread(target=stream)
    sender.start()
    handled = rng.randint(1, 12)
    try:
        sb.wait_for(lambda: lines() >= handled, 20, f"{handled} key-change lines")
        os.kill(sb.pid(), signal.SIGKILL)
    finally:
        stop.set()
        sender.join()
    sb.wait_exit()
    # A temporary file may be left, and a database's journal is SQLite's to roll back at the next open.
    problems = [p for p in consistency_problems(sb.path) if "left behind" not in p and "scan_db" not in p]
    assert problems == []
    assert sb.path(FT_KEY_CHANGED).read_bytes().endswith(b"\n"), "a key-change line was cut"
