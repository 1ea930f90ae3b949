"""The report of a deployment run, built from its output folder alone: for
every access point the key holders its daemon installed against the roaming
candidates that the radio model gives, how long coverage took after the
start and after each event, whether each 802.11r VAP lists its neighbours'
BSSIDs, a floor plan with the key-holder links (floor.png), the per-band
channel charts of the scans (chart_<band>.png) and the expectations.

What the daemon decided is read from its files: /var/roam_key_holders as the
transition script saw it at every run (copies under root/dorvsim/runs/), as
kept from an earlier life at a start, and as it stood before signal 10. What
the floor says comes from the radio model. A key holder belongs to the
member whose key-holder MAC it is; a key holder of no member, of a member
that is down or replaced, or of the access point itself is stale.

    python3 -m sim.deployment_report OUTPUT_FOLDER     prints it again
"""

from __future__ import annotations

import bisect
import functools
import sys
from collections import defaultdict
from pathlib import Path

from sim import deployment, simclock
from sim.deployment import DExpect, Floor, offsets
from sim.deployment_run import DeploymentResult
from sim.expect import parse_records, read_table, text_lines
from sim.scenario import BANDS, mac_text

BAND_NAMES = {"2g": "2.4 GHz", "5g": "5 GHz", "5gh": "5 GHz high"}
LINE_MAX = 1023  # the longest ap2_macaddr line the daemon writes


