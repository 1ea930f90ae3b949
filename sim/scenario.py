"""Scenario files: one simulated access point and what happens to it, read
from TOML with Python's own tomllib and checked completely before anything
runs. sim/README.md documents every key.

A scenario gives the board, its radios and VAPs (link state, 802.11r status,
known APs, the channels the driver reports and the BSSs seen on them), a
timeline of events in daemon seconds and the expectations of the run.
Scenario.sandbox_options() turns it into sim.sandbox.Sandbox arguments.
"""

from __future__ import annotations

import copy
import re
import tomllib
from dataclasses import dataclass, field
from pathlib import Path

from sim.driver_state import MAX_SSID, Bss, Channel, DriverState, Radio

SCENARIO_DIR = Path(__file__).resolve().parent / "scenarios"
DEFAULT_SCENARIO = "office"
BANDS = ("2g", "5g", "5gh")  # by radio index
ROGUE_KEY = "system:wlanSettings:wlanSettingTable:wlan{r}:rogueApDetection"
KNOWN_AP_KEY = "system:apList:knownApTable:wlan{r}"
FT_KEY = "system:vapSettings:vapSettingTable:wlan{r}:vap{v}:11rStatus"
# Product identifier -> radio type, as the board lookup knows them.
PRODUCTS = {"TRV118": 0, "TRV113": 0, "TRV146": 1, "TRV162": 1, "TRM204": 0, "TRM204K": 0, "TRM226": 0,
            "TRM238": 1, "TRM238P": 2, "TRM241P": 2, "TRM209": 0, "TRM221": 0, "TRM213": 0, "TRM233": 0}
NEIGHBOUR_TYPES = {"ap_del": 0, "ap_add": 1, "kh_add": 2}
EVENT_KINDS = ("kh_add", "ap_add", "ap_del", "neighbours", "datagram", "ft_status", "voice", "cac", "link",
               "driver", "configd", "signal")
DRIVER_ERRORS = {"acs": "acs_error", "report": "report_error", "chanscan": "chan_scan_error",
                 "voice": "voice_error", "chaninfo": "chan_info_error"}
MAC_RE = re.compile(r"^[0-9A-Fa-f]{2}([:-][0-9A-Fa-f]{2}){5}$")
MILESTONE_RE = re.compile(r"^(start|ready|exit|full|batch[1-9]\d*|(2g|5g|5gh)\.(triggered|full|batch[1-9]\d*(\.done)?))$")
# A fault rule's words (the preload library checks the rest when it is armed).
FAULT_CALLS = ("open", "write", "rename", "unlink", "ftruncate", "fsync", "mkdir", "socket", "bind", "connect",
               "send", "recv", "pipe2", "spawn", "select", "poll", "sigaction", "thread", "daemon")
FAULT_KEYS = ("path", "fd", "nth", "count", "errno", "short")
OTHER_SSIDS = ("CafeGuest", "HP-Print-3F", "lab-net", "Visitors", "eduroam", "DIRECT-tv", "warehouse", "")


class ScenarioError(Exception):
    """A scenario that cannot be run; the message names the file and the key."""


@dataclass
class Vap:
    radio: int
    index: int
    up: bool = True
    ft: str = "0"  # the 11rStatus value configd serves
    cac: int = 0  # the driver's CAC state at the start

    @property
    def name(self) -> str:
        return f"wifi{self.radio}vap{self.index}"


@dataclass
class KnownAp:
    mac: bytes
    present: int = 1
    family: int = 0


@dataclass
class RadioSpec:
    index: int
    up: bool = True
    rogue_ap: str | None = None  # None: no line in /tmp/run/config
    driver: Radio = field(default_factory=Radio)
    vaps: list[Vap] = field(default_factory=list)
    known_aps: list[KnownAp] = field(default_factory=list)


@dataclass
class Event:
    """One step of the timeline: due `at` daemon seconds after milestone `after`."""

    at: float
    after: str
    do: str
    args: dict
    where: str

    def describe(self) -> str:
        words = [self.do] + [f"{k}={_short(v)}" for k, v in self.args.items() if k != "data"]
        return " ".join(words)


