"""The small deployment of sim/floors (three daemons, s2 killed and started again over its key-holder file): every
expectation of the floor holds, and the files hold the key holders and BSSIDs worked out by hand."""

from sim import charts, deployment, deployment_report
from sim.deployment_run import DeploymentRunner

from e2e_helpers import fail_on_sanitizer_reports, has_colours

# Worked out by hand. Base MACs 00:1D:AA:40:0N:00; s1 and s2 are family 1
# (key holder base + 0x1F; VAP 0's BSSIDs of key holder L: L - 0x1E + 0x20 k),
# s3 family 0 (base + 0x0F; L - 0x0F + 0x10 k). Per access point: its records
# (MAC, active, family), its 802.11r VAPs, the BSSIDs on each of their lines.
FINAL = {"s1": ({"00:1D:AA:40:02:1F:01:01", "00:1D:AA:40:03:0F:01:00"}, 3,
                {"00:1D:AA:40:02:01", "00:1D:AA:40:02:21", "00:1D:AA:40:02:41",
                 "00:1D:AA:40:03:00", "00:1D:AA:40:03:10", "00:1D:AA:40:03:20"}),
         "s3": ({"00:1D:AA:40:01:1F:01:01", "00:1D:AA:40:02:1F:01:01"}, 2,
                {"00:1D:AA:40:01:01", "00:1D:AA:40:01:21", "00:1D:AA:40:01:41",
                 "00:1D:AA:40:02:01", "00:1D:AA:40:02:21", "00:1D:AA:40:02:41"})}


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
    assert second.key_holders_at_start == ["00:1D:AA:40:01:1F", "00:1D:AA:40:03:0F"], second
    assert second.ready is not None and res.lives["s3"][0].exit_code == 0
    assert has_colours(out / "floor.png", charts.LINKS["covered"]["color"])
    assert has_colours(out / "chart_2g.png", charts.LOAD_COLOR, charts.BSS_COLOR)
    for ap, (records, vaps, bssids) in FINAL.items():
        final = out / "aps" / ap / "final"
        data = (final / "roam_key_holders").read_bytes()
        assert {data[i + 8:i + 16].hex(":").upper() for i in range(0, len(data), 16)} == records, ap
        lines = (final / "ap2_macaddr.txt").read_text().splitlines()
        assert len(lines) == vaps and all(set(ln.split("=")[1].split()) == bssids for ln in lines), lines
