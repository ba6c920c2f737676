#!/usr/bin/env python3
"""The model against the tuned peers and the simple baselines on recordings it was not chosen on
(the evaluation recordings, scored once for the card), each recording at its own rate, batches of
4, drops charged.

    /usr/bin/python3 tools/train/eval_table.py FILE.csv [...] [--json OUT] [--markdown OUT]

The peers are tuned on the training sources only, brought to each recording's own rate (median
sample gap) the way loso.py brings them: smooth interpolation, sensor noise, jittered whole-ms
timestamps, whole pixels. Tuning never sees the scored recordings.
"""

import argparse
import json
import os
import sys

import numpy as np

from evaluate import configured_predictor, logit_threshold
from features import Recording
from loso import DATA, LABELS, ROOT, SECONDS, SIMPLE, condition, pick_strokes, score_source, source_of, \
    training_files, tune
from peers import PEERS, parameters
from targets import build

BATCH = 4


def own_rate(rec):
    """The recording's rate from its median in-stroke sample gap, in Hz."""
    gaps = np.diff(rec.t)[(rec.tag[1:] != 0)]
    return 1000.0 / float(np.median(gaps[gaps > 0]))


def tuned_at(rate, sources, seconds, cfg, model, peers, seed=2025, log=print):
    """{peer: grid index} tuned on every training source brought to `rate`."""
    tallies = {}
    for si, (s, recs) in enumerate(sorted(sources.items())):
        base = pick_strokes(recs, np.random.default_rng([seed, si]), seconds)
        obs, clean = condition(base, rate, np.random.default_rng([seed, si, int(rate)]))
        tallies[(s, rate)], _ = score_source(obs, clean, cfg, model, peers, lambda m: None)
    return {name: tune(tallies, sorted(sources), rate, name) for name in peers}


def point_errors(rec, cfg, model, chosen):
    """Per predictor: in-stroke errors [K, P] (NaN where no target) and overshoot [K, P] (NaN
    where in stroke) at the batch's prediction points; the model's in-stroke drops per horizon."""
    ds = build(rec, cfg)
    m = ds.batch_mask(BATCH)
    disp, logit = model(ds.x)
    drop = logit >= logit_threshold(cfg.stroke_end_thres)
    preds = {"model": np.where(drop[:, :, None], 0.0, disp)}
    for n in SIMPLE:
        preds[n] = getattr(ds, n)
    horizons = cfg.prediction_time_delta_ms * np.arange(1, cfg.num_predictions + 1)
    t, x, y = rec.t.astype(np.float64), rec.x.astype(np.float64), rec.y.astype(np.float64)
    for name, index in chosen.items():
        def keep(k, d, name=name, index=index):
            if k == index:
                preds[name] = d
        PEERS[name][1](t, x, y, ds, horizons, keep, float(cfg.mm_per_pixel))
    out = {}
    for n, d in preds.items():
        e = np.linalg.norm(d - ds.disp, axis=2)[m]
        v = ds.valid[m]
        over = np.linalg.norm(d - ds.disp, axis=2)[m]
        if n == "model":
            over = np.where(drop[m], 0.0, over)
        out[n] = (np.where(v, e, np.nan), np.where(v, np.nan, over))
    return out, (drop & ds.valid)[m].sum(axis=0), ds.valid[m].sum(axis=0)


def stat(v):
    v = v[np.isfinite(v)]
    return (float(v.mean()), float(np.percentile(v, 95)), len(v)) if len(v) else (float("nan"),) * 2 + (0,)


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("files", nargs="+")
    ap.add_argument("--config", default=os.path.join(ROOT, "models", "stylus_predictor.json"))
    ap.add_argument("--model", default=None)
    ap.add_argument("--data", default=DATA, help="data directory holding train/ (the peers' tuning)")
    ap.add_argument("--seconds", type=float, default=SECONDS)
    ap.add_argument("--json", default=None)
    ap.add_argument("--markdown", default=None)
    args = ap.parse_args(argv)
    _, cfg, model = configured_predictor(args.config, args.model)
    peers = list(PEERS)
    sources = {}
    for f in training_files(args.data):
        sources.setdefault(source_of(f), []).append(Recording.load(f))
    horizons = [cfg.prediction_time_delta_ms * (k + 1) for k in range(cfg.num_predictions)]
    names = ["model"] + peers + list(SIMPLE)
    per_file, tuned_cache, pooled = {}, {}, {n: ([], []) for n in names}
    drops = np.zeros(len(horizons))
    in_stroke = np.zeros(len(horizons))
    for f in args.files:
        rec = Recording.load(f)
        rate = round(own_rate(rec))
        if rate not in tuned_cache:
            print("tuning the peers at %d Hz" % rate, file=sys.stderr, flush=True)
            tuned_cache[rate] = tuned_at(rate, sources, args.seconds, cfg, model, peers)
        errs, dropped, valid = point_errors(rec, cfg, model, tuned_cache[rate])
        drops += dropped
        in_stroke += valid
        per_file[os.path.basename(f)] = {"rate_hz": rate, "tuned": {n: parameters(n, k) for n, k in
                                                                     tuned_cache[rate].items()},
                                         "mean_p95_mm": {n: [stat(e[:, h])[:2] for h in range(len(horizons))]
                                                         for n, (e, _) in errs.items()},
                                         "overshoot_mm": {n: [stat(o[:, h])[0] for h in range(len(horizons))]
                                                          for n, (_, o) in errs.items()}}
        for n in names:
            pooled[n][0].append(errs[n][0])
            pooled[n][1].append(errs[n][1])
    pool = {n: (np.concatenate(e), np.concatenate(o)) for n, (e, o) in pooled.items()}
    lines = ["+%d ms per recording (own rate, batches of %d, drops charged), mean / p95 mm:" % (
        horizons[-1], BATCH), "", "| recording | Hz | " + " | ".join(LABELS[n] for n in names) + " |",
        "|---|---:|" + "---:|" * len(names)]
    for name, r in per_file.items():
        lines.append("| %s | %d | %s |" % (name, r["rate_hz"], " | ".join(
            "%.3f / %.3f" % tuple(r["mean_p95_mm"][n][-1]) for n in names)))
    lines.append("| **pooled** | | %s |" % " | ".join("**%.3f / %.3f**" % stat(pool[n][0][:, -1])[:2] for n in names))
    lines += ["", "Pooled per horizon: mean mm, then overshoot (past-lift points' distance from the lift "
              "point, dropped = 0) and the model's in-stroke drops:", "",
              "| horizon ms | " + " | ".join("%s mean" % LABELS[n] for n in names) + " | "
              + " | ".join("%s overshoot" % LABELS[n] for n in names) + " | in-stroke dropped |",
              "|---:|" + "---:|" * (2 * len(names) + 1)]
    for h, ms in enumerate(horizons):
        lines.append("| %d | %s | %s | %.3f %% |" % (
            ms, " | ".join("%.3f" % stat(pool[n][0][:, h])[0] for n in names),
            " | ".join("%.3f" % stat(pool[n][1][:, h])[0] for n in names), 100 * drops[h] / max(in_stroke[h], 1)))
    text = "\n".join(lines)
    if args.json:
        with open(args.json, "w") as f:
            json.dump({"recordings": per_file, "horizons_ms": horizons,
                       "pooled": {n: {"mean_p95_mm": [stat(pool[n][0][:, h])[:2] for h in range(len(horizons))],
                                      "overshoot_mm": [stat(pool[n][1][:, h])[0] for h in range(len(horizons))]}
                                  for n in names}}, f, indent=1)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write(text + "\n")
    print(text)


if __name__ == "__main__":
    main()
