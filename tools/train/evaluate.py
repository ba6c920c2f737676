#!/usr/bin/env python3
"""Error tables of the shipped model against constant velocity.

    /usr/bin/python3 tools/train/evaluate.py FILE.csv [FILE.csv ...] [--resample 240]

Runs the exported .tflite graph (numpy forward pass) on the library's input rows
at every point where the library predicts, and compares each horizon with the
constant-velocity extrapolation of the last two samples.
"""

import argparse
import json
import os

import numpy as np

from features import FeatureConfig, Recording, resample
from model import tflite_forward
from targets import Dataset, build, error_table, format_tables

ROOT = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))


def model_outputs(tfl_path, ds, p):
    out0, out1 = [], []
    for i in range(0, len(ds), 16384):
        a, b = tflite_forward(tfl_path, ds.x[i:i + 16384])
        out0.append(a)
        out1.append(b)
    return np.concatenate(out0).reshape(-1, p, 2), np.concatenate(out1)


def report(tfl_path, cfg, files, rates=(None,), title="Results"):
    """Markdown: pooled table, per-file mean errors, stroke-end dropping."""
    p = cfg.num_predictions
    hz = [cfg.prediction_time_delta_ms * (k + 1) for k in range(p)]
    parts, preds, logits, per_file = [], [], [], []
    for f in files:
        rec = Recording.load(f)
        for rate in rates:
            r = rec if rate is None else resample(rec, rate)
            ds = build(r, cfg)
            if len(ds) == 0:
                continue
            d, e = model_outputs(tfl_path, ds, p)
            parts.append(ds)
            preds.append(d)
            logits.append(e)
            label = os.path.basename(f) + ("" if rate is None else " @%d Hz" % rate)
            m = error_table(d, ds, hz)
            c = error_table(ds.cv, ds, hz)
            per_file.append("| %s | %d | %s |" % (label, len(ds), " | ".join(
                "%.3f / %.3f" % (a[2], b[2]) for a, b in zip(m, c))))
    ds = Dataset.concat(parts)
    pred = np.concatenate(preds)
    logit = np.concatenate(logits)
    table, m, c = format_tables(pred, ds, hz, "%s, all files pooled" % title)
    wins = all(a[2] < b[2] for a, b in zip(m, c))
    thres = cfg.stroke_end_thres
    drop = logit >= np.log(thres / (1.0 - thres))  # the library's sigmoid(logit) >= threshold
    lines = [table, "",
             "Model beats constant velocity in mean error at every horizon: %s" % ("yes" if wins else "NO"),
             "",
             "Stroke-end head at threshold %.2f: drops %.2f %% of points whose time lies inside the stroke "
             "and %.1f %% of points past the stroke end." % (
                 thres, 100 * drop[ds.valid].mean(), 100 * drop[~ds.valid].mean() if (~ds.valid).any() else 0),
             "", "%s per file, mean error mm model / CV:" % title, "",
             "| file | points | " + " | ".join("%d ms" % h for h in hz) + " |",
             "|---|---:|" + "---:|" * p] + per_file
    return "\n".join(lines)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("files", nargs="+", help="recordings (CSV)")
    ap.add_argument("--config", default=os.path.join(ROOT, "models", "stylus_predictor.json"))
    ap.add_argument("--model", default=None, help="default: the config's model_name beside it")
    ap.add_argument("--resample", type=float, default=None, help="also evaluate resampled to this rate")
    args = ap.parse_args()
    with open(args.config) as f:
        sec = json.load(f)["PredictionModel"]
    cfg = FeatureConfig(sec)
    model = args.model or os.path.join(os.path.dirname(os.path.abspath(args.config)), sec["model_name"])
    rates = (None,) if args.resample is None else (None, args.resample)
    print(report(model, cfg, args.files, rates=rates))


if __name__ == "__main__":
    main()