@dataclass
class Expectation:
    """One check, made just before the daemon is stopped (phase "end") or
    after it has ended ("exit")."""

    kind: str
    args: dict
    phase: str
    what: str
    where: str

    def describe(self) -> str:
        return self.what or f"{self.kind} {_short(self.args.get(self.kind, ''))}".strip()


@dataclass
class Fault:
    """A fault rule armed `at` daemon seconds after milestone `after`, for
    `lasts` daemon seconds (None: to the end)."""

    rule: str
    at: float
    after: str
    lasts: float | None
    optional: bool
    where: str


@dataclass
class Scenario:
    name: str
    path: Path | None = None
    description: str = ""
    board: str = "TRM238"
    scale: float = 75.0
    until: str = "batch2"
    limit: float = 8000.0
    config_extra: str = ""
    clock: str | None = None  # "event" or "affine"; None: the sandbox's default
    wall_start: float | None = None  # the event clock's wall clock at the start, epoch seconds
    radios: list[RadioSpec] = field(default_factory=list)
    events: list[Event] = field(default_factory=list)
    expectations: list[Expectation] = field(default_factory=list)
    faults: list[Fault] = field(default_factory=list)

    @property
    def radio_type(self) -> int:
        return PRODUCTS[self.board]

    @property
    def radio_count(self) -> int:
        return 3 if self.radio_type != 0 else 2

    def radio(self, index: int) -> RadioSpec | None:
        return next((r for r in self.radios if r.index == index), None)

    def scanning_bands(self) -> list[str]:
        """Bands whose scans start: a declared radio the daemon scans (the
        third only on radio type 1) whose rogue-AP setting is not 0 (a
        missing setting reads as -1, which counts as on)."""
        return [BANDS[r.index] for r in self.radios
                if (r.index < 2 or self.radio_type == 1) and (r.rogue_ap is None or _atoi(r.rogue_ap) != 0)]

    def config_text(self) -> str:
        lines = [f"{ROGUE_KEY.format(r=r.index)} {r.rogue_ap}" for r in self.radios if r.rogue_ap is not None]
        for r in self.radios:
            for n, ap in enumerate(r.known_aps, 1):
                lines.append(f"{KNOWN_AP_KEY.format(r=r.index)}:ap{n}:{mac_text(ap.mac, '-')} {ap.present},{ap.family}")
        text = "".join(line + "\n" for line in lines)
        return text + self.config_extra

    def links(self) -> dict[str, bool]:
        links = {}
        for r in self.radios:
            links[f"wifi{r.index}"] = r.up
            links.update({v.name: v.up for v in r.vaps})
        return links

    def driver_state(self) -> DriverState:
        st = DriverState()
        for r in self.radios:
            st.radios[r.index] = copy.deepcopy(r.driver)
            st.cac.update({v.name: v.cac for v in r.vaps if v.cac})
        return st

    def configd_table(self) -> dict[str, str]:
        """Every VAP of every radio the daemon reads, "0" unless declared."""
        table = {FT_KEY.format(r=r, v=v): "0" for r in range(self.radio_count) for v in range(10)}
        table.update({FT_KEY.format(r=v.radio, v=v.index): v.ft for r in self.radios for v in r.vaps})
        return table

    def known_macs(self, radio: int) -> list[bytes]:
        """The MACs a radio's known-AP table holds by the scenario's own
        account: the configuration file's and those of AP_ADDITION events."""
        rs = self.radio(radio)
        macs = [ap.mac for ap in rs.known_aps] if rs else []
        for ev in self.events:
            if ev.do == "ap_add" and ev.args["radio"] == radio:
                macs.append(ev.args["mac"])
        return macs

    def sandbox_options(self, scale: float | None = None) -> dict:
        return {"board": self.board, "config": self.config_text(), "links": self.links(),
                "driver": self.driver_state(), "configd": self.configd_table(), "scale": float(scale or self.scale),
                "clock": self.clock, "wall0": self.wall_start}


# ---- loading ----------------------------------------------------------------------------


