"""802.11r status with the simulated configd: the start-up refresh, per-VAP lines of key holders, SIGRTMIN queued
with `kill --queue`; a configd that never answers, or a check program that never allows the read, blocks neither
neighbour events nor the exit."""

import signal
import subprocess

import pytest

from e2e_helpers import (AP_ADDITION, ENABLED, KH_ADDITION, NEIGHBOUR, assert_clean_exit, event, ft_table, ready,
                         refresh_line, send_and_wait)


def signal_update(sb, value, mask):
    """Queues SIGRTMIN with `value` as the access point's tools do; the update's log, once it has given `mask`."""
    start = len(sb.log_text())
    subprocess.run(["/bin/kill", "-s", "RTMIN", "--queue", str(value), str(sb.pid())], check=True)
    last = f"ft_enabled_vaps = {mask:08X} \n"
    sb.wait_for(lambda: last in sb.log_text()[start:], 10, f"{last!r} after the signal")
    log = sb.log_text()[start:]
    assert f"Received {int(signal.SIGRTMIN)} signal | {value}[{value:X}] \n" in log
    return log


def test_ft_status_refresh_key_holder_and_signal(sandbox):
    """11rStatus 1 on wlan0 vap0 and wlan1 vap2 gives 00001001 3 daemon seconds after start, every VAP read once;
    SIGRTMIN queued with value 0 refreshes them all. (The key-holder lines are the scenarios' part.)"""
    sb = ready(sandbox)
    log = sb.log_text()
    assert "wlan1vap2 = 1\n" in log and "wlan2vap9 = 0\n" in log
    assert [key for key, _ in sb.configd.requests()] == list(ft_table()), "every VAP read once, radio by radio"
    assert sb.log_times("radios = 3 ")[0] - sb.log_times("[dorvand] invoke_threads()")[0] >= 3

    log = signal_update(sb, 0, 0x1001)
    assert refresh_line(0x1001) in log, "a signal with value 0 refreshes every VAP"


@pytest.mark.parametrize("stalled", ["start-up refresh", "signal update"])
def test_ft_status_stalled_configd(sandbox, stalled):
    """While configd never answers neighbour events are handled, and signal 10 still ends the daemon with status 0,
    its files removed."""
    sb = sandbox(configd=ft_table(ENABLED), scale=10, start=False)
    asked = 0
    if stalled == "start-up refresh":
        sb.start(wait=False)
        sb.configd.stall()  # well before the first read, 3 daemon seconds after the start
        sb.wait_for(sb.pid, 10, "the pid file")
    else:
        sb.start()
        sb.wait_for_log(refresh_line(0x1001), timeout=8)
        sb.configd.stall()
        asked = len(sb.configd.requests())
        subprocess.run(["/bin/kill", "-s", "RTMIN", "--queue", "4096", str(sb.pid())], check=True)
    assert sb.configd.wait_for_requests(asked + 1, 5), "the daemon should have asked configd"
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION), timeout=3)
    log = send_and_wait(sb, event(NEIGHBOUR, AP_ADDITION, 0, 1), timeout=3)
    assert "0a:1b:2c:3d:4e:50 present = Yes | family = TRV \n" in log
    assert len(sb.script_runs()) == 1
    assert sb.log_text().count("ft_enabled_vaps") == int(stalled == "signal update"), "configd answered"
    assert_clean_exit(sb, sb.stop(timeout=5))
    assert "[dorvand] configuration read in progress; handle left to the end of the process\n" in sb.log_text()


def test_ft_status_configd_child_never_ready(sandbox):
    """A check program that never allows the read: 72 checks 5 s apart, no read, events served, then mask 0; the
    next refresh counts from 0 again."""
    sb = sandbox(start=False, configd=ft_table(ENABLED), scale=200)
    sb.set_configd_busy(True)
    sb.start()
    sb.wait_for_log(" Checking for configd child retry count:0 \n", timeout=5)
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION), timeout=3)
    assert len(sb.script_runs()) == 1
    log = sb.wait_for_log(refresh_line(0), timeout=10)
    retries = [n for n in range(80) if f" Checking for configd child retry count:{n} \n" in log]
    assert retries == list(range(72)) and len(sb.tool_calls("check_configd_child")) == 72
    assert sb.configd.requests() == [], "configd should never have been read"
    checks = sb.log_times(" Checking for configd child retry count:")
    assert checks[-1] - checks[0] >= 71 * 5, "checks should be 5 daemon seconds apart"
    sb.set_configd_busy(False)
    log = signal_update(sb, 0, 0x1001)
    assert "retry count" not in log and refresh_line(0x1001) in log
