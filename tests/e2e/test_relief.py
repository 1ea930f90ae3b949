"""With no descriptor or no new process to be had, an event's files cannot be written; once relief comes, the event
thread's minute wake-up writes them again from the list and runs the script. A storm of signal 10 in the middle of
a scan ends the daemon once, cleanly."""

import signal

import pytest

from e2e_helpers import (KH_ADDITION, LINE_VAP0 as LINE, NEIGHBOUR, assert_clean_exit, band_requests, event, ft_table,
                         ready, record, scan_config)
from sim.expect import AP2MAC, KEY_HOLDERS, consistency_problems

CAUGHT_UP = "[dorvand] Key-holder files written again from the list\n"
RECORD = record("0A:1B:2C:3D:4E:5F")

# the rules of the shortage (optional ones may find no call to fail), the
# key-holder file and whether the BSSID line is there while it lasts, and the
# script runs it still saw
CASES = {
    # No file opens, but the script still starts (and finds no file).
    "no descriptors": ([("open every errno=EMFILE", False), ("pipe2 every errno=EMFILE", True),
                        ("socket every errno=EMFILE", True)], None, False, 1),
    # The files are written (a first line needs no grep); the script does not start.
    "no new processes": ([("spawn every errno=EAGAIN", False)], RECORD, True, 0),
}


@pytest.mark.parametrize("name", CASES)
def test_relief_files_caught_up(sandbox, name):
    rules, held, listed, runs_during = CASES[name]
    sb = ready(sandbox, [(0, 0)], 0x1)
    runs = len(sb.script_runs())
    for rule, optional in rules:
        sb.arm_fault(rule, optional=optional)
    sb.send_event(event(NEIGHBOUR, KH_ADDITION))

    def files_and_runs():  # the log may be out of reach too: the files tell that the event was handled
        kh, ap2mac = sb.path(KEY_HOLDERS), sb.path(AP2MAC)
        return (kh.read_bytes() if kh.exists() else None, LINE in (ap2mac.read_text() if ap2mac.exists() else ""),
                len(sb.script_runs()) - runs)
    sb.wait_for(lambda: files_and_runs() == (held, listed, runs_during), 10, "the event's files and script runs")

    sb.disarm_faults()
    sb.wait_for_log(CAUGHT_UP, timeout=10)
    assert sb.path(KEY_HOLDERS).read_bytes() == RECORD
    assert sb.path(AP2MAC).read_text().splitlines() == [LINE]
    sb.wait_for(lambda: len(sb.script_runs()) == runs + runs_during + 1, 5, "the catch-up's script run")
    assert consistency_problems(sb.path) == []


def test_relief_exit_signal_storm_during_a_scan(sandbox):
    """Twenty signal 10 while wifi0's first full scan waits for its report: one clean-up, status 0, files gone."""
    sb = sandbox(board="TRV146", config=scan_config([0]), configd=ft_table(), scale=20,
                 driver={"radios": {0: {"channels": [{"ieee": 6, "bss": [{"bssid": "02:00:00:00:00:06"}]}]}}})
    sb.wait_for(lambda: band_requests(sb, 0, "acs_start"), 40, "the first full scan of wifi0")
    for _ in range(20):
        sb.send_signal(signal.SIGUSR1)
    sb.wait_exit(20)
    assert_clean_exit(sb, sb.exit_code())
    assert sb.log_text().count("[dorvand] Exiting from daemon\n") == 1
