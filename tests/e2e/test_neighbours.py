"""Neighbour events end to end: datagrams on /tmp/roam_sock update the known-AP
tables, the key-holder list, /var/roam_key_holders and /tmp/ap2_macaddr.txt,
and run the transition script; malformed and random datagrams change nothing
they should not and never stop the daemon."""

import random

import pytest

from e2e_helpers_nb import (AP2MAC, AP2MAC_LINE_RE, AP_ADDITION, AP_DELETION, KEY_CHANGED, KEY_HOLDERS,
                            KH_ADDITION, FilesModel, event, ft_table, key_holder_records, mask_of, read_bytes,
                            read_text, record, refresh_line, send_and_wait)

NEIGHBOUR = "0A:1B:2C:3D:4E:50"
OTHER = "0A:1B:2C:3D:4F:50"  # differs in the fifth byte: never taken out with NEIGHBOUR


def started(sandbox, **kw):
    """A daemon whose start-up refresh is over, so no reload of the
    key-holder file runs between the events of a test."""
    sb = sandbox(**kw)
    sb.wait_for_log("ft_enabled_vaps  = ", timeout=8)
    return sb


def assert_untouched(sb, runs_before=0):
    assert read_bytes(sb, KEY_HOLDERS) is None, "no key-holder file expected"
    assert read_bytes(sb, AP2MAC) is None, "no ap2_macaddr file expected"
    assert read_bytes(sb, KEY_CHANGED) is None, "no ft_key_changed file expected"
    assert len(sb.script_runs()) == runs_before, "the transition script should not have run"


@pytest.mark.parametrize("board, wlan", [("TRM238", 7), ("TRM238", 3), ("TRM226", 2)],
                         ids=["tri-radio wlan7", "tri-radio wlan3", "dual-radio wlan2"])
def test_neighbours_event_for_missing_radio(sandbox, board, wlan):
    """Events naming a radio the board does not have are refused, each with one line, and change nothing."""
    sb = started(sandbox, board=board)
    for kind in (AP_ADDITION, KH_ADDITION, AP_DELETION):
        log = send_and_wait(sb, event(NEIGHBOUR, kind, 0, wlan))
        assert f"Event received [{kind}]\n" in log
    refused = f"[dorvand] Event for wlan{wlan} ignored: no such radio\n"
    assert log.count(refused) == 3, f"expected one {refused!r} per event"
    for text in ("AP_ADDITION [", "KH_ADDITION [", "AP_DELETION [", "hash table for"):
        assert text not in log, f"{text!r} logged for a refused event"
    assert_untouched(sb)
    assert sb.exit_code() is None and sb.running(), "the daemon should still run"


def test_neighbours_short_and_empty_datagrams(sandbox):
    """An empty datagram is "no data"; a 1-byte one is an AP_DELETION for wlan0 that leaves other key holders."""
    sb = started(sandbox)
    log = send_and_wait(sb, b"")
    assert "no data \n" in log, "an empty datagram should log 'no data'"
    assert "Event received" not in log
    send_and_wait(sb, event(OTHER, KH_ADDITION, 0, 0))
    assert len(sb.script_runs()) == 1
    log = send_and_wait(sb, b"\x0a")
    assert "Event received [0]\n" in log and "AP_DELETION [wlan0]\n" in log, "1 byte should be an AP_DELETION"
    assert "0a:00:00:00:00:00is not found \n" in log, "the missing bytes of the MAC count as 0"
    assert "Removing " not in log, "no key holder shares the first five bytes 0A:00:00:00:00"
    assert read_bytes(sb, KEY_HOLDERS) == record("0A:1B:2C:3D:4F:5F"), "the other key holder should stay"
    assert len(sb.script_runs()) == 2, "every AP_DELETION runs the script once"


def test_neighbours_long_datagram_is_cut(sandbox):
    """Bytes past the ninth are ignored: a 16-byte datagram acts as its first nine bytes."""
    sb = started(sandbox)
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 1, 2) + b"\x00\x02\x07\xff\xff\xff\xff")
    assert read_bytes(sb, KEY_HOLDERS) == record("0A:1B:2C:3D:4E:2F", family=1), \
        "expected the family-1 key holder of radio 2 (last byte 0x50 + 0x1F - 2 * 0x20)"


def test_neighbours_unknown_type(sandbox):
    """Type 3 logs "default case" and changes nothing."""
    sb = started(sandbox)
    log = send_and_wait(sb, event(NEIGHBOUR, 3, 0, 0))
    assert "Event received [3]\n" in log and "default case \n" in log
    assert "hash table for" not in log
    assert_untouched(sb)


