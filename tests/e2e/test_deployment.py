"""The small deployment of sim/floors run by the runner that sim/run uses:
three daemons at once, the peer's events to two of them, scans for the
third, and s2 lost (killed, or taken down with signal 10) and started again
over its own files. Every expectation of the floor holds either way; only a
killed daemon leaves its key-holder file for the next start."""

import pytest

from sim import charts, deployment, deployment_report
from sim.deployment_run import DeploymentRunner

from e2e_helpers import has_colours


@pytest.mark.parametrize("how, file_kept", [("kill", True), ("signal10", False)])
def test_small_deployment_holds_its_expectations(how, file_kept, dorvand, simlib, tmp_path):
    path = tmp_path / "small.toml"
    path.write_text((deployment.FLOOR_DIR / "small.toml").read_text().replace('how = "kill"', f'how = "{how}"'))
    floor = deployment.load(path)
    out = tmp_path / "out"
    progress: list[str] = []
    res = DeploymentRunner(floor, dorvand, simlib, out, echo=progress.append).run()
    text, passed = deployment_report.build(out)
    assert passed, text[text.index("---- expectations"):] + "\n".join(progress[-4:])
    first, second = res.lives["s2"]
    assert (first.how, first.exit_code) == (how, -9 if how == "kill" else 0)
    assert bool(second.key_holders_at_start) == file_kept, second
    assert second.ready is not None and res.lives["s3"][0].exit_code == 0
    assert has_colours(out / "floor.png", charts.LINKS["covered"]["color"])
    assert has_colours(out / "chart_2g.png", charts.LOAD_COLOR, charts.BSS_COLOR)
