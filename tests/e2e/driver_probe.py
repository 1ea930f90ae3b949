"""Issues driver requests the way the daemon does, so that the simulated
driver can be checked on its own. Run in a private network namespace with the
preload library active for this process (DORVSIM_PROCESS=python3):

    driver_probe.py '{"links": {"wifi0": true}, "calls": [{"op": "flags", "if": "wifi0"}]}'

Prints one JSON list: per call its result code, errno and the fields the
driver filled. The structures mirror the driver's layouts on this machine's
word size, as src/scan/driver.h does.
"""

import ctypes
import json
import os
import select
import subprocess
import sys
import time
import socket
from ctypes import (Structure, Union, addressof, c_char, c_int, c_int16, c_int32, c_uint8, c_uint16, c_uint32,
                    c_uint64, c_ulong, c_void_p, sizeof)

libc = ctypes.CDLL(None, use_errno=True)
libc.ioctl.argtypes = [c_int, c_ulong, c_void_p]
libc.ioctl.restype = c_int

SIOCGIFFLAGS = 0x8913
PARAM_SET, PARAM_GET, CHAN_INFO, DEBUG, EXT_CMD = 0x8BE0, 0x8BE1, 0x8BE7, 0x8BF8, 0x89F8


class ParamReq(Structure):
    _fields_ = [("name", c_char * 16), ("param", c_int32), ("value", c_int32), ("reserved", c_uint8 * 8)]


class IwData(Structure):
    _fields_ = [("pointer", c_void_p), ("length", c_uint16), ("flags", c_uint16)]


class IwUnion(Union):
    _fields_ = [("data", IwData), ("raw", c_uint8 * 16)]


class IwReq(Structure):
    _fields_ = [("name", c_char * 16), ("u", IwUnion)]


class IfUnion(Union):
    _fields_ = [("flags", c_int16), ("data", c_void_p), ("raw", c_uint8 * 24)]


class IfReq(Structure):
    _fields_ = [("name", c_char * 16), ("u", IfUnion)]


class ExtCmd(Structure):
    _fields_ = [("cmd", c_uint32), ("data", c_void_p), ("length", c_uint32)]


class VoiceStats(Structure):
    _fields_ = [("reserved0", c_uint8 * 16), ("prev", c_uint64), ("cur", c_uint64), ("reserved32", c_uint8),
                ("voice_bit", c_uint8), ("reserved34", c_uint8 * 6)]


class ChanScan(Structure):
    _fields_ = [("word", c_uint32 * 5), ("flag", c_uint8 * 2), ("channel", c_uint8), ("reserved", c_uint8 * 33)]


class Neighbour(Structure):
    _fields_ = [("phymode", c_int32), ("rssi", c_int32), ("bssid", c_uint8 * 6), ("reserved14", c_uint8),
                ("ssid", c_char * 33), ("vx_ap_type", c_uint8), ("reserved49", c_uint8 * 3)]


class NbrUnion(Union):
    _fields_ = [("pointer", c_void_p), ("raw", c_uint8 * 8)]


class Report(Structure):
    _fields_ = [("count", c_uint8), ("wanted", c_uint8), ("reserved2", c_uint8 * 2), ("ieee_chan", c_uint8),
                ("chan_nbss", c_uint8), ("reserved6", c_uint8 * 2), ("max_rssi", c_int32), ("min_rssi", c_int32),
                ("noise_floor", c_int16), ("spectral_load", c_int16), ("chan_load", c_uint32),
                ("reserved24", c_uint8 * 4), ("nbr_length", c_uint32), ("nbr", NbrUnion), ("chan_rank", c_int32),
                ("reserved44", c_uint8 * 144)]


class DebugBlock(Structure):
    _fields_ = [("cmd", c_uint8), ("reserved1", c_uint8 * 7), ("zero", c_uint32), ("report_length", c_uint32),
                ("report", c_void_p), ("reserved", c_uint8 * 1016)]


assert sizeof(Neighbour) == 52 and Report.chan_rank.offset == 40 and VoiceStats.voice_bit.offset == 33


def issue(request, block):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)  # as the daemon
    try:
        ctypes.set_errno(0)
        rc = libc.ioctl(sock.fileno(), request, addressof(block))
        return {"rc": rc, "errno": ctypes.get_errno() if rc < 0 else 0}
    finally:
        sock.close()


def op_flags(c):
    req = IfReq(name=c["if"].encode())
    out = issue(SIOCGIFFLAGS, req)
    out["up"] = req.u.flags & 1
    return out