class Evaluation:
    """Key holders of every access point over the run, against the floor."""

    def __init__(self, fl: Floor, res: DeploymentResult, out: Path):
        self.fl, self.res, self.out = fl, res, Path(out)
        self.owner = {a.key_holder(): a.name for a in fl.aps}
        self.cands = {a.name: {b.name for b in fl.aps if b is not a and fl.candidate(a, b)} for a in fl.aps}
        self.timeline: dict[str, tuple[list[float], list]] = {}
        for name, lives in res.lives.items():
            points = [(life.start, {bytes.fromhex(m.replace(":", "")) for m in life.key_holders_at_start})
                      for life in lives]
            points += [(life.end, None) for life in lives if life.end is not None and life.how != "end"]
            points += self._script_runs(name)
            final = self.out / "aps" / name / "final" / "roam_key_holders"
            if lives[-1].how == "end":
                points.append((res.end, self._records(final)))
            points.sort(key=lambda p: p[0])
            self.timeline[name] = ([p[0] for p in points], [p[1] for p in points])
        self.points = sorted({t for ts, _ in self.timeline.values() for t in ts if t <= res.end})

    def _records(self, path: Path) -> set[bytes]:
        return {m for m, _, _ in parse_records(path.read_bytes())} if path.exists() else set()

    def _script_runs(self, name: str) -> list:
        base = self.out / "aps" / name / "root/dorvsim/runs/fast_bss_transition.sh"
        out = []
        for d in sorted(base.iterdir()) if base.is_dir() else []:
            try:
                t = (float((d / "time").read_text()) - self.res.t0) * self.res.stamp_scale
            except (OSError, ValueError):
                continue
            out.append((t, self._records(d / "roam_key_holders")))
        return out

    # ---- the state at a time --------------------------------------------------------------

    def up(self, name: str, t: float) -> bool:
        return name in self.up_set(t)

    @functools.lru_cache(maxsize=None)
    def up_set(self, t: float) -> frozenset[str]:
        return frozenset(n for n, lives in self.res.lives.items()
                         if any(life.start <= t and (life.end is None or t < life.end) for life in lives))

    def held(self, name: str, t: float) -> set[bytes]:
        """The key holders of an access point that is up at t."""
        times, sets = self.timeline[name]
        i = bisect.bisect_right(times, t) - 1
        return sets[i] or set() if i >= 0 else set()

    @functools.lru_cache(maxsize=None)
    def state(self, name: str, t: float) -> dict:
        """missing, stale, reach (held, up, not a candidate), covered: names
        (a stale key holder of no member is named by its MAC)."""
        have = {self.owner[k] if k in self.owner else mac_text(k) for k in self.held(name, t)}
        up = self.up_set(t)
        cands = self.cands[name] & up
        return {"covered": cands & have, "missing": cands - have,
                "stale": {h for h in have if h not in up or h == name},
                "reach": {h for h in have if h in up and h != name and h not in cands}}

    def first_covered(self, names, since: float) -> tuple[float | None, dict]:
        """The first time from `since` on at which none of `names` that are
        up misses a roaming candidate; else None and who misses what at the end."""
        for t in [since] + [p for p in self.points if p > since]:
            if all(not self.state(n, t)["missing"] for n in names if self.up(n, t)):
                return t, {}
        end = self.res.end
        return None, {n: self.state(n, end)["missing"] for n in names if self.up(n, end) and self.state(n, end)["missing"]}

    def first_start(self, name: str) -> float | None:
        lives = self.res.lives.get(name)
        return lives[0].start if lives else None

    def covered_after_start(self, name: str) -> tuple[float | None, dict]:
        """Seconds from an access point's first start to its full coverage;
        the access points powered up together count only once all are up
        (before that, a neighbour not yet up is no candidate)."""
        start = self.first_start(name)
        power_up = max(self.first_start(a.name) for a in self.fl.aps if not a.spare)
        t, left = self.first_covered([name], start if self.fl.ap(name).spare else max(start, power_up))
        return (None if t is None else t - start), left

    def event_time(self, name: str) -> float | None:
        return next((e["applied"] for e in self.res.events if e["name"] == name), None)

    def covered_after_event(self, name: str, names) -> tuple[float | None, dict]:
        """Seconds from an event to the full coverage of `names`, counted
        from when the access point it starts is up."""
        since = self.event_time(name)
        plan = next(x for x in self.fl.events if x.name == name)
        begin = since
        started = plan.args.get("by", plan.ap) if plan.do in ("start", "replace") else None
        if started:
            begin = min((life.start for life in self.res.lives.get(started, []) if life.start >= since), default=since)
        t, left = self.first_covered(names, begin)
        return (None if t is None else t - since), left

    def down_time(self, name: str) -> float | None:
        return next((life.end for life in self.res.lives.get(name, []) if life.how not in ("end", "")), None)

    # ---- expectations --------------------------------------------------------------------

    def check(self, x: DExpect) -> tuple[bool, str]:
        a, end = x.args, self.res.end
        if x.kind == "converge":
            if a["converge"] == "start":
                late = []
                for n in a["aps"] or [ap.name for ap in self.fl.aps if not ap.spare]:
                    took = self.covered_after_start(n)[0] if n in self.res.lives else None
                    if took is None or took > a["within"]:
                        late.append(f"{n} {'never' if took is None else f'after {took:.0f} s'}")
                return not late, "; ".join(late) or f"every one covered within {a['within']:g} s of its start"
            since = self.event_time(a["converge"])
            if since is None:
                return False, f"{a['converge']} did not happen"
            names = a["aps"] or [n for n in self.res.lives if self.up(n, since + a["within"])]
            took, left = self.covered_after_event(a["converge"], names)
            if took is None:
                return False, "never: " + "; ".join(f"{n} misses {', '.join(sorted(m))}" for n, m in left.items())
            return took <= a["within"], f"covered {took:.0f} s after it"
        if x.kind == "gone":
            since = self.down_time(a["gone"])
            if since is None:
                return False, f"{a['gone']} never went down"
            kh = self.fl.ap(a["gone"]).key_holder()
            when = since + a["within"]
            names = a["aps"] or [n for n in self.res.lives if n != a["gone"] and self.up(n, when)]
            still = [n for n in names if kh in self.held(n, min(when, end))]
            return not still, f"still held by {', '.join(still)}" if still else f"gone from {len(names)} access points"
        if x.kind in ("missing", "stale"):
            got = sorted(f"{n}: {o}" for n in self.res.lives if self.up(n, end) for o in self.state(n, end)[x.kind])
            return got == a[x.kind], f"{x.kind} at the end: {', '.join(got) or 'none'}"
        got = sorted(f"{n} {vap}" for n, lines in self.vap_lines().items() for vap, (ok, _) in lines.items() if not ok)
        return got == a["vap_lines"], f"incomplete: {', '.join(got) or 'none'}"

    def vap_lines(self) -> dict[str, dict[str, tuple[bool, str]]]:
        """Per access point up at the end and per 802.11r VAP: whether its
        ap2_macaddr line lists exactly the BSSIDs of the key holders (each
        key holder's three neighbour radios), and a description."""
        out = {}
        for n in self.res.lives:
            if not self.up(n, self.res.end):
                continue
            final = self.out / "aps" / n / "final"
            records = parse_records((final / "roam_key_holders").read_bytes()) \
                if (final / "roam_key_holders").exists() else []
            lines = {ln.partition("=")[0][12:]: ln for ln in text_lines(final / "ap2_macaddr.txt")}
            out[n] = {}
            for vap in sorted(self.res.ft.get(n, [])):
                v = int(vap[8])
                want = {}
                for mac, _, family in records:
                    eth, diff, first = offsets(family)
                    want.update({mac_text(deployment.plus(mac, -eth + diff * k + v + first)): mac for k in range(3)})
                line = lines.get(vap)
                got = set(line.partition("=")[2].split()) if line is not None else set()
                lacking = {self.owner.get(want[b], mac_text(want[b])) for b in set(want) - got}
                if line is None:
                    out[n][vap] = (False, "no line: the daemon has 802.11r off on it")
                elif not lacking and got <= set(want):
                    out[n][vap] = (True, f"{len(got)} BSSIDs, those of every key holder")
                else:
                    cands = _names(lacking & self.cands[n])
                    full = f"; the line is full ({len(line)} characters)" if len(line) + 18 > LINE_MAX else ""
                    extra = len(got - set(want))
                    out[n][vap] = (False, f"{len(got)} BSSIDs" + (f", {extra} of no key holder" if extra else "")
                                   + (f"; lacks those of {len(lacking)} key holders (roaming candidates among "
                                      f"them: {cands})" if lacking else "") + full)
        return out