def find(name_or_path: str | Path) -> Path:
    """A scenario file: a path, or the name of one in sim/scenarios."""
    p = Path(name_or_path)
    if p.suffix == ".toml" or "/" in str(name_or_path):
        if not p.is_file():
            raise ScenarioError(f"no scenario file {p}")
        return p
    cand = SCENARIO_DIR / f"{name_or_path}.toml"
    if not cand.is_file():
        raise ScenarioError(f"no scenario named {name_or_path!r} (known: {', '.join(names())})")
    return cand


def names() -> list[str]:
    return sorted(f.stem for f in SCENARIO_DIR.glob("*.toml"))


def load(name_or_path: str | Path) -> Scenario:
    path = find(name_or_path)
    try:
        return parse(tomllib.loads(path.read_text()), path)
    except tomllib.TOMLDecodeError as e:
        raise ScenarioError(f"{path.name}: not valid TOML: {e}") from None
    except ScenarioError as e:
        raise ScenarioError(f"{path.name}: {e}") from None


def parse(data: dict, path: Path | None = None) -> Scenario:
    """A Scenario from a TOML document's dict; ScenarioError on any unknown
    key, wrong type or impossible value."""
    t = Table(data, "the file")
    sc = Scenario(name=path.stem if path else "scenario", path=path)
    sc.description = t.get("description", str, "")
    sc.board = t.get("board", str, sc.board)
    if sc.board not in PRODUCTS:
        raise ScenarioError(f"board: unknown product {sc.board!r} (known: {', '.join(PRODUCTS)})")
    sc.scale = t.get("scale", float, sc.scale)
    if not 1 <= sc.scale <= 1000:
        raise ScenarioError("scale: daemon seconds per real second, from 1 to 1000")
    sc.until = str(t.get("until", (str, float), sc.until))
    until_milestone(sc.until)
    sc.limit = t.get("limit", float, sc.limit)
    sc.config_extra = t.get("config_extra", str, "")
    sc.clock = t.get("clock", str)
    if sc.clock not in (None, "event", "affine"):
        raise ScenarioError("clock: \"event\" or \"affine\"")
    sc.wall_start = t.get("wall_start", float)
    if sc.wall_start is not None and (sc.wall_start < 0 or sc.clock == "affine"):
        raise ScenarioError("wall_start: epoch seconds, not negative, on the event clock")
    if sc.config_extra and not sc.config_extra.endswith("\n"):
        sc.config_extra += "\n"
    for i, rt in enumerate(t.get("radio", list, []), 1):
        sc.radios.append(_radio(Table(rt, f"[[radio]] #{i}")))
    indexes = [r.index for r in sc.radios]
    if len(set(indexes)) != len(indexes):
        raise ScenarioError("[[radio]]: a radio index is given twice")
    for i, et in enumerate(t.get("event", list, []), 1):
        sc.events.extend(_event(Table(et, f"[[event]] #{i}"), sc))
    for i, ft in enumerate(t.get("fault", list, []), 1):
        fault = _fault(Table(ft, f"[[fault]] #{i}"))
        sc.faults.append(fault)
        sc.events.append(Event(fault.at, fault.after, "fault", {"rule": fault.rule, "optional": fault.optional},
                               fault.where))
        if fault.lasts is not None:
            sc.events.append(Event(fault.at + fault.lasts, fault.after, "fault_off", {"rule": fault.rule},
                                   fault.where))
    if len({f.rule for f in sc.faults}) != len(sc.faults):
        raise ScenarioError("[[fault]]: a rule is given twice")
    for i, ct in enumerate(t.get("clock_step", list, []), 1):
        if sc.clock == "affine":
            raise ScenarioError("[[clock_step]]: the affine clock cannot be stepped")
        sc.events.append(_clock_step(Table(ct, f"[[clock_step]] #{i}")))
    for i, xt in enumerate(t.get("expect", list, []), 1):
        sc.expectations.append(_expectation(Table(xt, f"[[expect]] #{i}")))
    t.done()
    return sc


