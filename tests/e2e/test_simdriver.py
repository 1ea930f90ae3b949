"""The simulated driver and clock on their own: driver requests issued the way
the daemon issues them, answered from a state file (driver_probe.py)."""

import errno

import pytest

from sim.driver_state import Bss, Channel, DriverState, Radio


def bss(i, **kw):
    return {"bssid": f"02:00:00:00:{i >> 8:02x}:{i & 0xff:02x}", **kw}


def test_simdriver_bad_state_file_fails_every_request(driver_probe):
    """A state file with a bad line makes every private request fail with EIO and says which line."""
    state = "dorvsim-state 1\nradio 1 acs ok\nradio 1 voice 1 2\n"
    res, log = driver_probe(state, [{"op": "acs", "if": "wifi1vap0"}, {"op": "voice", "if": "wifi1"},
                                    {"op": "cac", "if": "wifi1vap0"}, {"op": "flags", "if": "wifi1"}])
    assert [(r["rc"], r["errno"]) for r in res[:3]] == [(-1, errno.EIO)] * 3
    assert res[3] == {"rc": 0, "errno": 0, "up": 1}, "interface flags are the kernel's whatever the state"
    errors = [r["msg"] for r in log if r["req"] == "sim_error"]
    assert errors and "line 3" in errors[0], errors


@pytest.mark.parametrize("text, problem", [
    ("radio 0 acs ok\n", "first line"),
    ("dorvsim-state 2\n", "first line"),
    ("dorvsim-state 1\nradio 3 acs ok\n", "radio"),
    ("dorvsim-state 1\nbss 0 1 00:11:22:33:44:55 -50 0 0 x\n", "not declared"),
    ("dorvsim-state 1\nchan 0 1 -40 -90 -95 0 10 0\nbss 0 1 00:11:22:33:44 -50 0 0 x\n", "BSSID"),
    ("dorvsim-state 1\nchan 0 1 -40 -90 -95 0 10 0\nbss 0 1 00:11:22:33:44:55 -50 0 0 " + "s" * 33 + "\n", "32"),
    ("dorvsim-state 1\nradio 0 report failat 0 5\n", "request number"),
    ("dorvsim-state 1\ncac wifi0vap0 fail 0\n", "errno"),
])
def test_simdriver_bad_state_lines(driver_probe, text, problem):
    """Each malformed directive is refused with a message naming the problem."""
    res, log = driver_probe(text, [{"op": "acs", "if": "wifi0vap0"}])
    assert (res[0]["rc"], res[0]["errno"]) == (-1, errno.EIO)
    errors = " ".join(r["msg"] for r in log if r["req"] == "sim_error")
    assert problem in errors, errors


def test_simdriver_state_reloaded_when_replaced(driver_probe, tmp_path):
    """Replacing the state file changes the next answers without a restart."""
    good = DriverState.from_dict({"radios": {0: {"voice_bit": 1, "prev_voice_pkts": 5, "cur_voice_pkts": 9}}})
    res, log = driver_probe("garbage\n", [
        {"op": "voice", "if": "wifi0"},
        {"op": "write_state", "path": str(tmp_path / "state"), "text": good.render()},
        {"op": "voice", "if": "wifi0"},
    ])
    assert res[0]["rc"] == -1
    assert res[2] == {"rc": 0, "errno": 0, "bit": 1, "prev": 5, "cur": 9}
    assert [r["req"] for r in log if r["req"] in ("sim_error", "state_loaded")] == ["sim_error", "state_loaded"]


def test_simdriver_interface_checks(driver_probe):
    """A missing interface fails with the kernel's ENODEV; a non-radio interface with EOPNOTSUPP."""
    res, log = driver_probe({}, [{"op": "cac", "if": "wifi0vap5"}, {"op": "acs", "if": "eth5"},
                                 {"op": "voice", "if": "ath0"}, {"op": "flags", "if": "wifi0vap5"}],
                            links={"wifi0": True, "eth5": True, "ath0": False})
    assert [(r["rc"], r["errno"]) for r in res] == [(-1, errno.ENODEV), (-1, errno.EOPNOTSUPP), (0, 0),
                                                     (-1, errno.ENODEV)]
    assert [r["if"] for r in log if r["req"] not in ("start", "state_loaded")] == ["wifi0vap5", "eth5", "ath0",
                                                                                    "wifi0vap5"]


