"""Start-up and shutdown: board detection, the pid file, signal 10; and the sandbox itself: the host left untouched
and every process it started ended."""

import os
import signal
import stat
import subprocess
from pathlib import Path

import pytest

from e2e_helpers import assert_clean_exit
from sim.sandbox import COVERAGE_TERM_STATUS


def comm(pid):
    return Path(f"/proc/{pid}/comm").read_text().strip()


def host_links():
    return subprocess.run(["ip", "-o", "link", "show"], capture_output=True, text=True, check=True).stdout


def alive(pid):
    try:
        return Path(f"/proc/{pid}/stat").read_text().split()[2] != "Z"
    except FileNotFoundError:
        return False


@pytest.mark.parametrize("board, product, kind, radios", [
    ("TRM238", "TRM238", "Tri Radio", 3),
    ("TRM226", "TRM226", "Dual Radio", 2),
    (None, '"', "Tri Radio", 3),  # no /etc/board: radio type -1, as for an unknown product
])
def test_startup_board_radio_type(sandbox, board, product, kind, radios):
    """The board's product id gives the radio type, logged to the file and to syslog; without a board file the daemon
    still starts, with three radios."""
    sb = sandbox(board=board)
    line = f"[dorvand] radio_type = {kind} | product_id = {product}\n"
    log = sb.wait_for_log(f"radios = {radios} \n")
    assert line in log
    sb.wait_for_syslog(line.rstrip("\n"))
    if board is None:
        assert "[roam_lib] Failed to open /etc/board file (No such file or directory | 2) \n" in log
    assert comm(sb.pid()) == "dorvand"


@pytest.mark.parametrize("gone", [(), ("/tmp/dorvand.pid", "/var/roam_key_holders")])
def test_startup_pid_file_and_exit(sandbox, gone):
    """The pid file holds the detached daemon's pid, a newline and NULs up to 8 bytes, mode 0200, replacing a longer
    one; the log settings go to syslog. Signal 10 removes it, the event socket and the key-holder file, reports
    each one already gone to the log and syslog, logs the exit line last and ends with status 0."""
    sb = sandbox(files={"/tmp/dorvand.pid": (b"1234567890123456789\n", 0o644),
                        "/tmp/log/dorvand_log": (b"an earlier run\n", 0o644)})
    pid = sb.pid()
    assert sb.path("/tmp/dorvand.pid").read_bytes() == f"{pid}\n".encode().ljust(8, b"\0")
    assert stat.S_IMODE(sb.path("/tmp/dorvand.pid").stat().st_mode) == 0o200
    assert sb.status()["daemon_pids"] == [pid] and comm(pid) == "dorvand"
    sb.wait_for(lambda: sb.path("/tmp/roam_sock").exists(), 5, "the event socket /tmp/roam_sock")
    for path in gone:
        sb.path(path).unlink(missing_ok=True)
    if not gone:
        sb.path("/var/roam_key_holders").write_bytes(bytes(16))
    assert_clean_exit(sb, sb.stop())
    log = sb.log_text()
    conf = "set_log_conf: Log level: 8, Log size: 524288, Log backup count: 2"
    assert any(conf in m for m in sb.syslog_lines()), "the log settings go to syslog when the log file is there"
    for path in ("/tmp/dorvand.pid", "/tmp/roam_sock", "/var/roam_key_holders"):
        failed = f"[dorvand] Failed to delete {path} file ( No such file or directory| 2 )"
        assert log.count(f"[dorvand] Failed to delete {path} file") == (failed in log) == (path in gone)
        assert any(failed in m for m in sb.syslog_lines()) == (path in gone)


def test_sandbox_leaves_host_untouched_and_ends_its_processes(sandbox):
    """A run changes none of the daemon's paths on the host and adds no host interface; ending the sandbox without
    signal 10 kills the daemon and the namespace keeper, by pid."""
    paths = ("/tmp/dorvand.pid", "/tmp/roam_sock", "/tmp/log/dorvand_log", "/var/roam_key_holders", "/tmp/scan_db_2g")
    before, links_before = {p: os.path.lexists(p) for p in paths}, host_links()
    sb = sandbox()
    sb.wait_for_log("radios = 3 \n")
    assert sb.path("/tmp/dorvand.pid").exists() and "wifi0" not in host_links()
    pids = (sb.pid(), sb.status()["init_pid"])
    assert all(alive(p) for p in pids)
    sb.terminate()
    assert not any(alive(p) for p in pids), "a process of the sandbox still runs"
    # A coverage build ends on SIGTERM with its counters written.
    assert sb.exit_code() == (COVERAGE_TERM_STATUS if sb.coverage_dir else -signal.SIGKILL)
    assert {p: os.path.lexists(p) for p in paths} == before and host_links() == links_before
