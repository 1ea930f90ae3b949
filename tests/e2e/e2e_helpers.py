"""Helpers of the end-to-end tests: events and their handling, configd's 11rStatus table, key-holder records,
daemons ready or scanning, driver requests with their daemon times, timer checks, pictures' colours; what a
test does when the host cannot run a sandbox, and the sanitizer reports of its daemons."""

from __future__ import annotations

import os
import re

import pytest

AP_DELETION, AP_ADDITION, KH_ADDITION = 0, 1, 2
WAITING = "Waiting for events from  pxlmd\n"
FT_KEY = "system:vapSettings:vapSettingTable:wlan{r}:vap{v}:11rStatus"
ROGUE_LINE = "system:wlanSettings:wlanSettingTable:wlan{r}:rogueApDetection 1\n"
MARKERS = ("/tmp/DB2G_UPDATION_IN_PROGRESS", "/tmp/DB5G_UPDATION_IN_PROGRESS", "/tmp/DB5GH_UPDATION_IN_PROGRESS")
SCAN_DB = "/tmp/scan_db_2g"
SCAN_DONE = "[dorvand] trigger_2g_full_scan :parsed scan result succesfully\n"
# VAP 0 of radio 0 and VAP 2 of radio 1 with 802.11r on: ft_enabled_vaps 00001001.
ENABLED = [(0, 0), (1, 2)]
NEIGHBOUR = "0A:1B:2C:3D:4E:50"  # family 0, seen on radio 0: key holder 0A:1B:2C:3D:4E:5F
# The two enabled VAPs' lines for that key holder alone.
LINE_VAP0 = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70"
LINE_VAP12 = "ap2_macaddr_wifi1vap2=0A:1B:2C:3D:4E:52 0A:1B:2C:3D:4E:62 0A:1B:2C:3D:4E:72"
# How late a timer may fire, in daemon seconds: less than the 10 s period of
# the shortest retry, so that no timer is taken for the one after it. The
# tests that check it run at scales where that is tens of real milliseconds
# of scheduling delay. How early it may seem to fire: the rounding of the
# clock ticks and of the request log.
LATE = 8
EARLY = 0.5
# Set to 1 on a machine that cannot run the sandbox (not root, no namespaces,
# nothing built) to skip the tests that need one instead of failing them.
# The test command refuses it.
SKIP_UNAVAILABLE = "DORVAND_E2E_SKIP_UNAVAILABLE"


def unavailable(reason: str):
    """A test that cannot run here fails with the reason, unless skipping
    was asked for."""
    if os.environ.get(SKIP_UNAVAILABLE) == "1":
        pytest.skip(reason)
    pytest.fail(f"{reason} ({SKIP_UNAVAILABLE}=1 skips such tests instead)", pytrace=False)


def fail_on_sanitizer_reports(sandboxes):
    """A daemon built with the sanitizers reports into its sandbox: any
    report fails the test that ran it (read once the sandbox is closed)."""
    reports = [r for sb in sandboxes for r in sb.sanitizer_reports]
    if reports:
        pytest.fail("sanitizer report(s) of the daemon:\n" + "\n".join(reports), pytrace=False)


def event(mac: str, kind: int, family: int = 0, wlan: int = 0) -> bytes:
    """The 9-byte neighbour event datagram."""
    return bytes.fromhex(mac.replace(":", "")) + bytes([kind, family, wlan])


def send_and_wait(sb, data: bytes, timeout: float = 5.0) -> str:
    """Sends one datagram and waits until the event thread is back at its receive (the event handled); the log."""
    sb.wait_for_log(WAITING, timeout=timeout)
    seen = sb.log_text().count(WAITING)
    sb.send_event(data)
    return sb.wait_for_log(WAITING, timeout=timeout, count=seen + 1)


def record(mac: str, active: int = 1, family: int = 0) -> bytes:
    """The 16-byte record of a key holder in /var/roam_key_holders (its two link words zero)."""
    return bytes(8) + bytes.fromhex(mac.replace(":", "")) + bytes([active, family])


def ft_table(enabled=(), radios: int = 3) -> dict:
    """configd's table: 11rStatus "1" for the (radio, vap) pairs in `enabled`, "0" for every other VAP."""
    return {FT_KEY.format(r=r, v=v): "1" if (r, v) in enabled else "0" for r in range(radios) for v in range(10)}


def refresh_line(mask: int) -> str:
    """The last line of a full refresh (two blanks before the '=')."""
    return f"ft_enabled_vaps  = {mask:08X} \n"


def assert_clean_exit(sb, code: int | None) -> None:
    """The daemon ended on signal 10 with status `code` 0, its exit line last, its files and markers removed."""
    assert code == 0, f"exit code {code}"
    assert sb.log_text().endswith("[dorvand] Exiting from daemon\n\n"), "the exit line is not the last"
    for gone in ("/tmp/dorvand.pid", "/tmp/roam_sock", "/var/roam_key_holders") + MARKERS:
        assert not sb.path(gone).exists(), f"{gone} left behind"