# ---- the report -----------------------------------------------------------------------------------


def build(out: Path) -> tuple[str, bool]:
    """Writes report.txt and the pictures into `out`; returns the text and
    whether every expectation held and the run itself went right."""
    out = Path(out)
    res = DeploymentResult.load(out / "result.json")
    fl = deployment.load(res.floor_path)
    ev = Evaluation(fl, res, out)
    outcomes = [(x, *ev.check(x)) for x in fl.expectations]
    passed = not res.problems and all(ok for _, ok, _ in outcomes)
    parts = [_header(fl, res), _aps(fl, res), _end_state(ev), _convergence(ev), _pictures(ev),
             _expectations(fl, res, outcomes, passed)]
    text = "\n".join(parts)
    (out / "report.txt").write_text(text)
    return text, passed


def _header(fl: Floor, res: DeploymentResult) -> str:
    spares = sum(a.spare for a in fl.aps)
    lines = [f"==== dorvand deployment: {fl.name}, {len(fl.aps) - spares} access points"
             + (f" and {spares} spare" if spares else "") + f" on {fl.size[0]:g} x {fl.size[1]:g} m"]
    if fl.description:
        lines += [fl.description.strip(), ""]
    lines += [f"scale {res.scale:g}: {res.end:.0f} deployment seconds in {res.wall:.0f} s of wall time; CPU "
              f"{res.cpu:.0f} s ({res.cpu_runner:.0f} s of it the supervisor); memory of the whole run at its peak {res.peak_pss_mb:.0f} MB proportional "
              f"({res.peak_rss_mb:.0f} MB resident), {res.peak_processes} processes; {res.datagrams} neighbour "
              "events sent",
              simclock.describe(res.clock),
              f"radio model: loss {fl.reference[0]:g}/{fl.reference[1]:g}/{fl.reference[2]:g} dB at 1 m + "
              f"{10 * fl.exponent:g} x log10(metres) + walls ({len(fl.walls)}); scans report BSSs from "
              f"{fl.sensitivity:g} dBm; a roaming candidate is a neighbour received on a shared band at "
              f"{fl.threshold:g} dBm or more; peer events: AP_ADDITION"
              + (" and KH_ADDITION" if fl.key_holder_events else " only") + ", AP_DELETION"]
    return "\n".join(lines) + "\n"


def _aps(fl: Floor, res: DeploymentResult) -> str:
    lines = ["---- access points (times in deployment seconds)",
             "  name  board   radios fam  base MAC           key holder         at (m)      channels        "
             "peer known  lives"]
    for a in fl.aps:
        lives = res.lives.get(a.name, [])
        text = "; ".join(f"{life.start:.0f}" + (f" ready {life.ready:.0f}" if life.ready is not None else "")
                         + (f" .. {life.how} {life.end:.0f}" if life.how != "end" else "") for life in lives)
        chans = "/".join(str(c) for c in a.channels[:a.radio_count])
        lines.append(f"  {a.name:5} {a.board:7} {a.radio_count:6} {'TRM' if a.family else 'TRV':4} "
                     f"{mac_text(a.mac)}  {mac_text(a.key_holder())}  {a.x:4g},{a.y:<4g}   {chans:15} "
                     f"{'yes' if a.peer else 'no':4} {'yes' if a.known else 'no':5} "
                     + (text or ("spare, never started" if a.spare else "never started")))
    return "\n".join(lines) + "\n"


def _names(items) -> str:
    return ", ".join(sorted(items)) or "-"


