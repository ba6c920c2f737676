#!/usr/bin/python3
"""Draws pen strokes in a real (headless) Chromium on the page stylus-live serves, and checks that
the library's predictions arrive and lie near each stroke's continuation, that a recording made with
consent holds exactly the samples the page sent, and that the page logged no script error.

Usage: live_browser_test.py STYLUS_LIVE [--screenshot FILE.png]
Exit 77 when Chromium, its driver or Selenium is missing."""

import argparse
import glob
import math
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

SKIP = 77
CHROMIUM = shutil.which("chromium") or "/usr/bin/chromium"
DRIVER = shutil.which("chromedriver") or "/usr/bin/chromedriver"
MM_PER_CSS_PX = 25.4 / 96


def skip(reason):
    print("SKIP: " + reason)
    sys.exit(SKIP)


try:
    from selenium import webdriver
    from selenium.webdriver.chrome.options import Options
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.actions import interaction
    from selenium.webdriver.common.actions.action_builder import ActionBuilder
    from selenium.webdriver.common.actions.pointer_input import PointerInput
except ImportError as error:
    skip("python3-selenium is not installed (%s)" % error)


def wait_for(driver, script, what, timeout=60.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = driver.execute_script(script)
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError("timed out waiting for " + what)


def stroke_points(kind, x0, y0):
    """Pen positions (CSS px) of one stroke: a straight line, an arc or a wave; 45 to 60 moves."""
    points = []
    count = 45 if kind == "wave" else 60
    for i in range(count + 1):
        u = i / count
        if kind == "line":
            points.append((x0 + 380 * u, y0 + 90 * u))
        elif kind == "arc":
            angle = math.pi * 0.9 * u
            points.append((x0 + 170 * math.sin(angle), y0 + 170 * (1 - math.cos(angle))))
        else:  # brisk, ending on the rise so that the predicted ink runs ahead
            points.append((x0 + 860 * u, y0 + 70 * math.sin(2.6 * math.pi * u)))
    return points


def draw(driver, points, before_lift=None):
    """One pen stroke through the points; before_lift() runs while the pen is still down."""
    pen = PointerInput(interaction.POINTER_PEN, "pen")
    actions = ActionBuilder(driver, mouse=pen)
    x, y = points[0]
    pen.create_pointer_move(duration=0, x=int(x), y=int(y), origin="viewport")
    pen.create_pointer_down(button=0, pressure=0.3, tiltX=20, tiltY=-10)
    for i, (x, y) in enumerate(points[1:], 1):
        pressure = 0.3 + 0.5 * math.sin(math.pi * i / len(points))
        pen.create_pointer_move(duration=8, x=int(round(x)), y=int(round(y)), origin="viewport",
                                pressure=pressure, tiltX=20, tiltY=-10)
    actions.perform()
    # The page sends once per frame: lifted before the frame that carries the last move, the move and
    # the lift go out as one batch and no prediction comes from that move (a loaded machine's frames
    # come late). So the pen stays down until that move has been sent and predicted from.
    last_x, last_y = int(round(points[-1][0])), int(round(points[-1][1]))
    wait_for(driver, "const s = window.stylusLive; const st = s.strokes[s.strokes.length - 1]; "
             "const p = st.samples[st.samples.length - 1]; return p.tag == 2 && Math.abs(p.x - %d) < 0.5 && Math.abs(p.y - %d) < 0.5 && "
             "s.predictions.some((r) => r.base == p.t)" % (last_x, last_y), "the prediction from the last move")
    if before_lift:
        before_lift()
    pen = PointerInput(interaction.POINTER_PEN, "pen")
    actions = ActionBuilder(driver, mouse=pen)
    pen.create_pointer_up(button=0)
    actions.perform()


def interpolate(samples, t):
    """Position (CSS px) of the stroke at time t, or None outside it."""
    if not samples or t < samples[0]["t"] or t > samples[-1]["t"]:
        return None
    for a, b in zip(samples, samples[1:]):
        if a["t"] <= t <= b["t"]:
            f = 1.0 if b["t"] == a["t"] else (t - a["t"]) / (b["t"] - a["t"])
            return (a["x"] + (b["x"] - a["x"]) * f, a["y"] + (b["y"] - a["y"]) * f)
    return (samples[-1]["x"], samples[-1]["y"])


def check_predictions(state):
    """Every stroke got predictions, and at the first horizon they lie near where the pen went."""
    strokes = state["strokes"]
    assert len(strokes) == 3, "expected 3 strokes on the page, got %d" % len(strokes)
    per_stroke = {i: [] for i in range(len(strokes))}
    for record in state["predictions"]:
        for i, stroke in enumerate(strokes):
            if any(s["t"] == record["base"] for s in stroke["samples"]):
                per_stroke[i].append(record)
    errors = []
    for i, stroke in enumerate(strokes):
        assert per_stroke[i], "no prediction arrived for stroke %d" % i
        for record in per_stroke[i]:
            for point in record["points"]:
                if point["k"] != 1:
                    continue
                truth = interpolate(stroke["samples"], point["t"])
                if truth is not None:
                    errors.append(math.hypot(point["x"] - truth[0], point["y"] - truth[1]) * MM_PER_CSS_PX)
    assert len(errors) >= 10, "only %d first-horizon predictions could be checked" % len(errors)
    errors.sort()
    median = errors[len(errors) // 2]
    print("predictions: %d callbacks, first horizon median error %.2f mm over %d points"
          % (len(state["predictions"]), median, len(errors)))
    # A pen moving ~1 px/ms travels ~1 mm in 4 ms: a prediction off the stroke's continuation (wrong
    # units, axes swapped, wrong stroke) lands many millimetres away.
    assert median < 2.0, "first-horizon predictions lie %.2f mm (median) from the stroke" % median


def read_recording(directory):
    rows = []
    files = sorted(glob.glob(os.path.join(directory, "*.dat")))
    assert files, "no recording file in " + directory
    for path in files:
        with open(path) as f:
            lines = f.read().splitlines()
        assert lines[0] == "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag", path + ": header " + lines[0]
        for line in lines[1:]:
            fields = line.split(",")
            rows.append([int(fields[0])] + [float(v) for v in fields[1:6]] + [int(fields[6])])
    return rows


def check_recording(sent, recorded):
    assert len(recorded) == len(sent), "recorded %d samples, sent %d" % (len(recorded), len(sent))
    for i, (s, r) in enumerate(zip(sent, recorded)):
        assert s[0] == r[0] and s[6] == r[6], "sample %d: sent %s, recorded %s" % (i, s, r)
        for a, b in zip(s[1:6], r[1:6]):
            assert abs(a - b) <= 1e-3 * max(1.0, abs(a)), "sample %d: sent %s, recorded %s" % (i, s, r)
    print("recording: %d samples, as sent" % len(recorded))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("server")
    parser.add_argument("--screenshot")
    args = parser.parse_args()
    if not os.access(CHROMIUM, os.X_OK):
        skip("chromium is not installed")
    if not os.access(DRIVER, os.X_OK):
        skip("chromium-driver is not installed")

    started = time.monotonic()
    work = tempfile.mkdtemp(prefix="stylus-live-test-")
    server_out = os.path.join(work, "server.out")
    with open(server_out, "w") as out:
        server = subprocess.Popen([args.server, "--listen", "127.0.0.1:0", "--recordings", os.path.join(work, "rec")],
                                  stdout=out)
    driver = None
    try:
        deadline = time.monotonic() + 60
        line = ""
        while "listening on" not in line and time.monotonic() < deadline and server.poll() is None:
            time.sleep(0.05)
            with open(server_out) as out:
                line = out.readline()
        assert "listening on http://127.0.0.1:" in line, "server said: " + line
        url = line.split("listening on ")[1].split()[0]

        options = Options()
        options.binary_location = CHROMIUM
        for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--window-size=1000,760", "--user-data-dir=" + os.path.join(work, "profile")):
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        driver = webdriver.Chrome(service=Service(DRIVER), options=options)
        driver.get(url)
        ready = wait_for(driver, "return window.stylusLive && window.stylusLive.ready", "the session to start")
        session_dir = ready["recording_dir"]
        assert session_dir.startswith(os.path.join(work, "rec")), session_dir

        driver.find_element("id", "record").click()
        wait_for(driver, "return window.stylusLive.recording", "the recording switch")
        driver.find_element("id", "showCv").click()

        def screenshot():
            # Mid-stroke, with the predicted ink ahead of the pen and the trail of earlier predictions.
            time.sleep(0.3)
            driver.save_screenshot(args.screenshot)

        strokes = (("line", 40, 150), ("arc", 560, 250), ("wave", 60, 470))
        for n, (kind, x0, y0) in enumerate(strokes):
            last = n == len(strokes) - 1
            draw(driver, stroke_points(kind, x0, y0), screenshot if last and args.screenshot else None)
            # Ended on the page and its pen-up sent: one still waiting for the next frame goes out after
            # the snapshot of what was sent below, and the recording then holds one sample more.
            wait_for(driver, "const s = window.stylusLive; return s.strokes.length == %d && !s.strokes[%d].open && "
                     "s.sent.length > 0 && s.sent[s.sent.length - 1][6] == 1" % (n + 1, n), "stroke %d to end" % n)
        # The prediction from the last stroke's last move comes back within a frame or two.
        wait_for(driver, "const s = window.stylusLive; const moves = s.strokes[s.strokes.length - 1].samples"
                 ".filter((p) => p.tag == 2); return s.predictions.some((p) => p.base == moves[moves.length - 1].t)",
                 "the prediction from the last move")
        state = driver.execute_script("return window.stylusLive")
        assert not state["errors"], "the server reported: %s" % state["errors"]
        check_predictions(state)

        sent = state["recordedSent"]
        assert len(sent) == len(state["sent"]) and len(sent) >= 100, \
            "sent %d samples, %d of them with recording on" % (len(state["sent"]), len(sent))
        driver.find_element("id", "finish").click()
        finished = wait_for(driver, "const f = window.stylusLive.finished; return f.length && f[0]",
                            "the session to finish", timeout=90)
        check_recording(sent, read_recording(session_dir))
        assert finished["report"], "no report: %s" % finished["problem"]
        assert os.path.getsize(os.path.join(session_dir, "report.html")) > 1000
        problems = [entry for entry in driver.get_log("browser") if entry["level"] in ("SEVERE", "ERROR")]
        assert not problems, "browser log: %s" % problems
        driver.get(url.rstrip("/") + finished["report"])
        assert "stylus-replay" in driver.page_source
        print("report: " + finished["report"])
    except BaseException:
        # What the server, the library and the report saw, for a failure that does not repeat.
        for path in [server_out, os.path.join(work, "rec", "stylus-live.log")] + \
                glob.glob(os.path.join(work, "rec", "*", "replay.out")):
            if os.path.exists(path):
                with open(path, errors="replace") as f:
                    print("--- %s (end)\n%s" % (path, f.read()[-4000:]))
        if driver is not None:
            try:
                print("--- page state: %s" % driver.execute_script(
                    "const s = window.stylusLive; return {errors: s.errors, closed: s.closed, strokes: "
                    "s.strokes.length, sent: s.sent.length, predictions: s.predictions.length, finished: s.finished}"))
                print("--- browser log: %s" % driver.get_log("browser"))
            except Exception as error:  # the browser itself may be what failed
                print("--- no page state: %s" % error)
        raise
    finally:
        if driver is not None:
            driver.quit()
        server.send_signal(signal.SIGTERM)
        try:
            status = server.wait(timeout=20)
        except subprocess.TimeoutExpired:
            server.kill()
            status = "killed after 20 s"
        shutil.rmtree(work, ignore_errors=True)
    assert status == 0, "stylus-live ended with %s after SIGTERM" % status
    print("ok in %.1f s" % (time.monotonic() - started))


if __name__ == "__main__":
    main()
