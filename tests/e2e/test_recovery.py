"""Faults staged around a running daemon (its scan database deleted, spoiled or taken by a directory, its event socket
removed or replaced, a second daemon beside it, a killed one's leftovers): it ends alive and caught up."""

import os
import signal
import socket
import sqlite3
import stat

import pytest

from e2e_helpers import (KH_ADDITION, LATE, MARKERS, NEIGHBOUR, SCAN_DB, WAITING, event, ready, record, scanning,
                         send_and_wait, wait_batches)
from sim.expect import AP2MAC, FT_KEY_CHANGED, KEY_HOLDERS

REPAIRED = "[dorvand] Scan database /tmp/scan_db_2g {}: created again\n"
SOCKET = "/tmp/roam_sock"
REBOUND = "[dorvand] Event socket /tmp/roam_sock was removed or replaced: bound again\n"
OTHER = "0A:1B:2C:3D:5E:50"  # key holder 0A:1B:2C:3D:5E:5F
HOLDER, OTHER_HOLDER = record("0A:1B:2C:3D:4E:5F"), record("0A:1B:2C:3D:5E:5F")


def to_directory(path):
    path.unlink()
    path.mkdir()


@pytest.mark.parametrize("stage, found, moved", [
    (lambda p: p.unlink(), "was missing", None),
    (lambda p: p.write_bytes(b"not a database\n"), "was not a database (moved to /tmp/scan_db_2g.corrupt)",
     b"not a database\n"),
    (to_directory, "was a directory", None),
], ids=["deleted", "garbage", "directory"])
def test_recovery_scan_db(sandbox, stage, found, moved):
    """A database deleted, overwritten or replaced by an empty directory between two scans gets the band's tables
    again in the next scan, which stores all its rows; an unreadable one is kept as <db>.corrupt."""
    sb = scanning(sandbox)
    stage(sb.path(SCAN_DB))
    wait_batches(sb, 1)
    log = sb.log_text()
    assert log.count(REPAIRED.format(found)) == 1, f"expected one repair line {REPAIRED.format(found)!r}"
    with sqlite3.connect(sb.path(SCAN_DB)) as db:
        assert db.execute("SELECT CHANNEL FROM CHANNEL_DETAILS ORDER BY CHANNEL").fetchall() == [(1,), (6,), (11,)]
        assert db.execute("SELECT MAC FROM SCANNED_AP_DETAILS ORDER BY MAC").fetchall() == [
            ("02:00:00:00:01:00",), ("02:00:00:00:06:00",), ("02:00:00:00:0b:00",)]
    for failure in ("Cannot run sql statement", "Error in executing statement", "Error in opening Db"):
        assert failure not in log
    corrupt = sb.path(SCAN_DB + ".corrupt")
    assert (corrupt.read_bytes() if corrupt.exists() else None) == moved
    assert sb.running()


def replace_by_socket(path):
    path.unlink()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
        s.bind(str(path))


@pytest.mark.parametrize("stage", [
    None,
    lambda p: p.unlink(),
    lambda p: (p.unlink(), p.write_text("not a socket\n")),
    replace_by_socket,
], ids=["none", "removed", "regular_file", "another_socket"])
def test_recovery_event_socket(sandbox, stage):
    """An event socket removed or replaced is bound again within 60 daemon-seconds and the next event is applied;
    without a fault the minute check adds no log line and leaves the socket as it is."""
    sb = ready(sandbox, [(0, 0)], 0x1)
    waits = sb.log_text().count(WAITING)
    sock = sb.path(SOCKET)
    inode = sock.stat().st_ino
    staged = sb.daemon_time()
    if stage is None:
        sb.sleep_daemon(200)
        log = sb.log_text()
        assert log.count(WAITING) == waits and "no data" not in log and "Event socket" not in log
        assert sock.stat().st_ino == inode
    else:
        stage(sock)
        sb.wait_for_log(REBOUND, timeout=10)
        rebound = sb.log_times(REBOUND.rstrip("\n"))[0]
        assert rebound - staged <= 60 + LATE, f"bound again {rebound - staged:.1f} daemon-seconds after the fault"
        assert stat.S_ISSOCK(sock.stat().st_mode) and stat.S_IMODE(sock.stat().st_mode) == 0o600
        sb.wait_for_syslog(REBOUND.rstrip("\n"))
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION))
    assert sb.path(KEY_HOLDERS).read_bytes() == HOLDER
    assert sb.log_text().count(REBOUND) == (stage is not None)


def snapshot(sb, paths):
    return {p: (sb.path(p).lstat().st_ino, sb.path(p).lstat().st_mtime_ns,
                None if stat.S_ISSOCK(sb.path(p).lstat().st_mode) else sb.path(p).read_bytes()) for p in paths}


@pytest.mark.parametrize("found_by, line", [
    ("pid_file", "[dorvand] Another dorvand (pid {pid}) holds /tmp/dorvand.pid: not started\n"),
    ("socket", "[dorvand] Another dorvand serves /tmp/roam_sock: not started\n"),
], ids=["pid_file_locked", "socket_served"])
def test_recovery_second_daemon_refused(sandbox, found_by, line):
    """A second daemon finds the first by its pid file's lock (or, with the pid file gone, by its live event
    socket), says so on stderr and to syslog and exits with status 1; the first's files and socket are untouched
    and it goes on serving events."""
    sb = ready(sandbox, [(0, 0)], 0x1)
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION))
    if found_by == "socket":
        sb.path("/tmp/dorvand.pid").unlink()
    sb.path(MARKERS[1]).touch()  # as while a scan of the first writes
    files = [p for p in ("/tmp/dorvand.pid", SOCKET, KEY_HOLDERS, AP2MAC, FT_KEY_CHANGED, MARKERS[1])
             if sb.path(p).exists()]
    before = snapshot(sb, files)
    launch = sb.start_beside()
    want = line.format(pid=sb.pid())
    assert (launch.returncode, launch.stderr) == (1, want)
    sb.wait_for_syslog(want.rstrip("\n"))
    assert snapshot(sb, files) == before
    assert sb.log_text().count("[dorvand] radio_type = ") == 1, "the second daemon wrote to the first's log"
    send_and_wait(sb, event(OTHER, KH_ADDITION))
    assert sb.path(KEY_HOLDERS).read_bytes() == HOLDER + OTHER_HOLDER
    assert sb.running() and sb.exit_code() is None


@pytest.mark.parametrize("markers", [(), (0, 1, 2)])
def test_recovery_leftovers_of_a_killed_daemon(sandbox, markers):
    """After kill -9 the next daemon takes over the pid file and the event socket left behind and removes the scan
    markers left (one line each, none without them)."""
    sb = ready(sandbox, [(0, 0)], 0x1)
    first = sb.pid()
    for r in markers:
        sb.path(MARKERS[r]).touch()
    os.kill(first, signal.SIGKILL)
    sb.wait_exit()
    assert sb.path(SOCKET).exists() and sb.path("/tmp/dorvand.pid").exists()
    sb.start()
    assert sb.pid() != first
    assert sb.path("/tmp/dorvand.pid").read_bytes() == f"{sb.pid()}\n".encode().ljust(8, b"\0")
    log = sb.wait_for_log("ft_enabled_vaps  = 00000001 \n", timeout=8, count=2)
    assert log.count("left by an earlier run") == len(markers)
    for r in markers:
        assert f"[dorvand] Removed {MARKERS[r]} left by an earlier run\n" in log and not sb.path(MARKERS[r]).exists()
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION))
    assert sb.path(KEY_HOLDERS).read_bytes() == HOLDER