def _end_state(ev: Evaluation) -> str:
    end = ev.res.end
    lines = [f"---- key holders at the end ({end:.0f} s), against the roaming candidates of the radio model"]
    vaps = ev.vap_lines()
    totals = defaultdict(int)
    for n in ev.res.lives:
        if not ev.up(n, end):
            continue
        st = ev.state(n, end)
        for k, v in st.items():
            totals[k] += len(v)
        rx = ev.fl.ap(n)
        cands = ", ".join(f"{c} ({ev.fl.heard(rx, ev.fl.ap(c))[1]:g} dBm {BANDS[ev.fl.heard(rx, ev.fl.ap(c))[0]]})"
                          for c in sorted(ev.cands[n]) if ev.up(c, end))
        lines.append(f"  {n}: {len(ev.held(n, end))} key holders; candidates: {cands or '-'}")
        lines.append(f"      covered {_names(st['covered'])} | missing {_names(st['missing'])} | stale "
                     f"{_names(st['stale'])} | out of roaming reach {_names(st['reach'])}")
        for vap, (_, what) in vaps.get(n, {}).items():
            lines.append(f"      802.11r {vap}: {what}")
    want = totals["covered"] + totals["missing"]
    lines.append(f"  in all: {totals['covered']} of {want} roaming candidates covered, {totals['missing']} missing, "
                 f"{totals['stale']} stale key holders, {totals['reach']} key holders of access points out of roaming reach")
    return "\n".join(lines) + "\n"


def _convergence(ev: Evaluation) -> str:
    lines = ["---- time to full coverage (every roaming candidate a key holder)"]
    for a in ev.fl.aps:
        if a.name not in ev.res.lives:
            continue
        took, left = ev.covered_after_start(a.name)
        how = f"{took:.0f} s after its start" if took is not None else "never: misses " + _names(left.get(a.name, ()))
        lines.append(f"  {a.name:5} started {ev.first_start(a.name):5.0f} s: {how}")
    for e in ev.res.events:
        since = e["applied"]
        plan = next(x for x in ev.fl.events if x.name == e["name"])
        if plan.do in ("configd", "ft_status"):
            lines.append(f"  {e['name']} at {since:.0f} s: " + _after_setting(ev, plan, since))
            continue
        took, left = ev.covered_after_event(e["name"], list(ev.res.lives))
        text = f"every access point covered {took:.0f} s after it" if took is not None else \
            "not all covered again: " + "; ".join(f"{n} misses {_names(m)}" for n, m in left.items())
        lines.append(f"  after {e['name']} at {since:.0f} s: {text}")
        gone = plan if plan.do in ("fail", "replace") else None
        if gone:
            kh = ev.fl.ap(gone.ap).key_holder()
            holders = [n for n in ev.res.lives if n != gone.ap and ev.up(n, since) and kh in ev.held(n, since - 0.001)]
            for n in holders:
                left_at = next((p for p in ev.points if p >= since and ev.up(n, p) and kh not in ev.held(n, p)), None)
                lines.append(f"      {gone.ap}'s key holder on {n}: "
                             + (f"removed {left_at - since:.0f} s after it" if left_at is not None else
                                "kept" + (" to the end" if ev.up(n, ev.res.end) else " while it ran")))
    return "\n".join(lines) + "\n"


def _after_setting(ev: Evaluation, plan, since: float) -> str:
    """What a configd or 802.11r event changed on its access point: when
    the daemon's next 802.11r read ended, or when the transition script
    first ran with the switched VAPs' lines as they should be."""
    if plan.do == "configd":
        life = next((x for x in ev.res.lives[plan.ap] if (x.end or 1e18) > since), None)
        ready = life.ready if life else None
        return f"{plan.ap}'s 802.11r read " + (f"ended {ready - since:.0f} s later" if ready else "never ended")
    base = ev.out / "aps" / plan.ap / "root/dorvsim/runs/fast_bss_transition.sh"
    for d in sorted(base.iterdir()) if base.is_dir() else []:
        try:
            t = (float((d / "time").read_text()) - ev.res.t0) * ev.res.stamp_scale
        except (OSError, ValueError):
            continue
        keys = {ln.partition("=")[0][12:] for ln in text_lines(d / "ap2_macaddr.txt")}
        if t >= since and all((vap in keys) == (value == 1) for vap, value in plan.args["vaps"].items()):
            return f"the transition script ran with {plan.ap}'s ap2_macaddr lines switched {t - since:.0f} s later"
    return f"the transition script never ran with {plan.ap}'s ap2_macaddr lines switched"


