"""Measures the daemon where the smallest boards feel it, in the simulator:

  memory   the daemon's memory at the envelope: 768 known-AP lines, 30 VAPs
           with 802.11r on, 512 key holders kept from a life before, and
           first full scans that see 2,000 BSSs; read from
           /proc/PID/smaps_rollup once every band has stored its scan (and
           the simulated driver in the daemon's process has dropped them), with
           the anonymous memory split into heap, thread stacks and other
           anonymous maps
  latency  from a KH_ADDITION event sent on /tmp/roam_sock until the
           transition script starts, with 1 and with 30 VAPs with 802.11r on
           (median of a series of new key holders)

Usage: bench.py memory|latency --dorvand BIN --simlib LIB
Prints one "name: value" line per figure. Run as root (the simulator's
namespaces), with /usr/bin/python3.
"""

from __future__ import annotations

import argparse
import os
import re
import statistics
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO))
sys.path.insert(0, str(REPO / "tests" / "e2e"))

from e2e_helpers import (KH_ADDITION, WAITING, band_requests, event, ft_table, refresh_line,  # noqa: E402
                         scan_config, scan_idle)
from sim.sandbox import Sandbox  # noqa: E402

KNOWN_PER_RADIO = 256
KEY_HOLDERS = 512
BSS_TOTAL = 2000
CHANNELS = {0: (1, 6, 11), 1: (36, 40, 44, 48), 2: (149, 153, 157)}
ALL_VAPS = [(r, v) for r in range(3) for v in range(10)]
# Records its start before anything else, so the latency is the daemon's.
STAMP_SCRIPT = '#!/bin/bash\necho "${EPOCHREALTIME/,/.}" >> /dorvsim/script_starts\n'


def envelope_config() -> str:
    """Rogue-AP detection on every band and 256 known APs per radio."""
    lines = [scan_config(range(3))]
    for r in range(3):
        for n in range(KNOWN_PER_RADIO):
            lines.append(f"system:apList:knownApTable:wlan{r}:ap{n + 1}:0A-{r:02X}-00-00-{n:02X}-00 1,1\n")
    return "".join(lines)


def envelope_driver() -> dict:
    """2,000 BSSs spread over the bands' channels (at most 255 a channel)."""
    slots = [(r, ch) for r, chans in CHANNELS.items() for ch in chans]
    per = -(-BSS_TOTAL // len(slots))
    radios: dict = {r: {"channels": []} for r in CHANNELS}
    left = BSS_TOTAL
    for i, (r, ch) in enumerate(slots):
        n = min(per, left)
        left -= n
        radios[r]["channels"].append({"ieee": ch, "bss": [
            {"bssid": f"06:{r:02X}:{ch:02X}:{j >> 8:02X}:{j & 0xFF:02X}:00", "ssid": f"net{i}-{j}", "rssi": -70}
            for j in range(n)]})
    return {"radios": radios}


def key_holder_file() -> bytes:
    """512 16-byte records: zero links, MAC, active 1, family 1."""
    out = bytearray()
    for n in range(KEY_HOLDERS):
        out += bytes(8) + bytes([0x0E, 0x00, n >> 8, n & 0xFF, 0x00, 0x1F]) + bytes([1, 1])
    return bytes(out)


def smaps(pid: int) -> tuple[dict[str, int], dict[str, int]]:
    """smaps_rollup in kB, and the anonymous kB per kind of mapping: the
    heap, the main stack, thread stacks (a writable anonymous map right above
    a 4 kB guard page), and every other anonymous map (the allocator's
    per-thread arenas, large blocks)."""
    rollup = {}
    for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:]:
        key, value = line.split(":", 1)
        rollup[key] = int(value.split()[0])
    kinds: dict[str, int] = {}
    kind = ""
    prev = (0, 0, "")  # end, size and permissions of the map before
    for line in Path(f"/proc/{pid}/smaps").read_text().splitlines():
        head = re.match(r"^([0-9a-f]+)-([0-9a-f]+) (\S+) \S+ \S+ \S+\s*(.*)$", line)
        if head:
            lo, hi, perms, name = int(head.group(1), 16), int(head.group(2), 16), head.group(3), head.group(4)
            guarded = prev[0] == lo and prev[1] == 4096 and prev[2].startswith("---")
            kind = ("heap" if name == "[heap]" else "main stack" if name == "[stack]"
                    else "thread stacks" if name == "" and guarded else "other anonymous" if name == ""
                    else "file-backed")
            prev = (hi, hi - lo, perms)
        elif line.startswith("Anonymous:"):
            kinds[kind] = kinds.get(kind, 0) + int(line.split()[1])
    return rollup, kinds


