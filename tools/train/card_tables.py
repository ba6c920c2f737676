#!/usr/bin/python3
"""Markdown tables for the model card from stylus-replay --json summaries.

One summary: pooled and macro-averaged tables (mean and p95 per horizon, model against
least-squares velocity over 3 samples and constant velocity) and per-recording tables.
Several summaries (e.g. one per rate and batch size): besides, one line per summary and
the count of cells where the model is not better than the better baseline.

    tools/train/card_tables.py eval.json
    tools/train/card_tables.py --label "200 Hz, batch 1" a.json --label "200 Hz, batch 2" b.json

Figures come from the point set "drops_charged" by default (the model's drops inside a
stroke counted as no prediction); --points predicted_by_all gives the points all three predicted.
"""
import argparse
import json
import os
import sys

PREDICTORS = (("model", "model"), ("least_squares_3", "LS3"), ("constant_velocity", "CV"))


def fmt(v, digits=3):
    return "-" if v is None else "%.*f" % (digits, v)


def point_set(h, points):
    return h[points]


def losing(ps):
    """True when the model's mean is not below the better baseline's (a cell it does not win)."""
    m = ps["model"]["mean_mm"]
    base = [ps[k]["mean_mm"] for k in ("least_squares_3", "constant_velocity") if ps[k]["mean_mm"] is not None]
    return m is not None and bool(base) and m >= min(base)


def horizon_table(horizons, points):
    head = ("| horizon ms | points | model mean | LS3 mean | CV mean | model p95 | LS3 p95 | CV p95 "
            "| dropped in stroke | dropped past end |")
    rows = [head, "|" + "---:|" * 10]
    for h in horizons:
        ps = point_set(h, points)
        rows.append("| %d | %d | %s | %s | %s | %s | %s | %s | %d | %d |" % (
            h["ms"], ps["count"],
            *(fmt(ps[k]["mean_mm"]) for k, _ in PREDICTORS),
            *(fmt(ps[k]["p95_mm"]) for k, _ in PREDICTORS),
            h["dropped_inside_stroke"], h["dropped_past_end"]))
    return "\n".join(rows)


def recording_table(summary, points, stat):
    """One row per recording; each horizon cell reads model / LS3 / CV."""
    hs = [h["ms"] for h in summary["horizons"]]
    head = "| recording | points | " + " | ".join("%d ms model / LS3 / CV" % ms for ms in hs)
    head += " | dropped in stroke | dropped past end |"
    rows = [head, "|---|---:|" + "---:|" * (len(hs) + 2)]
    for r in summary["recordings"]:
        cells = []
        for h in r["horizons"]:
            ps = point_set(h, points)
            cell = " / ".join(fmt(ps[k][stat]) for k, _ in PREDICTORS)
            cells.append("**%s**" % cell if stat == "mean_mm" and losing(ps) else cell)
        count = point_set(r["horizons"][-1], points)["count"]
        rows.append("| %s | %d | %s | %d | %d |" % (
            os.path.basename(r["path"]), count, " | ".join(cells),
            r["counts"]["dropped_inside_stroke"], r["counts"]["dropped_past_end"]))
    return "\n".join(rows)


def describe(summary):
    s, c = summary["settings"], summary["counts"]
    return ("%d recordings, %d strokes, %d samples, batches of %d; %d points delivered, %d past their stroke's "
            "end; dropped by the model: %d inside a stroke, %d past its end" % (
                c["recordings"], c["strokes"], c["samples"], s["batch_size"], c["predictions"],
                c["past_stroke_end"], c["dropped_inside_stroke"], c["dropped_past_end"]))


def single_report(summary, points, title):
    out = ["%s: %s." % (title, describe(summary)), "",
           "Pooled (every point weighs the same):", "", horizon_table(summary["horizons"], points), "",
           "Macro-averaged (every recording weighs the same):", "",
           horizon_table(summary["macro_average"]["horizons"], points), ""]
    out += ["Per recording, mean mm (bold: the model is not better than the better baseline):", "",
            recording_table(summary, points, "mean_mm"), "",
            "Per recording, p95 mm:", "", recording_table(summary, points, "p95_mm"), ""]
    return "\n".join(out)


