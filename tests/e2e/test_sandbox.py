"""The sandbox itself: isolation from the host, links, signals with values,
the simulated tools and the ending of every process it started."""

import os
import signal
import subprocess
from pathlib import Path

import pytest

HOST_PATHS = ("/tmp/dorvand.pid", "/tmp/roam_sock", "/tmp/log/dorvand_log", "/tmp/FT_Configd_Child_Check",
              "/var/roam_key_holders", "/tmp/scan_db_2g")


def alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    return Path(f"/proc/{pid}/stat").read_text().split()[2] != "Z"


def host_links():
    return subprocess.run(["ip", "-o", "link", "show"], capture_output=True, text=True, check=True).stdout


def test_sandbox_leaves_host_untouched(sandbox):
    """A whole run changes none of the daemon's paths on the host and adds no host interface."""
    before = {p: os.path.lexists(p) for p in HOST_PATHS}
    links_before = host_links()
    sb = sandbox()
    sb.wait_for_log("radios = 3 \n")
    assert sb.path("/tmp/dorvand.pid").exists() and sb.path("/tmp/log/dorvand_log").exists()
    assert "wifi0" not in host_links()
    assert sb.stop() == 0
    assert {p: os.path.lexists(p) for p in HOST_PATHS} == before
    assert host_links() == links_before


def test_sandbox_links_follow_set_link(sandbox):
    """Links start up or down as asked and change on set_link; a missing name is refused."""
    sb = sandbox(links={"wifi0": True, "wifi0vap0": False, "ath0": False})
    states = sb.link_states()
    assert {k: states[k] for k in ("wifi0", "wifi0vap0", "ath0")} == {"wifi0": True, "wifi0vap0": False,
                                                                      "ath0": False}
    sb.set_link("wifi0vap0", True)
    sb.set_link("wifi0", False)
    states = sb.link_states()
    assert (states["wifi0"], states["wifi0vap0"]) == (False, True)
    with pytest.raises(Exception, match="wifi9"):
        sb.set_link("wifi9", True)


def test_sandbox_signal_with_value(sandbox):
    """send_signal queues SIGRTMIN with its integer value, as the daemon's peers do."""
    sb = sandbox()
    sb.wait_for_log("radios = 3 \n")
    sb.send_signal(signal.SIGRTMIN, 0x1002)
    sb.wait_for_log(f"Received {int(signal.SIGRTMIN)} signal | 4098[1002] \n")


def test_sandbox_configd_check_tool(sandbox):
    """check_configd_child creates the daemon's flag file, and removes it while configd is said to be busy."""
    sb = sandbox(start=False)
    sb.set_configd_busy(True)
    sb.start()
    sb.wait_for_log(" Checking for configd child retry count:1 \n")
    assert not sb.path("/tmp/FT_Configd_Child_Check").exists()
    sb.set_configd_busy(False)
    sb.wait_for(lambda: sb.path("/tmp/FT_Configd_Child_Check").exists(), 5, "the configd check flag")
    assert len(sb.tool_calls("check_configd_child")) >= 2


def test_sandbox_terminate_ends_every_process(sandbox):
    """Ending a sandbox without signal 10 still ends the daemon and the namespace keeper, by pid."""
    sb = sandbox()
    pid, init_pid = sb.pid(), sb.status()["init_pid"]
    assert alive(pid) and alive(init_pid)
    sb.terminate()
    assert not alive(pid) and not alive(init_pid)
    assert sb.exit_code() == -signal.SIGKILL
