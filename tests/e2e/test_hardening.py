"""A root daemon on a shared box, end to end: links planted at its fixed
paths, a foreign sender, a hung transition script, a reader holding a scan
database, a SIGRTMIN storm with a datagram flood, and kill -9
in the middle of event streams. (Forged SSIDs are covered by the hostile
scenario.)"""

import os
import random
import signal
import stat
import subprocess
import sqlite3
import threading
import time

import pytest

from e2e_helpers import AP_ADDITION, AP_DELETION, KH_ADDITION, MARKERS, event, ft_table, refresh_line, scan_config, send_and_wait
from sim.expect import AP2MAC, FT_KEY_CHANGED, KEY_HOLDERS, consistency_problems

ENABLED = [(0, 0), (1, 2)]
NEIGHBOURS = ["0A:1B:2C:3D:4E:50", "0A:1B:2C:3D:5E:50", "0A:1B:2C:3D:6E:50"]  # key holders ...:5F
DRIVER = {"radios": {0: {"channels": [{"ieee": ch, "bss": [{"bssid": f"02:00:00:00:{ch:02X}:{n:02X}", "ssid": "n"}
                                                           for n in range(10)]} for ch in (1, 6, 11)]}}}
SCAN_DB = "/tmp/scan_db_2g"
SCAN_DONE = "[dorvand] trigger_2g_full_scan :parsed scan result succesfully\n"
KILLED = '[dorvand] Killed "/usr/local/bin/fast_bss_transition.sh": still running after 30 s\n'
HANG = "/dorvsim/ctl/fast_bss_transition.sh.hang"


def ap2mac_line(vap, *macs):
    """The ap2_macaddr line of VAP (r, v) for family-0 key holders of `macs` (neighbours seen on radio 0)."""
    r, v = vap
    return f"ap2_macaddr_wifi{r}vap{v}=" + " ".join(
        f"{m[:15]}{(int(m[15:], 16) + 0x10 * k + v) & 0xFF:02X}" for m in macs for k in range(3))


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
    sb.sleep_daemon(10)  # past the first 802.11r refresh
    sb.send_event(event(NEIGHBOURS[0], KH_ADDITION))
    sb.wait_for(lambda: sb.requests("chan_info"), 10, "the first full scan of wlan0")
    for victim, (data, mode, mtime) in victims.items():
        assert (victim.read_bytes(), victim.stat().st_mode, victim.stat().st_mtime_ns) == (data, mode, mtime), \
            f"{victim} was changed through a link"
    want = [ap2mac_line(vap, NEIGHBOURS[0]) for vap in ENABLED]
    sb.wait_for(lambda: sb.path(AP2MAC).is_file() and sb.path(AP2MAC).read_text().splitlines() == want, 10,
                "the ap2_macaddr lines written in place of the link")
    assert sb.path(KEY_HOLDERS).read_bytes() == bytes(8) + bytes.fromhex("0a1b2c3d4e5f") + b"\x01\x00"
    assert sb.running() and sb.script_runs(), "the daemon should have gone on and run the script"


def test_hardening_foreign_sender(sandbox):
    """The event socket is root's alone (mode 0600); a datagram of uid 65534, sent after a chmod opened it, is
    dropped with one line and changes nothing, while root's next event is applied."""
    sb = sandbox(configd=ft_table(ENABLED))
    sb.wait_for_log("ft_enabled_vaps  = ", timeout=8)
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
    assert sb.path(KEY_HOLDERS).read_bytes() == bytes(8) + bytes.fromhex("0a1b2c3d5e5f") + b"\x01\x00"
    assert len(sb.script_runs()) == 1


def test_hardening_hung_script(sandbox):
    """A transition script that never ends is killed after 30 s; meanwhile nothing is lost: the next event and a
    SIGRTMIN are applied once it is gone. Signal 10 ends the daemon at once during a hung run, the script with it."""
    sb = sandbox(configd=ft_table(ENABLED))
    sb.wait_for_log(refresh_line(0x1001), timeout=8)
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
    assert sb.path(AP2MAC).read_text().splitlines() == [ap2mac_line(vap, *NEIGHBOURS[:2]) for vap in ENABLED]

    hang.touch()
    sb.send_event(event(NEIGHBOURS[2], KH_ADDITION))
    sb.wait_for(lambda: len(sb.script_runs()) == 3, 5, "the third script run")
    started = time.monotonic()
    assert sb.stop(timeout=10) == 0
    assert time.monotonic() - started < 5, "signal 10 waited for the hung script"


def test_hardening_db_reader(sandbox):
    """A reader holding the scan database for 0.8 s while the scan stores its results delays the writes but loses
    no row."""
    sb = sandbox(config=scan_config([0]), driver=DRIVER, configd=ft_table())
    sb.wait_for(sb.path(MARKERS[0]).exists, 10, "the first full scan of wlan0")
    db = sqlite3.connect(sb.path(SCAN_DB), isolation_level=None)
    db.execute("BEGIN")
    db.execute("SELECT COUNT(*) FROM CHANNEL_DETAILS").fetchall()  # a shared lock until the end of the transaction
    time.sleep(0.8)
    db.execute("COMMIT")
    sb.wait_for_log(SCAN_DONE, timeout=10)
    assert "database is locked" not in sb.log_text()
    assert db.execute("SELECT COUNT(*) FROM SCANNED_AP_DETAILS").fetchone()[0] == 30
    assert db.execute("SELECT COUNT(*) FROM CHANNEL_DETAILS").fetchone()[0] == 3
    db.close()


def test_hardening_signal_storm_and_flood(sandbox):
    """Thousands of SIGRTMIN and malformed datagrams cost a few updates; an event sent after the flood is handled,
    and a real change signalled right after the storm is applied within seconds."""
    sb = sandbox(configd=ft_table([(0, 0)]))
    sb.wait_for_log(refresh_line(0x1), timeout=8)
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
    """kill -9 at a random moment of a stream of additions and deletions never leaves a torn file."""
    rng = random.Random(trial)
    sb = sandbox(configd=ft_table(ENABLED), scale=200)
    sb.wait_for_log("ft_enabled_vaps  = ", timeout=8)
    stop = threading.Event()

    def stream():
        while not stop.is_set():
            mac = f"0A:1B:2C:3D:{rng.randrange(4):02X}:50"
            try:
                sb.send_event(event(mac, rng.choice([KH_ADDITION, KH_ADDITION, AP_DELETION])))
            except OSError:
                return  # the daemon is gone
            time.sleep(0.002)

    sender = threading.Thread(target=stream)
    sender.start()
    time.sleep(rng.uniform(0.05, 0.4))
    os.kill(sb.pid(), signal.SIGKILL)
    stop.set()
    sender.join()
    sb.wait_exit()
    # A temporary file may be left, and a database's journal is SQLite's to roll back at the next open.
    problems = [p for p in consistency_problems(sb.path) if "left behind" not in p and "scan_db" not in p]
    assert problems == []
    text = sb.path(FT_KEY_CHANGED).read_bytes() if sb.path(FT_KEY_CHANGED).exists() else b""
    assert text == b"" or text.endswith(b"\n"), "a key-change line was cut"
