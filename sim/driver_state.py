"""The simulated driver's state: what each radio answers to the daemon's
driver requests. Written as the text file that the preload library reads
(env DORVSIM_STATE) and re-reads whenever the file is replaced.

File format, one directive per line, words separated by blanks, '#' starts a
comment line; the first directive must be "dorvsim-state 1". Errors are
numeric errno values; a failing request returns -1 with that errno.

    radio R acs ok | fail ERRNO          ACS scan start (0x8BE0, param 318)
    radio R chanscan ok | fail ERRNO     single-channel scan (0x89F8 cmd 6)
    radio R voice BIT PREV CUR | fail ERRNO
                                         voice statistics (0x89F8 cmd 23)
    radio R chaninfo [CH ...] | fail ERRNO
                                         channel list (0x8BE7); without this
                                         line the report's channels are used
    radio R report ok | fail ERRNO | failat N ERRNO
                                         ACS report (0x8BF8 cmd 20); failat
                                         fails only the N-th report request
                                         counted since the file was loaded
    radio R overflow nbss | rc7          how a too-small neighbour buffer is
                                         signalled: by chan_nbss alone, or
                                         also by the result 7
    cac IFNAME VALUE | fail ERRNO        CAC state of a VAP (0x8BE1, param
                                         310); other VAPs answer 0
    chan R IEEE MAX_RSSI MIN_RSSI NOISE SPECTRAL LOAD RANK
                                         one channel entry of radio R's report
    bss R IEEE BSSID RSSI PHYMODE VX_AP_TYPE SSID...
                                         one neighbour on a channel declared
                                         above; the SSID is the rest of the
                                         line, with \\\\ and \\xHH escapes

Radios are 0..2; counts are limited to 255 by the driver's one-byte fields.
Interfaces map to radios by name: wifiN, wifiNvapM and athN are radio N.
"""

from __future__ import annotations

import dataclasses
import os
from dataclasses import dataclass, field

HEADER = "dorvsim-state 1"
RADIOS = 3
MAX_ITEMS = 255
MAX_SSID = 32


@dataclass
class Bss:
    """A neighbouring BSS seen on a channel."""

    bssid: str
    rssi: int = -60
    phymode: int = 0
    vx_ap_type: int = 0
    ssid: bytes | str = ""


@dataclass
class Channel:
    """One channel entry of a radio's ACS report."""

    ieee: int
    max_rssi: int = -40
    min_rssi: int = -90
    noise_floor: int = -95
    spectral_load: int = 0
    chan_load: int = 10
    chan_rank: int = 0
    bss: list[Bss] = field(default_factory=list)


@dataclass
class Radio:
    """What one radio answers. An `*_error` of 0 means the request succeeds."""

    acs_error: int = 0
    chan_scan_error: int = 0
    voice_error: int = 0
    chan_info_error: int = 0
    report_error: int = 0
    report_fail_at: tuple[int, int] | None = None  # (n-th request, errno)
    overflow: str = "nbss"  # or "rc7"
    voice_bit: int = 0
    prev_voice_pkts: int = 0
    cur_voice_pkts: int = 0
    chan_info: list[int] | None = None  # None: the report's channels
    channels: list[Channel] = field(default_factory=list)


@dataclass
class DriverState:
    radios: list[Radio] = field(default_factory=lambda: [Radio() for _ in range(RADIOS)])
    cac: dict[str, int] = field(default_factory=dict)  # VAP name -> CAC state
    cac_errors: dict[str, int] = field(default_factory=dict)  # VAP name -> errno

    @classmethod
    def from_dict(cls, d: dict | None) -> "DriverState":
        """Builds a state from a scenario dict such as
        {"radios": {1: {"voice_bit": 1, "channels": [{"ieee": 36, "bss": [
        {"bssid": "00:11:22:33:44:55", "ssid": "x"}]}]}}, "cac": {"wifi1vap0": 1}}."""
        st = cls()
        d = dict(d or {})
        for key, radio in dict(d.pop("radios", {})).items():
            st.radios[int(key)] = _radio_from_dict(radio)
        st.cac = {str(k): int(v) for k, v in dict(d.pop("cac", {})).items()}
        st.cac_errors = {str(k): int(v) for k, v in dict(d.pop("cac_errors", {})).items()}
        if d:
            raise ValueError(f"unknown driver settings: {sorted(d)}")
        return st

    def render(self) -> str:
        lines = [HEADER]
        for r, radio in enumerate(self.radios):
            lines += _radio_lines(r, radio)
        for name, value in self.cac.items():
            lines.append(f"cac {_ifname(name)} {int(value)}")
        for name, err in self.cac_errors.items():
            lines.append(f"cac {_ifname(name)} fail {_errno(err)}")
        return "\n".join(lines) + "\n"

    def write(self, path: str | os.PathLike) -> None:
        """Replaces the file at `path` in one rename, so the daemon never reads
        half of it."""
        write_atomic(path, self.render().encode())


