#!/usr/bin/env python3
"""Leave-one-source-out validation: the model against the tuned classical peers and the two
simple baselines, every training source held out in turn.

    /usr/bin/python3 tools/train/loso.py [--model M.tflite] [--config C.json] [--json OUT.json]
        [--markdown OUT.md] [--rates 100,150,240,400,600] [--seconds 120]
        [--speed 4] [--ppi 160] [--compare-fallback 10,0.8,4.5,0.5]

A source is a file-name prefix of the training recordings (wacom_mspro13, wacom_uim,
openhandwrite_eyepen, openhandwrite_wintab). Each source is brought to every rate the way a
device would deliver it: strokes interpolated smoothly (cubic) onto the rate's sample times,
sensor noise added, the host's timestamps jittered and rounded to whole ms and the positions
rounded to whole pixels. Targets are the pen itself (the smooth path before noise and rounding).
The peers are tuned per rate on the other sources (pooled points, the mean error over all
horizons at batches of 1) and scored on the held-out one, on the points where the model predicts.

A cell is source x rate x batch size x horizon; the model loses a cell when its mean error (a
dropped point charged as no prediction) exceeds the best tuned peer's by more than 2 % or
0.01 mm, whichever is larger. Overshoot: predicted points whose time lies past the lift, their
distance from the lift point (a dropped point counts 0).

Robustness conditions (the same device treatment after the change): --speed K compresses every
drawn stroke's time K-fold (a writer K times faster, the same shapes), --ppi P draws the strokes on
a screen of P pixels per inch (positions rescaled to its pixels, whole-pixel rounding at its pixel
size, the library configured with pixel_per_inch = P, as an integrator would). The peers are tuned
on the other sources under the same condition.
"""

import argparse
import copy
import json
import os
import sys
import time

import numpy as np

from evaluate import configured_predictor, logit_threshold, tflite_predictor
from features import PEN_DOWN, PEN_UP, FeatureConfig, Recording, hermite
from peers import PEERS, parameters
from targets import build

ROOT = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
DATA = os.environ.get("STYLUS_DATA", os.path.normpath(os.path.join(ROOT, "..", "shared", "data")))
RATES = (100, 150, 240, 400, 600)
BATCHES = (1, 2, 4, 8)
NOISE_MM = 0.03
JITTER_MS = 1.0
# Pen-down seconds drawn per source: enough strokes for stable means, few enough for two cores.
SECONDS = 120.0
LOSE_SHARE, LOSE_MM = 0.02, 0.01
SIMPLE = ("cv", "ls3")


def source_of(path):
    """Training source of a recording: its file name's first two words."""
    return "_".join(os.path.basename(path).split("_")[:2])


def stroke_slices(rec):
    """(start, end) of every stroke, pen-down sample to the sample before the next pen-down."""
    down = np.flatnonzero(rec.tag == PEN_DOWN)
    return list(zip(down, list(down[1:]) + [len(rec)]))


def pick_strokes(recs, rng, seconds):
    """Strokes drawn at random (recording order kept) until `seconds` of pen-down time, as one
    recording with each piece shifted past the previous one in time."""
    pieces = [(r, a, b) for r in recs for a, b in stroke_slices(r) if b - a >= 2]
    order = rng.permutation(len(pieces))
    chosen, total = [], 0.0
    for i in order:
        r, a, b = pieces[i]
        chosen.append(i)
        total += (r.t[b - 1] - r.t[a]) / 1000.0
        if total >= seconds:
            break
    return concat([pieces[i] for i in sorted(chosen)])


def concat(pieces):
    cols = {k: [] for k in ("t", "x", "y", "pressure", "tilt", "orientation", "tag")}
    offset = 0
    for r, a, b in pieces:
        t = r.t[a:b] - r.t[a] + offset
        cols["t"].append(t)
        for c in ("x", "y", "pressure", "tilt", "orientation", "tag"):
            cols[c].append(getattr(r, c)[a:b])
        offset = int(t[-1]) + 1000
    return Recording(*(np.concatenate(cols[k]) for k in cols))


