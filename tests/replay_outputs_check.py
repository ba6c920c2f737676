#!/usr/bin/python3
"""Checks stylus-replay's outputs on the shipped sample.

  replay_outputs_check.py schema REPLAY SAMPLE SCHEMA   the --json summary against its JSON Schema,
                                                          and the totals against the recordings
  replay_outputs_check.py browser REPLAY SAMPLE_GEN SAMPLE
                            the --report page in headless chromium (selenium), on a long generated
                            recording and the sample: the last stroke reachable and drawn, one colour
                            per predictor in charts and drawing, chart labels inside their charts,
                            filled latency bins, no script error
Exits 77 (skipped) when python3-jsonschema, python3-selenium or chromium is missing.
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
CHROMEDRIVER = "/usr/bin/chromedriver"


def replay(exe, sample, workdir, *options, recordings=None):
    # Two recordings, so that the per-recording and macro figures have something to average.
    result = subprocess.run([exe, "--quiet", "--log", os.path.join(workdir, "library.log"), *options,
                             *(recordings or [sample, sample])],
                            cwd=workdir, capture_output=True, text=True, timeout=300)
    if result.returncode != 0:
        sys.exit(f"stylus-replay exited with {result.returncode}:\n{result.stdout}\n{result.stderr}")


def check_schema(exe, sample, schema_path):
    try:
        import jsonschema
    except ImportError:
        print("skipped: python3-jsonschema is not installed (scripts/install-deps.sh test installs it)")
        return SKIP
    with open(schema_path) as f:
        schema = json.load(f)
    jsonschema.Draft202012Validator.check_schema(schema)
    # With the tuned peers (the shipped peers file beside the shipped configuration) every field is there.
    with tempfile.TemporaryDirectory() as workdir:
        path = os.path.join(workdir, "summary.json")
        replay(exe, sample, workdir, "--peers", "--json", path)
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
            for predictor in ["model"] + [p["key"] for p in summary["predictors"]]:
                assert pooled[point_set][predictor]["count"] == pooled[point_set]["count"], (h, point_set, predictor)
                means = [s[predictor]["mean_mm"] for s in own if s["count"] > 0]
                expected = sum(means) / len(means)
                assert math.isclose(macro[point_set][predictor]["mean_mm"], expected, rel_tol=1e-4), (h, point_set)
        # Every predictor's overshoot is over the same points, those due past a lift, delivered or dropped.
        overshoot = pooled["overshoot"]
        assert overshoot["count"] == pooled["past_stroke_end"] + pooled["dropped_past_end"], h
        for predictor in ["model"] + [p["key"] for p in summary["predictors"]]:
            assert overshoot[predictor]["count"] == overshoot["count"], (h, predictor)
        # The charged set adds exactly the drops inside a stroke to the common one.
        assert pooled["drops_charged"]["count"] - pooled["predicted_by_all"]["count"] == pooled["dropped_inside_stroke"]
    assert "two batches later" in summary["library_metrics"]["measures"]
    assert [p["key"] for p in summary["predictors"] if p["tuned"]] == [
        "kalman_constant_velocity", "kalman_constant_acceleration", "least_squares_linear", "least_squares_quadratic"]
    assert summary["peers_file"].endswith("stylus_predictor.peers.json")
    assert all(r["peers_rate_hz"] == 240 and abs(r["rate_hz"] - 240) < 5 for r in recordings), recordings
    print(f"{len(summary['horizons'])} horizons, {summary['counts']['predictions']} predictions: schema and totals hold")
    return 0


def strokes_of(path):
    """The recording's strokes, cut as the replay cuts them (a pen-down opens one, a pen-up closes one),
    each a list of (timestamp, x, y)."""
    strokes, open_stroke = [], False
    with open(path) as f:
        next(f)
        for line in f:
            fields = line.rstrip().split(",")
            tag = int(fields[6])
            if tag == 0 or not open_stroke:
                strokes.append([])
            strokes[-1].append((int(fields[0]), float(fields[1]), float(fields[2])))
            open_stroke = tag != 1
    return strokes


# Run in the page: each chart text's box against its SVG's box (the viewBox as drawn) and against the
# other texts, and the histograms' filled bars.
CHART_LAYOUT = """
const clipped = [];
document.querySelectorAll('svg.chart').forEach((svg) => {
  const frame = svg.getBoundingClientRect();
  const boxes = Array.from(svg.querySelectorAll('text')).map((t) => [t.textContent, t.getBoundingClientRect()]);
  boxes.forEach(([text, r], i) => {
    if (r.left < frame.left - 0.5 || r.right > frame.right + 0.5 || r.top < frame.top - 0.5 ||
        r.bottom > frame.bottom + 0.5) clipped.push(text);
    boxes.slice(i + 1).forEach(([other, o]) => {
      if (r.left < o.right && o.left < r.right && r.top < o.bottom && o.top < r.bottom) clipped.push(text + ' over ' + other);
    });
  });
});
const bars = Array.from(document.querySelectorAll('svg.histogram')).map(
  (svg) => Array.from(svg.querySelectorAll('rect')).filter((r) => Number(r.getAttribute('height')) > 0).length);
