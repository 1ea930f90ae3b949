"""The report of a scenario run, built from its output folder alone: the key
holders and the two text files as they stood before signal 10, every run of
the transition script with what the files held then, per band the channels
and the access points of the scan database (known ones marked) with a
channel-survey chart (chart_<band>.png), the log's warnings and errors, and
how each expectation came out.

    python3 -m sim.report OUTPUT_FOLDER     prints it again
"""

from __future__ import annotations

import re
import sys
from collections import Counter
from pathlib import Path

from sim import scenario as scen
from sim import simclock
from sim.expect import parse_records, read_table, text_lines
from sim.logwatch import level_of
from sim.runner import RunResult

BAND_NAMES = {"2g": "2.4 GHz", "5g": "5 GHz", "5gh": "5 GHz high"}
DB_NAMES = {"2g": "scan_db_2g", "5g": "scan_db_5g", "5gh": "scan_db_5gh"}
PHY = ["AUTO", "11A", "11B", "11G", "FH", "TURBO_A", "TURBO_G", "11NA", "11NG", "11NA", "11NA", "11NG", "11NG",
       "11NG", "11NA"] + ["11AC"] * 7
LOUD_LEVELS = ("EMERG", "ALERT", "CRIT", "ERROR", "WARN")
MAX_RUNS_SHOWN = 30
MAX_MESSAGES = 25


def build(out: Path) -> str:
    """Writes report.txt and the charts into `out` and returns the text."""
    out = Path(out)
    res = RunResult.load(out / "result.json")
    sc = scen.load(res.scenario_path) if res.scenario_path else None
    parts = [_header(res, sc), _key_holders(out), _script_runs(out, res)]
    for band in _bands_of(res):
        parts.append(_band(out, band, sc))
    parts += [_faults(res), _log_messages(out), _expectations(res)]
    text = "\n".join(p for p in parts if p)
    (out / "report.txt").write_text(text)
    return text


def _bands_of(res: RunResult) -> list[str]:
    return [b for b in scen.BANDS if b in res.stages or any(k.startswith(b + ".") for k in res.milestones)]


def _header(res: RunResult, sc) -> str:
    lines = [f"==== dorvand on the simulated access point: scenario {res.scenario}"]
    if sc and sc.description:
        lines += [sc.description.strip(), ""]
    board = f"board {sc.board} ({sc.radio_count} radios), " if sc else ""
    lines.append(f"{board}scale {res.scale:g}: {res.daemon_seconds:.0f} daemon seconds in {res.wall:.0f} s of wall "
                 f"time, exit code {res.exit_code}")
    lines.append(simclock.describe(res.clock))
    ms = res.milestones
    for band, stage in res.stages.items():
        steps = [f"{name} {ms[key]:.0f} s" for name, key in
                 (("full scan", f"{band}.full"), ("batch 1", f"{band}.batch1.done"), ("batch 2", f"{band}.batch2.done"))
                 if key in ms]
        holds = ", ".join(f"{why} x{n}" for why, n in res.holds.get(band, {}).items())
        lines.append(f"  {BAND_NAMES[band]:11} {'; '.join(steps) or stage}" + (f"  (waited: {holds})" if holds else ""))
    return "\n".join(lines) + "\n"


def _key_holders(out: Path) -> str:
    final = out / "final"
    data = (final / "roam_key_holders").read_bytes() if (final / "roam_key_holders").exists() else b""
    lines = [f"---- key holders: /var/roam_key_holders before signal 10, {len(data)} bytes, {len(data) // 16} records"]
    for n, (mac, active, family) in enumerate(parse_records(data), 1):
        lines.append(f"  {n:3}  {scen.mac_text(mac)}  {'active' if active else 'absent'}  {'TRM' if family else 'TRV'}")
    ap2 = text_lines(final / "ap2_macaddr.txt")
    lines.append(f"\n---- /tmp/ap2_macaddr.txt: {len(ap2)} lines")
    for line in ap2:
        key, _, rest = line.partition("=")
        words = rest.split()
        lines.append(f"  {key}= ({len(words)} BSSIDs{', ends in a blank' if line.endswith(' ') else ''})")
        lines += ["      " + " ".join(words[i:i + 6]) for i in range(0, len(words), 6)]
    ftk = text_lines(final / "ft_key_changed.txt")
    lines.append(f"\n---- /tmp/ft_key_changed.txt: {len(ftk)} lines")
    counts = Counter(ftk)
    lines += [f"  {line:34} x{n}" for line, n in sorted(counts.items())]
    return "\n".join(lines) + "\n"


