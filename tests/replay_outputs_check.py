#!/usr/bin/python3
"""Checks stylus-replay's outputs on the shipped sample, replayed as two recordings.

  replay_outputs_check.py schema REPLAY SAMPLE SCHEMA   the --json summary against its JSON Schema,
                                                          and the totals against the recordings
  replay_outputs_check.py browser REPLAY SAMPLE         the --report page in headless chromium:
                                                          drawn, no script error
Exits 77 (skipped) when python3-jsonschema or chromium is missing.
"""
import json
import math
import os
import re
import subprocess
import sys
import tempfile

SKIP = 77
CHROMIUM = "/usr/bin/chromium"


def replay(exe, sample, workdir, *options):
    # Two recordings, so that the per-recording and macro figures have something to average.
    result = subprocess.run([exe, "--quiet", "--log", os.path.join(workdir, "library.log"), *options, sample, sample],
                            cwd=workdir, capture_output=True, text=True, timeout=300)
    if result.returncode != 0:
        sys.exit(f"stylus-replay exited with {result.returncode}:\n{result.stdout}\n{result.stderr}")


def check_schema(exe, sample, schema_path):
    try:
        import jsonschema
    except ImportError:
        print("skipped: python3-jsonschema is not installed (scripts/install-deps.sh installs it)")
        return SKIP
    with open(schema_path) as f:
        schema = json.load(f)
    jsonschema.Draft202012Validator.check_schema(schema)
    with tempfile.TemporaryDirectory() as workdir:
        path = os.path.join(workdir, "summary.json")
        replay(exe, sample, workdir, "--json", path)
        with open(path) as f:
            summary = json.load(f)
    jsonschema.Draft202012Validator(schema).validate(summary)

    recordings = summary["recordings"]
    assert len(recordings) == 2, len(recordings)
    for key, total in summary["counts"].items():
        assert total == sum(r["counts"][key] for r in recordings), key
    for h, pooled in enumerate(summary["horizons"]):
        macro = summary["macro_average"]["horizons"][h]
        for point_set in ("predicted_by_all", "drops_charged"):
            own = [r["horizons"][h][point_set] for r in recordings]
            assert pooled[point_set]["count"] == sum(s["count"] for s in own) == macro[point_set]["count"]
            for predictor in ("model", "constant_velocity", "least_squares_3"):
                means = [s[predictor]["mean_mm"] for s in own if s["count"] > 0]
                expected = sum(means) / len(means)
                assert math.isclose(macro[point_set][predictor]["mean_mm"], expected, rel_tol=1e-4), (h, point_set)
        # The charged set adds exactly the drops inside a stroke to the common one.
        assert pooled["drops_charged"]["count"] - pooled["predicted_by_all"]["count"] == pooled["dropped_inside_stroke"]
    assert "two batches later" in summary["library_metrics"]["measures"]
    print(f"{len(summary['horizons'])} horizons, {summary['counts']['predictions']} predictions: schema and totals hold")
    return 0


def check_browser(exe, sample):
    if not os.access(CHROMIUM, os.X_OK):
        print(f"skipped: {CHROMIUM} is not installed (scripts/install-deps.sh installs chromium)")
        return SKIP
    with tempfile.TemporaryDirectory() as workdir:
        page = os.path.join(workdir, "report.html")
        replay(exe, sample, workdir, "--report", page)
        profile = os.path.join(workdir, "profile")
        browser = subprocess.run(
            [CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             f"--user-data-dir={profile}", "--enable-logging=stderr", "--v=0", "--window-size=1280,2000",
             "--dump-dom", "file://" + page],
            capture_output=True, text=True, timeout=120)
    dom, log = browser.stdout, browser.stderr
    errors = [line for line in log.splitlines() if "CONSOLE" in line or "Uncaught" in line]
    if errors:
        sys.exit("the page logged:\n" + "\n".join(errors))
    failed = re.search(r'<html[^>]* data-script-error="[^"]*"', dom)
    if failed:
        sys.exit("a script failed: " + failed.group(0))
    rendered = re.search(r'<body[^>]* data-rendered="(\d+)"', dom)
    if not rendered or int(rendered.group(1)) == 0:
        sys.exit(f"the drawing was not rendered (exit {browser.returncode}):\n{log[-2000:]}")
    options = re.findall(r"<option value=\"\d+\">", dom)
    if len(options) != 2:
        sys.exit(f"{len(options)} recordings can be chosen, expected 2")
    print(f"rendered {rendered.group(1)} points, both recordings reachable, no script error")
    return 0


def main():
    sys.argv[2:] = [os.path.abspath(arg) for arg in sys.argv[2:]]
    if len(sys.argv) == 5 and sys.argv[1] == "schema":
        return check_schema(*sys.argv[2:])
    if len(sys.argv) == 4 and sys.argv[1] == "browser":
        return check_browser(*sys.argv[2:])
    sys.exit(__doc__)


if __name__ == "__main__":
    sys.exit(main())