def on_screen(rec, ppi, from_ppi=213):
    """The recording in the pixels of a screen of `ppi` pixels per inch (positions were in pixels
    of `from_ppi`): the same strokes in mm."""
    scale = float(ppi) / float(from_ppi)
    return Recording(rec.t, rec.x * scale, rec.y * scale, rec.pressure, rec.tilt, rec.orientation, rec.tag)


def condition(rec, rate_hz, rng, noise_mm=NOISE_MM, jitter_ms=JITTER_MS, mm_per_px=25.4 / 213, speed=1.0):
    """(observed, clean) recordings with the same host timestamps: every stroke, its time
    compressed `speed`-fold about the recording's start (a faster writer), interpolated
    (cubic positions, linear pressure, tilt, orientation) onto sample times start + k / rate, the
    host's timestamp of each sample jittered uniformly by up to jitter_ms and rounded to whole ms
    (the later of two samples in one ms kept, as the library's point map keeps it); observed
    positions carry Gaussian noise of noise_mm and are rounded to whole pixels, clean ones do not."""
    obs = {k: [] for k in ("t", "x", "y", "pressure", "tilt", "orientation", "tag")}
    clean_x, clean_y = [], []
    step = 1000.0 / rate_hz
    for a, b in stroke_slices(rec):
        t = rec.t[a:b].astype(np.float64) / float(speed)
        ok = np.concatenate([[True], np.diff(t) > 0])
        t = t[ok]
        if len(t) < 2:
            continue
        grid = t[0] + np.arange(int(np.floor((t[-1] - t[0]) / step)) + 1) * step
        stamp = np.round(grid + rng.uniform(-jitter_ms, jitter_ms, len(grid)))
        stamp = np.maximum.accumulate(stamp)
        keep = np.concatenate([stamp[1:] > stamp[:-1], [True]])  # the later sample of one ms
        grid, stamp = grid[keep], stamp[keep]
        if len(grid) < 2:
            continue
        cx = hermite(grid, t, rec.x[a:b].astype(np.float64)[ok])
        cy = hermite(grid, t, rec.y[a:b].astype(np.float64)[ok])
        clean_x.append(cx)
        clean_y.append(cy)
        sigma = noise_mm / mm_per_px
        obs["x"].append(np.round(cx + rng.normal(0.0, sigma, len(cx))))
        obs["y"].append(np.round(cy + rng.normal(0.0, sigma, len(cy))))
        obs["t"].append(stamp.astype(np.int64))
        for c in ("pressure", "tilt", "orientation"):
            obs[c].append(np.interp(grid, t, getattr(rec, c)[a:b].astype(np.float64)[ok]))
        tag = np.full(len(grid), 2, np.int64)
        tag[0], tag[-1] = PEN_DOWN, PEN_UP
        obs["tag"].append(tag)
    cat = {k: np.concatenate(v) for k, v in obs.items()}
    observed = Recording(*(cat[k] for k in ("t", "x", "y", "pressure", "tilt", "orientation", "tag")))
    clean = Recording(cat["t"], np.concatenate(clean_x), np.concatenate(clean_y), cat["pressure"],
                      cat["tilt"], cat["orientation"], cat["tag"])
    return observed, clean


