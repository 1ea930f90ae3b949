"""Background scanning end to end: the first full scan of each band, the scan
databases, a scanned known AP turned into a key holder, the batch scans, voice
traffic and CAC holds, a radio that is down at start, the 5 GHz high band of a
board without it, and the scan timers cancelled by signal 10."""

import copy
import errno
import math
import os
import re
import time

import pytest

from e2e_helpers_scan import (KNOWN_AP_LINE, SCAN_DBS, assert_fired_on_time, assert_retries, band_requests,
                              batch_window, ft_table, full_scan_window, jitter, log_entries, radio_flags,
                              read_rows, scan_config, scan_cycle_idle, scan_windows)
from sim.driver_state import DriverState
from sim.sandbox import Sandbox

# Daemon seconds per real second. At 300 the 1800 s to the batch scan take
# 6 s; a shell command costs several daemon-seconds, which no measured wait
# includes. The tests of short retries run slower, so that a 10 s retry and
# a 60 s one stay far apart even with the allowed jitter.
MAIN_SCALE = 300
RETRY_SCALE = 200

BATCH_PERIOD = 1800
CHANNEL_WAIT = 5
RETRY = 10
CAC_RETRY = 60

START_NAMES = ("start_2g_scan_timer", "start_5gl_scan_timer", "start_5gh_scan_timer")
FULL_NAMES = ("trigger_2g_full_scan", "trigger_5gl_full_scan", "trigger_5gh_full_scan")
BATCH_NAMES = ("trigger_2g_batch_scan", "trigger_5gl_batch_scan", "trigger_5gh_batch_scan")
PARSED = "[dorvand] {} :parsed scan result succesfully\n"
VOICE_2G = "[dorvand] trigger_2g_full_scan : Skipping the scan for wifi0 due to voice traffic\n"
CAC_5G = "[dorvand] trigger_5gl_full_scan: CAC timer running on the interface wifi1vap0, holding the scan trigger\n"
RADIO1_DOWN = "The radio wifi1 is down, initiating retry mechanism\n"
CANCELLED_RE = re.compile(r"^ (\d+) Number of eloop cancelled timeouts:(\d+) \n$")

KNOWN_AP = KNOWN_AP_LINE.format(radio=0, name="7", mac="0A-1B-2C-3D-4E-50", attrs="1,0")
KEY_HOLDER = bytes.fromhex("0a1b2c3d4e5f")

# What the driver reports on the TRV146 board: per radio, channels with their
# statistics and neighbours. 0A:1B:2C:3D:4E:52 belongs to the known AP above.
SCENARIO = {"radios": {
    0: {"channels": [
        {"ieee": 1, "max_rssi": -35, "min_rssi": -82, "noise_floor": -96, "spectral_load": 3, "chan_load": 42,
         "chan_rank": 2, "bss": [
             {"bssid": "0A:1B:2C:3D:4E:52", "rssi": -48, "phymode": 8, "ssid": "corp"},
             {"bssid": "AA:BB:CC:00:11:22", "rssi": -71, "phymode": 3, "ssid": "Guest Net"}]},
        {"ieee": 6, "chan_load": 250, "chan_rank": -1},
        {"ieee": 11, "chan_load": 100, "bss": [
            {"bssid": "00:11:00:22:00:33", "rssi": -90, "phymode": 2, "vx_ap_type": 4, "ssid": "cafe"}]}]},
    1: {"channels": [
        {"ieee": 36, "noise_floor": -101, "bss": [
            {"bssid": "02:00:00:00:01:24", "rssi": -66, "phymode": 14, "vx_ap_type": 1, "ssid": "corp"}]},
        {"ieee": 40, "chan_load": 101},
        {"ieee": 44, "spectral_load": -7}]},
    2: {"channels": [
        {"ieee": 149, "chan_load": 100, "bss": [
            {"bssid": "02:00:00:00:02:95", "rssi": -77, "phymode": 17, "vx_ap_type": 6, "ssid": "corp"}]}]},
}}


