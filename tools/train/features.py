#!/usr/bin/env python3
"""Model input rows exactly as the library's ModelPredictor builds them.

A recording is fed to the predictor one sample per batch: a pen-down or pen-up
sample only signals a stroke boundary (it never enters the point map), every
other sample is one new point. After a boundary the history is built once the
stroke holds min_num_historical_points + 1 points: the oldest end is padded with
copies of the first step row, then every step row follows; from then on each new
point shifts in one row and the model runs. Batching does not change the rows
(as long as a batch holds at most num_historical_points points), so one sample
per batch describes every host.

All arithmetic is float32 in the library's order so that rows match the C++ rows
bit for bit (barring fused multiply-adds, which stay far below 1e-6).

CLI (rows for a parity test against the C++ library):
    python3 tools/train/features.py --config CONFIG --csv FILE --out ROWS.csv
writes one line per prediction: base timestamp, then N*6 floats, oldest row first.
"""

import argparse
import json

import numpy as np

F32 = np.float32
PEN_DOWN, PEN_UP = 0, 1
# Column order of one model input row.
FEATURES = ("timestamp", "xpos", "ypos", "pressure", "tilt", "orientation")


class FeatureConfig:
    """The PredictionModel keys the rows depend on, with the library's defaults."""

    def __init__(self, model_section):
        g = model_section.get
        self.num_historical_points = int(g("num_historical_points", 25))
        self.min_num_historical_points = int(
            g("min_num_historical_points", self.num_historical_points))
        self.num_predictions = int(g("num_predictions", 5))
        self.prediction_time_delta_ms = int(g("prediction_time_delta_ms", 4))
        self.mm_per_inch = F32(g("mm_per_inch", 25.4))
        self.pixel_per_inch = int(g("pixel_per_inch", 213))
        self.use_raw_pressure = _as_bool(g("use_raw_pressure", False))
        self.stroke_end_thres = float(g("stroke_end_thres", 0.5))
        # (min, max) per feature, in row order.
        self.ranges = [(F32(g("feature_%s_min" % f, 1.0)), F32(g("feature_%s_max" % f, 1.0)))
                       for f in FEATURES]
        if not 1 <= self.min_num_historical_points <= self.num_historical_points:
            raise ValueError("need 1 <= min_num_historical_points <= num_historical_points")

    @classmethod
    def from_file(cls, path):
        with open(path) as f:
            return cls(json.load(f).get("PredictionModel", {}))

    @property
    def mm_per_pixel(self):
        # Same expression and precision as the library's normalisation.
        return F32(self.mm_per_inch / F32(self.pixel_per_inch))


def _as_bool(v):
    return v if isinstance(v, bool) else str(v).strip().lower() in ("true", "1")


class Recording:
    """One CSV recording: int64 ms timestamps, float32 channels, int tags."""

    def __init__(self, t, x, y, pressure, tilt, orientation, tag, name=""):
        self.t = np.asarray(t, dtype=np.int64)
        self.x = np.asarray(x, dtype=F32)
        self.y = np.asarray(y, dtype=F32)
        self.pressure = np.asarray(pressure, dtype=F32)
        self.tilt = np.asarray(tilt, dtype=F32)
        self.orientation = np.asarray(orientation, dtype=F32)
        self.tag = np.asarray(tag, dtype=np.int64)
        self.name = name

    @classmethod
    def load(cls, path):
        a = np.loadtxt(path, delimiter=",", skiprows=1, dtype=np.float64, ndmin=2)
        return cls(a[:, 0].astype(np.int64), a[:, 1], a[:, 2], a[:, 3], a[:, 4], a[:, 5],
                   a[:, 6].astype(np.int64), name=str(path))

    def __len__(self):
        return len(self.t)

    def channels(self, idx):
        """float32 [len(idx), 5] of x, y, pressure, tilt, orientation."""
        return np.stack([self.x[idx], self.y[idx], self.pressure[idx], self.tilt[idx],
                         self.orientation[idx]], axis=1)


def strokes(rec):
    """Yields (boundary_index, point_indices) per stroke as the library sees it.

    point_indices are the consecutive non-boundary samples after a boundary; the
    boundary sample itself (pen down, or pen up for trailing points) is not one.
    """
    start = None
    boundary = -1
    for i, tag in enumerate(rec.tag):
        if tag in (PEN_DOWN, PEN_UP):
            if start is not None and i > start:
                yield boundary, np.arange(start, i)
            start, boundary = i + 1, i
        elif start is None:
            start = i  # points before any boundary: the predictor starts empty
    if start is not None and start < len(rec.tag):
        yield boundary, np.arange(start, len(rec.tag))


