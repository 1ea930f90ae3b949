"""Every scenario of sim/scenarios through the runner sim/run uses; and the tool itself: scenarios with mistakes
refused by name, a failing expectation failing the run, the report's charts showing their bars."""

import subprocess
import sys
from pathlib import Path

import pytest

from sim import charts, report, scenario
from sim.runner import Runner

from e2e_helpers import has_colours

REPO = Path(__file__).resolve().parents[2]


@pytest.mark.parametrize("name", scenario.names())
def test_scenario_expectations_hold(name, dorvand, simlib, tmp_path_factory):
    sc = scenario.load(name)
    out = tmp_path_factory.mktemp(name)
    progress = []
    runner = Runner(sc, dorvand, simlib, out, echo=progress.append)
    result = runner.run()
    text = report.build(out)
    assert result.passed, f"{name}:\n" + "\n".join(result.failures()) + "\n" + "\n".join(progress[-5:])
    assert len(result.outcomes) == len(sc.expectations) + sum(not f.optional for f in sc.faults)
    assert f"PASSED: scenario {name}" in text
    for band in sc.scanning_bands():
        assert has_colours(out / f"chart_{band}.png", charts.LOAD_COLOR, charts.BSS_COLOR), f"chart_{band}.png is blank"


BAD_SCENARIOS = [
    ("board = \"XR9000\"\n", "unknown product 'XR9000'"),
    ("[[event]]\ndo = \"kh_add\"\nmac = \"0A:1B:2C:3D:4E\"\n", "[[event]] #1: '0A:1B:2C:3D:4E' is not a MAC address"),
    ("[[event]]\ndo = \"reboot\"\n", "[[event]] #1: unknown event 'reboot'"),
    ("[[expect]]\nlog = \"x\"\nrunning = true\n", "[[expect]] #1: give exactly one of"),
    ("[[expect]]\nkey_holders = [\"0A:1B:2C:3D:4E:5F yes TRV\"]\n", "[[expect]] #1: key-holder records"),
    ("[[radio]\nindex = 0\n", "not valid TOML"),
    ("[[fault]]\nrule = \"chmod errno=EIO\"\n", "[[fault]] #1: rule 'chmod errno=EIO' must start with a call"),
    ("[[fault]]\nrule = \"write nth2 errno=EIO\"\n", "[[fault]] #1: rule 'write nth2 errno=EIO': 'nth2' is not"),
    ("[[fault]]\nat = 3\n", "[[fault]] #1: missing key 'rule'"),
    ("[[radio]]\nindex = 0\nrogue = 1\n", "[[radio]] #1: unknown key(s) rogue"),
    ("[[clock_step]]\nby = 60\nto = 0\n", "[[clock_step]] #1: at must not be negative; exactly one of by"),
    ("clock = \"affine\"\n[[clock_step]]\nby = 60\n", "[[clock_step]]: the affine clock cannot be stepped"),
]


@pytest.mark.parametrize("text, message", BAD_SCENARIOS)
def test_scenario_with_a_mistake_is_refused_naming_it(tmp_path, text, message):
    """sim/run refuses the scenario before it runs anything, naming the file and what is wrong."""
    path = tmp_path / "mistake.toml"
    path.write_text(text)
    r = subprocess.run([sys.executable, str(REPO / "sim/run"), str(path), "--out", str(tmp_path / "out")],
                       capture_output=True, text=True, timeout=60)
    assert (r.returncode, "mistake.toml: " in r.stderr, message in r.stderr) == (2, True, True), r.stderr
    assert not (tmp_path / "out").exists()


FAILING = """
description = "one key holder, one expectation that holds and two that do not"
scale = 100
until = "ready+20"
radio = [{ index = 0, rogue_ap = 0, vap = [{ index = 0, ft = 1 }] }, { index = 1, rogue_ap = 0 }]
event = [{ after = "ready", at = 2, do = "kh_add", mac = "0A:1B:2C:3D:4E:50" },
         { after = "5g.full", do = "voice", radio = 1, on = true }]
fault = [{ rule = "unlink path=/tmp/never_removed errno=EIO" }]
[[expect]]
key_holders = ["0A:1B:2C:3D:4E:5F 1 0"]
[[expect]]
file = "/tmp/ap2_macaddr.txt"
lines = ["ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:71"]
[[expect]]
script_runs = 2
"""


def test_failing_expectation_fails_the_run(tmp_path, dorvand, simlib):
    path = tmp_path / "failing.toml"
    path.write_text(FAILING)
    out = tmp_path / "out"
    r = subprocess.run([sys.executable, str(REPO / "sim/run"), str(path), "--out", str(out), "--dorvand", str(dorvand),
                        "--simlib", str(simlib)], capture_output=True, text=True, timeout=120)
    assert r.returncode == 1, r.stdout + r.stderr
    lines = (out / "report.txt").read_text().splitlines()
    assert any(ln.startswith("  ok    [[expect]] #1") for ln in lines)
    failed = [ln for ln in lines if ln.startswith("  FAIL")]
    assert len(failed) == 4, failed  # these four and nothing else (a sanitizer report, say)
    assert any("[[expect]] #2" in ln and "0A:1B:2C:3D:4E:71" in ln for ln in failed), failed
    assert any("[[expect]] #3" in ln and "1 script runs (expected 2)" in ln for ln in failed), failed
    assert any("[[event]] #2" in ln and "never came due" in ln for ln in failed), failed
    assert any("[[fault]] #1" in ln and "never fired" in ln for ln in failed), failed
    assert "FAILED: scenario failing" in r.stdout