def batch_scenario():
    """What the driver reports by the time of the batch scans: new values,
    and the guest network moved from channel 1 to channel 6."""
    s = copy.deepcopy(SCENARIO)
    ch1, ch6, _ = s["radios"][0]["channels"]
    known, guest = ch1["bss"]
    known["rssi"] = -41
    ch1["bss"] = [known]
    ch6["bss"] = [dict(guest, rssi=-60, ssid="Guest Net 2")]
    ch6["chan_load"] = 30
    s["radios"][1]["channels"][1]["chan_load"] = 55
    s["radios"][2]["channels"][0]["noise_floor"] = -92
    return s


def channel_rows(scenario, radio):
    """CHANNEL_DETAILS rows that a scan of this scenario stores for the radio."""
    rows = []
    for ch in DriverState.from_dict(scenario).radios[radio].channels:
        rows.append((ch.ieee, len(ch.bss), ch.min_rssi, ch.min_rssi, ch.noise_floor, min(ch.chan_load, 100),
                     ch.max_rssi, ch.spectral_load, ch.chan_rank))
    return sorted(rows)


def neighbour_rows(scenario, radio):
    """SCANNED_AP_DETAILS rows, without their time stamps."""
    rows = []
    for ch in DriverState.from_dict(scenario).radios[radio].channels:
        for b in ch.bss:
            rows.append((b.bssid.lower(), b.ssid, ch.ieee, b.phymode, b.rssi, b.vx_ap_type))
    return sorted(rows)


def log_value(sb, pattern):
    m = re.search(pattern, sb.log_text())
    assert m, f"expected a log line matching {pattern!r}"
    return int(m.group(1))


def cancel_counts(sb):
    """Counts of the exit handler's twelve cancel lines, grouped per band."""
    counts = [int(m.group(2)) for m in (CANCELLED_RE.match(e.text) for e in log_entries(sb)) if m]
    assert len(counts) == 12, f"expected twelve cancel lines at exit, got {len(counts)}"
    return [counts[i:i + 4] for i in range(0, 12, 4)]


def all_dbs(sb, radios):
    return {r: (read_rows(sb, r, "CHANNEL_DETAILS", "CHANNEL"), read_rows(sb, r, "SCANNED_AP_DETAILS", "MAC"))
            for r in radios}


def without_stamps(rows):
    return sorted(row[:6] for row in rows)


class MainRun:
    """What the module's TRV146 run recorded between its phases."""

    def __init__(self, sb, real_start):
        self.sb = sb
        self.real_start = real_start
        self.after_full = {}
        self.after_batch = {}
        self.full_done_real = 0.0
        self.key_holders = None
        self.exit_code = None


@pytest.fixture(scope="module")
def trv146(dorvand, simlib):
    """A TRV146 board (three bands) with rogue-AP detection on everywhere and
    802.11r on wifi0vap0, run through the first full scans and one batch
    scan of every band, then ended with signal 10."""
    sb = Sandbox(dorvand, simlib, board="TRV146", config=scan_config({0: 1, 1: 1, 2: 1}, (KNOWN_AP,)),
                 driver=SCENARIO, configd=ft_table(3, ((0, 0),)), scale=MAIN_SCALE,
                 keep=bool(os.environ.get("DORVSIM_KEEP")))
    started = time.time()
    with sb:
        run = MainRun(sb, started)
        sb.wait_for(lambda: all(band_requests(sb, r, "chan_info") for r in range(3)) and scan_cycle_idle(sb, range(3)),
                    30, "the first full scan of all three bands")
        run.full_done_real = time.time()
        run.after_full = all_dbs(sb, range(3))
        kh = sb.path("/var/roam_key_holders")
        run.key_holders = kh.read_bytes() if kh.exists() else None
        sb.set_driver(batch_scenario())
        learned = {r: len(SCENARIO["radios"][r]["channels"]) for r in range(3)}
        sb.wait_for(lambda: all(len(band_requests(sb, r, "chan_scan")) >= n for r, n in learned.items())
                    and scan_cycle_idle(sb, range(3)), 30, "a batch scan of every learned channel")
        run.after_batch = all_dbs(sb, range(3))
        run.exit_code = sb.stop()
        yield run