def cells(summary, points):
    """The ratio of the model's mean to the better baseline's in every recording x horizon cell."""
    for r in summary["recordings"]:
        for h in r["horizons"]:
            ps = point_set(h, points)
            base = [ps[k]["mean_mm"] for k in ("least_squares_3", "constant_velocity")
                    if ps[k]["mean_mm"] is not None]
            if ps["model"]["mean_mm"] is None or not base or min(base) <= 0:
                continue
            yield ps["model"]["mean_mm"] / min(base)


def pooled_mean(summaries, i, points, key):
    """The mean over the points of every summary at horizon i (each point weighs the same)."""
    pairs = [(point_set(s["horizons"][i], points)[key]["mean_mm"], point_set(s["horizons"][i], points)[key]["count"])
             for s in summaries]
    total = sum(c for m, c in pairs if m is not None)
    return sum(m * c for m, c in pairs if m is not None) / total if total else None


def sweep_report(summaries, labels, points):
    hs = [h["ms"] for h in summaries[0]["horizons"]]
    head = ("| replay | points | " + " | ".join("%d ms model / LS3 / CV" % ms for ms in hs)
            + " | %d ms p95 model / LS3 / CV | worst ratio | losing cells | dropped in stroke | dropped past end |"
            % hs[-1])
    rows = [head, "|---|---:|" + "---:|" * (len(hs) + 5)]
    worst_all, losing_all, cells_all = None, 0, 0
    for summary, label in zip(summaries, labels):
        ratios = list(cells(summary, points))
        worst = max(ratios) if ratios else None
        lose = sum(1 for x in ratios if x >= 1.0)
        if worst is not None:
            worst_all = worst if worst_all is None else max(worst_all, worst)
        losing_all += lose
        cells_all += len(ratios)
        means = [" / ".join(fmt(point_set(h, points)[k]["mean_mm"]) for k, _ in PREDICTORS)
                 for h in summary["horizons"]]
        last = point_set(summary["horizons"][-1], points)
        rows.append("| %s | %d | %s | %s | %s | %d of %d | %d | %d |" % (
            label, last["count"], " | ".join(means),
            " / ".join(fmt(last[k]["p95_mm"]) for k, _ in PREDICTORS), fmt(worst), lose, len(ratios),
            summary["counts"]["dropped_inside_stroke"], summary["counts"]["dropped_past_end"]))
    rows.append("| all replays pooled | %d | %s | | | | | |" % (
        sum(point_set(s["horizons"][-1], points)["count"] for s in summaries),
        " | ".join(" / ".join(fmt(pooled_mean(summaries, i, points, k)) for k, _ in PREDICTORS)
                   for i in range(len(hs)))))
    rows.append("")
    rows.append("Pooled figures per replay. Worst ratio of the model's mean to the better baseline's over every "
                "recording x horizon cell of every replay: %s; cells where the model is not better: %d of %d."
                % (fmt(worst_all), losing_all, cells_all))
    return "\n".join(rows)


def default_label(summary, path):
    return "%s, batch %d" % (os.path.splitext(os.path.basename(path))[0], summary["settings"]["batch_size"])


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("json", nargs="+", help="stylus-replay --json files")
    ap.add_argument("--label", action="append", default=[],
                    help="a name for each summary, in order (default: file name and batch size)")
    ap.add_argument("--points", choices=("drops_charged", "predicted_by_all"), default="drops_charged")
    ap.add_argument("--title", default="Replay")
    ap.add_argument("--sweep-only", action="store_true", help="with several files, only the one-line-per-file table")
    args = ap.parse_intermixed_args(argv)
    summaries = []
    for p in args.json:
        with open(p) as f:
            summaries.append(json.load(f))
    labels = args.label + [default_label(s, p) for s, p in zip(summaries[len(args.label):], args.json[len(args.label):])]
    if len(summaries) == 1:
        print(single_report(summaries[0], args.points, args.title))
        return
    print(sweep_report(summaries, labels, args.points))
    if not args.sweep_only:
        for s, label in zip(summaries, labels):
            print()
            print(single_report(s, args.points, "%s, %s" % (args.title, label)))


if __name__ == "__main__":
    sys.exit(main())