def op_param(c, request, param, value=0):
    req = ParamReq(name=c["if"].encode(), param=c.get("param", param), value=c.get("value", value))
    out = issue(request, req)
    out["param"] = req.param
    return out


def op_chan_info(c):
    buf = (c_uint8 * 20464)()
    req = IwReq(name=c["if"].encode())
    req.u.data.pointer = addressof(buf)
    req.u.data.length = c.get("len", 20464)
    out = issue(CHAN_INFO, req)
    out["count"] = buf[0]
    out["channels"] = [buf[4 + 20 * i + 10] for i in range(buf[0])]
    return out


def ssid_of(n):
    """The SSID field's bytes up to the last non-NUL one (an SSID may hold NULs)."""
    return ctypes.string_at(addressof(n) + Neighbour.ssid.offset, 33).rstrip(b"\0")


def op_report(c):
    report = Report(wanted=c.get("wanted", 0))
    nbrs = (Neighbour * 300)()
    if c.get("nbr_len"):
        report.nbr_length = c["nbr_len"]
        report.nbr.pointer = addressof(nbrs)
    blk = DebugBlock(cmd=c.get("cmd", 20), report_length=188)
    blk.report = addressof(report)
    req = IwReq(name=c["if"].encode())
    req.u.data.pointer = addressof(blk)
    req.u.data.length = 1036
    out = issue(DEBUG, req)
    out.update({k: getattr(report, k) for k in ("count", "ieee_chan", "chan_nbss", "max_rssi", "min_rssi",
                                                  "noise_floor", "spectral_load", "chan_load", "chan_rank")})
    fit = min(300, c.get("nbr_len", 0) // 52)
    out["nbrs"] = [{"bssid": ":".join(f"{b:02x}" for b in n.bssid), "rssi": n.rssi, "phymode": n.phymode,
                    "vx_ap_type": n.vx_ap_type, "ssid": ssid_of(n).hex()}
                   for n in nbrs[:min(fit, report.chan_nbss)]]
    return out


def op_ext(c, cmd, data):
    ext = ExtCmd(cmd=cmd, length=c.get("len", sizeof(data)))
    ext.data = addressof(data)
    req = IfReq(name=c["if"].encode())
    req.u.data = addressof(ext)
    return issue(EXT_CMD, req)


def op_voice(c):
    vs = VoiceStats()
    out = op_ext(c, 23, vs)
    out.update(bit=vs.voice_bit, prev=vs.prev, cur=vs.cur)
    return out


def op_chan_scan(c):
    blk = ChanScan(channel=c["chan"] & 0xFF)
    for i, w in enumerate((110, 60, 100, 50, 1500)):
        blk.word[i] = w
    blk.flag[0] = blk.flag[1] = 1
    return op_ext(c, 6, blk)


def op_clock(c):
    """Waits `secs` daemon seconds with `how` and reports both clocks."""
    m0, t0, e0 = time.monotonic(), time.time(), os.times().elapsed
    how = c["how"]
    if how == "select":
        select.select([], [], [], c["secs"])
    elif how == "sleep":
        libc.sleep(int(c["secs"]))
    elif how == "usleep":
        libc.usleep(int(c["secs"] * 1e6))
    return {"rc": 0, "real": time.monotonic() - m0, "wall": time.time() - t0, "ticks": os.times().elapsed - e0}


def op_write_state(c):
    tmp = c["path"] + ".new"
    with open(tmp, "w") as f:
        f.write(c["text"])
    os.replace(tmp, c["path"])
    return {"rc": 0}


OPS = {
    "flags": op_flags,
    "acs": lambda c: op_param(c, PARAM_SET, 318, 4),
    "cac": lambda c: op_param(c, PARAM_GET, 310),
    "chan_info": op_chan_info,
    "report": op_report,
    "voice": op_voice,
    "chan_scan": op_chan_scan,
    "clock": op_clock,
    "write_state": op_write_state,
}


def main():
    plan = json.loads(sys.argv[1])
    cmds = ["link set lo up"]
    for i, (name, up) in enumerate(plan.get("links", {}).items()):
        cmds.append(f"link add {name} type veth peer name probe{i}")
        if up:
            cmds.append(f"link set {name} up")
    subprocess.run(["ip", "-batch", "-"], input="\n".join(cmds) + "\n", text=True, check=True)
    print(json.dumps([OPS[c["op"]](c) for c in plan["calls"]]))


if __name__ == "__main__":
    main()