class Tally:
    """Sums of one predictor on one data set: errors of in-stroke points per batch size and
    horizon, overshoot of past-lift points, in-stroke drops."""

    def __init__(self, p, nb):
        self.err = np.zeros((nb, p))
        self.n = np.zeros((nb, p))
        self.over = np.zeros((nb, p))
        self.past = np.zeros((nb, p))
        self.dropped = np.zeros((nb, p))

    def add(self, disp, ds, masks, drop=None):
        """disp [K, P, 2] predicted displacements; drop [K, P] points not shown (None: all shown).
        A dropped in-stroke point is charged as no prediction (error = the true displacement); a
        dropped past-lift point overshoots by 0. Past the lift, the target displacement is the
        lift point's (the truth is held at the stroke's last sample)."""
        shown = np.ones(ds.valid.shape, bool) if drop is None else ~drop
        d = np.linalg.norm(np.where(shown[:, :, None], disp, 0.0) - ds.disp, axis=2)
        over = np.where(shown, d, 0.0)
        for i, m in enumerate(masks):
            v, u = ds.valid[m], ~ds.valid[m]
            self.err[i] += np.where(v, d[m], 0.0).sum(axis=0)
            self.n[i] += v.sum(axis=0)
            self.over[i] += np.where(u, over[m], 0.0).sum(axis=0)
            self.past[i] += u.sum(axis=0)
            self.dropped[i] += (v & ~shown[m]).sum(axis=0)
        return self

    def merged(self, other):
        out = Tally(*self.err.shape[::-1])
        for f in ("err", "n", "over", "past", "dropped"):
            setattr(out, f, getattr(self, f) + getattr(other, f))
        return out

    def mean(self):
        return self.err / np.maximum(self.n, 1)

    def overshoot(self):
        return self.over / np.maximum(self.past, 1)


def score_source(obs, clean, cfg, model, peers, log, variants=None):
    """Tallies of the model, the simple baselines and every peer parameter set on one data set.
    `variants`: {key: function (rows, displacements, stroke-end logits) -> (displacements, drops)}
    of model variants, tallied under ("variant", key)."""
    p = cfg.num_predictions
    horizons = cfg.prediction_time_delta_ms * np.arange(1, p + 1)
    ds = build(obs, cfg, truth=clean)
    masks = [ds.batch_mask(b) for b in BATCHES]
    out = {}
    disp, logit = model(ds.x)
    drop = logit >= logit_threshold(cfg.stroke_end_thres)
    out["model"] = Tally(p, len(BATCHES)).add(disp, ds, masks, drop)
    for key, fn in (variants or {}).items():
        d, dropped = fn(ds.x, disp, logit)
        out[("variant", key)] = Tally(p, len(BATCHES)).add(d, ds, masks, dropped)
    ds.x = None  # the rows are large and only the model reads them
    for name in SIMPLE:
        out[name] = Tally(p, len(BATCHES)).add(getattr(ds, name), ds, masks)
    t, x, y = obs.t.astype(np.float64), obs.x.astype(np.float64), obs.y.astype(np.float64)
    mm = float(cfg.mm_per_pixel)
    for name in peers:
        grid = {}

        def visit(index, d, grid=grid):
            grid[index] = Tally(p, len(BATCHES)).add(d, ds, masks)
        t0 = time.time()
        PEERS[name][1](t, x, y, ds, horizons, visit, mm)
        out[name] = grid
        log("    %s: %d parameter sets, %.1f s" % (name, len(grid), time.time() - t0))
    return out, len(ds.disp)


def choose_variant(tallies, sources, rates, keys):
    """The model variant with the least pooled mean error over `sources`, averaged over rates and
    horizons (batches of 1): one choice for every rate, as one network serves them all."""
    def err(k):
        return np.mean([np.mean(sum(tallies[(s, r)][("variant", k)].err[0] for s in sources)
                                / np.maximum(sum(tallies[(s, r)][("variant", k)].n[0] for s in sources), 1))
                        for r in rates])
    return min(keys, key=err)


def tune(tallies, sources, rate, name):
    """Grid index with the least pooled mean error (mean over horizons, batches of 1)."""
    keys = list(tallies[(sources[0], rate)][name])
    best, best_err = None, np.inf
    for k in keys:
        err = sum(tallies[(s, rate)][name][k].err[0] for s in sources)
        n = sum(tallies[(s, rate)][name][k].n[0] for s in sources)
        e = float(np.mean(err / np.maximum(n, 1)))
        if e < best_err:
            best, best_err = k, e
    return best