def test_scan_first_full_scan_delay(trv146):
    """Each band's first full scan starts 60 to 300 daemon-seconds after the band started."""
    sb = trv146.sb
    windows = {r: full_scan_window(sb, r) for r in range(3)}
    for r in range(3):
        line = f"[dorvand] {START_NAMES[r]} : "
        delay = log_value(sb, re.escape(line) + r"(\d+) seconds \n")
        assert 60 <= delay <= 300, f"radio {r}: expected a first-scan delay of 60..300 s, got {delay}"
        assert delay % 10 == 0, f"radio {r}: expected a multiple of 10 s, got {delay}"
        # The timer is registered after the start operation's radio check and
        # before its log line (whose time stamp is in whole seconds).
        checked = radio_flags(sb, r)[0]["time"]
        logged = next(e.time for e in log_entries(sb) if e.text.startswith(line))
        busy = [w for o, w in windows.items() if o != r]
        assert_fired_on_time(f"first full scan of radio {r}", checked + delay, windows[r][0], busy, jitter(sb),
                             due_latest=logged + 1 + delay)
        acs = band_requests(sb, r, "acs_start")
        assert [a["if"] for a in acs] == [f"wifi{r}vap0"], f"radio {r}: expected one ACS scan on wifi{r}vap0"


def test_scan_full_scan_channel_rows(trv146):
    """The first full scan stores one CHANNEL_DETAILS row per reported channel, CH_LOAD capped at 100."""
    for r in range(3):
        rows, _ = trv146.after_full[r]
        assert rows == channel_rows(SCENARIO, r), f"radio {r}: CHANNEL_DETAILS rows"
        assert all(row[2] == row[3] for row in rows), "RSSI and MINRSSI must be equal"
    loads = {row[0]: row[5] for r in range(3) for row in trv146.after_full[r][0]}
    assert (loads[6], loads[11], loads[40], loads[149], loads[1]) == (100, 100, 100, 100, 42), \
        f"expected loads 250, 100 and 101 stored as 100 and 42 kept, got {loads}"


def test_scan_full_scan_neighbour_rows(trv146):
    """The first full scan stores every neighbour with a lower-case MAC and one time stamp per scan."""
    for r in range(3):
        _, rows = trv146.after_full[r]
        assert without_stamps(rows) == neighbour_rows(SCENARIO, r), f"radio {r}: SCANNED_AP_DETAILS rows"
        assert len({(row[6], row[7]) for row in rows}) == 1, f"radio {r}: expected one time stamp per scan: {rows}"
        epoch = int(rows[0][7])
        # "date +%s" runs in a child process, which keeps real time.
        assert trv146.real_start - 1 <= epoch <= trv146.full_done_real + 1, f"EPOCHTIMESTAMP {epoch} not of this run"
        assert rows[0][6].strip(), "expected the output of date in TIMESTAMP"
    macs = [row[0] for row in trv146.after_full[0][1]]
    assert "aa:bb:cc:00:11:22" in macs, f"expected the BSSID AA:BB:CC:00:11:22 in lower case, got {macs}"
    assert not os.path.exists(trv146.sb.path("/tmp/DB2G_UPDATION_IN_PROGRESS")), "marker left behind"


def test_scan_known_ap_becomes_key_holder(trv146):
    """A scanned BSSID of a configured known AP makes key holder 0A:1B:2C:3D:4E:5F and runs the script once."""
    sb = trv146.sb
    log = sb.log_text()
    table_line = "0a:1b:2c:3d:4e:50 present = Yes | family = TRV \n"
    assert table_line in log, "expected the known AP loaded from /tmp/run/config before the full scan"
    assert log.index(table_line) < log.index("[dorvand] trigger_2g_full_scan : scan success \n"), \
        "expected the known-AP table reloaded before the ACS scan was triggered"
    assert "[dorvand] 0a-1b-2c-3d-4e-50 TRV  \n" in log, "expected the match of the scanned BSSID logged"
    kh = trv146.key_holders
    assert kh is not None and len(kh) == 16, f"expected one 16-byte record in /var/roam_key_holders, got {kh!r}"
    assert (kh[8:14], kh[14], kh[15]) == (KEY_HOLDER, 1, 0), f"expected 0a1b2c3d4e5f, active, TRV: {kh.hex()}"
    runs = sb.script_runs()
    assert len(runs) == 1, f"expected one script run (the batch rescan adds nothing), got {len(runs)}"
    assert runs[0]["roam_key_holders"] == kh, "the script must see the record"
    assert b"ft_key_changed_wifi0vap0=1,1\n" in (runs[0]["ft_key_changed.txt"] or b"")
    assert (b"ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70"
            in (runs[0]["ap2_macaddr.txt"] or b"")), f"ap2_macaddr.txt: {runs[0]['ap2_macaddr.txt']!r}"
    assert log.count(" ADDITION | family = 0") == 1, "expected exactly one key-holder addition"