def step_rows(rec, idx, cfg):
    """Normalised rows for consecutive points idx[k-1] -> idx[k]; [len(idx)-1, 6] float32."""
    cur, prev = idx[1:], idx[:-1]
    d = np.empty((len(cur), 6), dtype=F32)
    # Timestamp gap: unsigned 64-bit difference converted to float.
    d[:, 0] = (rec.t[cur] - rec.t[prev]).astype(np.uint64).astype(F32)
    ch_cur, ch_prev = rec.channels(cur), rec.channels(prev)
    diff = ch_cur - ch_prev  # float32 subtraction, as StylusTouchPoint::diff
    if cfg.use_raw_pressure:
        diff[:, 2] = ch_cur[:, 2]  # diffExceptPressure keeps the current pressure
    scale = cfg.mm_per_pixel
    d[:, 1] = diff[:, 0] * scale
    d[:, 2] = diff[:, 1] * scale
    d[:, 3:6] = diff[:, 2:5]
    out = np.empty_like(d)
    for c, (lo, hi) in enumerate(cfg.ranges):
        with np.errstate(divide="ignore", invalid="ignore"):
            out[:, c] = (d[:, c] - lo) / F32(hi - lo)
    return out


def stroke_histories(rec, idx, cfg):
    """History tensors at every point where the library predicts within one stroke.

    Returns (k, hist): k indexes idx (the newest point of each prediction) and
    hist is float32 [len(k), N, 6], oldest row first.
    """
    n, m = cfg.num_historical_points, cfg.min_num_historical_points
    if len(idx) < m + 1:
        return np.zeros(0, dtype=np.int64), np.zeros((0, n, 6), dtype=F32)
    rows = step_rows(rec, idx, cfg)
    # Padding with the first step row, then every step row; the history at
    # point j (j >= m) is the window of n rows starting at j - m.
    padded = np.concatenate([np.repeat(rows[:1], n - m, axis=0), rows], axis=0)
    k = np.arange(m, len(idx))
    windows = np.lib.stride_tricks.sliding_window_view(padded, n, axis=0)  # [W, 6, n]
    hist = np.ascontiguousarray(windows[k - m].transpose(0, 2, 1))
    return k, hist


def recording_histories(rec, cfg):
    """All predictions of a recording: (sample_index [K], hist [K, N, 6], stroke_of [K])."""
    ids, hists, stroke_ids = [], [], []
    for s, (_, idx) in enumerate(strokes(rec)):
        k, h = stroke_histories(rec, idx, cfg)
        ids.append(idx[k])
        hists.append(h)
        stroke_ids.append(np.full(len(k), s, dtype=np.int64))
    n = cfg.num_historical_points
    if not ids:
        return np.zeros(0, np.int64), np.zeros((0, n, 6), F32), np.zeros(0, np.int64)
    return np.concatenate(ids), np.concatenate(hists), np.concatenate(stroke_ids)


def hermite(grid, t, v):
    """Cubic Hermite interpolation with three-point tangents (C1, passes every sample).

    A pen moves smoothly: linear interpolation turns an upsampled stroke into straight pieces that
    constant velocity follows exactly between the original samples, which no real fast pen does.
    """
    if len(t) < 3:
        return np.interp(grid, t, v)
    h = np.diff(t)
    d = np.diff(v) / h
    m = np.empty_like(v)
    m[1:-1] = (h[1:] * d[:-1] + h[:-1] * d[1:]) / (h[:-1] + h[1:])
    m[0] = ((2 * h[0] + h[1]) * d[0] - h[0] * d[1]) / (h[0] + h[1])
    m[-1] = ((2 * h[-1] + h[-2]) * d[-1] - h[-1] * d[-2]) / (h[-1] + h[-2])
    i = np.clip(np.searchsorted(t, grid, side="right") - 1, 0, len(t) - 2)
    s = (grid - t[i]) / h[i]
    s2, s3 = s * s, s * s * s
    return ((2 * s3 - 3 * s2 + 1) * v[i] + (s3 - 2 * s2 + s) * h[i] * m[i]
            + (3 * s2 - 2 * s3) * v[i + 1] + (s3 - s2) * h[i] * m[i + 1])


