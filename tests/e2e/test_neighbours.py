"""Bad neighbour events end to end: datagrams naming a radio the board lacks,
an unknown type, an empty and a 1-byte datagram, then 1,000 random ones keep
the daemon running and leave its key-holder files exactly as the events imply
and well formed. How well-formed events change the files is checked by the
scenarios."""

import random

from e2e_helpers import AP_ADDITION, AP_DELETION, KH_ADDITION, event, ft_table, refresh_line, send_and_wait
from sim.expect import AP2MAC, FT_KEY_CHANGED, KEY_HOLDERS, consistency_problems

ENABLED = [(0, 0), (1, 2)]
NEIGHBOUR = "0A:1B:2C:3D:4E:50"
OTHER = "0A:1B:2C:3D:4F:50"  # differs in the fifth byte: never taken out with a deletion of NEIGHBOUR


def expected_files(datagrams, radios=3):
    """What the datagrams must leave behind, for 802.11r on ENABLED: the
    key-holder file's bytes, the ft_key_changed.txt lines and the number of
    script runs (one per new key holder and per AP_DELETION)."""
    holders, changes, runs = [], [], 0
    for data in datagrams:
        if not data:
            continue  # "no data"
        ev = (data + bytes(9))[:9]
        mac, kind, family, wlan = ev[:6], ev[6], ev[7], ev[8]
        if wlan >= radios or kind not in (AP_DELETION, KH_ADDITION):
            continue
        if kind == KH_ADDITION:
            shift = {0: 0x0F - 0x10 * wlan, 1: 0x1F - 0x20 * wlan}.get(family, 0)
            kh = mac[:5] + bytes([(mac[5] + shift) & 0xFF])
            if any(kh == m for m, _ in holders):
                continue
            holders.append((kh, family))
        else:
            holders = [(m, f) for m, f in holders if m[:5] != mac[:5]]
        changes += [f"ft_key_changed_wifi{r}vap{v}=1,{int(kind == KH_ADDITION)}" for r, v in ENABLED]
        runs += 1
    return b"".join(bytes(8) + m + bytes([1, f]) for m, f in holders), changes, runs


def random_datagrams(rng, n):
    """Mostly garbage of 9 bytes or more, now and then a short one; the rest
    events of every kind, family and radio, on few five-byte prefixes so that
    deletions meet key holders."""
    prefixes = [bytes([0x0A, 0x1B, 0x2C, 0x3D, p]) for p in (0x4E, 0x4F, 0xFE)]
    for _ in range(n):
        if rng.random() < 0.88:
            size = rng.randrange(0, 9) if rng.random() < 0.04 else rng.randrange(9, 25)
            yield bytes(rng.randrange(256) for _ in range(size))
        else:
            head = rng.choice(prefixes) + bytes([rng.randrange(256)])
            tail = bytes([rng.choice([AP_DELETION, AP_ADDITION, KH_ADDITION, KH_ADDITION, 3, 0xFF]),
                          rng.choice([0, 0, 1, 1, 2, 0xFF]), rng.choice([0, 1, 2, 2, 3, 7, 0xFF])])
            yield (head + tail)[:rng.choice([9, 9, 9, 7, 8, 12])]


def test_neighbours_bad_and_random_datagrams(sandbox):
    """Events for wlan3 and wlan7 are refused with one line each, type 3 and an empty datagram change nothing, one
    byte is an AP_DELETION for wlan0; then 1,000 random datagrams leave exactly the implied files, well formed."""
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

    sent = named + list(random_datagrams(random.Random(20241123), 1000))
    sent.append(event("0A:1B:2C:3D:99:00", KH_ADDITION))  # once this is handled, every earlier one is
    for data in sent[len(named):]:
        sb.send_event(data)
    records, changes, runs = expected_files(sent)
    sb.wait_for(lambda: len(sb.script_runs()) >= runs, 30, f"{runs} runs of the transition script")
    assert sb.running() and sb.exit_code() is None, "the daemon should survive random datagrams"
    assert len(sb.script_runs()) == runs
    assert sb.path(KEY_HOLDERS).read_bytes() == records, "the key-holder file differs from what the events imply"
    assert sb.path(FT_KEY_CHANGED).read_text().splitlines() == changes
    assert consistency_problems(sb.path) == []
    lines = sb.path(AP2MAC).read_text().splitlines()
    assert sorted(ln.split("=")[0] for ln in lines) == ["ap2_macaddr_wifi0vap0", "ap2_macaddr_wifi1vap2"]
    assert all(len(ln) <= 1022 for ln in lines), "an ap2_macaddr line over 1022 characters"
