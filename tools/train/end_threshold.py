#!/usr/bin/env python3
"""Stroke-end threshold against drops and overshoot on the network's validation writers, brought
to every rate of the leave-one-source-out validation (same conditions and stroke draws).

    /usr/bin/python3 tools/train/end_threshold.py [--model M.tflite] [--config C.json]

Per threshold: in-stroke points dropped (all rates, batch sizes and horizons pooled) and the
overshoot at +12 to +20 ms. The library drops a point when sigmoid(logit) >= threshold.
"""

import argparse
import os

import numpy as np

from evaluate import configured_predictor, logit_threshold
from features import Recording
from loso import BATCHES, DATA, RATES, ROOT, SECONDS, THRESHOLDS, Tally, condition, pick_strokes, source_of, \
    training_files
from targets import build

VALIDATION = ("wacom_mspro13_writer03.csv", "openhandwrite_eyepen_1.csv",
              "wacom_uim_2__digital_ink_is_processable_1.csv")


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--config", default=os.path.join(ROOT, "models", "stylus_predictor.json"))
    ap.add_argument("--model", default=None)
    ap.add_argument("--data", default=DATA)
    ap.add_argument("--seconds", type=float, default=SECONDS)
    ap.add_argument("--seed", type=int, default=2025)
    args = ap.parse_args(argv)
    _, cfg, model = configured_predictor(args.config, args.model)
    files = training_files(args.data)
    sources = sorted({source_of(f) for f in files})
    tallies = {t: Tally(cfg.num_predictions, len(BATCHES)) for t in THRESHOLDS}
    for si, s in enumerate(sources):
        mine = [Recording.load(f) for f in files if source_of(f) == s and os.path.basename(f) in VALIDATION]
        if not mine:
            continue
        # The draws of loso.py --score-files, so that both look at the same strokes.
        held = pick_strokes(mine, np.random.default_rng([args.seed, si, 1]), args.seconds)
        for r in RATES:
            obs, clean = condition(held, r, np.random.default_rng([args.seed, si, int(r), 1]))
            ds = build(obs, cfg, truth=clean)
            masks = [ds.batch_mask(b) for b in BATCHES]
            disp, logit = model(ds.x)
            for t, tally in tallies.items():
                tallies[t] = tally.merged(Tally(cfg.num_predictions, len(BATCHES)).add(
                    disp, ds, masks, logit >= logit_threshold(t)))
    hz = [cfg.prediction_time_delta_ms * (k + 1) for k in range(cfg.num_predictions)]
    print("| threshold | in-stroke dropped | " + " | ".join("overshoot +%d ms" % h for h in hz[2:]) + " |")
    print("|---:|---:|" + "---:|" * len(hz[2:]))
    for t, tally in tallies.items():
        over = tally.over.sum(axis=0) / np.maximum(tally.past.sum(axis=0), 1)
        print("| %g | %.3f %% | %s |" % (t, 100 * tally.dropped.sum() / max(tally.n.sum(), 1),
                                         " | ".join("%.3f" % o for o in over[2:])))


if __name__ == "__main__":
    main()
