"""802.11r status end to end: the configuration store's 11rStatus values fill
ft_enabled_vaps after the start-up timer, key holders then get per-VAP lines,
a queued SIGRTMIN re-reads the VAPs it names, and a configuration daemon that
stalls or is never ready neither blocks neighbour events nor the exit."""

import signal
import subprocess
import time

from e2e_helpers_nb import (AP2MAC, AP_ADDITION, AP_DELETION, FT_KEY, KEY_CHANGED, KEY_HOLDERS, KH_ADDITION, event, ft_table,
                            mask_of, read_bytes, read_text, record, refresh_line, send_and_wait)

ENABLED = [(0, 0), (1, 2)]
NEIGHBOUR = "0A:1B:2C:3D:4E:50"  # family 0 on radio 0: key holder 0A:1B:2C:3D:4E:5F
LINES_VAP0 = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70\n"
LINES_VAP12 = "ap2_macaddr_wifi1vap2=0A:1B:2C:3D:4E:52 0A:1B:2C:3D:4E:62 0A:1B:2C:3D:4E:72\n"
EXIT_LINE = "[dorvand] Exiting from daemon\n"
CONFIG_BUSY_LINE = "[dorvand] configuration read in progress; handle left to the end of the process\n"
RTMIN = int(signal.SIGRTMIN)


def update_line(mask):
    """The last line of a SIGRTMIN update (one blank before the '=')."""
    return f"ft_enabled_vaps = {mask:08X} \n"


def all_keys(radios=3):
    return [FT_KEY.format(r=r, v=v) for r in range(radios) for v in range(10)]


def refreshed(sandbox, mask, **kw):
    """A daemon whose start-up refresh has ended with `mask`."""
    sb = sandbox(**kw)
    log = sb.wait_for_log("ft_enabled_vaps  = ", timeout=8)
    assert refresh_line(mask) in log, f"expected {refresh_line(mask)!r} after the start-up refresh"
    return sb


def start_with_stalled_configd(sandbox, table, **kw):
    """A daemon whose configd reads requests from the first one on and never
    answers. The stall is switched on as the simulated configd starts, before
    the daemon exists, so even the start-up refresh meets it."""
    sb = sandbox(start=False, configd=table, **kw)
    start_configd = sb._start_configd

    def start_stalled():
        start_configd()
        sb.configd.stall()

    sb._start_configd = start_stalled
    return sb.start()


def queue_rtmin(sb, value):
    """Queues SIGRTMIN with `value` the way the access point's tools do."""
    subprocess.run(["/bin/kill", "-s", "RTMIN", "--queue", str(value), str(sb.pid())], check=True,
                   capture_output=True)


def signal_update(sb, value, mask):
    """Queues SIGRTMIN with `value` and waits for the whole update to end
    with `mask`. Returns the log of the update."""
    start = len(sb.log_text())
    queue_rtmin(sb, value)
    sb.wait_for(lambda: update_line(mask) in sb.log_text()[start:], 10,
                f"the update of signal value {value} to end with {update_line(mask)!r}")
    log = sb.log_text()[start:]
    assert f"Received {RTMIN} signal | {value}[{value:X}] \n" in log
    return log


def test_ft_status_no_configd(sandbox):
    """Without configd every read fails, to the log and syslog; the mask stays 0 and key holders get no VAP lines."""
    sb = refreshed(sandbox, 0)
    log = sb.log_text()
    for key in all_keys():
        assert f"dbcom get failed for {key} [Couldn't connect to /tmp/confd_get:" in log, f"no failure line for {key}"
    sb.wait_for_syslog(f"dbcom get failed for {all_keys()[0]} [")
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    assert read_bytes(sb, KEY_HOLDERS) == record("0A:1B:2C:3D:4E:5F")
    assert read_bytes(sb, AP2MAC) is None, "with no VAP enabled no ap2_macaddr line is expected"
    assert read_bytes(sb, KEY_CHANGED) == b"", "ft_key_changed.txt is opened for appending, and nothing written"


def test_ft_status_failed_reads_keep_bits(sandbox):
    """A refresh whose reads all fail keeps the bits of the last good refresh."""
    sb = refreshed(sandbox, mask_of(ENABLED), configd=ft_table(ENABLED))
    sb.configd.answer_failure("database locked\n")
    log = signal_update(sb, 0, mask_of(ENABLED))
    assert f"dbcom get failed for {all_keys()[0]} [database locked\n" in log
    assert refresh_line(mask_of(ENABLED)) in log, "failed reads should not clear any bit"