def ready(sandbox, enabled=ENABLED, mask: int = 0x1001, **options):
    """A daemon whose configd enables the VAPs `enabled`, once its start-up refresh has found `mask`."""
    sb = sandbox(configd=ft_table(enabled), **options)
    sb.wait_for_log(refresh_line(mask), timeout=8)
    return sb


def scan_config(radios) -> str:
    """/tmp/run/config text turning rogue-AP detection on for `radios`."""
    return "".join(ROGUE_LINE.format(r=r) for r in radios)


def band_requests(sb, radio: int, req: str | None = None) -> list[dict]:
    """Driver requests on radio `radio`'s interfaces (wifiN, wifiNvapM, athN), their daemon time as "time"."""
    out = []
    for rec in sb.requests(req):
        m = re.match(r"(?:wifi|ath)(\d)", rec.get("if", ""))
        if m and int(m.group(1)) == radio:
            out.append(dict(rec, time=float(rec["t"])))
    return out


# wlan0 hears one BSS on each of channels 1, 6 and 11.
ONE_BSS_A_CHANNEL = {"radios": {0: {"channels": [{"ieee": ch, "bss": [{"bssid": f"02:00:00:00:{ch:02X}:00"}]}
                                                 for ch in (1, 6, 11)]}}}


def scanning(sandbox, driver=ONE_BSS_A_CHANNEL):
    """A daemon scanning wlan0 (a batch every 3 s of real time), past its first full scan."""
    sb = sandbox(config=scan_config([0]), driver=driver, configd=ft_table(), scale=600)
    sb.wait_for_log(SCAN_DONE, timeout=15)
    sb.wait_for(lambda: scan_idle(sb, [0]), 5, "the end of the first full scan")
    return sb


def wait_batches(sb, count: int):
    """Waits until `count` batch scans of wlan0's three channels have ended."""
    sb.wait_for(lambda: len(band_requests(sb, 0, "chan_scan")) >= count * 3 and scan_idle(sb, [0]),
                6 * count + 5, f"{count} batch scan(s) of wlan0")


def radio_flags(sb, radio: int) -> list[dict]:
    """The up-state checks of the radio interface wifiN itself."""
    return [r for r in band_requests(sb, radio, "flags") if r["if"] == f"wifi{radio}"]


def scan_idle(sb, radios) -> bool:
    """True when no scan of these radios is writing its database."""
    return not any(sb.path(MARKERS[r]).exists() for r in radios)


def scan_windows(sb, radio: int) -> list[tuple[float, float]]:
    """Daemon times in which the radio's scans held the event-loop thread: its first full scan (from the radio
    check before its ACS start to its channel-list request) and everything after it (the batch scans)."""
    reqs = band_requests(sb, radio)
    acs = next((i for i, r in enumerate(reqs) if r["req"] == "acs_start"), None)
    if acs is None:
        return []
    begin = max(i for i in range(acs) if reqs[i]["req"] == "flags" and reqs[i]["if"] == f"wifi{radio}")
    end = next((i for i, r in enumerate(reqs) if r["req"] == "chan_info"), len(reqs) - 1)
    windows = [(reqs[begin]["time"], reqs[end]["time"])]
    return windows + ([(reqs[end + 1]["time"], reqs[-1]["time"])] if end + 1 < len(reqs) else [])


def others_busy(sb, radio: int, radios) -> list[tuple[float, float]]:
    return [w for o in radios if o != radio for w in scan_windows(sb, o)]


def assert_fired_on_time(what: str, due: float, actual: float, busy, due_latest: float | None = None):
    """A timer due at `due` (at the latest `due_latest`, when its registration time is not known exactly) ran at
    `actual`: never early, and at most LATE after the event-loop thread came free of `busy` ((start, end) times)."""
    assert actual >= due - EARLY, f"{what}: ran at {actual:.1f}, expected not before {due:.1f}"
    free = due if due_latest is None else due_latest
    for start, end in sorted(busy):
        if start <= free + LATE and free < end <= actual + EARLY:
            free = end
    assert actual - free <= LATE, f"{what}: ran at {actual:.1f}, expected by {free + LATE:.1f} (due {due:.1f})"


def assert_retries(what: str, tries: list[float], next_tries: list[float], period: float, busy) -> int:
    """Each try was followed `period` daemon-seconds later by the next of `next_tries`; how many were checked."""
    checked = 0
    for t in tries:
        later = [u for u in next_tries if u > t]
        if later:
            assert_fired_on_time(what, t + period, min(later), busy)
            checked += 1
    return checked


def has_colours(path, *colours: str) -> bool:
    """The picture holds pixels of exactly these colours (bars, links)."""
    from matplotlib import colors, image
    pixels = {tuple(p) for p in (image.imread(path)[:, :, :3] * 255).round().astype(int).reshape(-1, 3).tolist()}
    return all(tuple(round(c * 255) for c in colors.to_rgb(want)) in pixels for want in colours)