class Table:
    """A TOML table being read: every key taken is type-checked, and done()
    refuses the keys nobody took."""

    def __init__(self, data, where: str):
        if not isinstance(data, dict):
            raise ScenarioError(f"{where}: expected a table")
        self.data = dict(data)
        self.where = where

    def get(self, key, types, default=None, required=False):
        if key not in self.data:
            if required:
                raise ScenarioError(f"{self.where}: missing key {key!r}")
            return default
        value = self.data.pop(key)
        types = types if isinstance(types, tuple) else (types,)
        if float in types and isinstance(value, int) and not isinstance(value, bool):
            value = float(value)
        if isinstance(value, bool) != (bool in types and isinstance(value, bool)) or not isinstance(value, types):
            raise ScenarioError(f"{self.where}: {key} must be {_type_names(types)}, not {value!r}")
        return value

    def done(self):
        if self.data:
            raise ScenarioError(f"{self.where}: unknown key(s) {', '.join(sorted(self.data))}")


def until_milestone(until: str) -> tuple[str, float]:
    """`until` as (milestone, daemon seconds after it): a number of daemon
    seconds after the start, MILESTONE or MILESTONE+SECONDS."""
    name, _, plus = (p.strip() for p in until.partition("+"))
    number = r"\d+(\.\d+)?"
    if re.fullmatch(number, name) and not plus:
        return "start", float(name)
    check_milestone(name, "until")
    if plus and not re.fullmatch(number, plus):
        raise ScenarioError(f"until: {until!r} is not SECONDS, MILESTONE or MILESTONE+SECONDS")
    return name, float(plus or 0)


def check_milestone(name: str, where: str) -> None:
    if not MILESTONE_RE.match(name):
        raise ScenarioError(f"{where}: unknown milestone {name!r} (start, ready, exit, full, batchN, or BAND.triggered, "
                            "BAND.full, BAND.batchN, BAND.batchN.done with BAND 2g, 5g or 5gh)")


def _radio(t: Table) -> RadioSpec:
    rs = RadioSpec(index=_int_in(t.get("index", int, required=True), 0, 2, f"{t.where}: index"))
    rs.up = t.get("up", bool, True)
    rogue = t.get("rogue_ap", (int, str))
    rs.rogue_ap = None if rogue is None else str(rogue)
    d = rs.driver
    d.voice_bit = int(t.get("voice", bool, False))
    chan_info = t.get("chan_info", list)
    if chan_info is not None:
        d.chan_info = [_int_in(c, 0, 255, f"{t.where}: chan_info") for c in chan_info]
    for i, vt in enumerate(t.get("vap", list, []), 1):
        rs.vaps.append(_vap(Table(vt, f"{t.where} vap #{i}"), rs.index))
    for i, kt in enumerate(t.get("known_ap", list, []), 1):
        kt = Table(kt, f"{t.where} known_ap #{i}")
        rs.known_aps.append(KnownAp(parse_mac(kt.get("mac", str, required=True), kt.where),
                                      _int_in(kt.get("present", int, 1), 0, 9, f"{kt.where}: present"),
                                      _int_in(kt.get("family", int, 0), 0, 9, f"{kt.where}: family")))
        kt.done()
    for i, ct in enumerate(t.get("channel", list, []), 1):
        d.channels.append(_channel(Table(ct, f"{t.where} channel #{i}"), rs.index))
    t.done()
    if len({c.ieee for c in d.channels}) != len(d.channels):
        raise ScenarioError(f"{t.where}: a channel is given twice")
    if len({v.index for v in rs.vaps}) != len(rs.vaps):
        raise ScenarioError(f"{t.where}: a VAP index is given twice")
    return rs


def _vap(t: Table, radio: int) -> Vap:
    vap = Vap(radio, _int_in(t.get("index", int, required=True), 0, 9, f"{t.where}: index"))
    vap.up = t.get("up", bool, True)
    vap.ft = str(t.get("ft", (int, str), 0))
    vap.cac = t.get("cac", int, 0)
    t.done()
    return vap


