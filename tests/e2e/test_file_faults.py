"""Key-holder files the running daemon cannot write, through the fault
injector: the failure is logged, the files stay whole (no temporary file, the
old file where a rewrite failed), and the event thread's minute wake-up
writes them again from the list and runs the script once the fault is gone.
A rule is reported as fired, fails the test until it has, and a bad one is
refused by name."""

import pytest

from e2e_helpers import AP_DELETION, KH_ADDITION, event, ft_table, refresh_line, send_and_wait
from sim import faults
from sim.expect import AP2MAC, KEY_HOLDERS, consistency_problems

FIRST, SECOND = "0A:1B:2C:3D:4E:50", "0A:1B:2C:3D:5E:50"
CAUGHT_UP = "[dorvand] Key-holder files written again from the list\n"


def line(*macs):
    """wifi0vap0's line for family-0 key holders of neighbours `macs` seen on radio 0."""
    return "ap2_macaddr_wifi0vap0=" + " ".join(f"{m[:15]}{int(m[15:], 16) + 0x10 * k:02X}" for m in macs
                                               for k in range(3))


def record(mac):
    return bytes(8) + bytes.fromhex(mac.replace(":", "")[:10] + "5f") + b"\x01\x00"


# rule (blanks as typed), event, the failure's log line, the BSSID lines and the key-holder file while it lasts
CASES = {
    # A full disk for every write of the key-holder file: it stays as it was.
    "key-holder write": ("write   path=/var/roam_key_holders* every errno=ENOSPC", KH_ADDITION,
                         "fwrite failed [28 | No space left on device ]\n", line(FIRST), b""),
    # The rename of the BSSID line's rewrite fails for good: the line keeps its first BSSID only.
    "ap2_macaddr rename": ("rename path=/tmp/tmp_ap2_macaddr.txt every errno=EIO", KH_ADDITION,
                           '[dorvand] \n Failed to write the TMP AP2MAC file "(/tmp/tmp_ap2_macaddr.txt)" '
                           "[ Reason = Input/output error(5)]", "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50",
                           record(FIRST)),
    # A deletion whose key-change file cannot be opened leaves the deleted BSSIDs listed.
    "key-change file": ("open path=/tmp/ft_key_changed.txt every errno=EACCES", AP_DELETION,
                        '[dorvand] \n Failed to open the KEY_CHANGE file "(/tmp/ft_key_changed.txt)" '
                        "[ Reason = Permission denied(13)]", line(SECOND, FIRST), record(SECOND)),
}


@pytest.mark.parametrize("name", CASES)
def test_file_faults_caught_up(sandbox, name):
    rule, kind, failure, stuck, held = CASES[name]
    sb = sandbox(configd=ft_table([(0, 0)]))
    sb.wait_for_log(refresh_line(0x1), timeout=8)
    if kind == AP_DELETION:
        send_and_wait(sb, event(SECOND, KH_ADDITION))
        send_and_wait(sb, event(FIRST, KH_ADDITION))
    runs = len(sb.script_runs())
    h = sb.arm_fault(rule)
    assert h.rule == " ".join(rule.split())
    assert faults.problems([sb.faults]) == f"armed fault(s) never fired: {h.rule!r}"
    log = send_and_wait(sb, event(FIRST, kind))
    assert failure in log
    call, path, err = rule.split()[0], rule.split()[1][5:].rstrip("*"), rule.split()[-1][6:]
    fired = sb.faults_fired(h)
    assert fired and {(f["call"], f["errno"]) for f in fired} == {(call, err)}
    assert all(f["path"].startswith(path) for f in fired)
    assert faults.problems([sb.faults]) is None
    assert sb.path(AP2MAC).read_text().splitlines() == [stuck]
    assert sb.path(KEY_HOLDERS).read_bytes() == held
    assert not sb.path("/tmp/tmp_ap2_macaddr.txt").exists()
    assert CAUGHT_UP not in log

    sb.disarm_faults()
    sb.wait_for_log(CAUGHT_UP, timeout=10)
    assert sb.path(AP2MAC).read_text().splitlines() == [line(SECOND) if kind == AP_DELETION else line(FIRST)]
    assert sb.path(KEY_HOLDERS).read_bytes() == record(SECOND if kind == AP_DELETION else FIRST)
    sb.wait_for(lambda: len(sb.script_runs()) == runs + 2, 5, "the event's script run and the catch-up's")
    assert len(sb.faults_fired(h)) == len(fired), "a disarmed rule fired"
    assert consistency_problems(sb.path) == []


def test_file_faults_bad_rule_refused(sandbox):
    """A rule the library cannot read is refused with its text and the reason; nothing is armed."""
    sb = sandbox()
    with pytest.raises(faults.FaultError, match=r'bad fault rule "write path=/var/x errno=ENOPE": errno=ENOPE'):
        sb.arm_fault("write path=/var/x errno=ENOPE")
    assert sb.faults.armed == [] and faults.problems([sb.faults]) is None
