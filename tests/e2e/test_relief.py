"""The world runs out and comes back: with no descriptor or no new process
to be had, an event's files cannot be written; once relief comes, the event
thread's minute wake-up writes them again from the list and runs the script,
without a restart."""

import pytest

from e2e_helpers import KH_ADDITION, event, ft_table, refresh_line
from sim.expect import AP2MAC, KEY_HOLDERS, consistency_problems

MAC = "0A:1B:2C:3D:4E:50"
CAUGHT_UP = "[dorvand] Key-holder files written again from the list\n"
# wifi0vap0's line and the key-holder record for a family-0 neighbour MAC seen on radio 0
LINE = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70"
RECORD = bytes(8) + bytes.fromhex("0a1b2c3d4e5f") + b"\x01\x00"

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
    sb = sandbox(configd=ft_table([(0, 0)]))
    sb.wait_for_log(refresh_line(0x1), timeout=8)
    runs = len(sb.script_runs())
    for rule, optional in rules:
        sb.arm_fault(rule, optional=optional)
    sb.send_event(event(MAC, KH_ADDITION))
    sb.wait_for(lambda: sb.faults_fired(), 10, "a call of the event failing")
    sb.sleep_daemon(5)
    kh = sb.path(KEY_HOLDERS)
    assert (kh.read_bytes() if kh.exists() else None) == held
    assert (LINE in (sb.path(AP2MAC).read_text() if sb.path(AP2MAC).exists() else "")) == listed
    assert len(sb.script_runs()) == runs + runs_during

    sb.disarm_faults()
    sb.wait_for_log(CAUGHT_UP, timeout=10)
    assert sb.path(KEY_HOLDERS).read_bytes() == RECORD
    assert sb.path(AP2MAC).read_text().splitlines() == [LINE]
    sb.wait_for(lambda: len(sb.script_runs()) == runs + runs_during + 1, 5, "the catch-up's script run")
    assert consistency_problems(sb.path) == []