def test_simdriver_report_channels_and_neighbours(driver_probe):
    """The ACS report gives each channel's statistics and neighbours; past the last entry only the count."""
    state = {"radios": {1: {"channels": [
        {"ieee": 36, "max_rssi": -30, "min_rssi": -80, "noise_floor": -101, "spectral_load": 7, "chan_load": 130,
         "chan_rank": -2, "bss": [bss(1, rssi=-55, phymode=9, vx_ap_type=1, ssid="corp net"),
                                  {"bssid": "00:11:00:22:00:33", "ssid": b"\\\x00\xff" + b"z" * 29}]},
        {"ieee": 40}]}}}
    res, log = driver_probe(state, [{"op": "report", "if": "wifi1vap0", "wanted": 0, "nbr_len": 1664},
                                    {"op": "report", "if": "ath1", "wanted": 1, "nbr_len": 1664},
                                    {"op": "report", "if": "wifi1vap0", "wanted": 2}],
                            links={"wifi1vap0": True, "ath1": True})
    first, second, past = res
    assert {k: first[k] for k in ("rc", "count", "ieee_chan", "chan_nbss", "max_rssi", "min_rssi", "noise_floor",
                                  "spectral_load", "chan_load", "chan_rank")} == {
        "rc": 0, "count": 2, "ieee_chan": 36, "chan_nbss": 2, "max_rssi": -30, "min_rssi": -80,
        "noise_floor": -101, "spectral_load": 7, "chan_load": 130, "chan_rank": -2}
    assert first["nbrs"] == [
        {"bssid": "02:00:00:00:00:01", "rssi": -55, "phymode": 9, "vx_ap_type": 1, "ssid": b"corp net".hex()},
        {"bssid": "00:11:00:22:00:33", "rssi": -60, "phymode": 0, "vx_ap_type": 0,
         "ssid": (b"\\\x00\xff" + b"z" * 29).hex()}]
    assert (second["rc"], second["ieee_chan"], second["chan_nbss"], second["nbrs"]) == (0, 40, 0, [])
    assert (past["rc"], past["count"], past["ieee_chan"], past["chan_nbss"]) == (0, 2, 0, 0)
    assert [(r["wanted"], r.get("past_end")) for r in log if r["req"] == "acs_report"] == [
        ("0", None), ("1", None), ("2", "1")]


def test_simdriver_empty_report(driver_probe):
    """A radio without channels answers entry 0 with a count of 0."""
    res, _ = driver_probe({}, [{"op": "report", "if": "wifi0vap0", "nbr_len": 1664}])
    assert (res[0]["rc"], res[0]["count"], res[0]["nbrs"]) == (0, 0, [])


@pytest.mark.parametrize("overflow, rc", [("nbss", 0), ("rc7", 7)])
def test_simdriver_report_small_neighbour_buffer(driver_probe, overflow, rc):
    """33 neighbours fill 32 entries of a 1664-byte buffer, then all of a 1716-byte one."""
    radio = Radio(overflow=overflow, channels=[Channel(ieee=6, bss=[Bss(**bss(i)) for i in range(33)])])
    res, _ = driver_probe(DriverState(radios=[radio, Radio(), Radio()]), [
        {"op": "report", "if": "wifi0vap0", "nbr_len": 1664},
        {"op": "report", "if": "wifi0vap0", "nbr_len": 33 * 52}])
    small, big = res
    assert (small["rc"], small["chan_nbss"], len(small["nbrs"])) == (rc, 33, 32)
    assert (big["rc"], big["chan_nbss"], len(big["nbrs"])) == (0, 33, 33)
    assert big["nbrs"][32]["bssid"] == "02:00:00:00:00:20"


def test_simdriver_report_fails_at_nth_request(driver_probe):
    """report failat N fails only the N-th report request of that radio."""
    state = {"radios": {0: {"report_fail_at": (2, errno.EAGAIN), "channels": [{"ieee": 1}]}}}
    calls = [{"op": "report", "if": "wifi0vap0"}] * 3 + [{"op": "report", "if": "wifi1vap0"}]
    state["radios"][1] = {"report_fail_at": (1, errno.EIO)}
    res, _ = driver_probe(state, calls)
    assert [(r["rc"], r["errno"]) for r in res] == [(0, 0), (-1, errno.EAGAIN), (0, 0), (-1, errno.EIO)]