def loses(model, best):
    return model - best > max(LOSE_SHARE * best, LOSE_MM)


def evaluate(tune_tallies, score_tallies, sources, scored, rates, peers, horizons, model_keys=None):
    """Per held-out source and rate: the peers tuned on the other sources, and the cells.
    `model_keys`: {source: tally key} of the model scored when that source is held out."""
    result = {"cells": [], "tuned": {}}
    for s in scored:
        others = [o for o in sources if o != s]
        for r in rates:
            t = score_tallies[(s, r)]
            chosen = {name: tune(tune_tallies, others, r, name) for name in peers}
            result["tuned"]["%s@%g" % (s, r)] = {n: parameters(n, k) for n, k in chosen.items()}
            preds = {"model": t[(model_keys or {}).get(s, "model")], "cv": t["cv"], "ls3": t["ls3"]}
            preds.update({n: t[n][k] for n, k in chosen.items()})
            for bi, b in enumerate(BATCHES):
                for hi, h in enumerate(horizons):
                    means = {n: float(v.mean()[bi, hi]) for n, v in preds.items()}
                    over = {n: float(v.overshoot()[bi, hi]) for n, v in preds.items()}
                    best_peer = min(peers, key=lambda n: means[n])
                    best_over = min(peers, key=lambda n: over[n])
                    m = preds["model"]
                    result["cells"].append({
                        "source": s, "rate_hz": r, "batch": b, "horizon_ms": int(h),
                        "points": int(m.n[bi, hi]), "past_lift": int(m.past[bi, hi]),
                        "mean_mm": means, "overshoot_mm": over,
                        "best_peer": best_peer, "ratio": means["model"] / means[best_peer],
                        "loses": loses(means["model"], means[best_peer]),
                        "best_overshoot_peer": best_over,
                        "dropped_in_stroke": int(m.dropped[bi, hi])})
    return result


def pooled(result, names, key, select):
    """Pooled mean of `key` over the chosen cells, weighted by their points."""
    weight = "points" if key == "mean_mm" else "past_lift"
    cells = [c for c in result["cells"] if select(c)]
    w = np.array([c[weight] for c in cells], np.float64)
    return {n: float(np.sum([c[key][n] for c in cells] * w) / max(w.sum(), 1)) for n in names}


LABELS = {"model": "model", "cv": "CV", "ls3": "LS3", "kalman_cv": "Kalman CV", "kalman_ca": "Kalman CA",
          "ls_linear": "LS line", "ls_quadratic": "LS parabola"}


