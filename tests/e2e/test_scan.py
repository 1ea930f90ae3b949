"""Background scanning end to end, where timing matters: each band's first full scan when its timer is due, the batch
scan 1800 s later channel by channel, the 10 s radio retries and 60 s CAC holds, the 5 GHz high band of a board
without it, and the scan timers cancelled by signal 10. What scans store is the scenarios' part."""

import os
import re

import pytest

from e2e_helpers import (assert_clean_exit, assert_fired_on_time, assert_retries, band_requests, fail_on_sanitizer_reports,
                         ft_table, others_busy, radio_flags, scan_config, scan_idle, scan_windows)
from sim.sandbox import Sandbox

START_NAMES = ("start_2g_scan_timer", "start_5gl_scan_timer", "start_5gh_scan_timer")
VOICE_2G = "[dorvand] trigger_2g_full_scan : Skipping the scan for wifi0 due to voice traffic\n"
CAC_5G = "[dorvand] trigger_5gl_full_scan: CAC timer running on the interface wifi1vap0, holding the scan trigger\n"
RADIO1_DOWN = "The radio wifi1 is down, initiating retry mechanism\n"
CHANNELS = {0: (1, 6, 11), 1: (36, 40, 44), 2: (149,)}


def driver(voice=False, cac=0):
    """One neighbour per channel of CHANNELS; optionally voice traffic on wifi0 and a CAC running on wifi1vap0."""
    d = {"radios": {r: {"channels": [{"ieee": ch, "bss": [{"bssid": f"02:00:00:00:{r:02X}:{ch:02X}"}]}
                                     for ch in chans]} for r, chans in CHANNELS.items()},
         "cac": {"wifi1vap0": cac}}
    if voice:
        d["radios"][0].update(voice_bit=1, prev_voice_pkts=10, cur_voice_pkts=25)
    return d


def attempts(sb, radio, last):
    """(start, end) of each full-scan attempt of the radio: from its radio check to its `last` request."""
    reqs = band_requests(sb, radio)
    ends = [(i, q["time"]) for i, q in enumerate(reqs) if q["req"] == last]
    return [(f["time"], next(t for j, t in ends if j > i)) for i, f in enumerate(reqs)
            if f["req"] == "flags" and f["if"] == f"wifi{radio}" and any(j > i for j, _ in ends)]


def cancel_counts(sb):
    """The exit handler's twelve cancel counts, four per band."""
    counts = [int(n) for n in re.findall(r" Number of eloop cancelled timeouts:(\d+) \n", sb.log_text())]
    assert len(counts) == 12, f"expected twelve cancel lines at exit, got {len(counts)}"
    return [counts[i:i + 4] for i in range(0, 12, 4)]


@pytest.fixture(scope="module")
def trv146(dorvand, simlib):
    """A TRV146 board (three bands) scanning on every band, through one batch scan of each, then ended with
    signal 10. Yields the sandbox and the exit code."""
    with Sandbox(dorvand, simlib, board="TRV146", config=scan_config(range(3)), driver=driver(), configd=ft_table(),
                 scale=150, keep=bool(os.environ.get("DORVSIM_KEEP"))) as sb:
        sb.wait_for(lambda: all(len(band_requests(sb, r, "chan_scan")) >= len(CHANNELS[r]) for r in range(3))
                    and scan_idle(sb, range(3)), 60, "a batch scan of every learned channel of the three bands")
        yield sb, sb.stop()
    fail_on_sanitizer_reports([sb])


def test_scan_first_full_scan_delay(trv146):
    """Each band's first full scan starts when the delay it logged has passed, on one ACS scan."""
    sb, _ = trv146
    for r in range(3):
        line = f"[dorvand] {START_NAMES[r]} : "
        delay = int(re.search(re.escape(line) + r"(\d+) seconds \n", sb.log_text()).group(1))
        # The timer is registered after the band's radio check and before its
        # log line, whose time stamp is in whole seconds.
        checked = radio_flags(sb, r)[0]["time"]
        logged = sb.log_times(line)[0]
        assert_fired_on_time(f"first full scan of radio {r}", checked + delay, scan_windows(sb, r)[0][0],
                             others_busy(sb, r, range(3)), due_latest=logged + 1 + delay)
        assert [a["if"] for a in band_requests(sb, r, "acs_start")] == [f"wifi{r}vap0"]