def test_ft_status_signal_read_failure_stops_update(sandbox):
    """A failed read in the SIGRTMIN update ends it at once: no later VAP, no script, no refresh."""
    sb = refreshed(sandbox, mask_of(ENABLED), configd=ft_table(ENABLED))
    sb.configd.answer_failure("no such table\n")
    requests = len(sb.configd.requests())
    queue_rtmin(sb, 0x1001)
    sb.wait_for_log("dbcom get failed [", timeout=5)
    sb.sleep_daemon(20)
    keys = [key for key, _ in sb.configd.requests()[requests:]]
    assert keys == [FT_KEY.format(r=0, v=0)] * 3, f"expected three attempts for wlan0 vap0 only, got {keys}"
    log = sb.log_text()
    assert "wifi0vap0 - 11rStatus" not in log and "ft_enabled_vaps = " not in log
    assert log.count("ft_enabled_vaps  = ") == 1, "no refresh after a failed update"
    assert sb.script_runs() == []


def test_ft_status_value_two(sandbox):
    """11rStatus 2 leaves the refresh's bit clear but counts as enabled for a SIGRTMIN change."""
    sb = refreshed(sandbox, mask_of(ENABLED), configd=ft_table(ENABLED, values={(0, 1): "2"}))
    assert "wlan0vap1 = 2\n" in sb.log_text()
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    # The key-holder list's "non-empty" flag only follows the list when it
    # is printed: the first update finds it clear and changes no file.
    log = signal_update(sb, 1 << 1, mask_of(ENABLED))
    assert "wifi0vap1 - 11rStatus = 2 \n" in log and "List is empty \n" in log
    assert "MKH exist\n" in log, "the refresh should reload the key holders, which prints the list"
    assert read_text(sb, KEY_CHANGED) == "ft_key_changed_wifi0vap0=1,1\nft_key_changed_wifi1vap2=1,1\n"
    assert len(sb.script_runs()) == 1
    signal_update(sb, 1 << 1, mask_of(ENABLED))
    assert read_text(sb, KEY_CHANGED).endswith("ft_key_changed_wifi1vap2=1,1\nft_key_changed_wifi0vap1=1,1\n"), \
        "status 2 should be reported as enabled (=1,1)"
    assert read_text(sb, AP2MAC) == (LINES_VAP0 + LINES_VAP12 + "ap2_macaddr_wifi0vap1="
                                     "0A:1B:2C:3D:4E:51 0A:1B:2C:3D:4E:61 0A:1B:2C:3D:4E:71\n")
    assert len(sb.script_runs()) == 2, "one script run for the update"


def test_ft_status_refresh_after_startup_timer(sandbox):
    """11rStatus 1 on wlan0 vap0 and wlan1 vap2 gives the mask 00001001, read 3 daemon seconds after start."""
    sb = refreshed(sandbox, 0x1001, configd=ft_table(ENABLED))
    log = sb.log_text()
    assert "wlan0vap0 = 1\n" in log and "wlan1vap2 = 1\n" in log and "wlan2vap9 = 0\n" in log
    assert [key for key, _ in sb.configd.requests()] == all_keys(), "every VAP read once, radio by radio"
    threads_at = sb.log_times("[dorvand] invoke_threads()")[0]
    assert sb.log_times("radios = 3 ")[0] - threads_at >= 3, "the refresh ran before the 3-second timer"


def test_ft_status_kh_addition_writes_vap_lines(sandbox):
    """A KH_ADDITION writes one key-change line and the three neighbour BSSIDs for each enabled VAP."""
    sb = refreshed(sandbox, 0x1001, configd=ft_table(ENABLED))
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    assert read_text(sb, KEY_CHANGED) == "ft_key_changed_wifi0vap0=1,1\nft_key_changed_wifi1vap2=1,1\n"
    assert read_text(sb, AP2MAC) == LINES_VAP0 + LINES_VAP12
    runs = sb.script_runs()
    assert len(runs) == 1, "expected one script run"
    assert runs[0]["ap2_macaddr.txt"] == (LINES_VAP0 + LINES_VAP12).encode(), "the script should see both lines"


def test_ft_status_deletion_removes_bssids(sandbox):
    """AP_DELETION takes exactly the neighbour's three BSSIDs off the line and notes =1,0."""
    sb = refreshed(sandbox, 1, configd=ft_table([(0, 0)]))
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    send_and_wait(sb, event("0A:1B:2C:3D:4F:50", KH_ADDITION, 0, 0))
    send_and_wait(sb, event(NEIGHBOUR, AP_DELETION, 0, 0))
    assert read_text(sb, AP2MAC) == \
        "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4F:50 0A:1B:2C:3D:4F:60 0A:1B:2C:3D:4F:70 \n"
    send_and_wait(sb, event("0A:1B:2C:3D:4F:50", AP_DELETION, 0, 0))
    assert read_text(sb, AP2MAC) == "ap2_macaddr_wifi0vap0=\n", "nothing left on the line"
    assert read_text(sb, KEY_CHANGED) == ("ft_key_changed_wifi0vap0=1,1\n" * 2 + "ft_key_changed_wifi0vap0=1,0\n" * 2)