def markdown(result, peers, horizons, model_label="model"):
    names = ["model"] + list(peers) + list(SIMPLE)
    cells = result["cells"]
    lines = []
    worst = max(cells, key=lambda c: c["ratio"])
    lost = [c for c in cells if c["loses"]]
    lines.append("Cells: %d (sources x rates x batch sizes x horizons). The %s loses %d of them (worse than the "
                 "best tuned peer by more than 2 %% or 0.01 mm); worst cell: %s at %g Hz, batch %d, +%d ms, "
                 "%s %.3f mm against %s %.3f mm (ratio %.3f)." % (
                     len(cells), model_label, len(lost), worst["source"], worst["rate_hz"], worst["batch"],
                     worst["horizon_ms"], model_label, worst["mean_mm"]["model"], LABELS[worst["best_peer"]],
                     worst["mean_mm"][worst["best_peer"]], worst["ratio"]))
    lines += ["", "Per held-out source and rate, batches of 4, mean mm at +4 / +12 / +20 ms, and the worst "
              "model / best-peer ratio over the source's batch sizes and horizons at that rate:", "",
              "| held out | Hz | " + " | ".join(LABELS[n] for n in names) + " | worst ratio | losing cells |",
              "|---|---:|" + "---:|" * len(names) + "---:|---:|"]
    for s in sorted({c["source"] for c in cells}):
        for r in sorted({c["rate_hz"] for c in cells}):
            sel = [c for c in cells if c["source"] == s and c["rate_hz"] == r]
            b4 = {c["horizon_ms"]: c for c in sel if c["batch"] == 4}
            parts = [" / ".join("%.3f" % b4[h]["mean_mm"][n] for h in (horizons[0], horizons[2], horizons[-1]))
                     for n in names]
            lines.append("| %s | %g | %s | %.3f | %d |" % (s, r, " | ".join(parts), max(c["ratio"] for c in sel),
                                                          sum(c["loses"] for c in sel)))
    lines += ["", "Pooled over held-out sources, rates and batch sizes, per horizon: mean mm, then overshoot "
              "(mean distance of past-lift points from the lift point, dropped = 0) and the model's in-stroke drops:",
              "", "| horizon ms | " + " | ".join("%s mean" % LABELS[n] for n in names) + " | "
              + " | ".join("%s overshoot" % LABELS[n] for n in names) + " | in-stroke dropped |",
              "|---:|" + "---:|" * (2 * len(names) + 1)]
    for h in horizons:
        sel = lambda c, h=h: c["horizon_ms"] == h
        m = pooled(result, names, "mean_mm", sel)
        o = pooled(result, names, "overshoot_mm", sel)
        hc = [c for c in cells if sel(c)]
        drops = sum(c["dropped_in_stroke"] for c in hc) / max(sum(c["points"] for c in hc), 1)
        lines.append("| %d | %s | %s | %.3f %% |" % (h, " | ".join("%.3f" % m[n] for n in names),
                                                     " | ".join("%.3f" % o[n] for n in names), 100 * drops))
    if result.get("variants_chosen"):
        lines += ["", "Model variant chosen on the other sources for each held-out source, and on all "
                  "sources: " + "; ".join(
                      "%s: %s" % (s, tuple(k) if isinstance(k, list) else k) for s, k in result["variants_chosen"].items())]
    lines += ["", "Peer parameters tuned on the other sources (window in samples; Kalman process noise q in "
              "mm^2/ms^3 or mm^2/ms^5 with measurement noise r = 0.0025 mm^2):", ""]
    for key, tuned in result["tuned"].items():
        lines.append("- %s: %s" % (key, "; ".join("%s %s" % (LABELS[n], ", ".join(
            "%s=%s" % (k, ("%.3g" % v) if isinstance(v, float) else v) for k, v in p.items()))
            for n, p in tuned.items())))
    return "\n".join(lines)


BLEND_GRID = {"window": (6, 8, 10, 12), "damping": (0.8, 0.9, 1.0), "gap_hi": (3.0, 4.5, 6.0),
              "gate_max": (0.0, 0.3, 0.5, 0.7)}


def blend_variants(cfg):
    """{(window, damping, gap_hi, gate_max): blended displacements} over BLEND_GRID (gate 0 is
    the network as it is)."""
    from filter_blend import Blend
    out = {}
    g = BLEND_GRID
    memo = {"rows": None}

    def parts(x, b):
        # Bases and gates depend on a part of the parameters only: computed once per data set.
        if memo["rows"] is not x:
            memo.clear()
            memo["rows"], memo["flat"] = x, x.reshape(len(x), -1).astype(np.float64)
        kb, kg = ("base", b.window, b.damping), ("gate", b.gap_hi, b.gate_max)
        if kb not in memo:
            memo[kb] = b.base(cfg, memo["flat"])
        if kg not in memo:
            memo[kg] = b.gate(cfg, memo["flat"])
        return memo[kb], memo[kg]
    for w in g["window"]:
        for d in g["damping"]:
            for hi in g["gap_hi"]:
                for gm in g["gate_max"]:
                    if gm == 0.0 and (w, d, hi) != (g["window"][0], g["damping"][0], g["gap_hi"][0]):
                        continue
                    b = Blend(w, d, 1.7, hi, gm)
                    out[(w, d, hi, gm)] = lambda x, disp, logit, b=b: (
                        b.apply(cfg, x, disp, *parts(x, b)).astype(np.float32),
                        logit >= logit_threshold(cfg.stroke_end_thres))
    return out


