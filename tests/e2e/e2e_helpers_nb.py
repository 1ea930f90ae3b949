"""Helpers of the neighbour and 802.11r end-to-end tests: neighbour event
datagrams, a barrier for their handling, the configuration store's 11rStatus
table, readers of the key-holder files, and a model of what the daemon's
files must hold after a run of events."""

from __future__ import annotations

import re

AP_DELETION, AP_ADDITION, KH_ADDITION = 0, 1, 2
WAITING = "Waiting for events from  pxlmd\n"
FT_KEY = "system:vapSettings:vapSettingTable:wlan{r}:vap{v}:11rStatus"
AP2MAC = "/tmp/ap2_macaddr.txt"
KEY_CHANGED = "/tmp/ft_key_changed.txt"
KEY_HOLDERS = "/var/roam_key_holders"
RECORD = 16
AP2MAC_LINE_RE = re.compile(r"ap2_macaddr_wifi[0-2]vap\d=(?:[0-9A-F]{2}(?::[0-9A-F]{2}){5})?"
                            r"(?: +[0-9A-F]{2}(?::[0-9A-F]{2}){5})* *")


def mac_bytes(text: str) -> bytes:
    """b'\\x0a\\x1b...' from "0A:1B:2C:3D:4E:50"."""
    return bytes(int(part, 16) for part in text.split(":"))


def mac_text(mac: bytes) -> str:
    """Upper case with colons, as the daemon's text files write a MAC."""
    return ":".join(f"{b:02X}" for b in mac)


def event(mac: str | bytes, kind: int, family: int = 0, wlan: int = 0) -> bytes:
    """The 9-byte neighbour event datagram."""
    raw = mac_bytes(mac) if isinstance(mac, str) else bytes(mac)
    assert len(raw) == 6
    return raw + bytes([kind, family, wlan])


def send_and_wait(sb, data: bytes, timeout: float = 5.0) -> str:
    """Sends one datagram and waits until the event thread is back at its
    receive, that is until the event has been handled. Returns the log."""
    sb.wait_for_log(WAITING, timeout=timeout)  # the thread is serving
    seen = sb.log_text().count(WAITING)
    sb.send_event(data)
    return sb.wait_for_log(WAITING, timeout=timeout, count=seen + 1)


def ft_table(enabled=(), radios: int = 3, values: dict | None = None) -> dict:
    """The configuration store's table: an 11rStatus for every VAP, "1" for
    the (radio, vap) pairs in `enabled`, "0" elsewhere, then `values`
    ({(radio, vap): text}) on top."""
    table = {FT_KEY.format(r=r, v=v): "1" if (r, v) in enabled else "0" for r in range(radios) for v in range(10)}
    for (r, v), text in (values or {}).items():
        table[FT_KEY.format(r=r, v=v)] = text
    return table


def mask_of(pairs) -> int:
    """ft_enabled_vaps for the (radio, vap) pairs."""
    return sum(1 << (10 * r + v) for r, v in set(pairs))


def refresh_line(mask: int) -> str:
    """The last line of a full refresh (two blanks before the '=')."""
    return f"ft_enabled_vaps  = {mask:08X} \n"


def read_bytes(sb, path: str) -> bytes | None:
    p = sb.path(path)
    return p.read_bytes() if p.exists() else None


def read_text(sb, path: str) -> str | None:
    data = read_bytes(sb, path)
    return None if data is None else data.decode()


def key_holder_records(data: bytes | None) -> list[tuple[str, int, int]]:
    """(MAC text, active, family) of every record; fails on a partial one."""
    data = data or b""
    assert len(data) % RECORD == 0, f"/var/roam_key_holders is {len(data)} bytes, expected a multiple of {RECORD}"
    return [(mac_text(data[i + 8:i + 14]), data[i + 14], data[i + 15]) for i in range(0, len(data), RECORD)]


def record(mac: str, family: int = 0, active: int = 1) -> bytes:
    """The 16-byte record the daemon writes for a key holder (links zero)."""
    return bytes(8) + mac_bytes(mac) + bytes([active, family])


def offsets(family: int) -> tuple[int, int, int]:
    """(ethOffset, wlanDiff, firstVapOffset) by family."""
    return (0x0F, 0x10, 0) if family == 0 else (0x1F, 0x20, 1)


