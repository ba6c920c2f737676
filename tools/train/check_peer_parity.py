#!/usr/bin/python3
"""The validation's numpy peers against the replay's C++ peers on one recording.

    check_peer_parity.py STYLUS-REPLAY PEERS-FILE

Both are given the same parameters (the peers file's other fields kept), the recording goes through
`stylus-replay --peers --batch-size 1 --predictions-out`, and every prediction of every peer is
compared once the peer has forgotten the stroke's start (the replay's peers also see the pen-down
sample, which the library's model, and so the numpy peers, never see).
"""
import csv
import json
import os
import subprocess
import sys
import tempfile

import numpy as np

try:
    import torch  # noqa: F401  (the training code's model module needs it)
except ImportError:
    print("skipped: python3-torch is not installed (scripts/install-deps.sh test installs it)")
    sys.exit(77)

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from features import PEN_DOWN, PEN_UP, FeatureConfig, Recording  # noqa: E402
from loso import condition  # noqa: E402
from peers import fit_predictions, kalman_predictions  # noqa: E402
from replay_validation import write_csv  # noqa: E402
from targets import build  # noqa: E402

# Parameters in the replay's units (mm, s) and the numpy ones (mm, ms).
CV_Q_S, CA_Q_S = 1e4, 1e7
LINE, PARABOLA = (8, 0.9), (12, 0.7)
# Replay positions are written with 4 decimals of a pixel (6e-6 mm): 1e-4 mm leaves room for that
# and nothing else.
TOLERANCE_MM = 1e-4
# Samples after which a filter's start no longer shows (velocity spread 1 mm/ms decays by then).
KALMAN_SETTLED, FIT_SETTLED = 100, 14


def recording():
    t = np.arange(0, 1500, 4)
    strokes = []
    for k in range(3):
        x = 300 + 200 * np.sin(t / (200.0 + 40 * k)) + 0.3 * t
        y = 300 + 150 * np.cos(t / (170.0 + 30 * k))
        tag = np.full(len(t), 2)
        tag[0], tag[-1] = PEN_DOWN, PEN_UP
        strokes.append(Recording(t + 3000 * k, x, y, np.full(len(t), 0.5), np.zeros(len(t)), np.zeros(len(t)), tag))
    rec = Recording(*(np.concatenate([getattr(r, c) for r in strokes]) for c in
                      ("t", "x", "y", "pressure", "tilt", "orientation", "tag")))
    return condition(rec, 500.0, np.random.default_rng(7))[0]


def main(argv):
    replay, peers_file = argv[1], argv[2]
    config = os.path.join(os.path.dirname(os.path.abspath(peers_file)), "stylus_predictor.json")
    cfg = FeatureConfig.from_file(config)
    with open(peers_file) as f:
        peers = json.load(f)
    for r in peers["rates"]:
        p = r["peers"]
        p["kalman_constant_velocity"].update(process_noise=CV_Q_S, measurement_noise_mm=0.05)
        p["kalman_constant_acceleration"].update(process_noise=CA_Q_S, measurement_noise_mm=0.05)
        p["least_squares_linear"].update(window=LINE[0], damping=LINE[1])
        p["least_squares_quadratic"].update(window=PARABOLA[0], damping=PARABOLA[1])
    rec = recording()
    with tempfile.TemporaryDirectory() as tmp:
        csv_path, pf, out = (os.path.join(tmp, n) for n in ("strokes.csv", "peers.json", "predictions.csv"))
        write_csv(csv_path, rec)
        with open(pf, "w") as f:
            json.dump(peers, f)
        subprocess.run([replay, "--quiet", "--config", config, "--peers", "--peers-file", pf, "--batch-size", "1",
                        "--predictions-out", out, "--log", os.path.join(tmp, "replay.log"), csv_path],
                       check=True, stdout=subprocess.DEVNULL)
        with open(out) as f:
            rows = list(csv.DictReader(f))
    ds = build(rec, cfg)
    h = cfg.prediction_time_delta_ms * np.arange(1, cfg.num_predictions + 1, dtype=np.float64)
    t, x, y = rec.t.astype(np.float64), rec.x.astype(np.float64), rec.y.astype(np.float64)
    mm = float(cfg.mm_per_pixel)
    ours = {}
    keep = lambda name: lambda k, d: ours.__setitem__(name, d)
    kalman_predictions(t, x, y, ds, h, 1, (CV_Q_S * 1e-9,), keep("kalman_cv"), mm)
    kalman_predictions(t, x, y, ds, h, 2, (CA_Q_S * 1e-15,), keep("kalman_ca"), mm)
    fit_predictions(t, x, y, ds, h, 1, (LINE[0],), (LINE[1],), keep("ls_linear"), mm)
    fit_predictions(t, x, y, ds, h, 2, (PARABOLA[0],), (PARABOLA[1],), keep("ls_quadratic"), mm)
    sample = ds.stroke + ds.pos
    where = {(int(t[i]), int(hz)): (k, j) for k, i in enumerate(sample) for j, hz in enumerate(h)}
    worst, compared = {n: 0.0 for n in ours}, {n: 0 for n in ours}
    for row in rows:
        kj = where.get((int(row["base_timestamp"]), int(row["horizon_ms"])))
        if kj is None:
            continue
        k, j = kj
        i = sample[k]
        for name in ours:
            if ds.pos[k] < (KALMAN_SETTLED if name.startswith("kalman") else FIT_SETTLED):
                continue
            d = np.array([float(row[name + "_x"]) - x[i], float(row[name + "_y"]) - y[i]]) * mm
            worst[name] = max(worst[name], float(np.hypot(*(d - ours[name][k, j]))))
            compared[name] += 1
    failed = False
    for name in ours:
        print("%s: %d predictions compared, largest difference %.2g mm" % (name, compared[name], worst[name]))
        failed |= compared[name] < 1000 or worst[name] > TOLERANCE_MM
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