THRESHOLDS = (0.5, 0.6, 0.7, 0.8, 0.85, 0.9, 0.93, 0.95, 0.957, 0.97, 0.98, 0.99, 0.995)
MAX_DROPS = 0.001


def threshold_variants(cfg, blend):
    """{threshold: the network (blended when `blend` is given) dropping at that threshold}."""
    out = {}
    for thres in THRESHOLDS:
        out[thres] = lambda x, disp, logit, t=thres: (
            blend.apply(cfg, x, disp).astype(np.float32) if blend else disp, logit >= logit_threshold(t))
    return out


def compare_variants(cfg, blend, others=(), steps=()):
    """The network as it is and with the fallback `blend`, both dropping at the configuration's
    threshold (the fallback leaves the stroke-end logits alone); the same fallback with its gate also
    closing on long steps, for every (step_lo, step_hi) of `steps`; and every other configuration's
    model of `others` ((label, config path)) as it ships, at its own threshold, on the same rows."""
    from filter_blend import Blend
    drop = lambda logit: logit >= logit_threshold(cfg.stroke_end_thres)
    out = {"network alone": lambda x, disp, logit: (disp, drop(logit)),
           "fallback": lambda x, disp, logit: (blend.apply(cfg, x, disp).astype(np.float32), drop(logit))}
    for lo, hi in steps:
        b = Blend(blend.window, blend.damping, blend.gap_lo, blend.gap_hi, blend.gate_max, lo, hi)
        out["fallback, steps %g-%g mm" % (lo, hi)] = \
            lambda x, disp, logit, b=b: (b.apply(cfg, x, disp).astype(np.float32), drop(logit))
    for label, path in others:
        sec, other_cfg, predict = configured_predictor(path)
        if rows_settings(other_cfg) != rows_settings(cfg):
            raise SystemExit("%s builds other input rows than the model scored" % path)

        def run(x, disp, logit, predict=predict, thres=logit_threshold(other_cfg.stroke_end_thres)):
            d, e = predict(x)
            return d, e >= thres
        out[label] = run
    return out


def rows_settings(cfg):
    """What shapes a configuration's input rows."""
    return {k: v for k, v in vars(cfg).items() if k not in ("stroke_end_thres", "pixel_per_inch")}


def choose_threshold(tallies, sources, rates, keys):
    """The lowest threshold whose in-stroke drops, pooled over `sources`, rates, batch sizes and
    horizons, stay at or below MAX_DROPS (the highest if none does)."""
    def drops(k):
        parts = [tallies[(s, r)][("variant", k)] for s in sources for r in rates]
        return sum(t.dropped.sum() for t in parts) / max(sum(t.n.sum() for t in parts), 1)
    ok = [k for k in keys if drops(k) <= MAX_DROPS]
    return min(ok) if ok else max(keys)


def training_files(data):
    d = os.path.join(data, "train")
    return sorted(os.path.join(d, f) for f in os.listdir(d) if f.endswith(".csv"))