def _script_runs(out: Path, res: RunResult) -> str:
    base = out / "root/dorvsim/runs/fast_bss_transition.sh"
    runs = sorted(base.iterdir()) if base.is_dir() else []
    lines = [f"---- transition script runs: {len(runs)} (what the files held at each; copies under "
             "root/dorvsim/runs/)"]
    prev_kh: list = []
    prev_ftk = 0
    for n, d in enumerate(runs, 1):
        kh = [r[0] for r in parse_records(_read(d / "roam_key_holders"))]
        ftk = _read(d / "ft_key_changed.txt").decode(errors="replace").splitlines()
        ap2 = _read(d / "ap2_macaddr.txt").decode(errors="replace").splitlines()
        change = [f"+{scen.mac_text(m)}" for m in kh if m not in prev_kh] + \
                 [f"-{scen.mac_text(m)}" for m in prev_kh if m not in kh]
        if n <= MAX_RUNS_SHOWN:
            per_vap = Counter(f"{ln[12:21]} {len(ln.partition('=')[2].split())}" for ln in ap2)
            new = Counter(line[15:] for line in ftk[prev_ftk:])
            lines.append(f"  {n:3}  at {_run_time(d, res):>5} s: {len(kh)} key holder(s) {' '.join(change)}")
            lines.append(f"         ap2_macaddr: {', '.join(per_vap) or 'no file'}")
            lines.append(f"         new key-change lines: "
                         + (", ".join(f"{k} x{c}" if c > 1 else k for k, c in new.items()) or "none"))
        prev_kh, prev_ftk = kh, len(ftk)
    if len(runs) > MAX_RUNS_SHOWN:
        lines.append(f"  ... {len(runs) - MAX_RUNS_SHOWN} more runs")
    return "\n".join(lines) + "\n"


def _run_time(d: Path, res: RunResult) -> str:
    try:
        return f"{(float((d / 'time').read_text()) - res.t0) * res.stamp_scale:.0f}"
    except (OSError, ValueError):
        return "?"


def _band(out: Path, band: str, sc) -> str:
    db = out / "final" / DB_NAMES[band]
    if not db.exists():
        db = out / "root/tmp" / DB_NAMES[band]
    chans = sorted(read_table(db, "CHANNEL_DETAILS") or [], key=lambda r: r["CHANNEL"])
    aps = sorted(read_table(db, "SCANNED_AP_DETAILS") or [], key=lambda r: (r["CHANNEL"], -r["RSSI"]))
    chart = out / f"chart_{band}.png"
    if chans:
        from sim.charts import survey_chart  # matplotlib only where a chart is drawn
        survey_chart(chart, f"{BAND_NAMES[band]} channel survey", chans)
    lines = [f"---- {BAND_NAMES[band]} (/tmp/{DB_NAMES[band]}): {len(chans)} channels, {len(aps)} access points"
             + (f"; chart {chart.name}" if chans else ""),
             "    CH  BSS  LOAD  NOISE  MINRSSI  MAXRSSI  SPECTRAL  RANK"]
    for c in chans:
        lines.append(f"  {c['CHANNEL']:4} {c['NBSS']:4} {c['CH_LOAD']:5} {c['NOISE_FLOOR']:6} {c['MINRSSI']:8} "
                     f"{c['MAXRSSI']:8} {c['SPECTRAL_LOAD']:9} {c['RANK']:5}")
    known = sc.known_macs(scen.BANDS.index(band)) if sc else []
    lines.append("\n  access points seen (K: a known AP of this radio)")
    lines.append("     MAC                SSID              CH  RSSI  PHY      TYPE")
    for ap in aps:
        mark = "K" if _is_known(ap["MAC"], known) else " "
        phy = PHY[ap["PHY_MODE"]] if 0 <= ap["PHY_MODE"] < len(PHY) else str(ap["PHY_MODE"])
        lines.append(f"   {mark} {ap['MAC']}  {ap['SSID'][:16]:16} {ap['CHANNEL']:4} {ap['RSSI']:5}  {phy:8} "
                     f"{ap['AP_TYPE']:4}")
    return "\n".join(lines) + "\n"


