"""Deployment files: many access points on a floor, read from TOML (kind =
"deployment") and checked completely before anything runs; the radio model
that decides what each access point's scans see and which neighbours a
client can roam to; and the addresses of each access point as the daemon
derives them. sim/README.md documents every key.

Addresses. Every access point has a base MAC B (prefix:NN:00 by default, NN
its number in the file) and a family with its offsets (ethOffset, wlanDiff,
firstVapOffset): 0x0F, 0x10, 0 for family 0 and 0x1F, 0x20, 1 for the
others. Radio r answers as B + r x wlanDiff (the MAC named in neighbour
events and in the known-AP lists), VAP v of radio r as B + r x wlanDiff + v
+ firstVapOffset, and its key holder is B + ethOffset on every radio: the
key holder the daemon derives from the radio's MAC (+ ethOffset - r x
wlanDiff). Only the last byte changes, modulo 256, as the daemon counts.

Radio model: log-distance path loss. The loss from a transmitter to a
receiver on band b is reference[b] + 10 x exponent x log10(d / 1 m) (d at
least 1 m) plus the loss of every wall the straight line between them
crosses; the received level is the transmit power less that loss. A scan
reports every BSS at or above `sensitivity`. A neighbour is a roaming
candidate of an access point when, on a band both have, the access point
receives it at `threshold` or more.
"""

from __future__ import annotations

import math
import tomllib
from dataclasses import dataclass, field
from pathlib import Path

from sim.driver_state import Bss, Channel, DriverState, Radio
from sim.scenario import (BANDS, FT_KEY, KNOWN_AP_KEY, PRODUCTS, ROGUE_KEY, ScenarioError, Table, _int_in, mac_text,
                          parse_mac)

FLOOR_DIR = Path(__file__).resolve().parent / "floors"
PLANS = ([1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11], [36, 40, 44, 48, 52, 56, 60, 64],
         [100, 104, 108, 112, 116, 120, 124, 128, 132, 136, 140, 149, 153, 157, 161, 165])
DEFAULT_CHANNELS = ([1, 6, 11], [36, 44, 52, 60, 40, 48, 56, 64], [100, 116, 132, 149, 108, 124, 140, 157])
NOISE = (-95, -97, -98)
PHY = (8, 17, 17)
OFFSETS = {0: (0x0F, 0x10, 0), 1: (0x1F, 0x20, 1)}  # family: ethOffset, wlanDiff, firstVapOffset
EVENTS = ("fail", "start", "replace", "ft_status", "configd")
EXPECTS = ("converge", "gone", "missing", "stale", "vap_lines")


def offsets(family: int) -> tuple[int, int, int]:
    return OFFSETS[1 if family else 0]


def plus(mac: bytes, n: int) -> bytes:
    """mac with n added to its last byte, modulo 256 (no carry)."""
    return mac[:5] + bytes([(mac[5] + n) % 256])


@dataclass
class ApSpec:
    name: str
    number: int  # 1-based, in the order of the file
    x: float
    y: float
    mac: bytes  # base MAC
    board: str = "TRM238"
    family: int = 1
    channels: list[int] = field(default_factory=list)  # per radio
    power: list[float] = field(default_factory=list)  # dBm per band
    ft: list[str] = field(default_factory=list)  # VAPs with 802.11r on at the start
    peer: bool = True  # runs the peer daemon that sends neighbour events
    known: bool = True  # its configuration file lists the deployment's members
    scan: list[int] = field(default_factory=list)  # radios with rogue-AP detection on
    spare: bool = False  # powered up only by a start or replace event
    ap_type: int = 0  # AP type its BSSs carry in others' scans

    @property
    def radio_count(self) -> int:
        return 3 if PRODUCTS[self.board] != 0 else 2

    def radio_mac(self, r: int) -> bytes:
        return plus(self.mac, r * offsets(self.family)[1])

    def bssid(self, r: int, v: int) -> bytes:
        _, diff, first = offsets(self.family)
        return plus(self.mac, r * diff + v + first)

    def key_holder(self) -> bytes:
        return plus(self.mac, offsets(self.family)[0])


@dataclass
class Wall:
    x0: float
    y0: float
    x1: float
    y1: float
    loss: float


