"""Start-up steps that fail (the detach, the signal handlers and their pipes, the threads, a second daemon that loses
the race for the pid file) are logged where they happen; the daemon then leaves with the status it calls for, or
runs on without what failed and still ends cleanly on signal 10."""

import signal

import pytest

from e2e_helpers import KH_ADDITION, NEIGHBOUR, event, ft_table, ready, record, refresh_line, send_and_wait
from sim.expect import KEY_HOLDERS

REGISTER = "[dorvand]  Registering {} signal failed. Hence exiting the daemon\n"
THREAD = "Failed to create the thread [11 | Resource temporarily unavailable ]\n"
PIPE = "[dorvand] Signal pipe failed [24|Too many open files]\n"
RTMIN = int(signal.SIGRTMIN)
EXIT_LINE = "[dorvand] Exiting from daemon\n"

# (rule armed at the start, lines logged in this order, how the daemon ends:
# "detach" the started process exits 1 without detaching; a number: the
# detached daemon exits with it by itself; "runs": it serves until signal 10)
CASES = {
    "detach": ("daemon errno=ENOMEM", ["[dorvand] Daemonizing process failed\n"], "detach"),
    "exit_handler": ("sigaction path=10 errno=EINVAL", [REGISTER.format(10)], 255),
    "exit_pipe": ("pipe2 nth=1 errno=EMFILE", [PIPE, REGISTER.format(10)], 255),
    "signal_thread": ("thread nth=1 errno=EAGAIN", [THREAD, REGISTER.format(10)], 255),
    "event_loop_thread": ("thread nth=3 errno=EAGAIN",
                          [THREAD, "[dorvand] pthread_join failed[3|No such process] \n", "daemon exited\n"], 0),
    "rtmin_handler": (f"sigaction path={RTMIN} errno=EINVAL", [f" Registering {RTMIN} signal failed\n"], "runs"),
    "update_pipe": ("pipe2 nth=2 errno=EMFILE", [PIPE], "runs"),
    "update_thread": ("thread nth=2 errno=EAGAIN", [THREAD], "runs"),
    "event_socket_thread": ("thread nth=4 errno=EAGAIN", [THREAD], "runs"),
}


@pytest.mark.parametrize("rule, lines, ends", CASES.values(), ids=CASES.keys())
def test_startup_fault(sandbox, rule, lines, ends):
    sb = sandbox(start=False, configd=ft_table())
    sb.arm_fault(rule)
    sb.start(wait=False)
    if ends == "runs":
        sb.wait_for_log(refresh_line(0), timeout=10)
        assert sb.stop() == 0
    else:
        sb.wait_exit(15)
        if ends == "detach":
            assert sb.status()["launcher_status"] == 1 and not sb.status()["daemon_pids"]
            assert not sb.path("/tmp/dorvand.pid").exists()
        else:
            assert sb.exit_code() == ends
    log = sb.log_text()
    at = [log.find(line) for line in lines]
    assert -1 not in at and at == sorted(at), f"{lines} not in order in:\n{log[-1500:]}"
    assert (EXIT_LINE in log) == (ends == "runs")


def test_startup_second_daemon_loses_the_race(sandbox):
    """A second daemon that finds neither the first's lock nor its socket (both looks fail, as when it starts in
    the same instant) detaches, then finds the pid file locked when it comes to write it: it logs that, exits
    and writes nothing; the first goes on serving."""
    sb = ready(sandbox, [(0, 0)], 0x1)
    before = sb.path("/tmp/dorvand.pid").read_bytes()
    sb.arm_fault("open path=/tmp/dorvand.pid nth=1 errno=EACCES")
    sb.arm_fault("connect path=/tmp/roam_sock nth=1 errno=ECONNREFUSED")
    assert sb.start_beside().returncode == 0
    sb.wait_for_log("[dorvand] Another dorvand took /tmp/dorvand.pid first: exiting\n", timeout=10)
    assert sb.path("/tmp/dorvand.pid").read_bytes() == before
    send_and_wait(sb, event(NEIGHBOUR, KH_ADDITION))
    assert sb.path(KEY_HOLDERS).read_bytes() == record("0A:1B:2C:3D:4E:5F")
    assert sb.stop() == 0
