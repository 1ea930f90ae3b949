"""The Debian package of this machine's architecture (dist/, made by the test
command) as dpkg installs it: the daemon alone, hardened, which starts on the
simulated access point and ends cleanly on signal 10."""

import subprocess
from pathlib import Path

import pytest

from sim.sandbox import Sandbox

REPO = Path(__file__).resolve().parents[2]


def run(*cmd) -> str:
    r = subprocess.run(cmd, capture_output=True, text=True)
    assert r.returncode == 0, f"{' '.join(map(str, cmd))}:\n{r.stdout}{r.stderr}"
    return r.stdout


@pytest.fixture
def deb():
    arch = run("dpkg", "--print-architecture").strip()
    debs = sorted((REPO / "dist").glob(f"dorvand_*_{arch}.deb"))
    if not debs:
        pytest.skip(f"no {arch} package in dist/ (scripts/test.sh makes it)")
    return debs[-1], arch


def test_package_installs_and_runs(deb, simlib, tmp_path):
    """dpkg installs the package into an empty root with /usr/sbin/dorvand as its only file; the package names the
    host's architecture and the libraries' packages; the daemon is a hardened position-independent executable that
    starts, detaches, writes its pid file and exits 0 on signal 10."""
    path, arch = deb
    root = tmp_path / "root"
    for d in ("info", "updates", "triggers"):
        (root / "var/lib/dpkg" / d).mkdir(parents=True)
    (root / "var/lib/dpkg/status").touch()
    # The empty root has none of the packages it depends on.
    run("dpkg", f"--root={root}", "--force-depends", "--log=/dev/null", "-i", path)
    listed = run("dpkg", f"--root={root}", "-L", "dorvand").split()
    assert [f for f in listed if not (root / f.lstrip("/")).is_dir()] == ["/usr/sbin/dorvand"]
    fields = run("dpkg-deb", "-f", path, "Architecture", "Depends")
    assert f"Architecture: {arch}" in fields
    assert "libc6 (" in fields and "libsqlite3-0 (" in fields

    daemon = root / "usr/sbin/dorvand"
    dynamic = run("readelf", "-W", "-d", "--dyn-syms", daemon)
    assert "BIND_NOW" in dynamic and "PIE" in dynamic and "__stack_chk_fail" in dynamic
    assert "_chk@" in dynamic.replace("__stack_chk_fail@", ""), "no fortified libc call"
    with Sandbox(daemon, simlib, board="TRM226") as sb:
        sb.wait_for_log("[dorvand] radio_type = Dual Radio | product_id = TRM226\n")
        assert sb.stop() == 0
        assert not sb.path("/tmp/dorvand.pid").exists()