@dataclass
class Foreign:
    """Another network's transmitter: `count` BSSs on one channel."""

    ssid: str
    x: float
    y: float
    band: int
    channel: int
    power: float
    count: int
    index: int

    def bssid(self, k: int) -> str:
        return f"02:5E:F0:{self.index:02X}:{k:02X}:10"


@dataclass
class DEvent:
    at: float
    do: str
    ap: str
    args: dict
    name: str
    where: str


@dataclass
class DExpect:
    kind: str
    args: dict
    what: str
    where: str

    def describe(self) -> str:
        return self.what or f"{self.kind} {self.args[self.kind]}"


@dataclass
class Floor:
    name: str
    path: Path | None = None
    description: str = ""
    scale: float = 100.0
    until: float = 2400.0
    threshold: float = -72.0
    sensitivity: float = -90.0
    exponent: float = 3.0
    reference: list[float] = field(default_factory=lambda: [40.0, 47.0, 48.0])
    size: tuple[float, float] = (40.0, 20.0)
    walls: list[Wall] = field(default_factory=list)
    ssids: list[str] = field(default_factory=lambda: ["Corp", "Guest"])
    key_holder_events: bool = True
    aps: list[ApSpec] = field(default_factory=list)
    foreign: list[Foreign] = field(default_factory=list)
    events: list[DEvent] = field(default_factory=list)
    expectations: list[DExpect] = field(default_factory=list)

    def ap(self, name: str) -> ApSpec:
        return next(a for a in self.aps if a.name == name)

    # ---- the radio model ----------------------------------------------------------------

    def level(self, power: float, band: int, a: tuple[float, float], b: tuple[float, float]) -> float:
        d = max(1.0, math.dist(a, b))
        walls = sum(w.loss for w in self.walls if _crosses((w.x0, w.y0, w.x1, w.y1), (*a, *b)))
        return power - self.reference[band] - 10 * self.exponent * math.log10(d) - walls

    def heard(self, rx: ApSpec, tx: ApSpec) -> tuple[int, float] | None:
        """(band, dBm) of the strongest band both have, as rx receives tx."""
        levels = [(self.level(tx.power[b], b, (tx.x, tx.y), (rx.x, rx.y)), b)
                  for b in range(min(rx.radio_count, tx.radio_count))]
        best = max(levels, default=None)
        return (best[1], round(best[0], 1)) if best else None

    def candidate(self, rx: ApSpec, tx: ApSpec) -> bool:
        h = self.heard(rx, tx)
        return h is not None and h[1] >= self.threshold

    def driver_state(self, ap: ApSpec, up: list[ApSpec]) -> DriverState:
        """The scan report of each radio: every channel of the band's plan
        with the BSSs of the access points `up` and the other networks heard
        on it; load, noise and rank follow from what is heard."""
        st = DriverState()
        for r in range(ap.radio_count):
            chans = []
            for ieee in PLANS[r]:
                bss = []
                for o in up:
                    if o is not ap and r < o.radio_count and o.channels[r] == ieee:
                        dbm = self.level(o.power[r], r, (o.x, o.y), (ap.x, ap.y))
                        if dbm >= self.sensitivity:
                            bss += [Bss(mac_text(o.bssid(r, v)), round(dbm), PHY[r], o.ap_type, ssid)
                                    for v, ssid in enumerate(self.ssids)]
                for f in self.foreign:
                    dbm = self.level(f.power, r, (f.x, f.y), (ap.x, ap.y)) if f.band == r and f.channel == ieee else -999
                    if dbm >= self.sensitivity:
                        bss += [Bss(f.bssid(k), round(dbm), PHY[r], 0, f.ssid) for k in range(f.count)]
                levels = [b.rssi for b in bss] or [NOISE[r] + 4]
                load = min(100, 5 + sum(2 + max(0, (b.rssi + 85) // 5) for b in bss))
                chans.append(Channel(ieee, max(levels), min(levels), NOISE[r] + (2 if load > 50 else 0), 0, load,
                                     0, bss))
            for rank, ch in enumerate(sorted(chans, key=lambda c: (c.chan_load, c.ieee)), 1):
                ch.chan_rank = rank
            st.radios[r] = Radio(channels=chans)
        return st

    def config_text(self, ap: ApSpec, members: list[ApSpec]) -> str:
        """/tmp/run/config: the rogue-AP settings and, when the access point
        keeps one, the known-AP list of each radio: the members' radio MACs."""
        lines = [f"{ROGUE_KEY.format(r=r)} {1 if r in ap.scan else 0}" for r in range(ap.radio_count)]
        for r in range(ap.radio_count) if ap.known else ():
            others = [m for m in members if m is not ap and r < m.radio_count]
            lines += [f"{KNOWN_AP_KEY.format(r=r)}:ap{n}:{mac_text(m.radio_mac(r), '-')} 1,{m.family}"
                      for n, m in enumerate(others, 1)]
        return "".join(line + "\n" for line in lines)

    def configd_table(self, ap: ApSpec) -> dict[str, str]:
        return {FT_KEY.format(r=r, v=v): "1" if f"wifi{r}vap{v}" in ap.ft else "0"
                for r in range(ap.radio_count) for v in range(10)}

    def links(self, ap: ApSpec) -> dict[str, bool]:
        links = {}
        for r in range(ap.radio_count):
            links[f"wifi{r}"] = True
            links.update({f"wifi{r}vap{v}": True for v in range(len(self.ssids))})
        return links


def _crosses(s: tuple, t: tuple) -> bool:
    """Whether two segments (x0, y0, x1, y1) properly intersect."""
    def side(ax, ay, bx, by, cx, cy):
        return (bx - ax) * (cy - ay) - (by - ay) * (cx - ax)
    d1, d2 = side(*t, *s[:2]), side(*t, *s[2:])
    d3, d4 = side(*s, *t[:2]), side(*s, *t[2:])
    return d1 * d2 < 0 and d3 * d4 < 0


# ---- loading -----------------------------------------------------------------------------------


def is_deployment(name_or_path: str) -> bool:
    """A name in sim/floors, or a TOML file whose kind is "deployment"."""
    p = Path(name_or_path)
    if p.suffix != ".toml" and "/" not in str(name_or_path):
        return (FLOOR_DIR / f"{name_or_path}.toml").is_file()
    try:
        return tomllib.loads(p.read_text()).get("kind") == "deployment"
    except (OSError, tomllib.TOMLDecodeError):
        return False


def names() -> list[str]:
    return sorted(f.stem for f in FLOOR_DIR.glob("*.toml"))


def load(name_or_path: str | Path) -> Floor:
    p = Path(name_or_path)
    path = p if p.suffix == ".toml" or "/" in str(name_or_path) else FLOOR_DIR / f"{name_or_path}.toml"
    try:
        return parse(tomllib.loads(path.read_text()), path)
    except OSError as e:
        raise ScenarioError(f"no deployment file {path}: {e.strerror}") from None
    except tomllib.TOMLDecodeError as e:
        raise ScenarioError(f"{path.name}: not valid TOML: {e}") from None
    except ScenarioError as e:
        raise ScenarioError(f"{path.name}: {e}") from None


def parse(data: dict, path: Path | None = None) -> Floor:
    t = Table(data, "the file")
    if t.get("kind", str, required=True) != "deployment":
        raise ScenarioError("kind: a deployment file says kind = \"deployment\"")
    fl = Floor(name=path.stem if path else "deployment", path=path)
    fl.description = t.get("description", str, "")
    fl.scale = t.get("scale", float, fl.scale)
    fl.until = t.get("until", float, fl.until)
    if not 1 <= fl.scale <= 1000 or fl.until <= 0:
        raise ScenarioError("scale is 1..1000 daemon seconds per second, until a positive number of seconds")
    fl.threshold = t.get("threshold", float, fl.threshold)
    fl.sensitivity = t.get("sensitivity", float, fl.sensitivity)
    fl.ssids = [str(s) for s in t.get("ssids", list, fl.ssids)]
    if not 1 <= len(fl.ssids) <= 10:
        raise ScenarioError("ssids: one to ten, one VAP each on every radio")
    prefix = parse_mac(t.get("mac_prefix", str, "00:1D:AA:40") + ":00:00", "mac_prefix")[:4]
    m = Table(t.get("radio_model", dict, {}), "[radio_model]")
    fl.exponent = m.get("exponent", float, fl.exponent)
    fl.reference = _numbers(m, "reference", fl.reference, 3)
    power = _numbers(m, "power", [14.0, 20.0, 20.0], 3)
    m.done()
    f = Table(t.get("floor", dict, {}), "[floor]")
    fl.size = tuple(_numbers(f, "size", list(fl.size), 2))
    for i, wt in enumerate(f.get("walls", list, []), 1):
        w = Table(wt, f"[floor] wall #{i}")
        fl.walls.append(Wall(*_numbers(w, "from", None, 2), *_numbers(w, "to", None, 2), w.get("loss", float, 10.0)))
        w.done()
    f.done()
    p = Table(t.get("peer", dict, {}), "[peer]")
    fl.key_holder_events = p.get("key_holders", bool, True)
    p.done()
    default_ft = [str(v) for v in t.get("ft", list, ["wifi0vap0", "wifi1vap0", "wifi2vap0"])]
    for n, at in enumerate(t.get("ap", list, []), 1):
        fl.aps.append(_ap(Table(at, f"[[ap]] #{n}"), n, prefix, power, default_ft, fl))
    if not fl.aps or len({a.name for a in fl.aps}) != len(fl.aps):
        raise ScenarioError("[[ap]]: at least one access point, each with its own name")
    if len({a.key_holder() for a in fl.aps}) != len(fl.aps) or len({a.mac[:5] for a in fl.aps}) != len(fl.aps):
        raise ScenarioError("[[ap]]: every access point needs its own first five MAC bytes (a neighbour's "
                            "deletion removes every key holder that shares them)")
    for n, ft in enumerate(t.get("foreign", list, []), 1):
        fl.foreign.append(_foreign(Table(ft, f"[[foreign]] #{n}"), n))
    for n, et in enumerate(t.get("event", list, []), 1):
        fl.events.append(_event(Table(et, f"[[event]] #{n}"), fl))
    fl.events.sort(key=lambda e: e.at)
    for n, xt in enumerate(t.get("expect", list, []), 1):
        fl.expectations.append(_expect(Table(xt, f"[[expect]] #{n}"), fl))
    t.done()
    return fl


def _ap(t: Table, n: int, prefix: bytes, power: list[float], default_ft: list[str], fl: Floor) -> ApSpec:
    name = t.get("name", str, f"ap{n}")
    ap = ApSpec(name, n, *_numbers(t, "at", None, 2), mac=prefix + bytes([n % 256, 0]))
    where = f"{t.where} ({name})"
    if "mac" in t.data:
        ap.mac = parse_mac(t.get("mac", str), where)
    ap.board = t.get("board", str, ap.board)
    if ap.board not in PRODUCTS:
        raise ScenarioError(f"{where}: unknown board {ap.board!r} (known: {', '.join(PRODUCTS)})")
    ap.family = _int_in(t.get("family", int, 1), 0, 255, f"{where}: family")
    ap.channels = [_int_in(c, 1, 255, f"{where}: channels") for c in
                   t.get("channels", list, [DEFAULT_CHANNELS[r][(n - 1) % len(DEFAULT_CHANNELS[r])] for r in range(3)])]
    if len(ap.channels) < ap.radio_count or any(c not in PLANS[r] for r, c in enumerate(ap.channels[:ap.radio_count])):
        raise ScenarioError(f"{where}: channels gives one channel of its band's plan per radio "
                            f"({ap.radio_count} radios on {ap.board})")
    ap.power = _numbers(t, "power", power, 3)
    ft = t.get("ft", list, default_ft)
    if not all(_vap_name(v, len(fl.ssids)) for v in ft):
        raise ScenarioError(f"{where}: ft lists VAP names wifiRvapV with V below the number of ssids")
    ap.ft = [v for v in ft if int(v[4]) < ap.radio_count]
    ap.peer = t.get("peer", bool, True)
    ap.known = t.get("known", bool, True)
    ap.scan = [_int_in(r, 0, 2, f"{where}: scan") for r in t.get("scan", list, [0, 1, 2])]
    ap.spare = t.get("spare", bool, False)
    ap.ap_type = _int_in(t.get("ap_type", int, 0), 0, 255, f"{where}: ap_type")
    t.done()
    if not (0 <= ap.x <= fl.size[0] and 0 <= ap.y <= fl.size[1]):
        raise ScenarioError(f"{where}: at is outside the floor ({fl.size[0]:g} x {fl.size[1]:g} m)")
    return ap


def _vap_name(v, vaps: int) -> bool:
    return isinstance(v, str) and len(v) == 9 and v[:4] == "wifi" and v[4] in "012" and v[5:8] == "vap" \
        and v[8].isdigit() and int(v[8]) < vaps


def _foreign(t: Table, n: int) -> Foreign:
    band = t.get("band", str, required=True)
    if band not in BANDS:
        raise ScenarioError(f"{t.where}: band is one of {', '.join(BANDS)}")
    r = BANDS.index(band)
    f = Foreign(t.get("ssid", str, ""), *_numbers(t, "at", None, 2), r, t.get("channel", int, required=True),
                t.get("power", float, 17.0), _int_in(t.get("count", int, 1), 1, 16, f"{t.where}: count"), n)
    if f.channel not in PLANS[r]:
        raise ScenarioError(f"{t.where}: channel {f.channel} is not on the {band} plan")
    t.done()
    return f


def _event(t: Table, fl: Floor) -> DEvent:
    at = t.get("at", float, required=True)
    do = t.get("do", str, required=True)
    if do not in EVENTS or at < 0:
        raise ScenarioError(f"{t.where}: do is one of {', '.join(EVENTS)}, at a time from 0 on")
    ap = _ap_name(t.get("ap", str, required=True), fl, t.where)
    args: dict = {}
    if do == "fail":
        args["how"] = t.get("how", str, "kill")
        if args["how"] not in ("kill", "signal10"):
            raise ScenarioError(f"{t.where}: how is kill (power lost) or signal10 (taken down)")
    elif do == "replace":
        args["by"] = _ap_name(t.get("by", str, required=True), fl, t.where)
        if not fl.ap(args["by"]).spare or fl.ap(ap).spare:
            raise ScenarioError(f"{t.where}: an access point is replaced by a spare one (spare = true)")
    elif do == "ft_status":
        vaps = t.get("vaps", dict, required=True)
        if not vaps or not all(_vap_name(v, len(fl.ssids)) and isinstance(x, int) for v, x in vaps.items()):
            raise ScenarioError(f"{t.where}: vaps maps wifiRvapV names to 11rStatus values")
        args["vaps"] = dict(vaps)
        args["value"] = sum(1 << (10 * int(v[4]) + int(v[8])) for v in vaps)
    elif do == "configd":
        args["mode"] = t.get("mode", str, required=True)
        args["times"] = t.get("times", int)
        if args["mode"] not in ("stall", "close", "normal"):
            raise ScenarioError(f"{t.where}: mode is stall, close or normal")
    name = t.get("name", str, f"{do} {ap}")
    t.done()
    if any(e.name == name for e in fl.events):
        raise ScenarioError(f"{t.where}: a second event named {name!r}; give it a name")
    return DEvent(at, do, ap, args, name, t.where)


def _expect(t: Table, fl: Floor) -> DExpect:
    kinds = [k for k in EXPECTS if k in t.data]
    if len(kinds) != 1:
        raise ScenarioError(f"{t.where}: give exactly one of {', '.join(EXPECTS)}")
    kind = kinds[0]
    what = t.get("what", str, "")
    if kind in ("converge", "gone"):
        value = t.get(kind, str)
        if kind == "converge" and value != "start" and not any(e.name == value for e in fl.events):
            raise ScenarioError(f"{t.where}: converge names \"start\" or an event ({', '.join(e.name for e in fl.events)})")
        if kind == "gone":
            _ap_name(value, fl, t.where)
        args = {kind: value, "within": t.get("within", float, required=True),
                "aps": [_ap_name(a, fl, t.where) for a in t.get("aps", list, [])]}
    else:
        items = t.get(kind, list)
        if any(not isinstance(i, str) for i in items):
            raise ScenarioError(f"{t.where}: {kind} is a list of texts")
        args = {kind: sorted(items)}
    t.done()
    return DExpect(kind, args, what, t.where)


def _ap_name(name, fl: Floor, where: str) -> str:
    if not any(a.name == name for a in fl.aps):
        raise ScenarioError(f"{where}: no access point named {name!r}")
    return name


def _numbers(t: Table, key: str, default, count: int) -> list[float]:
    value = t.get(key, list, default)
    if value is None:
        raise ScenarioError(f"{t.where}: missing key {key!r}")
    if len(value) != count or any(isinstance(v, bool) or not isinstance(v, (int, float)) for v in value):
        raise ScenarioError(f"{t.where}: {key} is a list of {count} numbers")
    return [float(v) for v in value]
