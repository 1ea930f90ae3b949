"""Bad neighbour events end to end: datagrams naming a radio the board lacks,
an unknown type, an empty and a 1-byte datagram leave the key-holder files as
the good events among them imply. How well-formed events change the files is
checked by the scenarios; random datagrams by the hardening flood."""

from e2e_helpers import AP_ADDITION, AP_DELETION, KH_ADDITION, event, ft_table, refresh_line, send_and_wait
from sim.expect import KEY_HOLDERS, consistency_problems

ENABLED = [(0, 0), (1, 2)]
NEIGHBOUR = "0A:1B:2C:3D:4E:50"
OTHER = "0A:1B:2C:3D:4F:50"  # differs in the fifth byte: never taken out with a deletion of NEIGHBOUR


def test_neighbours_bad_datagrams(sandbox):
    """Events for wlan3 and wlan7 are refused with one line each, type 3 and an empty datagram change nothing, one
    byte is an AP_DELETION for wlan0."""
    sb = sandbox(configd=ft_table(ENABLED))
    assert refresh_line(0x1001) in sb.wait_for_log("ft_enabled_vaps  = ", timeout=8)
    named = [event(NEIGHBOUR, kind, 0, wlan) for wlan in (3, 7) for kind in (AP_ADDITION, KH_ADDITION, AP_DELETION)]
    named += [event(NEIGHBOUR, 3), b"", event(OTHER, KH_ADDITION), b"\x0a"]
    for data in named:
        log = send_and_wait(sb, data)
    for wlan in (3, 7):
        assert log.count(f"[dorvand] Event for wlan{wlan} ignored: no such radio\n") == 3
        assert f"[wlan{wlan}]" not in log, f"an event for wlan{wlan} was handled"
    assert "default case \n" in log and "no data \n" in log
    assert "AP_DELETION [wlan0]\n" in log and "0a:00:00:00:00:00is not found \n" in log, \
        "1 byte should be an AP_DELETION for wlan0 with the missing bytes 0"
    assert sb.path(KEY_HOLDERS).read_bytes() == bytes(8) + bytes.fromhex("0a1b2c3d4f5f") + b"\x01\x00"
    assert len(sb.script_runs()) == 2, "one run for the key holder, one for the AP_DELETION"
    assert consistency_problems(sb.path) == []
