"""The small deployment of sim/floors run by the runner that sim/run uses:
three daemons at once, the peer's events to two of them, scans for the
third, and s2 killed and started again over the key-holder file it left.
Every expectation of the floor holds."""

from sim import charts, deployment, deployment_report
from sim.deployment_run import DeploymentRunner

from e2e_helpers import fail_on_sanitizer_reports, has_colours


def test_small_deployment_holds_its_expectations(dorvand, simlib, tmp_path):
    floor = deployment.load(deployment.FLOOR_DIR / "small.toml")
    out = tmp_path / "out"
    progress: list[str] = []
    runner = DeploymentRunner(floor, dorvand, simlib, out, echo=progress.append)
    res = runner.run()
    fail_on_sanitizer_reports(node.sb for node in runner.nodes.values() if node.sb)
    text, passed = deployment_report.build(out)
    assert passed, text[text.index("---- expectations"):] + "\n".join(progress[-4:])
    first, second = res.lives["s2"]
    assert (first.how, first.exit_code) == ("kill", -9)
    assert second.key_holders_at_start, second
    assert second.ready is not None and res.lives["s3"][0].exit_code == 0
    assert has_colours(out / "floor.png", charts.LINKS["covered"]["color"])
    assert has_colours(out / "chart_2g.png", charts.LOAD_COLOR, charts.BSS_COLOR)