def measure_memory(dorvand: Path, simlib: Path) -> None:
    sb = Sandbox(dorvand, simlib, board="TRV146", config=envelope_config(), driver=envelope_driver(),
                 configd=ft_table(ALL_VAPS), scale=300)
    try:
        sb.prepare()
        kh = sb.path("/var/roam_key_holders")
        kh.write_bytes(key_holder_file())
        sb.start()
        # The bands' scans start after the first 802.11r refresh, which reads
        # the key holders back: the first full scans' channel-list requests
        # (kept in the request log, unlike log lines, which rotate away)
        # follow both.
        sb.wait_for(lambda: all(band_requests(sb, r, "chan_info") for r in CHANNELS) and scan_idle(sb, CHANNELS),
                    1500, "the first full scan of every band", interval=1)
        # The simulated driver lives in the daemon's process (a preloaded
        # library) and holds the 2,000 BSSs it answered with; it lets them go
        # when its state file is replaced by one without BSSs.
        loads = len(sb.requests("state_loaded"))
        sb.set_driver({"radios": {r: {"channels": [{"ieee": ch} for ch in chans]} for r, chans in CHANNELS.items()}})
        sb.wait_for(lambda: len(sb.requests("state_loaded")) > loads, 60, "the simulated driver to drop its BSSs")
        sb.wait_for(lambda: scan_idle(sb, CHANNELS), 600, "the scans to end")
        time.sleep(2)
        pid = sb.pid()
        rollup, kinds = smaps(pid)
        threads = len(list(Path(f"/proc/{pid}/task").iterdir()))
        holders = len(kh.read_bytes()) // 16 if kh.exists() else 0
        print(f"memory: anonymous {rollup['Anonymous']} kB, private dirty {rollup['Private_Dirty']} kB, "
              f"resident {rollup['Rss']} kB ({threads} threads, {holders} key holders)")
        print("memory by kind: " + ", ".join(f"{k} {v} kB" for k, v in sorted(kinds.items())))
    finally:
        sb.close()


def measure_latency(dorvand: Path, simlib: Path, vaps: list[tuple[int, int]], events: int = 15) -> float:
    """Median seconds from an event's send to the transition script's start."""
    sb = Sandbox(dorvand, simlib, board="TRV146", configd=ft_table(vaps), scale=100)
    try:
        sb.prepare()
        script = sb.scratch / "usr-upper" / "local" / "bin" / "fast_bss_transition.sh"
        script.write_text(STAMP_SCRIPT)
        script.chmod(0o755)
        starts = sb.path("/dorvsim/script_starts")
        sb.start()
        mask = sum(1 << (10 * r + v) for r, v in vaps)
        sb.wait_for_log(refresh_line(mask), timeout=60)
        sb.wait_for_log(WAITING, timeout=30)
        delays = []
        for n in range(events):
            seen = len(starts.read_text().split()) if starts.exists() else 0
            mac = f"0A:00:00:00:{n + 1:02X}:00"
            sent = time.time()
            sb.send_event(event(mac, KH_ADDITION, family=1))
            sb.wait_for(lambda: starts.exists() and len(starts.read_text().split()) > seen, 30,
                        "the transition script after an event")
            delays.append(float(starts.read_text().split()[seen]) - sent)
            sb.wait_for_log(WAITING, timeout=30, count=sb.log_text().count(WAITING))
            time.sleep(0.2)  # the script's own run ends
        return statistics.median(delays)
    finally:
        sb.close()


def main() -> int:
    ap = argparse.ArgumentParser()
    ap.add_argument("what", choices=("memory", "latency"))
    ap.add_argument("--dorvand", type=Path, default=REPO / "build" / "dorvand")
    ap.add_argument("--simlib", type=Path, default=REPO / "build" / "sim" / "libdorvsim.so")
    args = ap.parse_args()
    if os.geteuid() != 0:
        print("bench.py: run as root (the simulator's namespaces)", file=sys.stderr)
        return 2
    if args.what == "memory":
        measure_memory(args.dorvand, args.simlib)
    else:
        for label, vaps in (("1 VAP", [(0, 0)]), ("30 VAPs", ALL_VAPS)):
            ms = measure_latency(args.dorvand, args.simlib, vaps) * 1000
            print(f"event to script, {label} with 802.11r: {ms:.1f} ms")
    return 0


if __name__ == "__main__":
    sys.exit(main())