def _channel(t: Table, radio: int) -> Channel:
    ch = Channel(ieee=_int_in(t.get("ieee", int, required=True), 1, 255, f"{t.where}: ieee"))
    ch.chan_load = _int_in(t.get("load", int, ch.chan_load), 0, 0xFFFFFFFF, f"{t.where}: load")
    ch.noise_floor = _int_in(t.get("noise", int, ch.noise_floor), -32768, 32767, f"{t.where}: noise")
    ch.max_rssi = t.get("max_rssi", int, ch.max_rssi)
    ch.min_rssi = t.get("min_rssi", int, ch.min_rssi)
    ch.spectral_load = _int_in(t.get("spectral", int, 0), -32768, 32767, f"{t.where}: spectral")
    ch.chan_rank = t.get("rank", int, 0)
    for i, bt in enumerate(t.get("bss", list, []), 1):
        ch.bss.append(bss_from(Table(bt, f"{t.where} bss #{i}")))
    others = _int_in(t.get("others", int, 0), 0, 200, f"{t.where}: others")
    ch.bss.extend(other_bss(radio, ch.ieee, others))
    t.done()
    if len(ch.bss) > 255:
        raise ScenarioError(f"{t.where}: at most 255 BSSs on a channel")
    return ch


def bss_from(t: Table) -> Bss:
    b = Bss(bssid=mac_text(parse_mac(t.get("bssid", str, required=True), t.where)))
    b.ssid = t.get("ssid", str, "")
    if len(b.ssid.encode()) > MAX_SSID:
        raise ScenarioError(f"{t.where}: SSID longer than {MAX_SSID} bytes")
    b.rssi = t.get("rssi", int, -70)
    b.phymode = t.get("phy", int, 0)
    b.vx_ap_type = _int_in(t.get("ap_type", int, 0), 0, 255, f"{t.where}: ap_type")
    t.done()
    return b


def other_bss(radio: int, ieee: int, count: int) -> list[Bss]:
    """`count` BSSs of other deployments on a channel, the same every run:
    locally administered BSSIDs 02:5E:<radio>:<channel>:<n>:10."""
    phy = 8 if radio == 0 else 17
    return [Bss(f"02:5E:{radio:02X}:{ieee:02X}:{n:02X}:10", -48 - (n * 13 + ieee) % 41, phy, 0,
                OTHER_SSIDS[(n + ieee) % len(OTHER_SSIDS)]) for n in range(count)]


# ---- timeline ------------------------------------------------------------------------------


def _event(t: Table, sc: Scenario) -> list[Event]:
    at = t.get("at", float, 0.0)
    after = t.get("after", str, "start")
    if at < 0:
        raise ScenarioError(f"{t.where}: at must not be negative")
    check_milestone(after, t.where)
    do = t.get("do", str, required=True)
    if do not in EVENT_KINDS:
        raise ScenarioError(f"{t.where}: unknown event {do!r} (one of {', '.join(EVENT_KINDS)})")
    if do == "neighbours":
        every = t.get("every", float, 5.0)
        items = t.get("list", list, required=True)
        t.done()
        out = []
        for n, item in enumerate(items):
            words = item.split() if isinstance(item, str) else []
            if not 2 <= len(words) <= 4 or words[0] not in NEIGHBOUR_TYPES or not all(w.isdigit() for w in words[2:]):
                raise ScenarioError(f"{t.where}: list entry {item!r} is not \"KIND MAC [FAMILY [RADIO]]\" "
                                    f"with KIND one of {', '.join(NEIGHBOUR_TYPES)}")
            fake = Table({"mac": words[1], **dict(zip(("family", "radio"), map(int, words[2:])))}, f"{t.where} {item!r}")
            out.append(Event(at + n * every, after, words[0], _neighbour(fake, words[0]), t.where))
        return out
    args = _EVENT_PARSERS[do](t, sc)
    t.done()
    return [Event(at, after, do, args, t.where)]