def resample(rec, rate_hz, smooth=True, speed=1.0):
    """Every stroke interpolated onto t0 + k / rate, rounded to ms: positions by cubic Hermite
    (linear with smooth=False), pressure, tilt and orientation linearly (no overshoot).

    rate_hz is one rate or one rate per stroke; so is speed, which first compresses the stroke's
    time that many times about its pen-down sample (a faster writer drawing the same shape). The first resampled sample keeps
    the pen-down tag and the last one gets the pen-up tag, like the resampled
    copies shipped with the data.
    """
    cols = {k: [] for k in ("t", "x", "y", "pressure", "tilt", "orientation", "tag")}
    down = np.flatnonzero(rec.tag == PEN_DOWN)
    ends = list(down[1:]) + [len(rec)]
    rates = np.broadcast_to(np.asarray(rate_hz, dtype=np.float64), (len(down),))
    speeds = np.broadcast_to(np.asarray(speed, dtype=np.float64), (len(down),))
    for a, b, rate, k in zip(down, ends, rates, speeds):
        t = rec.t[a:b].astype(np.float64)
        t = t[0] + (t - t[0]) / k
        ok = np.concatenate([[True], np.diff(t) > 0])  # interpolation needs rising times
        t = t[ok]
        if len(t) < 2:
            continue
        step = 1000.0 / rate
        grid = t[0] + np.arange(int(np.floor((t[-1] - t[0]) / step)) + 1) * step
        if len(grid) < 2:
            continue
        tg = np.round(grid).astype(np.int64)
        keep = np.concatenate([[True], np.diff(tg) > 0])  # one sample per ms
        grid, tg = grid[keep], tg[keep]
        cols["t"].append(tg)
        for c in ("x", "y", "pressure", "tilt", "orientation"):
            v = getattr(rec, c)[a:b].astype(np.float64)[ok]
            cubic = smooth and c in ("x", "y")
            cols[c].append(hermite(grid, t, v) if cubic else np.interp(grid, t, v))
        tag = np.full(len(tg), 2, dtype=np.int64)
        tag[0], tag[-1] = PEN_DOWN, PEN_UP
        cols["tag"].append(tag)
    cat = {k: np.concatenate(v) if v else np.zeros(0) for k, v in cols.items()}
    label = "%gHz" % rates[0] if len(rates) and np.all(rates == rates[0]) else "mixed-rate"
    return Recording(cat["t"], cat["x"], cat["y"], cat["pressure"], cat["tilt"],
                     cat["orientation"], cat["tag"], name="%s@%s" % (rec.name, label))


def quantize(rec, grid_px):
    """Positions rounded to a grid (one spacing in pixels, or one per stroke; 0 leaves a stroke as
    it is), as a digitiser or a host reporting whole pixels delivers them."""
    stroke = np.maximum(np.cumsum(rec.tag == PEN_DOWN) - 1, 0)
    g = np.broadcast_to(np.asarray(grid_px, dtype=np.float64), (stroke.max() + 1 if len(stroke) else 0,))[stroke]
    on = g > 0
    unit = np.where(on, g, 1.0)
    snap = lambda v: np.where(on, np.round(v.astype(np.float64) / unit) * unit, v)
    return Recording(rec.t, snap(rec.x), snap(rec.y), rec.pressure, rec.tilt, rec.orientation,
                     rec.tag, name=rec.name + "@quantized")


def at_rate(rec, rate):
    """The recording for one validation rate: "own" as recorded, a number resampled to that many
    Hz, "<Hz>px" resampled and rounded to whole pixels (a host that reports integer pixels)."""
    if rate == "own":
        return rec
    if isinstance(rate, str) and rate.endswith("px"):
        return quantize(resample(rec, float(rate[:-2])), 1.0)
    return resample(rec, float(rate))


def rate_label(rate):
    if rate == "own":
        return "own"
    if isinstance(rate, str) and rate.endswith("px"):
        return "%s Hz whole px" % rate[:-2]
    return "%s Hz" % rate


def parse_rates(text):
    """"own,100,240px" -> ["own", 100.0, "240px"]."""
    return [r if r == "own" or r.endswith("px") else float(r) for r in text.split(",")]


def scale_strokes(rec, factor):
    """Positions scaled per stroke (one factor or one per stroke): larger, faster writing."""
    stroke = np.maximum(np.cumsum(rec.tag == PEN_DOWN) - 1, 0)
    f = np.broadcast_to(np.asarray(factor, dtype=np.float64), (stroke.max() + 1,))[stroke]
    return Recording(rec.t, rec.x * f, rec.y * f, rec.pressure, rec.tilt, rec.orientation,
                     rec.tag, name=rec.name + "@scaled")


def write_rows(path, rec, cfg):
    """Parity file: base timestamp, then the flattened history (%.9g round-trips float32)."""
    sample, hist, _ = recording_histories(rec, cfg)
    with open(path, "w") as f:
        for i, h in zip(sample, hist):
            f.write("%d," % rec.t[i] + ",".join("%.9g" % v for v in h.ravel()) + "\n")
    return len(sample)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--config", required=True, help="predictor configuration (JSON)")
    ap.add_argument("--csv", required=True, help="recording in the library's CSV format")
    ap.add_argument("--out", required=True, help="rows file to write")
    args = ap.parse_args()
    cfg = FeatureConfig.from_file(args.config)
    count = write_rows(args.out, Recording.load(args.csv), cfg)
    print("%d prediction rows written to %s" % (count, args.out))


if __name__ == "__main__":
    main()
