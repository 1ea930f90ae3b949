"""The event clock: time stands still while a participant runs and paces
when one never stops; and the sandbox's wall clock stepped under the running
daemon (an hour back, a day forward, 1970 to a day of 2025): what keeps
monotonic time (the scan timers, the child bound, configd's response wait)
and what follows the wall clock (log stamps, the scan databases' date texts,
configd's stuck check)."""

import re
import threading
import time

import pytest

from e2e_helpers import KH_ADDITION, event, ft_table, refresh_line, scan_config
from sim.expect import read_table
from sim.simclock import EventClock

TODAY = 1_764_000_000  # Mon Nov 24 16:00:00 UTC 2025
STEPS = [pytest.param(None, -3600, id="hour-back"), pytest.param(None, 86400, id="day-forward"),
         pytest.param(0.0, TODAY, id="1970-to-today")]
DRIVER = {"radios": {0: {"channels": [{"ieee": 6, "bss": [{"bssid": "02:00:00:00:06:01", "ssid": "n"}]}]}}}
SCAN_BEGIN = "trigger_2g_full_scan : 2G Scan begin"
SCAN_DONE = "[dorvand] trigger_2g_full_scan :parsed scan result succesfully\n"
KILLED = '[dorvand] Killed "/usr/local/bin/fast_bss_transition.sh": still running after 30 s'
HANG = "/dorvsim/ctl/fast_bss_transition.sh.hang"
STUCK = "Configd Stuck Detected: No New Connection happened for last {} seconds"


@pytest.mark.parametrize("hold_limit, advanced", [(3600.0, 0.0), (0.2, 1.0)])
def test_running_participant_holds_the_clock_until_it_paces(tmp_path, hold_limit, advanced):
    """A Python thread enlisted with the clock spins: no simulated time passes while it runs; with a short hold
    limit the clock paces up to a sleeper's deadline instead and names the spinning thread."""
    told = []
    clock = EventClock(tmp_path / "clock", scale=0, hold_limit=hold_limit, warn=told.append)
    stop = threading.Event()
    spinner = threading.Thread(target=lambda: [None for _ in iter(stop.is_set, True)], daemon=True)
    clock.enlist(spinner)
    spinner.start()
    clock.start()
    try:
        woke = clock.sleep(1.0, timeout=2.0)
        assert (woke, clock.elapsed()) == (advanced == 1.0, advanced)
        assert bool(told) == (advanced == 1.0)
        if told:
            assert f"thread {spinner.native_id}, system call running" in told[0]
    finally:
        stop.set()
        clock.close()


@pytest.mark.parametrize("wall0, step", STEPS)
def test_step_between_timer_and_scan(sandbox, wall0, step):
    """The first scan's timer runs on the monotonic clock: its log stamp lies the timer's seconds plus the step after
    the timer's line. The database row of that scan carries the stepped clock's date text and epoch."""
    sb = sandbox(clock="event", wall0=wall0, config=scan_config([0]), driver=DRIVER, configd=ft_table(radios=1))
    line = sb.wait_for_log("start_2g_scan_timer : ", timeout=10)
    secs = int(re.search(r"start_2g_scan_timer : (\d+) seconds", line).group(1))
    started = sb.log_times("start_2g_scan_timer")[0]
    if wall0 is not None:
        assert started < 60, "the daemon's first stamps are of 1 January 1970"
    sb.step_clock(step)
    sb.wait_for_log(SCAN_DONE, timeout=30)
    assert abs(sb.log_times(SCAN_BEGIN)[0] - started - (secs + step)) <= 1
    row, = read_table(sb.path("/tmp/scan_db_2g"), "SCANNED_AP_DETAILS")
    epoch = int(row["EPOCHTIMESTAMP"])
    assert 0 <= epoch - sb.log_times(SCAN_BEGIN)[0] <= 12  # its results are read 10 s after the trigger
    assert row["TIMESTAMP"] == time.strftime("%a %b %e %H:%M:%S UTC %Y", time.gmtime(epoch))[:24]


@pytest.mark.parametrize("step, idle", [(-3600, 2**64 - 3300), (86400, 86700)])
def test_step_during_configd_wait(sandbox, step, idle):
    """configd leaves the start-up read unanswered: the response wait still ends after 300 monotonic seconds, but the
    stuck check measures on the wall clock and reports the step: a day forward as 86700 s, an hour back as a negative
    span read unsigned."""
    sb = sandbox(clock="event", configd=ft_table([(0, 0)]), start=False)
    sb.prepare()
    sb.configd.stall(1)
    sb.start()
    sb.configd.wait_for_requests(1, timeout=10)
    sb.sleep_daemon(1)  # time moves only once the daemon waits for the answer
    sb.step_clock(step)
    stuck = lambda: [s for s in sb.syslog_lines() if "Stuck" in s]  # noqa: E731
    sb.wait_for(stuck, 30, "the stuck check at the end of the wait")
    assert stuck() == [STUCK.format(idle) + "\n"]


@pytest.mark.parametrize("step", [-3600, 86400])
def test_step_during_hung_script(sandbox, step):
    """The child bound is monotonic: a script hung across a step is killed 30 s after its start, which the wall-clock
    stamps show as 30 s plus the step."""
    sb = sandbox(clock="event", configd=ft_table([(0, 0)]))
    sb.wait_for_log(refresh_line(0x1), timeout=10)
    sb.path(HANG).touch()
    sb.send_event(event("0A:1B:2C:3D:4E:50", KH_ADDITION))
    sb.wait_for(lambda: len(sb.script_runs()) == 1, 10, "the script's run")
    sb.sleep_daemon(1)  # time moves only once the script has written its start and hangs
    sb.step_clock(step)
    sb.wait_for_log(KILLED, timeout=30)
    sb.path(HANG).unlink()
    assert 29 + step <= sb.log_times(KILLED)[0] - sb.script_run_times()[0] <= 31 + step  # whole-second stamps