def write_atomic(path: str | os.PathLike, data: bytes) -> None:
    path = os.fspath(path)
    tmp = f"{path}.tmp{os.getpid()}"
    try:
        with open(tmp, "wb") as f:
            f.write(data)
        os.replace(tmp, path)
    finally:
        if os.path.exists(tmp):
            os.unlink(tmp)


def _radio_from_dict(d: dict) -> Radio:
    d = dict(d)
    chans = [_channel_from_dict(c) for c in d.pop("channels", [])]
    names = {f.name for f in dataclasses.fields(Radio)}
    unknown = set(d) - names
    if unknown:
        raise ValueError(f"unknown radio settings: {sorted(unknown)}")
    if "report_fail_at" in d and d["report_fail_at"] is not None:
        d["report_fail_at"] = tuple(d["report_fail_at"])
    return Radio(channels=chans, **d)


def _channel_from_dict(c: dict | Channel) -> Channel:
    if isinstance(c, Channel):
        return c
    c = dict(c)
    bss = [b if isinstance(b, Bss) else Bss(**b) for b in c.pop("bss", [])]
    return Channel(bss=bss, **c)


def _errno(err: int) -> int:
    err = int(err)
    if not 1 <= err <= 4095:
        raise ValueError(f"errno out of range: {err}")
    return err


def _ifname(name: str) -> str:
    if not name or len(name) > 15 or any(ch.isspace() for ch in name):
        raise ValueError(f"bad interface name {name!r}")
    return name


def _outcome(err: int) -> str:
    return "ok" if not err else f"fail {_errno(err)}"


def _radio_lines(r: int, radio: Radio) -> list[str]:
    out = [
        f"radio {r} acs {_outcome(radio.acs_error)}",
        f"radio {r} chanscan {_outcome(radio.chan_scan_error)}",
        f"radio {r} overflow {radio.overflow}",
    ]
    if radio.voice_error:
        out.append(f"radio {r} voice fail {_errno(radio.voice_error)}")
    else:
        out.append(f"radio {r} voice {radio.voice_bit} {radio.prev_voice_pkts} {radio.cur_voice_pkts}")
    if radio.chan_info_error:
        out.append(f"radio {r} chaninfo fail {_errno(radio.chan_info_error)}")
    elif radio.chan_info is not None:
        out.append(" ".join([f"radio {r} chaninfo"] + [str(int(c)) for c in radio.chan_info]))
    if radio.report_fail_at:
        n, err = radio.report_fail_at
        out.append(f"radio {r} report failat {int(n)} {_errno(err)}")
    else:
        out.append(f"radio {r} report {_outcome(radio.report_error)}")
    if len(radio.channels) > MAX_ITEMS:
        raise ValueError("a report holds at most 255 channels")
    for ch in radio.channels:
        out.append(f"chan {r} {ch.ieee} {ch.max_rssi} {ch.min_rssi} {ch.noise_floor} "
                   f"{ch.spectral_load} {ch.chan_load} {ch.chan_rank}")
        if len(ch.bss) > MAX_ITEMS:
            raise ValueError("a channel holds at most 255 BSSs")
        for b in ch.bss:
            out.append(f"bss {r} {ch.ieee} {b.bssid} {b.rssi} {b.phymode} {b.vx_ap_type} {_escape_ssid(b.ssid)}")
    return out


def _escape_ssid(ssid: bytes | str) -> str:
    raw = ssid.encode() if isinstance(ssid, str) else bytes(ssid)
    if len(raw) > MAX_SSID:
        raise ValueError(f"SSID longer than {MAX_SSID} bytes: {raw!r}")
    out = []
    for i, byte in enumerate(raw):
        ch = chr(byte)
        edge_blank = ch in " \t" and (i == 0 or i == len(raw) - 1)
        if ch == "\\":
            out.append("\\\\")
        elif 0x21 <= byte <= 0x7E or (ch == " " and not edge_blank):
            out.append(ch)
        else:
            out.append(f"\\x{byte:02x}")
    return "".join(out)