def neighbour_bssids(mac: bytes, last: int, vap: int, family: int) -> list[str]:
    """The three neighbour BSSID texts of local VAP `vap` for a key holder
    whose first five bytes are mac's and whose last byte is `last`."""
    eth, diff, first = offsets(family)
    return [mac_text(mac[:5] + bytes([(last - eth + diff * k + vap + first) & 0xFF])) for k in range(3)]


class FilesModel:
    """What the key-holder files must hold after a series of datagrams, for
    a daemon whose 802.11r mask is fixed (`enabled`, in radio then VAP order)
    and whose known-AP tables play no part (no scan matches)."""

    LINE_MAX = 1022  # characters of an ap2_macaddr line

    def __init__(self, radios: int, enabled):
        self.radios = radios
        self.enabled = sorted(enabled)
        self.key_holders: list[tuple[bytes, int]] = []  # (MAC, family) in list order
        self.ap2: list[str] | None = None  # lines, None while the file is absent
        self.key_changes: list[str] = []
        self.script_runs = 0

    def apply(self, data: bytes) -> None:
        if not data:
            return  # an empty datagram is "no data"
        ev = (data + bytes(9))[:9]
        mac, kind, family, wlan = ev[:6], ev[6], ev[7], ev[8]
        if kind not in (AP_DELETION, AP_ADDITION, KH_ADDITION) or wlan >= self.radios or kind == AP_ADDITION:
            return
        if kind == KH_ADDITION:
            self._kh_addition(mac, family, wlan)
        else:
            self._ap_deletion(mac, family, wlan)

    def key_holder_bytes(self) -> bytes:
        return b"".join(bytes(8) + mac + bytes([1, family]) for mac, family in self.key_holders)

    def ap2_text(self) -> str | None:
        return None if self.ap2 is None else "".join(line + "\n" for line in self.ap2)

    def key_change_text(self) -> str | None:
        return "".join(line + "\n" for line in self.key_changes) if self.key_changes else None

    def _kh_addition(self, mac: bytes, family: int, wlan: int) -> None:
        kh = bytearray(mac)
        if family in (0, 1):
            eth, diff, _ = offsets(family)
            kh[5] = (kh[5] + eth - diff * wlan) & 0xFF
        kh = bytes(kh)
        if any(m == kh for m, _ in self.key_holders):
            return
        for r, v in self.enabled:
            self.key_changes.append(f"ft_key_changed_wifi{r}vap{v}=1,1")
            for text in neighbour_bssids(kh, kh[5], v, family):
                self._ap2_add(f"ap2_macaddr_wifi{r}vap{v}", text)
        self.key_holders.append((kh, family))
        self.script_runs += 1

    def _ap_deletion(self, mac: bytes, family: int, wlan: int) -> None:
        self.key_holders = [(m, f) for m, f in self.key_holders if m[:5] != mac[:5]]
        eth, diff, _ = offsets(family)
        last = ((mac[5] & 0xF0) - ((wlan * diff) & 0xFF) + eth) & 0xFF
        for r, v in self.enabled:
            self.key_changes.append(f"ft_key_changed_wifi{r}vap{v}=1,0")
            for text in neighbour_bssids(mac, last, v, family):
                self._ap2_delete(f"ap2_macaddr_wifi{r}vap{v}", text)
        self.script_runs += 1

    def _ap2_add(self, key: str, text: str) -> None:
        if self.ap2 is None:
            self.ap2 = [f"{key}={text}"]
        elif not any(key in line for line in self.ap2):
            self.ap2.append(f"{key}={text}")
        else:
            self.ap2 = [self._added(line, text) if key in line else line for line in self.ap2 if len(line) >= 20]

    def _added(self, line: str, text: str) -> str:
        if text in line or len(line) + 1 + len(text) > self.LINE_MAX:
            return line
        return f"{line} {text}"

    def _ap2_delete(self, key: str, text: str) -> None:
        if self.ap2 is None:
            return
        self.ap2 = [self._deleted(line, key, text) if key in line else line for line in self.ap2 if len(line) >= 20]

    @staticmethod
    def _deleted(line: str, key: str, text: str) -> str:
        tokens = [t for t in line.split(" ") if t]
        bssids = [tokens[0][len(key) + 1:]] + tokens[1:]
        return f"{key}=" + "".join(b + " " for b in bssids if b != text)
