"""Start-up and shutdown of the daemon: board detection, pid file, signal 10,
and the simulator's accelerated clock."""

import stat
import time

import pytest

EXIT_LINE = "[dorvand] Exiting from daemon\n"


def pid_file_bytes(pid):
    return f"{pid}\n".encode().ljust(8, b"\0")


def comm(pid):
    with open(f"/proc/{pid}/comm") as f:
        return f.read().strip()


@pytest.mark.parametrize("product, kind, radios", [
    ("TRM238", "Tri Radio", 3),
    ("TRM226", "Dual Radio", 2),
    ("XYZ999", "Tri Radio", 3),  # unknown product: radio type -1
])
def test_startup_board_radio_type(sandbox, product, kind, radios):
    """The board's product id gives the radio type, logged to the file and to syslog."""
    sb = sandbox(board=product)
    line = f"[dorvand] radio_type = {kind} | product_id = {product}\n"
    assert line in sb.wait_for_log(line)
    sb.wait_for_syslog(line.rstrip("\n"))
    sb.wait_for_log(f"radios = {radios} \n")


def test_startup_no_board_file(sandbox):
    """Without /etc/board the daemon still starts, with three radios and a product id of one double quote."""
    sb = sandbox(board=None)
    log = sb.wait_for_log("[dorvand] radio_type = Tri Radio | product_id = \"\n")
    assert "[roam_lib] Failed to open /etc/board file (No such file or directory | 2) \n" in log
    sb.wait_for_log("radios = 3 \n")
    assert comm(sb.pid()) == "dorvand"


def test_startup_pid_file(sandbox):
    """The pid file holds the detached daemon's pid, a newline and NULs up to 8 bytes, mode 0200."""
    sb = sandbox(start=False)
    sb.path("/tmp").mkdir(parents=True, exist_ok=True)
    old = sb.path("/tmp/dorvand.pid")
    old.write_bytes(b"1234567890123456789\n")  # longer than the new text: must be truncated
    old.chmod(0o644)
    sb.start()
    pid = sb.pid()
    assert old.read_bytes() == pid_file_bytes(pid)
    assert stat.S_IMODE(old.stat().st_mode) == 0o200
    assert sb.status()["daemon_pids"] == [pid], "the pid file names the detached process"
    assert comm(pid) == "dorvand"
    text = pid_file_bytes(pid).rstrip(b"\0").decode()
    sb.wait_for_log(f"[dorvand] daemon_pid = {pid} | {text} \n")


def test_startup_exit_signal_removes_files(sandbox):
    """Signal 10 removes the pid file, the event socket and the key-holder file, and ends with status 0."""
    sb = sandbox()
    sb.wait_for(lambda: sb.path("/tmp/roam_sock").exists(), 5, "the event socket /tmp/roam_sock")
    sb.path("/var/roam_key_holders").write_bytes(bytes(16))
    assert sb.stop() == 0, f"exit status; status: {sb.status()}"
    log = sb.log_text()
    assert log.endswith(EXIT_LINE + "\n"), f"last lines: {log[-300:]!r}"
    assert "Failed to delete" not in log
    for path in ("/tmp/dorvand.pid", "/tmp/roam_sock", "/var/roam_key_holders"):
        assert not sb.path(path).exists(), f"{path} left behind"


def test_startup_exit_signal_missing_files(sandbox):
    """Files already gone at signal 10 are each reported, to the log and syslog, and the daemon still exits 0."""
    sb = sandbox()
    sb.wait_for(lambda: sb.path("/tmp/roam_sock").exists(), 5, "the event socket /tmp/roam_sock")
    sb.path("/tmp/dorvand.pid").unlink()
    assert sb.stop() == 0
    log = sb.log_text()
    for path in ("/tmp/dorvand.pid", "/var/roam_key_holders"):
        line = f"[dorvand] Failed to delete {path} file ( No such file or directory| 2 )\n"
        assert line in log
        assert any(line.rstrip("\n") in m for m in sb.syslog_lines()), f"{line!r} not in syslog"
    assert EXIT_LINE in log


def test_startup_timer_runs_on_daemon_time(sandbox):
    """The 3-second start-up timer fires after 3 daemon seconds, which the simulator makes take 30 ms."""
    started = time.monotonic()
    sb = sandbox(scale=100)
    sb.wait_for_log("radios = ", timeout=5)
    real = time.monotonic() - started
    threads_at = sb.log_times("[dorvand] invoke_threads()")
    refresh_at = sb.log_times("radios = ")
    assert threads_at and refresh_at
    assert refresh_at[0] - threads_at[0] >= 3, "the timer fired before 3 daemon seconds"
    assert real < 2.5, f"3 daemon seconds took {real:.2f}s real at scale 100"