def _clock_step(t: Table) -> Event:
    """A step of the wall clock: `by` seconds (negative: back) or `to` epoch
    seconds, `at` daemon seconds after `after`."""
    at = t.get("at", float, 0.0)
    after = t.get("after", str, "start")
    check_milestone(after, t.where)
    by = t.get("by", float)
    to = t.get("to", float)
    t.done()
    if at < 0 or (by is None) == (to is None) or (to is not None and to < 0):
        raise ScenarioError(f"{t.where}: at must not be negative; exactly one of by (seconds) and to "
                            f"(epoch seconds, not negative)")
    return Event(at, after, "clock_step", {"by": by, "to": to}, t.where)


def _fault(t: Table) -> Fault:
    at = t.get("at", float, 0.0)
    after = t.get("after", str, "start")
    check_milestone(after, t.where)
    rule = " ".join(t.get("rule", str, required=True).split())
    lasts = t.get("lasts", float)
    optional = t.get("optional", bool, False)
    t.done()
    if at < 0 or (lasts is not None and lasts <= 0):
        raise ScenarioError(f"{t.where}: at must not be negative, lasts must be positive")
    words = rule.split()
    if not words or words[0] not in FAULT_CALLS:
        raise ScenarioError(f"{t.where}: rule {rule!r} must start with a call ({', '.join(FAULT_CALLS)})")
    for w in words[1:]:
        key, eq, value = w.partition("=")
        if not (w == "every" or (eq and value and key in FAULT_KEYS)):
            raise ScenarioError(f"{t.where}: rule {rule!r}: {w!r} is not KEY=VALUE with KEY one of "
                                f"{', '.join(FAULT_KEYS)}, nor \"every\"")
    return Fault(rule, at, after, lasts, optional, t.where)


def _neighbour(t: Table, do: str) -> dict:
    mac = parse_mac(t.get("mac", str, required=True), t.where)
    family = _int_in(t.get("family", int, 0), 0, 255, f"{t.where}: family")
    radio = _int_in(t.get("radio", int, 0), 0, 255, f"{t.where}: radio")
    return {"mac": mac, "family": family, "radio": radio, "data": mac + bytes([NEIGHBOUR_TYPES[do], family, radio])}


def _datagram(t: Table, sc: Scenario) -> dict:
    try:
        data = bytes.fromhex(t.get("hex", str, required=True).replace(":", " "))
    except ValueError:
        raise ScenarioError(f"{t.where}: hex is not a string of hexadecimal bytes") from None
    return {"data": data, "bytes": len(data)}


def _ft_status(t: Table, sc: Scenario) -> dict:
    values, mask = {}, 0
    for name, value in t.get("vaps", dict, required=True).items():
        m = re.fullmatch(r"wifi([0-2])vap([0-9])", name)
        if not m or isinstance(value, bool) or not isinstance(value, (int, str)):
            raise ScenarioError(f"{t.where}: vaps maps wifiRvapV names to 11rStatus values")
        values[FT_KEY.format(r=m.group(1), v=m.group(2))] = str(value)
        mask |= 1 << (10 * int(m.group(1)) + int(m.group(2)))
    return {"vaps": values, "value": t.get("value", int, mask)}


def _voice(t: Table, sc: Scenario) -> dict:
    return {"radio": _declared_radio(t, sc), "on": t.get("on", bool, required=True)}


def _cac(t: Table, sc: Scenario) -> dict:
    vap = t.get("vap", str, required=True)
    if not re.fullmatch(r"wifi[0-2]vap[0-9]|ath[0-2]", vap):
        raise ScenarioError(f"{t.where}: vap {vap!r} is not a VAP name (wifiRvapV or athR)")
    return {"vap": vap, "state": t.get("state", int, required=True)}


def _link(t: Table, sc: Scenario) -> dict:
    names_ = t.get("names", list, required=True)
    unknown = [n for n in names_ if n not in sc.links()]
    if unknown or not names_:
        raise ScenarioError(f"{t.where}: names must be interfaces of the scenario's radios, not {unknown or names_}")
    return {"names": names_, "up": t.get("up", bool, required=True)}


def _driver(t: Table, sc: Scenario) -> dict:
    out = {"radio": _declared_radio(t, sc)}
    for key in DRIVER_ERRORS:
        value = t.get(key, int)
        if value is not None:
            out[key] = _int_in(value, 0, 4095, f"{t.where}: {key} (an errno, 0 for success)")
    if len(out) == 1:
        raise ScenarioError(f"{t.where}: name at least one of {', '.join(DRIVER_ERRORS)}")
    return out


