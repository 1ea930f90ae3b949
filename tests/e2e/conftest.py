"""End-to-end tests: the unmodified daemon in a sandbox (sim/sandbox.py) with
the simulated driver and clock. Options: --dorvand and --simlib name the
binaries under test. Tests are skipped where the host cannot run a sandbox
(not root, no namespaces). DORVSIM_KEEP=1 keeps each test's scratch folder.
"""

import functools
import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
if str(REPO) not in sys.path:
    sys.path.insert(0, str(REPO))

from sim.driver_state import DriverState  # noqa: E402
from sim.sandbox import Sandbox, parse_reqlog  # noqa: E402

PROBE = Path(__file__).resolve().parent / "driver_probe.py"


def pytest_addoption(parser):
    parser.addoption("--dorvand", default=str(REPO / "build" / "dorvand"), help="daemon binary under test")
    parser.addoption("--simlib", default=str(REPO / "build" / "sim" / "libdorvsim.so"),
                     help="the simulator's preload library")


@functools.lru_cache(maxsize=None)
def _namespace_problem():
    if os.geteuid() != 0:
        return "end-to-end tests run the daemon as root: not root"
    for tool in ("unshare", "nsenter", "ip", "chroot"):
        if not shutil.which(tool):
            return f"{tool} not installed"
    r = subprocess.run(["unshare", "-m", "-n", "--fork", "true"], capture_output=True, text=True)
    if r.returncode != 0:
        return f"cannot create mount and network namespaces: {r.stderr.strip()}"
    return None


@pytest.fixture(scope="session")
def host_ready():
    problem = _namespace_problem()
    if problem:
        pytest.skip(problem)


@pytest.fixture(scope="session")
def simlib(request, host_ready):
    path = Path(request.config.getoption("--simlib"))
    if not path.is_file():
        pytest.skip(f"preload library not built: {path}")
    return path


@pytest.fixture(scope="session")
def dorvand(request, host_ready):
    path = Path(request.config.getoption("--dorvand"))
    if not path.is_file():
        pytest.skip(f"daemon not built: {path}")
    return path


@pytest.fixture
def sandbox(dorvand, simlib):
    """Factory: sandbox(**Sandbox options) starts a daemon; every one is
    ended and removed after the test."""
    made = []

    def make(start=True, **kw):
        kw.setdefault("keep", bool(os.environ.get("DORVSIM_KEEP")))
        sb = Sandbox(dorvand, simlib, **kw)
        made.append(sb)
        return sb.start() if start else sb

    yield make
    errors = []
    for sb in made:
        try:
            sb.close()
        except Exception as e:  # every sandbox must still be closed
            errors.append(e)
    if errors:
        raise errors[0]


@pytest.fixture
def driver_probe(simlib, tmp_path):
    """Runs driver_probe.py with the simulated driver: probe(state, calls,
    links) returns (results, request log records)."""

    def run(state, calls, links=None, scale=1, active_for="python3"):
        state_path = tmp_path / "state"
        reqlog = tmp_path / "reqlog"
        reqlog.unlink(missing_ok=True)
        if isinstance(state, (str, bytes)):
            state_path.write_bytes(state.encode() if isinstance(state, str) else state)
        else:
            (state if isinstance(state, DriverState) else DriverState.from_dict(state)).write(state_path)
        env = dict(os.environ, LD_PRELOAD=str(simlib), DORVSIM_PROCESS=active_for, DORVSIM_STATE=str(state_path),
                   DORVSIM_REQLOG=str(reqlog), DORVSIM_SCALE=str(scale))
        plan = {"links": links if links is not None else {"wifi0": True, "wifi0vap0": True, "wifi1": True,
                                                           "wifi1vap0": True}, "calls": calls}
        r = subprocess.run(["unshare", "-n", "/usr/bin/python3", str(PROBE), json.dumps(plan)], env=env,
                           capture_output=True, text=True, timeout=30)
        assert r.returncode == 0, f"probe failed: {r.stderr}"
        records = parse_reqlog(reqlog.read_text()) if reqlog.exists() else []
        return json.loads(r.stdout), records

    return run