def test_neighbours_random_datagrams(sandbox):
    """1,000 seeded random datagrams keep the daemon running and its files exactly as the events imply."""
    rng = random.Random(20241123)
    enabled = [(0, 0), (1, 2)]
    sb = started(sandbox, configd=ft_table(enabled))
    assert refresh_line(mask_of(enabled)) in sb.log_text()
    model = FilesModel(radios=3, enabled=enabled)
    # Few distinct first-five-byte prefixes, so that deletions meet key holders.
    prefixes = [bytes([0x0A, 0x1B, 0x2C, 0x3D, p]) for p in (0x4E, 0x4F, 0xFE)]
    for _ in range(1000):
        if rng.random() < 0.88:
            # Mostly garbage of at least 9 bytes; a datagram shorter than 9
            # bytes (an AP_DELETION for wlan0 but when empty) now and then.
            size = rng.randrange(0, 9) if rng.random() < 0.04 else rng.randrange(9, 25)
            data = bytes(rng.randrange(256) for _ in range(size))
        else:
            mac = rng.choice(prefixes) + bytes([rng.randrange(256)])
            kind = rng.choice([AP_DELETION, AP_ADDITION, KH_ADDITION, KH_ADDITION, 3, 0xFF])
            family = rng.choice([0, 0, 1, 1, 2, 0xFF])
            wlan = rng.choice([0, 1, 2, 2, 3, 7, 0xFF])
            data = (mac + bytes([kind, family, wlan]))[:rng.choice([9, 9, 9, 7, 8, 12])]
        sb.send_event(data)
        model.apply(data)
    # A last, valid event: once it is handled, every earlier one has been.
    final = event("0A:1B:2C:3D:99:00", KH_ADDITION, 0, 0)
    sb.send_event(final)
    model.apply(final)
    sb.wait_for(lambda: len(sb.script_runs()) >= model.script_runs, 30,
                f"{model.script_runs} runs of the transition script")
    assert sb.exit_code() is None and sb.running(), "the daemon should survive random datagrams"
    assert len(sb.script_runs()) == model.script_runs, "one script run per added key holder and per AP_DELETION"

    records = key_holder_records(read_bytes(sb, KEY_HOLDERS))
    assert all(active == 1 for _, active, _ in records), "every record should be active"
    assert len({mac for mac, _, _ in records}) == len(records), "no key holder stored twice"
    assert read_bytes(sb, KEY_HOLDERS) == model.key_holder_bytes(), "key-holder file differs from the list"
    ap2 = read_text(sb, AP2MAC)
    for line in ap2.splitlines():
        assert AP2MAC_LINE_RE.fullmatch(line), f"malformed ap2_macaddr line {line!r}"
        assert len(line) <= FilesModel.LINE_MAX, f"ap2_macaddr line of {len(line)} characters"
    assert ap2 == model.ap2_text(), "ap2_macaddr.txt differs from what the events imply"
    assert read_text(sb, KEY_CHANGED) == model.key_change_text(), "ft_key_changed.txt differs"
    assert not sb.path("/tmp/tmp_ap2_macaddr.txt").exists(), "temporary file left behind"


def test_neighbours_ap_addition_prints_table(sandbox):
    """AP_ADDITION adds the AP to its radio's table and prints that table; no key holder, no script."""
    sb = started(sandbox)
    log = send_and_wait(sb, event(NEIGHBOUR, AP_ADDITION, 0, 1))
    for line in ("Event received [1]\n", "AP_ADDITION [wlan1]\n", "0a:1b:2c:3d:4e:50", " slot 5 new entry \n",
                 "\t\thash table for wlan1 \n", "\t*** slot = 5 ***\n",
                 "0a:1b:2c:3d:4e:50 present = Yes | family = TRV \n"):
        assert line in log, f"expected {line!r} in the log"
    assert_untouched(sb)


