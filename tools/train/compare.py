#!/usr/bin/python3
"""A newly trained model against the shipped one and the two simple baselines, measured by the
library itself: the validation recordings are replayed through `stylus-replay` once with each
configuration, and the mean and p95 error per horizon are put side by side.

    tools/train/compare.py --replay build/test-release/tools/stylus-replay NEW.json SHIPPED.json REC...
"""
import argparse
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile

import recordings

ROOT = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
HEADER = "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag\n"
# The point set where every predictor is measured on the same points, the model's in-stroke drops
# charged as "no prediction" (the replay's headline figures).
POINTS = "drops_charged"
ROWS = (("new model", "new", "model"), ("shipped model", "shipped", "model"),
        ("least-squares velocity", "new", "least_squares_3"), ("constant velocity", "new", "constant_velocity"))


def find_replay():
    """The newest stylus-replay built under build/, else the one on PATH, else None."""
    built = glob.glob(os.path.join(ROOT, "build", "*", "tools", "stylus-replay"))
    built = [b for b in built if os.access(b, os.X_OK)]
    if built:
        return max(built, key=os.path.getmtime)
    return shutil.which("stylus-replay")


def write_csv(path, rec):
    # %.9g round-trips the float32 channels, so the library reads the training code's samples.
    with open(path, "w") as f:
        f.write(HEADER)
        for row in zip(rec.t, rec.x, rec.y, rec.pressure, rec.tilt, rec.orientation, rec.tag):
            f.write("%d,%.9g,%.9g,%.9g,%.9g,%.9g,%d\n" % row)


def replay(binary, config, paths, work, name, batch):
    out = os.path.join(work, "%s.json" % name)
    subprocess.run([binary, "--config", os.path.abspath(config), "--batch-size", str(batch), "--json", out,
                    "--quiet", "--log", os.path.join(work, "%s.log" % name)] + paths,
                   cwd=work, check=True, stdout=subprocess.DEVNULL)
    with open(out) as f:
        return json.load(f)


def table(summaries):
    """Markdown-like text: mean / p95 mm per horizon for each predictor, pooled over the recordings."""
    ms = [h["ms"] for h in summaries["new"]["horizons"]]
    lines = ["| | " + " | ".join("+%d ms" % m for m in ms) + " |", "|---|" + "---:|" * len(ms)]
    for label, run, key in ROWS:
        cells = []
        for h in summaries[run]["horizons"]:
            v = h[POINTS][key]
            cells.append("-" if v["mean_mm"] is None else "%.3f / %.3f" % (v["mean_mm"], v["p95_mm"]))
        lines.append("| %s | %s |" % (label, " | ".join(cells)))
    return lines


def verdict(summaries):
    """One sentence: how the new model does against the shipped one and the better baseline at each horizon."""
    better_than_shipped, beats_baselines, n = 0, 0, 0
    for hn, hs in zip(summaries["new"]["horizons"], summaries["shipped"]["horizons"]):
        new, old = hn[POINTS], hs[POINTS]
        m = new["model"]["mean_mm"]
        if m is None:
            continue
        n += 1
        better_than_shipped += old["model"]["mean_mm"] is not None and m < old["model"]["mean_mm"]
        base = [new[k]["mean_mm"] for k in ("least_squares_3", "constant_velocity") if new[k]["mean_mm"] is not None]
        beats_baselines += bool(base) and m < min(base)
    last_new = summaries["new"]["horizons"][-1][POINTS]["model"]["mean_mm"]
    last_old = summaries["shipped"]["horizons"][-1][POINTS]["model"]["mean_mm"]
    change = "" if not last_new or not last_old else " (%+.1f %% at +%d ms)" % (
        100.0 * (last_new / last_old - 1.0), summaries["new"]["horizons"][-1]["ms"])
    ship = "ship it" if better_than_shipped == n and beats_baselines == n else "keep the shipped model"
    return ("The new model is better than the shipped one at %d of %d horizons%s and better than both baselines "
            "at %d of %d: %s." % (better_than_shipped, n, change, beats_baselines, n, ship))


def compare(binary, new_config, shipped_config, recs, batch=4):
    """Lines of the comparison on the given (path, Recording) pairs."""
    with tempfile.TemporaryDirectory() as work:
        paths = []
        for k, (path, rec) in enumerate(recs):
            # Written anew: the reader skipped bad rows the library would refuse, and .dat files go as CSV.
            name = "%02d_%s.csv" % (k, os.path.splitext(os.path.basename(path))[0])
            write_csv(os.path.join(work, name), rec)
            paths.append(name)
        summaries = {run: replay(binary, config, paths, work, run, batch)
                     for run, config in (("new", new_config), ("shipped", shipped_config))}
    counts = summaries["new"]["counts"]
    head = ("Validation recordings through stylus-replay (%d recordings, %d strokes, batches of %d), "
            "mean / p95 error in mm, the model's in-stroke drops charged:" % (
                counts["recordings"], counts["strokes"], batch))
    return [head, ""] + table(summaries) + ["", verdict(summaries)]


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--replay", default=find_replay(), help="the stylus-replay binary (default: the newest under build/)")
    ap.add_argument("--batch-size", type=int, default=4)
    ap.add_argument("new_config")
    ap.add_argument("shipped_config")
    ap.add_argument("recordings", nargs="+", help="recording files or directories")
    args = ap.parse_args(argv)
    if not args.replay:
        ap.error("no stylus-replay found: build it or give --replay")
    skipped = recordings.Skipped()
    recs = recordings.load(args.recordings, skipped)
    for line in skipped.report():
        print(line)
    print("\n".join(compare(os.path.abspath(args.replay), args.new_config, args.shipped_config, recs, args.batch_size)))


if __name__ == "__main__":
    sys.exit(main())
