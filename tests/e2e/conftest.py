"""End-to-end tests: the unmodified daemon in a sandbox (sim/sandbox.py) with
the simulated driver and clock. Options: --dorvand and --simlib name the
binaries under test. A test that needs a sandbox fails where the host cannot
make one (not root, a tool missing, no namespaces, nothing built), saying
why; DORVAND_E2E_SKIP_UNAVAILABLE=1 skips it instead. Tests that start the
daemon under test are marked `daemon` (the sanitizer builds run only those).
DORVSIM_KEEP=1 keeps each test's scratch folder.
"""

import functools
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
if str(REPO) not in sys.path:
    sys.path.insert(0, str(REPO))

from e2e_helpers import fail_on_sanitizer_reports, unavailable  # noqa: E402
from sim import faults  # noqa: E402
from sim.sandbox import Sandbox  # noqa: E402

def pytest_addoption(parser):
    parser.addoption("--dorvand", default=str(REPO / "build" / "dorvand"), help="daemon binary under test")
    parser.addoption("--simlib", default=str(REPO / "build" / "sim" / "libdorvsim.so"),
                     help="the simulator's preload library")


def pytest_configure(config):
    config.addinivalue_line("markers", "daemon: starts the daemon under test (--dorvand)")


def pytest_collection_modifyitems(items):
    for item in items:
        if "dorvand" in getattr(item, "fixturenames", ()):
            item.add_marker(pytest.mark.daemon)


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
        unavailable(problem)


def _built(request, option, what):
    path = Path(request.config.getoption(option))
    if not path.is_file():
        unavailable(f"{what} not built: {path}")
    return path


@pytest.fixture(scope="session")
def simlib(request, host_ready):
    return _built(request, "--simlib", "preload library")


@pytest.fixture(scope="session")
def dorvand(request, host_ready):
    return _built(request, "--dorvand", "daemon")


@pytest.fixture
def sandbox(dorvand, simlib):
    """Factory: sandbox(**Sandbox options) starts a daemon; every one is ended and removed after the test."""
    made = []

    def make(start=True, **kw):
        kw.setdefault("keep", bool(os.environ.get("DORVSIM_KEEP")))
        sb = Sandbox(dorvand, simlib, **kw)
        made.append(sb)
        return sb.start() if start else sb

    yield make
    # Like a failure the test armed that never happened: the test did not
    # reach what it meant to break.
    fault_problem = faults.problems([sb.faults for sb in made])
    errors = []
    for sb in made:
        try:
            sb.close()
        except Exception as e:  # every sandbox must still be closed
            errors.append(e)
    if errors:
        raise errors[0]
    fail_on_sanitizer_reports(made)
    if fault_problem:
        pytest.fail(fault_problem, pytrace=False)