def _pictures(ev: Evaluation) -> str:
    from sim import charts  # matplotlib only where the pictures are drawn
    out, end, fl = ev.out, ev.res.end, ev.fl
    members_seen = [a for a in fl.aps if a.name in ev.res.lives]
    states = {a.name: "up" if ev.up(a.name, end) else ("gone" if any(
        life.how == "replaced" for life in ev.res.lives[a.name]) else "down") for a in members_seen}
    links, seen = [], set()
    for a in members_seen:
        if states[a.name] != "up":
            continue
        st = ev.state(a.name, end)
        for b in members_seen:
            pair = frozenset((a.name, b.name))
            if b is a or pair in seen:
                continue
            if states[b.name] != "up":
                if b.name in st["stale"]:
                    links.append((a.name, b.name, "stale"))
                continue
            seen.add(pair)
            other = ev.state(b.name, end)
            needed = [(x, y) for x, y in ((a.name, b.name), (b.name, a.name)) if y in ev.cands[x]]
            if needed:
                ok = all(y in ev.state(x, end)["covered"] for x, y in needed)
                links.append((a.name, b.name, "covered" if ok else "missing"))
            elif b.name in st["reach"] or a.name in other["reach"]:
                links.append((a.name, b.name, "reach"))
    spots = {(a.x, a.y) for a in members_seen if states[a.name] == "up"}
    # An access point that is down where another now stands is drawn a little aside.
    aps = [{"name": a.name, "x": a.x - 1.2 * moved, "y": a.y + 1.2 * moved, "state": states[a.name]}
           for a in members_seen for moved in [states[a.name] != "up" and (a.x, a.y) in spots]]
    walls = [(w.x0, w.y0, w.x1, w.y1, w.loss) for w in fl.walls]
    foreign = [(f.x, f.y, f.ssid) for f in fl.foreign]
    charts.floor_plan(out / "floor.png", f"{fl.name}: key holders at {end:.0f} s", fl.size, walls, aps, links, foreign)
    lines = ["---- pictures", f"  floor.png: the floor, its walls and access points, and the key-holder links at "
                              f"{end:.0f} s ({sum(k == 'missing' for *_, k in links)} pairs missing a key holder)"]
    for r, band in enumerate(BANDS):
        rows = _band_rows(ev, r)
        if rows:
            path = out / f"chart_{band}.png"
            charts.survey_chart(path, f"{BAND_NAMES[band]}: mean over the scans of {rows[0]['SCANS']} access points",
                                rows, rows=(("CH", "CHANNEL"), ("NOISE", "NOISE_FLOOR"), ("APs", "APS")),
                                bss_label="BSS seen (mean)")
            lines.append(f"  {path.name}: per channel the mean load and BSS count of the scans, the mean noise "
                         f"floor and how many of the floor's access points use it")
    return "\n".join(lines) + "\n"


def _band_rows(ev: Evaluation, r: int) -> list[dict]:
    dbs = [read_table(ev.out / "aps" / n / "final" / f"scan_db_{BANDS[r]}", "CHANNEL_DETAILS")
           for n in ev.res.lives if ev.up(n, ev.res.end)]
    dbs = [d for d in dbs if d]
    if not dbs:
        return []
    per = defaultdict(list)
    for d in dbs:
        for row in d:
            per[row["CHANNEL"]].append(row)
    users = defaultdict(int)
    for a in ev.fl.aps:
        if r < a.radio_count and ev.up(a.name, ev.res.end):
            users[a.channels[r]] += 1
    return [{"CHANNEL": ch, "CH_LOAD": _mean(rows, "CH_LOAD"), "NBSS": _mean(rows, "NBSS"),
             "NOISE_FLOOR": round(_mean(rows, "NOISE_FLOOR")), "APS": users[ch], "SCANS": len(dbs)}
            for ch, rows in sorted(per.items())]


def _mean(rows: list[dict], key: str) -> float:
    return round(sum(min(100, r[key]) if key == "CH_LOAD" else r[key] for r in rows) / len(rows), 1)


def _expectations(fl: Floor, res: DeploymentResult, outcomes, passed: bool) -> str:
    lines = [f"---- expectations: {sum(ok for _, ok, _ in outcomes)} of {len(outcomes)} hold"]
    lines += [f"  {'ok  ' if ok else 'FAIL'}  {x.where:14} {x.describe()}: {detail}" for x, ok, detail in outcomes]
    lines += [f"  FAIL  the run: {p}" for p in res.problems]
    lines.append(f"\n{'PASSED' if passed else 'FAILED'}: deployment {fl.name}")
    return "\n".join(lines) + "\n"


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: python3 -m sim.deployment_report OUTPUT_FOLDER")
    print(build(Path(sys.argv[1]))[0])