def _is_known(mac_text: str, known: list[bytes]) -> bool:
    """The daemon's match: the first five bytes and the high nibble of the last."""
    mac = bytes(int(x, 16) for x in mac_text.split(":"))
    return any(k[:5] == mac[:5] and k[5] >> 4 == mac[5] >> 4 for k in known)


def _log_messages(out: Path) -> str:
    """Warnings and errors of the log, grouped by text with numbers as '#'
    (the daemon logs many progress messages at ERROR)."""
    groups: dict[str, list] = {}
    for line in text_lines(out / "dorvand_log.txt"):
        level = level_of(line)
        if level and level.strip() in LOUD_LEVELS:
            text = _message_kind(line.split(" : ", 1)[1])
            groups.setdefault(f"{level:5} {text}", [0])[0] += 1
    lines = [f"---- warnings and errors in the log: {sum(g[0] for g in groups.values())} lines, "
             f"{len(groups)} kinds (numbers shown as #, MAC addresses as MAC)"]
    for text, (n,) in list(groups.items())[:MAX_MESSAGES]:
        lines.append(f"  {n:6}  {text}")
    if len(groups) > MAX_MESSAGES:
        lines.append(f"  ... {len(groups) - MAX_MESSAGES} more kinds in dorvand_log.txt")
    syslog = Counter(_message_kind(m.split(": ", 1)[-1]) for m in text_lines(out / "out/syslog.txt") if m.strip())
    lines.append(f"\n---- syslog: {sum(syslog.values())} lines")
    lines += [f"  {n:6}  {text}" for text, n in list(syslog.items())[:MAX_MESSAGES]]
    return "\n".join(lines) + "\n"


def _message_kind(text: str) -> str:
    """A message with what varies blanked out: MAC lists, SSIDs, numbers."""
    text = re.sub(r"[0-9A-Fa-f]{2}([:-][0-9A-Fa-f]{2}){5}", "MAC", text.replace("\t", " ").strip())
    text = re.sub(r"MAC( +MAC)+", "MAC...", re.sub(r"\s+", " ", text))
    text = re.sub(r"ssid:.*? bssid:", "ssid:* bssid:", text)
    return re.sub(r"\d+", "#", text)[:90]


def _faults(res: RunResult) -> str:
    if not res.faults:
        return ""
    lines = [f"---- faults: {len(res.faults)} armed by the scenario (daemon seconds; firings from the start)"]
    for f in res.faults:
        span = f" for {f['lasts']:g} s" if f["lasts"] is not None else ""
        if not f["armed"]:
            state = "never armed"
        elif f["fired"]:
            state = (f"fired once at {f['first']:.0f} s" if f["fired"] == 1 else
                     f"fired {f['fired']} times, {f['first']:.0f} s to {f['last']:.0f} s")
        else:
            state = "never fired" + (" (optional)" if f["optional"] else "")
        lines.append(f"  {f['rule']}")
        lines.append(f"      from {f['after']}+{f['at']:g}{span}: {state}")
        lines += [f"      failed: {x}" for x in f["failures"]]
    return "\n".join(lines) + "\n"


def _expectations(res: RunResult) -> str:
    ok = sum(o.ok for o in res.outcomes)
    lines = [f"---- expectations: {ok} of {len(res.outcomes)} hold"]
    for o in res.outcomes:
        lines.append(f"  {'ok  ' if o.ok else 'FAIL'}  {o.where:14} {o.what}: {o.detail}")
    lines += [f"  FAIL  the run: {p}" for p in res.problems]
    lines.append(f"\n{'PASSED' if res.passed else 'FAILED'}: scenario {res.scenario}")
    return "\n".join(lines) + "\n"


def _read(path: Path) -> bytes:
    try:
        return path.read_bytes()
    except FileNotFoundError:
        return b""


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: python3 -m sim.report OUTPUT_FOLDER")
    print(build(Path(sys.argv[1])))