def test_neighbours_ap_addition_same_slot_and_duplicate(sandbox):
    """A second AP of slot 5 is chained and printed after the first; a repeated AP keeps its first attributes."""
    sb = started(sandbox)
    send_and_wait(sb, event(NEIGHBOUR, AP_ADDITION, 0, 0))
    log = send_and_wait(sb, event("0A:1B:2C:3D:4E:5A", AP_ADDITION, 1, 0))
    assert "New entry , but in same hash slot [5]\t\t\t\t\n" in log
    table = log[log.rindex("\t\thash table for wlan0 \n"):]
    first = table.index("0a:1b:2c:3d:4e:50 present = Yes | family = TRV \n")
    second = table.index("0a:1b:2c:3d:4e:5a present = Yes | family = TRM \n")
    assert first < second, "entries of a slot print in insertion order"
    log = send_and_wait(sb, event(NEIGHBOUR, AP_ADDITION, 1, 0))
    assert "Duplicate entry at beginning A-1B-2C-3D-4E-50 \n" in log
    table = log[log.rindex("\t\thash table for wlan0 \n"):]
    assert table.count("0a:1b:2c:3d:4e:50 present") == 1, "the table should hold the AP once"
    assert "0a:1b:2c:3d:4e:50 present = Yes | family = TRV \n" in table, "the first family should stay"


def test_neighbours_kh_addition_appends_record(sandbox):
    """KH_ADDITION appends one 16-byte record with the derived MAC and runs the script once."""
    sb = started(sandbox)
    log = send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    assert "KH_ADDITION [wlan0]\n" in log
    assert read_bytes(sb, KEY_HOLDERS) == record("0A:1B:2C:3D:4E:5F"), \
        "expected one record for key holder 0A:1B:2C:3D:4E:5F (0x50 + 0x0F on radio 0)"
    runs = sb.script_runs()
    assert len(runs) == 1, f"expected one script run, got {len(runs)}"
    assert runs[0]["roam_key_holders"] == record("0A:1B:2C:3D:4E:5F"), "the script should see the new record"
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 1, 1))
    assert key_holder_records(read_bytes(sb, KEY_HOLDERS)) == [("0A:1B:2C:3D:4E:5F", 1, 0),
                                                                ("0A:1B:2C:3D:4E:4F", 1, 1)], \
        "expected the radio-1 key holder (0x50 + 0x1F - 0x20) appended after the first"
    assert len(sb.script_runs()) == 2


def test_neighbours_kh_addition_repeated_runs_nothing(sandbox):
    """The same KH_ADDITION again stores nothing new and does not run the script."""
    sb = started(sandbox)
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    before = read_bytes(sb, KEY_HOLDERS)
    log = send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    assert "0a:1b:2c:3d:4e:5f is already cached in MKH\n" in log
    assert read_bytes(sb, KEY_HOLDERS) == before, "the key-holder file should be unchanged"
    assert len(sb.script_runs()) == 1, "the script should have run for the first event only"


def test_neighbours_ap_deletion_removes_key_holders(sandbox):
    """AP_DELETION removes the AP, every key holder with its first five bytes, rewrites the file, runs the script."""
    sb = started(sandbox)
    for data in (event(NEIGHBOUR, AP_ADDITION, 0, 0), event(NEIGHBOUR, KH_ADDITION, 0, 0),
                 event(OTHER, KH_ADDITION, 0, 0), event(NEIGHBOUR, KH_ADDITION, 0, 1)):
        send_and_wait(sb, data)
    assert key_holder_records(read_bytes(sb, KEY_HOLDERS)) == [
        ("0A:1B:2C:3D:4E:5F", 1, 0), ("0A:1B:2C:3D:4F:5F", 1, 0), ("0A:1B:2C:3D:4E:4F", 1, 0)]
    assert len(sb.script_runs()) == 3
    log = send_and_wait(sb, event(NEIGHBOUR, AP_DELETION, 0, 0))
    for line in ("AP_DELETION [wlan0]\n", "mac found @ beginning of 5 slot \n", "Removing 0a:1b:2c:3d:4e:5f\n",
                 "Removing 0a:1b:2c:3d:4e:4f\n", "0a-1b-2c-3d-4f-5f | YES | TRV \n"):
        assert line in log, f"expected {line!r} in the log"
    table = log[log.rindex("\t\thash table for wlan0 \n"):]
    assert "present = " not in table, "the wlan0 table should be empty after the deletion"
    assert read_bytes(sb, KEY_HOLDERS) == record("0A:1B:2C:3D:4F:5F"), "only the other neighbour's record stays"
    runs = sb.script_runs()
    assert len(runs) == 4 and runs[3]["roam_key_holders"] == record("0A:1B:2C:3D:4F:5F")

    log = send_and_wait(sb, event("0A:1B:2C:3D:77:50", AP_DELETION, 0, 2))
    assert "0a:1b:2c:3d:77:50is not found \n" in log
    assert read_bytes(sb, KEY_HOLDERS) == record("0A:1B:2C:3D:4F:5F")
    assert len(sb.script_runs()) == 5, "an AP_DELETION that finds nothing still runs the script"