def test_scan_batch_scan_channel_by_channel(trv146):
    """1800 daemon-seconds after the full scan each learned channel is scanned alone, its results read 5 s later."""
    sb = trv146.sb
    entries = log_entries(sb)
    windows = {r: batch_window(sb, r) for r in range(3)}
    for r in range(3):
        learned = [ch["ieee"] for ch in SCENARIO["radios"][r]["channels"]]
        assert f"[dorvand] {BATCH_NAMES[r]}: The total channel count is {len(learned)}\n" in sb.log_text()
        scans = band_requests(sb, r, "chan_scan")
        assert [int(s["chan"]) for s in scans] == learned, f"radio {r}: expected one scan per learned channel"
        assert all((s["if"], s["words"], s["flags"]) == (f"wifi{r}", "110,60,100,50,1500", "1,1") for s in scans)
        _, full_end = full_scan_window(sb, r)
        busy = [w for o, w in windows.items() if o != r]
        assert_fired_on_time(f"batch scan of radio {r}", full_end + BATCH_PERIOD, windows[r][0], busy, jitter(sb))
        gaps = [b["time"] - a["time"] for a, b in zip(scans, scans[1:])]
        assert all(g >= CHANNEL_WAIT for g in gaps), f"radio {r}: channels scanned less than 5 s apart: {gaps}"
        assert len(band_requests(sb, r, "acs_start")) == 1, "expected no second full scan"
        for ch in learned:
            waited = results_wait(entries, f"The ACS scan trigger for radio:{r} on channel:{ch}\n")
            assert CHANNEL_WAIT <= waited <= CHANNEL_WAIT + 1 + math.ceil(jitter(sb)), \
                f"radio {r} channel {ch}: results read {waited} s after the trigger, expected 5"


def results_wait(entries, trigger):
    """Whole daemon-seconds from the trigger's log line to the next result read."""
    at = next(i for i, e in enumerate(entries) if e.text == trigger)
    read = next(e for e in entries[at + 1:] if e.text == "mutex locked [process_scan_result] \n")
    return read.time - entries[at].time


def test_scan_batch_scan_updates_rows(trv146):
    """The batch scan updates the rows of the channels and neighbours it sees, in place."""
    for r in range(3):
        rows, nbrs = trv146.after_batch[r]
        assert rows == channel_rows(batch_scenario(), r), f"radio {r}: CHANNEL_DETAILS after the batch"
        assert without_stamps(nbrs) == neighbour_rows(batch_scenario(), r), f"radio {r}: neighbours after the batch"
        before = {row[0]: row[6:] for row in trv146.after_full[r][1]}
        assert all(before[row[0]] != row[6:] for row in nbrs), f"radio {r}: expected new time stamps on every row"
    guest = [row for row in trv146.after_batch[0][1] if row[0] == "aa:bb:cc:00:11:22"]
    assert len(guest) == 1 and guest[0][2] == 6, f"expected the moved BSS on channel 6 in one row, got {guest}"


def test_scan_exit_cancels_one_timer_per_band(trv146):
    """Signal 10 cancels the twelve scan handlers and finds exactly one pending per band: its batch scan."""
    assert trv146.exit_code == 0, "expected exit status 0"
    assert cancel_counts(trv146.sb) == [[0, 0, 0, 1]] * 3
    assert trv146.sb.log_text().endswith("[dorvand] Exiting from daemon\n\n")


