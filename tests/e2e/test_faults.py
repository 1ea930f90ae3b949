"""The fault injector through the daemon: a rule armed while it runs fails
the calls it names, is reported as fired, and once disarmed the daemon
catches up; a bad rule is refused by name; a rule that never fired is what
fails a test."""

import pytest

from e2e_helpers import KH_ADDITION, event, ft_table, refresh_line, send_and_wait
from sim import faults
from sim.expect import KEY_HOLDERS

ENABLED = [(0, 0)]
NEIGHBOUR = "0A:1B:2C:3D:4E:50"
RECORD = bytes(8) + bytes.fromhex("0a1b2c3d4e5f") + b"\x01\x00"


def test_faults_bad_rule_refused(sandbox):
    """A rule the library cannot read is refused with its text and the reason; nothing is armed."""
    sb = sandbox()
    with pytest.raises(faults.FaultError, match=r'bad fault rule "write path=/var/x errno=ENOPE": errno=ENOPE'):
        sb.arm_fault("write path=/var/x errno=ENOPE")
    assert sb.faults.armed == [] and faults.problems([sb.faults]) is None


def test_faults_key_holder_write_enospc(sandbox):
    """ENOSPC on the key-holder file: the daemon logs the failed write, keeps the file as it was, and writes it
    again from its list once the disk has room; until the rule fires it is what would fail the test."""
    sb = sandbox(configd=ft_table(ENABLED))
    assert refresh_line(0x1) in sb.wait_for_log("ft_enabled_vaps  = ", timeout=8)
    h = sb.arm_fault("write   path=/var/roam_key_holders* every errno=ENOSPC")
    assert h.rule == "write path=/var/roam_key_holders* every errno=ENOSPC"
    assert faults.problems([sb.faults]) == f"armed fault(s) never fired: {h.rule!r}"

    log = send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION))
    assert "fwrite failed [28 | No space left on device ]\n" in log
    fired = sb.faults_fired(h)
    assert fired and {(f["call"], f["errno"]) for f in fired} == {("write", "ENOSPC")}
    assert all(f["path"].startswith("/var/roam_key_holders") for f in fired)
    assert faults.problems([sb.faults]) is None
    assert sb.path(KEY_HOLDERS).read_bytes() == b"", "a failed write must leave the file as it was"

    sb.disarm_faults()
    sb.wait_for_log("[dorvand] Key-holder files written again from the list\n", timeout=10)
    assert sb.path(KEY_HOLDERS).read_bytes() == RECORD
    assert len(sb.faults_fired(h)) == len(fired), "a disarmed rule fired"
