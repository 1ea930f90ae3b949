"""Helpers of the end-to-end tests: neighbour event datagrams and a barrier
for their handling, the configuration store's 11rStatus table, the
configuration lines that turn scanning on, the driver requests of one radio
with their daemon times, the check that a timer fired when it was due, the check that a report's
picture shows its colours; what a test does when the host cannot run a
sandbox, and the sanitizer reports of its daemons."""

from __future__ import annotations

import os
import re

import pytest

AP_DELETION, AP_ADDITION, KH_ADDITION = 0, 1, 2
WAITING = "Waiting for events from  pxlmd\n"
FT_KEY = "system:vapSettings:vapSettingTable:wlan{r}:vap{v}:11rStatus"
ROGUE_LINE = "system:wlanSettings:wlanSettingTable:wlan{r}:rogueApDetection 1\n"
MARKERS = ("/tmp/DB2G_UPDATION_IN_PROGRESS", "/tmp/DB5G_UPDATION_IN_PROGRESS", "/tmp/DB5GH_UPDATION_IN_PROGRESS")
# How late a timer may fire, in real seconds: the loop's own overhead and
# scheduling delays on a busy machine. How early it may seem to fire, in
# daemon seconds: the rounding of the clock ticks and of the request log.
JITTER_REAL = 0.05
# A daemon built with the sanitizers runs several times slower.
JITTER_REAL_SANITIZED = 0.1
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
    """Sends one datagram and waits until the event thread is back at its
    receive, that is until the event has been handled. Returns the log."""
    sb.wait_for_log(WAITING, timeout=timeout)
    seen = sb.log_text().count(WAITING)
    sb.send_event(data)
    return sb.wait_for_log(WAITING, timeout=timeout, count=seen + 1)


def ft_table(enabled=(), radios: int = 3) -> dict:
    """configd's table: 11rStatus "1" for the (radio, vap) pairs in
    `enabled`, "0" for every other VAP."""
    return {FT_KEY.format(r=r, v=v): "1" if (r, v) in enabled else "0" for r in range(radios) for v in range(10)}


def refresh_line(mask: int) -> str:
    """The last line of a full refresh (two blanks before the '=')."""
    return f"ft_enabled_vaps  = {mask:08X} \n"


def scan_config(radios) -> str:
    """/tmp/run/config text turning rogue-AP detection on for `radios`."""
    return "".join(ROGUE_LINE.format(r=r) for r in radios)


def band_requests(sb, radio: int, req: str | None = None) -> list[dict]:
    """Driver requests on radio `radio`'s interfaces (wifiN, wifiNvapM,
    athN), with their daemon time as the float "time"."""
    out = []
    for rec in sb.requests(req):
        m = re.match(r"(?:wifi|ath)(\d)", rec.get("if", ""))
        if m and int(m.group(1)) == radio:
            out.append(dict(rec, time=float(rec["t"])))
    return out


def radio_flags(sb, radio: int) -> list[dict]:
    """The up-state checks of the radio interface wifiN itself."""
    return [r for r in band_requests(sb, radio, "flags") if r["if"] == f"wifi{radio}"]


def scan_idle(sb, radios) -> bool:
    """True when no scan of these radios is writing its database."""
    return not any(sb.path(MARKERS[r]).exists() for r in radios)


def scan_windows(sb, radio: int) -> list[tuple[float, float]]:
    """Daemon times in which the radio's scans held the event-loop thread:
    its first full scan (from the radio check before its ACS start to its
    channel-list request) and everything after it (the batch scans)."""
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


def assert_fired_on_time(sb, what: str, due: float, actual: float, busy, due_latest: float | None = None):
    """A timer due at `due` (at the latest `due_latest`, when its exact
    registration time is not known) ran at `actual`: never early, and late
    only by the jitter after the event-loop thread came free of `busy`
    (the (start, end) daemon times of other work)."""
    slack = (JITTER_REAL_SANITIZED if sb.sanitized else JITTER_REAL) * sb.scale
    assert actual >= due - EARLY, f"{what}: ran at {actual:.1f}, expected not before {due:.1f}"
    ready = due if due_latest is None else due_latest
    for start, end in sorted(busy):
        if start <= ready + slack and ready < end <= actual + EARLY:
            ready = end
    assert actual - ready <= slack, f"{what}: ran at {actual:.1f}, expected by {ready + slack:.1f} (due {due:.1f})"


def assert_retries(sb, what: str, tries: list[float], next_tries: list[float], period: float, busy) -> int:
    """Each try was followed `period` daemon-seconds later by the next one
    of `next_tries`. Returns how many retries were checked."""
    checked = 0
    for t in tries:
        later = [u for u in next_tries if u > t]
        if later:
            assert_fired_on_time(sb, what, t + period, min(later), busy)
            checked += 1
    return checked


def has_colours(path, *colours: str) -> bool:
    """The picture holds pixels of exactly these colours (bars, links)."""
    from matplotlib import colors, image
    pixels = {tuple(p) for p in (image.imread(path)[:, :, :3] * 255).round().astype(int).reshape(-1, 3).tolist()}
    return all(tuple(round(c * 255) for c in colors.to_rgb(want)) in pixels for want in colours)