def test_simdriver_request_failures(driver_probe):
    """Each request kind fails with the errno its state line gives."""
    state = {"radios": {0: {"acs_error": errno.EBUSY, "chan_scan_error": errno.EPERM, "voice_error": errno.EIO,
                            "chan_info_error": errno.ENOMEM, "report_error": errno.EFAULT}},
             "cac_errors": {"wifi0vap0": errno.ENETDOWN}}
    res, _ = driver_probe(state, [{"op": "acs", "if": "wifi0vap0"}, {"op": "chan_scan", "if": "wifi0", "chan": 1},
                                  {"op": "voice", "if": "wifi0"}, {"op": "chan_info", "if": "wifi0vap0"},
                                  {"op": "report", "if": "wifi0vap0"}, {"op": "cac", "if": "wifi0vap0"},
                                  {"op": "acs", "if": "wifi1vap0"}, {"op": "report", "if": "wifi1vap0", "cmd": 5}])
    assert [r["errno"] for r in res] == [errno.EBUSY, errno.EPERM, errno.EIO, errno.ENOMEM, errno.EFAULT,
                                         errno.ENETDOWN, 0, errno.EOPNOTSUPP]


def test_simdriver_cac_voice_and_channel_list(driver_probe):
    """CAC per VAP (others 0), voice statistics, and the channel list from its own line or from the report."""
    state = {"radios": {0: {"channels": [{"ieee": 1}, {"ieee": 6}, {"ieee": 11}]},
                        1: {"chan_info": [36, 40, 165], "channels": [{"ieee": 36}], "voice_bit": 1,
                            "prev_voice_pkts": 2**40, "cur_voice_pkts": 2**40 + 3}},
             "cac": {"wifi1vap0": 2}}
    res, log = driver_probe(state, [
        {"op": "cac", "if": "wifi1vap0"}, {"op": "cac", "if": "wifi0vap0"},
        {"op": "voice", "if": "wifi1"}, {"op": "voice", "if": "wifi0"},
        {"op": "chan_info", "if": "wifi0vap0"}, {"op": "chan_info", "if": "wifi1vap0"},
        {"op": "chan_info", "if": "wifi1vap0", "len": 4 + 2 * 20},
        {"op": "chan_scan", "if": "wifi1", "chan": 292}])
    assert [r["param"] for r in res[:2]] == [2, 0]
    assert (res[2]["bit"], res[2]["prev"], res[2]["cur"]) == (1, 2**40, 2**40 + 3)
    assert res[3]["bit"] == 0
    assert res[4]["channels"] == [1, 6, 11] and res[5]["channels"] == [36, 40, 165]
    assert (res[6]["rc"], res[6]["errno"]) == (-1, errno.E2BIG)
    scan = [r for r in log if r["req"] == "chan_scan"][0]
    assert (scan["chan"], scan["words"], scan["flags"]) == ("36", "110,60,100,50,1500", "1,1")


@pytest.mark.parametrize("how, secs", [("select", 2.0), ("sleep", 2), ("usleep", 1.5)])
def test_simdriver_clock_accelerated(driver_probe, how, secs):
    """Waits take 1/scale of their real time while the wall clock and times() advance by the full amount."""
    res, _ = driver_probe({}, [{"op": "clock", "how": how, "secs": secs}], scale=50)
    r = res[0]
    assert r["wall"] >= secs and r["ticks"] >= secs - 0.011, r
    assert r["real"] < secs / 2, f"a {secs}s wait took {r['real']:.3f}s real at scale 50"


def test_simdriver_inactive_in_other_processes(driver_probe):
    """In any process but the one it serves, the library changes nothing and logs nothing."""
    res, log = driver_probe({}, [{"op": "acs", "if": "wifi0vap0"}, {"op": "clock", "how": "select", "secs": 0.2}],
                            scale=50, active_for="dorvand")
    assert res[0]["rc"] == -1, "the kernel's veth link knows no private requests; the simulator would answer 0"
    assert res[1]["real"] >= 0.2
    assert log == []


def test_simdriver_state_writer_refuses_bad_values():
    """The state writer refuses values the driver could not report."""
    with pytest.raises(ValueError):
        DriverState.from_dict({"radios": {0: {"channels": [{"ieee": 1, "bss": [bss(0, ssid="s" * 33)]}]}}}).render()
    with pytest.raises(ValueError):
        DriverState.from_dict({"radios": {0: {"no_such": 1}}})
    with pytest.raises(ValueError):
        DriverState.from_dict({"cac": {"wifi0 vap0": 1}}).render()