def two_band_driver(**radio0):
    """A TRM226 board's driver: one channel per radio, a neighbour on each."""
    return {"radios": {
        0: dict({"channels": [{"ieee": 6, "bss": [{"bssid": "02:00:00:00:00:06", "ssid": "a"}]}]}, **radio0),
        1: {"channels": [{"ieee": 36, "bss": [{"bssid": "02:00:00:00:00:24", "ssid": "b"}]}]}}}


def test_scan_voice_postpones_2g(sandbox):
    """While wifi0's voice bit is set its full scan is retried every 10 s, never triggered; clearing it lets it run."""
    sb = sandbox(board="TRM226", config=scan_config({0: 1, 1: 1}), scale=RETRY_SCALE,
                 driver=two_band_driver(voice_bit=1, prev_voice_pkts=10, cur_voice_pkts=25))
    sb.wait_for_log(VOICE_2G, timeout=20, count=4)
    assert not band_requests(sb, 0, "acs_start"), "expected no ACS scan on wifi0 while the voice bit is set"
    voice = band_requests(sb, 0, "voice")
    checks = [f["time"] for f in radio_flags(sb, 0)]
    retried = assert_retries("voice retry on wifi0", [v["time"] for v in voice], checks, RETRY, scan_windows(sb, 1),
                             jitter(sb))
    assert retried >= 3, f"expected at least three retries, checked {retried}"

    sb.set_driver(two_band_driver())
    sb.wait_for_log(PARSED.format(FULL_NAMES[0]), timeout=20)
    reqs = band_requests(sb, 0)
    acs = [i for i, r in enumerate(reqs) if r["req"] == "acs_start"]
    assert len(acs) == 1, "expected one ACS scan once the voice bit is clear"
    last_voice = [r for r in reqs[:acs[0]] if r["req"] == "voice"][-1]
    assert last_voice["bit"] == "0", "the ACS scan must follow a voice check that found no voice traffic"
    busy_checks = [r for r in reqs if r["req"] == "voice" and r["bit"] == "1"]
    assert sb.log_text().count(VOICE_2G) == len(busy_checks), "expected one skip line per voice check with the bit set"
    assert "Observed active voice traffic on wifi0 radio\n" in sb.log_text()
    assert not band_requests(sb, 0, "cac"), "the 2.4 GHz band never asks for the CAC state"


def test_scan_cac_holds_5g(sandbox):
    """A CAC running on wifi1vap0 holds the 5 GHz full scan for 60 s at a time; once it ends the scan runs."""
    sb = sandbox(board="TRM226", config=scan_config({0: 1, 1: 1}), scale=RETRY_SCALE,
                 driver=dict(two_band_driver(), cac={"wifi1vap0": 1}))
    sb.wait_for_log(CAC_5G, timeout=20, count=3)
    assert not band_requests(sb, 1, "acs_start"), "expected no ACS scan on wifi1 while the CAC runs"
    cac = [c for c in band_requests(sb, 1, "cac") if c["value"] == "1"]
    retried = assert_retries("CAC hold on wifi1", [c["time"] for c in cac], [f["time"] for f in radio_flags(sb, 1)],
                             CAC_RETRY, scan_windows(sb, 0), jitter(sb))
    assert retried >= 2, f"expected at least two holds, checked {retried}"

    sb.set_driver(two_band_driver())
    sb.wait_for_log(PARSED.format(FULL_NAMES[1]), timeout=20)
    reqs = band_requests(sb, 1)
    acs = [i for i, r in enumerate(reqs) if r["req"] == "acs_start"]
    assert len(acs) == 1 and reqs[acs[0]]["if"] == "wifi1vap0", "expected one ACS scan once the CAC ended"
    last_cac = [r for r in reqs[:acs[0]] if r["req"] == "cac"][-1]
    assert last_cac["value"] == "0", "the ACS scan must follow a CAC check that found none running"
    assert not band_requests(sb, 0, "cac"), "the 2.4 GHz band never asks for the CAC state"