return [clipped, bars];
"""

# Run in the page: how many of the drawing's pixels have exactly each of the given colours.
PIXELS_OF = """
const canvas = document.getElementById('drawing');
const pixels = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
const wanted = arguments[0].map((c) => [parseInt(c.slice(1, 3), 16), parseInt(c.slice(3, 5), 16), parseInt(c.slice(5, 7), 16)]);
const counts = wanted.map(() => 0);
for (let i = 0; i < pixels.length; i += 4) {
  wanted.forEach((w, j) => {
    if (pixels[i] === w[0] && pixels[i + 1] === w[1] && pixels[i + 2] === w[2] && pixels[i + 3] === 255) counts[j]++;
  });
}
return counts;
"""


def check_browser(exe, sample_gen, sample):
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        from selenium.webdriver.support.ui import Select
    except ImportError:
        print("skipped: python3-selenium is not installed (scripts/install-deps.sh test installs it)")
        return SKIP
    for tool in (CHROMIUM, CHROMEDRIVER):
        if not os.access(tool, os.X_OK):
            print(f"skipped: {tool} is not installed (scripts/install-deps.sh test installs chromium and chromium-driver)")
            return SKIP
    with tempfile.TemporaryDirectory() as workdir:
        # A long recording, far past what one screen of strokes shows, then the shipped sample.
        long_recording = os.path.join(workdir, "long.csv")
        subprocess.run([sample_gen, "--seed", "7", "--words", "60", long_recording], check=True, timeout=60)
        rows = strokes_of(long_recording)
        strokes = [len(stroke) for stroke in rows]
        assert len(strokes) > 50 and sum(strokes[:-1]) > 10000, (len(strokes), sum(strokes))
        page = os.path.join(workdir, "report.html")
        replay(exe, sample, workdir, "--peers", "--report", page, recordings=[long_recording, sample])
        samples = sum(strokes) + sum(len(stroke) for stroke in strokes_of(sample))
        size = os.path.getsize(page)
        print(f"page: {size} bytes for {samples} samples ({size / samples:.1f} bytes per sample)")
        # Every stroke is on the page, so it grows with the samples: a byte or two for each number of a
        # sample and of each predictor's guess (37.5 bytes per sample with the model, two baselines and
        # four tuned peers).
        assert size < 50 * samples, size

        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1280,1000",
                         "--force-device-scale-factor=1", f"--user-data-dir={os.path.join(workdir, 'profile')}"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        try:
            return check_page(driver, page, rows, Select)
        finally:
            driver.quit()


def check_page(driver, page, rows, Select):
    strokes = [len(stroke) for stroke in rows]
    def attribute(element, name):
        return driver.execute_script(f"return document.{element}.getAttribute('{name}')")

    def failed(message):
        sys.exit(message + "; the page logged: " + str(driver.get_log("browser")))

    driver.get("file://" + page)
    by_id = lambda name: driver.find_element("id", name)
    if attribute("documentElement", "data-script-error"):
        failed("a script failed: " + attribute("documentElement", "data-script-error"))
    recordings = Select(by_id("recording"))
    if len(recordings.options) != 2 or "long.csv" not in recordings.options[0].text:
        failed("recordings to choose: " + str([o.text for o in recordings.options]))

    # The last stroke of the long recording: reached with the picker, drawn whole.
    recordings.select_by_index(0)
    by_id("last").click()
    if by_id("stroke").get_attribute("value") != str(len(strokes)) or by_id("stroke-count").text != str(len(strokes)):
        failed(f"the last stroke is {by_id('stroke').get_attribute('value')} of {by_id('stroke-count').text}, "
               f"expected {len(strokes)}")
    Select(by_id("window-size")).select_by_value("0")
    Select(by_id("every")).select_by_value("1")
    info = by_id("stroke-info").text
    expected = f"stroke {len(strokes)} of {len(strokes)}: {strokes[-1]} samples"
    if expected not in info or int(attribute("body", "data-rendered")) == 0:
        failed(f"the last stroke was not drawn: {info!r}, expected {expected!r}")

    # The page's packed numbers decode to the recording's own timestamps and positions (0.1 px steps).
    decoded = driver.execute_script(f"const s = window.replayStroke(0, {len(strokes) - 1}); return [s.t, s.x, s.y];")
    first = rows[-1][0][0] - rows[0][0][0]
    expected_t = [t - rows[-1][0][0] + first for t, _, _ in rows[-1]]
    if decoded[0] != expected_t or any(abs(a - b) > 0.051 for a, b in zip(decoded[1] + decoded[2],
                                                                          [x for _, x, _ in rows[-1]] + [y for _, _, y in rows[-1]])):
        failed(f"the last stroke decodes to {decoded[0][:5]} {decoded[1][:5]} {decoded[2][:5]}, expected {rows[-1][:5]}")

    # One colour per predictor: the chart's bars, the drawing's legend and the drawing itself.
    predictors = driver.execute_script(
        "return JSON.parse(document.getElementById('replay-data').textContent).predictors.map((p) => p.key)")
    colours = {}
    for key in predictors:
        fills = {e.get_attribute("fill") for e in driver.find_elements("css selector", f"svg rect[data-predictor='{key}']")}
        swatches = {driver.execute_script("const c = getComputedStyle(arguments[0]).backgroundColor;"
                                          "return '#' + c.match(/\\d+/g).slice(0, 3).map((v) => Number(v).toString(16)"
                                          ".padStart(2, '0')).join('');", e)
                    for e in driver.find_elements("css selector", f"#predictor-legend i[data-predictor='{key}']")}
        if len(fills) != 1 or swatches != fills:
            failed(f"{key}: chart bars {fills}, drawing legend {swatches}")
        colours[key] = fills.pop()
    if len(set(colours.values())) != len(colours):
        failed(f"predictors share a colour: {colours}")
    by_id("show-truth").click()
    for key in predictors:
        for other in predictors:
            box = by_id("show-" + other)
            if box.is_selected() != (other == key):
                box.click()
        counts = driver.execute_script(PIXELS_OF, [colours[p] for p in predictors])
        alone = dict(zip(predictors, counts))
        if alone[key] == 0 or any(n > 0 for p, n in alone.items() if p != key):
            failed(f"with only {key} shown the drawing's pixels of each chart colour are {alone}")

    # Deep links open a stroke; the charts' labels lie inside them and the histograms have bins.
    driver.get("file://" + page + "#recording=1&stroke=last")
    driver.refresh()
    if by_id("stroke").get_attribute("value") != str(len(strokes)):
        failed("#stroke=last opened stroke " + by_id("stroke").get_attribute("value"))
    clipped, bars = driver.execute_script(CHART_LAYOUT)
    if clipped:
        failed(f"chart labels outside their chart or over each other: {clipped}")
    if len(bars) != 2 or min(bars) < 2:
        failed(f"filled bins of the latency histograms: {bars}")
    errors = [entry for entry in driver.get_log("browser") if entry["level"] == "SEVERE"]
    if errors or attribute("documentElement", "data-script-error"):
        failed(f"script errors: {errors}")
    print(f"last of {len(strokes)} strokes drawn ({strokes[-1]} samples), colours {colours} agree between "
          f"charts and drawing, chart labels inside their charts and apart, latency bins filled: {bars}")
    return 0


def main():
    sys.argv[2:] = [os.path.abspath(arg) for arg in sys.argv[2:]]
    if len(sys.argv) == 5 and sys.argv[1] == "schema":
        return check_schema(*sys.argv[2:])
    if len(sys.argv) == 5 and sys.argv[1] == "browser":
        return check_browser(*sys.argv[2:])
    sys.exit(__doc__)


if __name__ == "__main__":
    sys.exit(main())