def test_ft_status_signal_disables_vap(sandbox):
    """SIGRTMIN 4096 after wlan1 vap2 is switched off drops its BSSID line, notes =1,0 and runs the script once."""
    sb = refreshed(sandbox, 0x1001, configd=ft_table(ENABLED))
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    signal_update(sb, 0, 0x1001)  # its refresh prints the list, so the update below finds it non-empty
    runs = len(sb.script_runs())
    sb.configd.set_value(FT_KEY.format(r=1, v=2), "0")
    log = signal_update(sb, 4096, 0x0001)
    assert "wifi1vap2 - 11rStatus = 0 \n" in log and "val = 0 \n" in log
    assert " wifi1vap2 | 11rStatus = DISABLE | family = 0 |" in log
    assert refresh_line(0x0001) in log, "the refresh should clear bit 12"
    assert read_text(sb, AP2MAC) == LINES_VAP0, "the wifi1vap2 line should be gone"
    assert read_text(sb, KEY_CHANGED).endswith("ft_key_changed_wifi1vap2=1,1\nft_key_changed_wifi1vap2=1,0\n")
    assert len(sb.script_runs()) == runs + 1, "expected exactly one script run for the update"


def test_ft_status_stalled_configd_events_served(sandbox):
    """While configd never answers, neighbour events are still handled within a few seconds."""
    sb = start_with_stalled_configd(sandbox, ft_table(ENABLED), scale=10)
    assert sb.configd.wait_for_requests(1, 5), "the start-up refresh should have asked configd"
    started = time.monotonic()
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0), timeout=3)
    log = send_and_wait(sb, event(NEIGHBOUR, AP_ADDITION, 0, 1), timeout=3)
    assert time.monotonic() - started < 3, "events should not wait for the configuration read"
    assert "0a:1b:2c:3d:4e:50 present = Yes | family = TRV \n" in log
    assert read_bytes(sb, KEY_HOLDERS) == record("0A:1B:2C:3D:4E:5F")
    assert len(sb.script_runs()) == 1
    assert "ft_enabled_vaps  = " not in sb.log_text(), "the refresh should still be waiting for configd"


def test_ft_status_exit_during_stalled_refresh(sandbox):
    """Signal 10 while the refresh waits for configd exits 0 within about a second and removes the files."""
    sb = start_with_stalled_configd(sandbox, ft_table(ENABLED), scale=10)
    assert sb.configd.wait_for_requests(1, 5)
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0))
    started = time.monotonic()
    assert sb.stop(timeout=5) == 0, "expected exit status 0"
    assert time.monotonic() - started < 3, "the clean-up should wait about one second for the configuration lock"
    log = sb.log_text()
    assert CONFIG_BUSY_LINE in log and EXIT_LINE in log
    for path in ("/tmp/dorvand.pid", "/tmp/roam_sock", KEY_HOLDERS):
        assert not sb.path(path).exists(), f"{path} left behind"


def test_ft_status_exit_during_stalled_signal_update(sandbox):
    """Signal 10 while a SIGRTMIN update waits for configd exits 0 just as promptly."""
    sb = refreshed(sandbox, 0x1001, configd=ft_table(ENABLED), scale=10)
    sb.configd.stall()
    requests = len(sb.configd.requests())
    queue_rtmin(sb, 4096)
    assert sb.configd.wait_for_requests(requests + 1, 5), "the update should have asked configd"
    started = time.monotonic()
    assert sb.stop(timeout=5) == 0, "expected exit status 0"
    assert time.monotonic() - started < 3, "the exit should not wait for the stalled update"
    log = sb.log_text()
    assert CONFIG_BUSY_LINE in log and EXIT_LINE in log
    for path in ("/tmp/dorvand.pid", "/tmp/roam_sock"):
        assert not sb.path(path).exists(), f"{path} left behind"


def test_ft_status_configd_child_never_ready(sandbox):
    """A check program that never allows the read: 72 checks 5 s apart, no read, events served, then mask 0."""
    sb = sandbox(start=False, configd=ft_table(ENABLED), scale=200)
    sb.set_configd_busy(True)
    sb.start()
    sb.wait_for_log(" Checking for configd child retry count:0 \n", timeout=5)
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION, 0, 0), timeout=3)
    assert len(sb.script_runs()) == 1, "a KH_ADDITION during the checks should run the script"
    log = sb.wait_for_log(refresh_line(0), timeout=10)
    retries = [n for n in range(80) if f" Checking for configd child retry count:{n} \n" in log]
    assert retries == list(range(72)), f"expected retry counts 0..71, got {retries[:3]}..{retries[-3:]}"
    assert len(sb.tool_calls("check_configd_child")) == 72, "one check per failed attempt, none after 72"
    assert sb.configd.requests() == [], "configd should never have been read"
    checks = sb.log_times(" Checking for configd child retry count:")
    assert checks[-1] - checks[0] >= 71 * 5, "checks should be 5 daemon seconds apart"

    sb.set_configd_busy(False)
    log = signal_update(sb, 0, 0x1001)  # a new refresh counts its checks from 0 again
    assert "retry count" not in log and refresh_line(0x1001) in log