def _configd(t: Table, sc: Scenario) -> dict:
    mode = t.get("mode", str, required=True)
    if mode not in ("stall", "normal", "close"):
        raise ScenarioError(f"{t.where}: mode is stall, close or normal")
    return {"mode": mode, "times": t.get("times", int)}


def _signal(t: Table, sc: Scenario) -> dict:
    return {"number": _int_in(t.get("number", int, required=True), 1, 64, f"{t.where}: number"),
            "value": t.get("value", int)}


_EVENT_PARSERS = {"kh_add": lambda t, sc: _neighbour(t, "kh_add"), "ap_add": lambda t, sc: _neighbour(t, "ap_add"),
                  "ap_del": lambda t, sc: _neighbour(t, "ap_del"), "datagram": _datagram, "ft_status": _ft_status,
                  "voice": _voice, "cac": _cac, "link": _link, "driver": _driver, "configd": _configd,
                  "signal": _signal}


# ---- expectations ----------------------------------------------------------------------------

EXPECT_KINDS = ("file", "key_holders", "db", "script_runs", "script_run", "log", "syslog", "running", "exit_code",
                "consistent", "requests")


def _expectation(t: Table) -> Expectation:
    kinds = [k for k in EXPECT_KINDS if k in t.data]
    if len(kinds) != 1:
        raise ScenarioError(f"{t.where}: give exactly one of {', '.join(EXPECT_KINDS)}"
                            + (f" (found {', '.join(kinds)})" if kinds else f" (keys: {', '.join(t.data)})"))
    kind = kinds[0]
    what = t.get("what", str, "")
    phase = t.get("phase", str, "exit" if kind == "exit_code" else "end")
    if phase not in ("end", "exit") or (kind == "exit_code" and phase != "exit"):
        raise ScenarioError(f"{t.where}: phase is end (before signal 10) or exit (after; always for exit_code)")
    args = {kind: t.get(kind, _EXPECT_TYPES[kind])}
    _EXPECT_OPTIONS[kind](t, args)
    t.done()
    return Expectation(kind, args, phase, what, t.where)


def _counts(t: Table, out: dict) -> None:
    count, lo, hi = t.get("count", int), t.get("min", int), t.get("max", int)
    if count is not None and (lo is not None or hi is not None):
        raise ScenarioError(f"{t.where}: count excludes min and max")
    out["min"] = count if count is not None else (lo if lo is not None else (1 if hi is None else 0))
    out["max"] = count if count is not None else hi


def _file_opts(t: Table, out: dict) -> None:
    if not out["file"].startswith("/"):
        raise ScenarioError(f"{t.where}: file is an absolute path of the daemon's file system")
    out["exists"] = t.get("exists", bool, True)
    out["text"] = t.get("text", str)
    out["lines"] = _strings(t, "lines", None)
    out["has_lines"] = _strings(t, "has_lines")
    out["unordered"] = t.get("unordered", bool, False)


def _records_opts(t: Table, out: dict) -> None:
    out["records"] = parse_records_text(out["key_holders"], t.where)
    out["unordered"] = t.get("unordered", bool, False)


def _db_opts(t: Table, out: dict) -> None:
    if out["db"] not in BANDS:
        raise ScenarioError(f"{t.where}: db is one of {', '.join(BANDS)}")
    out["table"] = t.get("table", str, required=True)
    if out["table"] not in ("CHANNEL_DETAILS", "SCANNED_AP_DETAILS"):
        raise ScenarioError(f"{t.where}: table is CHANNEL_DETAILS or SCANNED_AP_DETAILS")
    out["rows"] = t.get("rows", list, [])
    if any(not isinstance(r, dict) or not r for r in out["rows"]):
        raise ScenarioError(f"{t.where}: rows are tables of COLUMN = value")
    out["count"] = t.get("count", int)