def test_scan_batch_scan_channel_by_channel(trv146):
    """1800 daemon-seconds after the full scan each learned channel is scanned alone, at least 5 s apart."""
    sb, _ = trv146
    for r, learned in CHANNELS.items():
        scans = band_requests(sb, r, "chan_scan")
        assert [int(s["chan"]) for s in scans] == list(learned), f"radio {r}: one scan per learned channel"
        assert all((s["if"], s["words"], s["flags"]) == (f"wifi{r}", "110,60,100,50,1500", "1,1") for s in scans)
        full, batch = scan_windows(sb, r)
        assert_fired_on_time(f"batch scan of radio {r}", full[1] + 1800, batch[0], others_busy(sb, r, range(3)))
        gaps = [b["time"] - a["time"] for a, b in zip(scans, scans[1:])]
        assert all(g >= 5 for g in gaps), f"radio {r}: channels scanned less than 5 s apart: {gaps}"


def test_scan_exit_cancels_one_timer_per_band(trv146):
    """Signal 10 cancels the twelve scan handlers and finds one pending per band: its batch scan."""
    sb, code = trv146
    assert_clean_exit(sb, code)
    assert cancel_counts(sb) == [[0, 0, 0, 1]] * 3


def test_scan_holds_on_trm238p(sandbox):
    """TRM238P (three radios, radio type 2): wifi1, down at start, is re-checked every 10 s; voice on wifi0 postpones
    the 2.4 GHz full scan and a CAC on wifi1vap0 holds the 5 GHz one 60 s at a time, until they end;
    the 5 GHz high band never runs, so signal 10 finds pending timers of the two other bands only."""
    links = {"wifi0": True, "wifi0vap0": True, "wifi1": False, "wifi1vap0": True, "wifi2": True, "wifi2vap0": True}
    sb = sandbox(board="TRM238P", config=scan_config(range(3)), links=links, scale=150,
                 driver=driver(voice=True, cac=1))
    sb.wait_for_log(RADIO1_DOWN, timeout=20, count=4)
    assert not sb.path("/tmp/scan_db_5g").exists(), "no 5 GHz database while wifi1 is down"
    sb.set_link("wifi1", True)
    sb.wait_for_log(f"[dorvand] {START_NAMES[1]} : ", timeout=10)
    down = [f["time"] for f in radio_flags(sb, 1) if f["up"] == "0"]
    assert sb.log_text().count(RADIO1_DOWN) == len(down), "one retry line per radio check"
    assert assert_retries("radio check of wifi1", down, down, 10, attempts(sb, 0, "voice")) >= 3

    sb.wait_for_log(VOICE_2G, timeout=20, count=4)
    sb.wait_for_log(CAC_5G, timeout=20, count=3)
    cac = [c["time"] for c in band_requests(sb, 1, "cac") if c["value"] == "1"]
    assert assert_retries("CAC hold on wifi1", cac, [f["time"] for f in radio_flags(sb, 1)], 60,
                          attempts(sb, 0, "voice")) >= 2
    assert not band_requests(sb, 0, "acs_start") and not band_requests(sb, 1, "acs_start")

    sb.set_driver(driver())
    sb.wait_for(lambda: all(band_requests(sb, r, "chan_info") for r in (0, 1)) and scan_idle(sb, (0, 1)), 20,
                "the full scans of wifi0 and wifi1 once voice and CAC ended")
    for r, kind, field in ((0, "voice", "bit"), (1, "cac", "value")):
        reqs = band_requests(sb, r)
        acs = [i for i, q in enumerate(reqs) if q["req"] == "acs_start"]
        assert len(acs) == 1 and reqs[acs[0]]["if"] == f"wifi{r}vap0", f"radio {r}: one ACS scan"
        assert [q for q in reqs[:acs[0]] if q["req"] == kind][-1][field] == "0", \
            f"radio {r}: the ACS scan must follow a {kind} check that found the band free"
    busy = [v for v in band_requests(sb, 0, "voice") if v["bit"] == "1"]
    assert sb.log_text().count(VOICE_2G) == len(busy), "one skip line per voice check that found a call"
    assert not band_requests(sb, 0, "cac"), "the 2.4 GHz band never asks for the CAC state"

    assert sb.stop() == 0
    assert not band_requests(sb, 2), "no driver request for wifi2"
    assert not sb.path("/tmp/scan_db_5gh").exists()
    assert "5GHz High" not in sb.log_text() and "5gh" not in sb.log_text()
    assert cancel_counts(sb) == [[0, 0, 0, 1], [0, 0, 0, 1], [0, 0, 0, 0]]