def test_scan_failed_results_retried(sandbox):
    """A full scan whose report cannot be read is logged, drops its marker, and triggers a new ACS scan 10 s later."""
    sb = sandbox(board="TRM226", config=scan_config({0: 1, 1: 1}), scale=RETRY_SCALE,
                 driver=two_band_driver(report_fail_at=(2, errno.EIO)))
    sb.wait_for_log(PARSED.format(FULL_NAMES[0]), timeout=20)
    failed = "[dorvand] trigger_2g_full_scan : Failed to process the scan result for wifi0\n"
    log = sb.log_text()
    assert log.count(failed) == 1, "expected one failed attempt"
    assert log.index(failed) < log.index(PARSED.format(FULL_NAMES[0])), "expected the failure before the success"
    sb.wait_for_syslog(failed.rstrip("\n"))
    reqs = band_requests(sb, 0)
    acs = [r for r in reqs if r["req"] == "acs_start"]
    assert len(acs) == 2, f"expected a new ACS scan after the failure, got {len(acs)}"
    bad = next(r for r in reqs if r["req"] == "acs_report" and r["rc"] != "0")
    assert_retries("scan after failed results", [bad["time"]], [f["time"] for f in radio_flags(sb, 0)], RETRY,
                   scan_windows(sb, 1), jitter(sb))
    assert not sb.path("/tmp/DB2G_UPDATION_IN_PROGRESS").exists(), "expected the marker removed"
    assert not band_requests(sb, 0, "chan_scan"), "expected no batch scan before 1800 s"


def test_scan_radio_down_at_start(sandbox):
    """A radio down at start is re-checked every 10 s with no database; once up, its band starts."""
    links = {"wifi0": True, "wifi0vap0": True, "wifi1": False, "wifi1vap0": True}
    sb = sandbox(board="TRM226", config=scan_config({0: 1, 1: 1}), links=links, scale=RETRY_SCALE,
                 driver=two_band_driver())
    sb.wait_for_log(RADIO1_DOWN, timeout=20, count=4)
    assert not sb.path(SCAN_DBS[1]).exists(), "expected no 5 GHz database while wifi1 is down"
    checks = [f["time"] for f in radio_flags(sb, 1)]
    assert all(f["up"] == "0" for f in radio_flags(sb, 1))
    retried = assert_retries("radio check of wifi1", checks, checks, RETRY, scan_windows(sb, 0), jitter(sb))
    assert retried >= 3, f"expected at least three retries, checked {retried}"
    assert sb.log_text().count(RADIO1_DOWN) == len(checks), "expected one retry line per radio check"

    sb.set_link("wifi1", True)
    sb.wait_for_log(f"[dorvand] {START_NAMES[1]} : ", timeout=10)
    assert sb.path(SCAN_DBS[1]).exists(), "expected the 5 GHz database once wifi1 is up"
    sb.wait_for_log(PARSED.format(FULL_NAMES[1]), timeout=20)


def test_scan_5gh_never_scans_on_trm238p(sandbox):
    """A TRM238P board counts three radios but never runs the 5 GHz high band; signal 10 finds nothing of it."""
    sb = sandbox(board="TRM238P", config=scan_config({0: 1, 1: 1, 2: 1}), scale=MAIN_SCALE,
                 driver={"radios": {r: {"channels": [{"ieee": ch, "bss": [{"bssid": f"02:00:00:00:00:{ch:02x}"}]}]}
                                    for r, ch in ((0, 1), (1, 36), (2, 149))}})
    sb.wait_for_log("radios = 3 \n", timeout=10)
    sb.wait_for(lambda: all(band_requests(sb, r, "chan_info") for r in (0, 1)) and scan_cycle_idle(sb, (0, 1)),
                30, "the first full scans of wifi0 and wifi1")
    assert sb.stop() == 0
    wifi2 = [f"{r['req']} {r['if']}" for r in band_requests(sb, 2)]
    assert not wifi2, f"expected no driver request for wifi2, got {wifi2[:5]}"
    assert not sb.path(SCAN_DBS[2]).exists(), "expected no /tmp/scan_db_5gh"
    log = sb.log_text()
    assert "5GHz High" not in log and "5gh" not in log, "expected no line of the 5 GHz high band"
    assert cancel_counts(sb) == [[0, 0, 0, 1], [0, 0, 0, 1], [0, 0, 0, 0]]