def _script_run_opts(t: Table, out: dict) -> None:
    if out["script_run"] == 0:
        raise ScenarioError(f"{t.where}: script_run counts from 1 (or from -1 backwards)")
    out["ap2_macaddr"] = _strings(t, "ap2_macaddr", None)
    out["ft_key_changed"] = _strings(t, "ft_key_changed", None)
    out["new_key_changes"] = _strings(t, "new_key_changes", None)
    recs = t.get("records", list)
    out["records"] = None if recs is None else parse_records_text(recs, t.where)


def _requests_opts(t: Table, out: dict) -> None:
    out["fields"] = {str(k): str(v) for k, v in t.get("fields", dict, {}).items()}
    _counts(t, out)


_EXPECT_TYPES = {"file": str, "key_holders": list, "db": str, "script_runs": int, "script_run": int, "log": str,
                 "syslog": str, "running": bool, "exit_code": int, "consistent": bool, "requests": str}
_EXPECT_OPTIONS = {"file": _file_opts, "key_holders": _records_opts, "db": _db_opts,
                   "script_runs": lambda t, out: out.update(min=out["script_runs"], max=t.get("max", int, out["script_runs"])),
                   "script_run": _script_run_opts, "log": _counts, "syslog": _counts, "running": lambda t, out: None,
                   "exit_code": lambda t, out: None, "consistent": lambda t, out: None, "requests": _requests_opts}


# ---- small helpers ---------------------------------------------------------------------------


def parse_mac(text: str, where: str) -> bytes:
    if not isinstance(text, str) or not MAC_RE.match(text):
        raise ScenarioError(f"{where}: {text!r} is not a MAC address (six hex pairs, ':' or '-')")
    return bytes(int(x, 16) for x in re.split(r"[:-]", text))


def mac_text(mac: bytes, sep: str = ":") -> str:
    return sep.join(f"{b:02X}" for b in mac)


def parse_records_text(items: list, where: str) -> list[tuple[bytes, int, int]]:
    """Key-holder records written as "MAC ACTIVE FAMILY" texts."""
    out = []
    for item in items:
        words = item.split() if isinstance(item, str) else []
        if len(words) != 3 or not words[1].isdigit() or not words[2].isdigit():
            raise ScenarioError(f"{where}: key-holder records are \"MAC ACTIVE FAMILY\" texts, not {item!r}")
        out.append((parse_mac(words[0], where), int(words[1]) & 0xFF, int(words[2]) & 0xFF))
    return out


def _strings(t: Table, key: str, default=()):
    value = t.get(key, list, None)
    if value is None:
        return list(default) if default is not None else None
    if any(not isinstance(x, str) for x in value):
        raise ScenarioError(f"{t.where}: {key} is a list of texts")
    return value


def _declared_radio(t: Table, sc: Scenario) -> int:
    r = _int_in(t.get("radio", int, required=True), 0, 2, f"{t.where}: radio")
    if sc.radio(r) is None:
        raise ScenarioError(f"{t.where}: radio {r} is not declared")
    return r


def _int_in(value, lo, hi, where) -> int:
    if isinstance(value, bool) or not isinstance(value, int) or not lo <= value <= hi:
        raise ScenarioError(f"{where}: {value!r} is not a whole number from {lo} to {hi}")
    return value


def _atoi(text: str) -> int:
    m = re.match(r"\s*([+-]?\d+)", text)
    return int(m.group(1)) if m else 0


def _type_names(types) -> str:
    names_ = {str: "a text", int: "a whole number", float: "a number", bool: "true or false", list: "a list",
              dict: "a table"}
    return " or ".join(names_.get(t, t.__name__) for t in types)


def _short(v) -> str:
    if isinstance(v, bytes):
        return mac_text(v) if len(v) == 6 else v.hex()
    if isinstance(v, dict):
        return "{" + ", ".join(f"{':'.join(k.split(':')[-3:-1]) or k}={_short(x)}" for k, x in v.items()) + "}"
    if isinstance(v, list):
        return ",".join(map(str, v)) if len(v) <= 3 else f"[{len(v)} items]"
    return str(v)