def run(model_path, cfg, files, rates, seconds, peers, seed=2025, log=print, score_files=None, fold_models=None,
        variants=None, choose=None, speed=1.0, ppi=None, compare=False):
    """Tallies of every source at every rate, the peers tuned and the cells. `score_files`, a set
    of file names: a held-out source is scored only on those of its files (the recordings a model
    has not trained on; a source with none of them is not scored), while tuning still uses whole
    sources. `fold_models`: {source: .tflite} for the model trained without that source.
    `variants`: model variants (see score_source); each held-out source is scored with the one
    chosen on the other sources (choose_variant), and the one chosen on all sources is reported;
    with `compare`, every variant is scored as it is instead, result["compared"][key].
    `speed`, `ppi`: the robustness conditions (module docstring); `seconds` stays the pen-down time
    drawn before the time is compressed."""
    by_source = {}
    for f in files:
        by_source.setdefault(source_of(f), []).append(f)
    sources = sorted(by_source)
    fold_models = fold_models or {}
    if ppi is not None:
        cfg = copy.copy(cfg)
        from_ppi, cfg.pixel_per_inch = cfg.pixel_per_inch, int(ppi)
    tune_tallies, score_tallies, points = {}, {}, {}
    for si, s in enumerate(sources):
        model = tflite_predictor(fold_models.get(s, model_path), cfg.num_predictions)
        recs = [Recording.load(f) for f in by_source[s]]
        base = pick_strokes(recs, np.random.default_rng([seed, si]), seconds)
        held = None
        if score_files is not None:
            mine = [r for f, r in zip(by_source[s], recs) if os.path.basename(f) in score_files]
            held = pick_strokes(mine, np.random.default_rng([seed, si, 1]), seconds) if mine else False
        if ppi is not None:
            base = on_screen(base, ppi, from_ppi)
            held = on_screen(held, ppi, from_ppi) if held else held
        device = dict(mm_per_px=float(cfg.mm_per_pixel), speed=speed)
        for r in rates:
            t0 = time.time()
            obs, clean = condition(base, r, np.random.default_rng([seed, si, int(r)]), **device)
            tune_tallies[(s, r)], n = score_source(obs, clean, cfg, model, peers, log, variants)
            if held is None:
                score_tallies[(s, r)], points[(s, r)] = tune_tallies[(s, r)], n
            elif held is not False:
                obs, clean = condition(held, r, np.random.default_rng([seed, si, int(r), 1]), **device)
                score_tallies[(s, r)], points[(s, r)] = score_source(obs, clean, cfg, model, peers, log, variants)
            log("  %s @ %g Hz: %d points, %.1f s" % (s, r, points.get((s, r), n), time.time() - t0))
    horizons = [cfg.prediction_time_delta_ms * (k + 1) for k in range(cfg.num_predictions)]
    scored = [s for s in sources if (s, rates[0]) in score_tallies]
    model_keys, picked = None, {}
    if variants and compare:
        result = {"compared": {k: evaluate(tune_tallies, score_tallies, sources, scored, rates, peers, horizons,
                                           {s: ("variant", k) for s in scored}) for k in variants}}
    elif variants:
        choose = choose or choose_variant
        picked = {s: choose(tune_tallies, [o for o in sources if o != s], rates, list(variants)) for s in scored}
        model_keys = {s: ("variant", k) for s, k in picked.items()}
        picked["all sources"] = choose(tune_tallies, sources, rates, list(variants))
    if not (variants and compare):
        result = evaluate(tune_tallies, score_tallies, sources, scored, rates, peers, horizons, model_keys)
    result["variants_chosen"] = {s: list(k) if isinstance(k, tuple) else k for s, k in picked.items()}
    result.update(sources=sources, scored_sources=scored, rates=list(rates), batches=list(BATCHES),
                  horizons_ms=horizons, seconds_per_source=seconds, noise_mm=NOISE_MM, jitter_ms=JITTER_MS,
                  score_files=sorted(score_files) if score_files is not None else None,
                  fold_models=fold_models, speed=speed, pixel_per_inch=cfg.pixel_per_inch, points={"%s@%g" % k: v for k, v in points.items()})
    return result, horizons


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--config", default=os.path.join(ROOT, "models", "stylus_predictor.json"))
    ap.add_argument("--model", default=None, help="default: the config's model_name beside it")
    ap.add_argument("--data", default=DATA, help="data directory holding train/")
    ap.add_argument("--rates", default=",".join(str(r) for r in RATES))
    ap.add_argument("--seconds", type=float, default=SECONDS, help="pen-down seconds drawn per source")
    ap.add_argument("--peers", default=",".join(PEERS))
    ap.add_argument("--score-files", default=None,
                    help="comma-separated file names: score a held-out source only on these of its files")
    ap.add_argument("--fold-model", action="append", default=[], metavar="SOURCE=MODEL",
                    help="the model trained without SOURCE, scored when SOURCE is held out")
    ap.add_argument("--blend-search", action="store_true",
                    help="also score the network with the fast-pen line fallback (filter_blend.py) over its "
                         "parameter grid, each held-out source with the parameters chosen on the others")
    ap.add_argument("--threshold-search", default=None, metavar="BLEND",
                    help="choose the stroke-end threshold on the other sources (the lowest that drops at most "
                         "0.1 %% of their in-stroke points); BLEND is window,damping,gap_hi,gate_max or 'none'")
    ap.add_argument("--speed", type=float, default=1.0,
                    help="robustness: every stroke's time compressed this many times (a faster writer)")
    ap.add_argument("--ppi", type=int, default=None,
                    help="robustness: strokes drawn on a screen of this density, the library configured for it")
    ap.add_argument("--compare-fallback", default=None, metavar="BLEND",
                    help="score the network as it is and with the fast-pen fallback BLEND "
                         "(window,damping,gap_hi,gate_max) side by side, at the configuration's threshold")
    ap.add_argument("--steps", action="append", default=[], metavar="LO,HI",
                    help="with --compare-fallback: also the fallback whose gate closes as the mean step over its "
                         "window grows from LO to HI mm")
    ap.add_argument("--also", action="append", default=[], metavar="LABEL=CONFIG",
                    help="with --compare-fallback: also score this configuration's model as it ships")
    ap.add_argument("--json", default=None)
    ap.add_argument("--markdown", default=None)
    args = ap.parse_args(argv)
    with open(args.config) as f:
        sec = json.load(f)["PredictionModel"]
    cfg = FeatureConfig(sec)
    model = args.model or os.path.join(os.path.dirname(os.path.abspath(args.config)), sec["model_name"])
    peers = [p for p in args.peers.split(",") if p]
    rates = [float(r) for r in args.rates.split(",")]
    score_files = set(args.score_files.split(",")) if args.score_files else None
    fold_models = dict(a.split("=", 1) for a in args.fold_model)
    variants = blend_variants(cfg) if args.blend_search else None
    choose = None
    if args.threshold_search:
        from filter_blend import Blend
        v = args.threshold_search
        blend = None if v == "none" else Blend(*(float(a) for a in v.split(",")[:2]), 1.7,
                                               *(float(a) for a in v.split(",")[2:]))
        variants, choose = threshold_variants(cfg, blend), choose_threshold
    if args.compare_fallback:
        from filter_blend import Blend
        w, d, hi, gm = (float(a) for a in args.compare_fallback.split(","))
        variants = compare_variants(cfg, Blend(w, d, 1.7, hi, gm), [a.split("=", 1) for a in args.also],
                                    [tuple(float(v) for v in s.split(",")) for s in args.steps])
    result, horizons = run(model, cfg, training_files(args.data), rates, args.seconds, peers,
                           log=lambda m: print(m, file=sys.stderr, flush=True), score_files=score_files,
                           fold_models=fold_models, variants=variants, choose=choose, speed=args.speed,
                           ppi=args.ppi, compare=bool(args.compare_fallback))
    if args.compare_fallback:
        text = "\n\n".join("## %s\n\n%s" % (k, markdown(dict(result, **r), peers, horizons, k))
                            for k, r in result["compared"].items())
    else:
        text = markdown(result, peers, horizons)
    if args.json:
        with open(args.json, "w") as f:
            json.dump(result, f, indent=1)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write(text + "\n")
    print(text)


if __name__ == "__main__":
    main()
