"""Training targets, the constant-velocity baseline and error tables.

For every point where the library predicts (see features.py) the targets are the
pen displacements, in mm from the newest sample, at t_last + k * delta ms
(k = 1..P, linear interpolation between the stroke's samples, pen-down and
pen-up samples included), and a stroke-end label that is 1 when the stroke has
already ended at that time (such points carry no displacement target).
"""

import numpy as np

from features import PEN_DOWN, PEN_UP, recording_histories


class Dataset:
    """Arrays of one or more recordings, aligned on prediction points."""

    FIELDS = ("x", "disp", "valid", "end", "cv", "ls3", "dt_last", "pos", "up", "stroke", "group")

    def __init__(self, x, disp, valid, end, cv, ls3, dt_last, pos, up, stroke, group=None):
        self.x = x            # float32 [K, N, 6] model input rows
        self.disp = disp      # float32 [K, P, 2] true displacement, mm
        self.valid = valid    # bool [K, P] displacement target exists
        self.end = end        # float32 [K, P] stroke ended before that time
        self.cv = cv          # float32 [K, P, 2] constant-velocity displacement, mm
        self.ls3 = ls3        # float32 [K, P, 2] least-squares velocity (last 3 samples), mm
        self.dt_last = dt_last  # float32 [K] last sample gap, ms
        self.pos = pos        # int64 [K] index of the newest sample in its stroke (pen-down = 0)
        self.up = up          # int64 [K] index of the stroke's pen-up sample in the stroke
        self.stroke = stroke  # int64 [K] the stroke's pen-down sample in its recording (an id)
        # int64 [K] training group (source, grid, rate band) whose losses the training balances
        self.group = np.zeros(len(x), np.int64) if group is None else group

    def __len__(self):
        return len(self.x)

    @classmethod
    def concat(cls, parts):
        return cls(*(np.concatenate([getattr(p, f) for p in parts]) for f in cls.FIELDS))

    def subset(self, sel):
        return Dataset(*(getattr(self, f)[sel] for f in self.FIELDS))

    def renumbered(self, part):
        """The same points with stroke ids unique across the parts of a concatenation."""
        out = Dataset(*(getattr(self, f) for f in self.FIELDS))
        out.stroke = self.stroke + (np.int64(part) << 40)
        return out

    def batch_mask(self, batch_size):
        """Points where the library predicts when a host sends batches of batch_size samples.

        Batches start at the pen-down and the pen-up closes its batch (as stylus-replay cuts
        them); the library predicts from the newest sample of each batch, and a batch holding
        the pen-up carries only the boundary (its other samples are discarded)."""
        b = batch_size
        return ((self.pos + 1) % b == 0) & (self.pos // b != self.up // b)


def stroke_extent(rec):
    """Per sample: index of its stroke's first and last sample (pen down .. pen up)."""
    n = len(rec)
    first = np.zeros(n, dtype=np.int64)
    last = np.zeros(n, dtype=np.int64)
    start = 0
    for i in range(n):
        if rec.tag[i] == PEN_DOWN:
            start = i
        first[i] = start
    end = n - 1
    for i in range(n - 1, -1, -1):
        if rec.tag[i] == PEN_UP:
            end = i
        last[i] = end
    return first, last


def build(rec, cfg, truth=None):
    """Dataset of one recording under the given feature configuration. `truth`, the same samples
    before any grid rounding, gives the positions the targets are taken from (the pen itself
    rather than what the digitiser reported); rows and baselines always see `rec`."""
    sample, hist, _ = recording_histories(rec, cfg)
    p = cfg.num_predictions
    horizons = cfg.prediction_time_delta_ms * np.arange(1, p + 1)
    mm = float(cfg.mm_per_inch) / cfg.pixel_per_inch
    first, last = stroke_extent(rec)
    t = rec.t.astype(np.float64)
    x = rec.x.astype(np.float64)
    y = rec.y.astype(np.float64)
    tx = x if truth is None else truth.x.astype(np.float64)
    ty = y if truth is None else truth.y.astype(np.float64)

    k = len(sample)
    disp = np.zeros((k, p, 2))
    valid = np.zeros((k, p), dtype=bool)
    # Interpolate stroke by stroke (timestamps are strictly increasing inside one).
    starts, begin, count = np.unique(first[sample], return_index=True, return_counts=True)
    for a, s0, c in zip(starts, begin, count):  # samples are in recording order
        sel = np.arange(s0, s0 + c)
        b = last[sample[sel[0]]]
        ts, xs, ys = t[a:b + 1], tx[a:b + 1], ty[a:b + 1]
        i = sample[sel]
        tq = t[i][:, None] + horizons[None, :]
        valid[sel] = tq <= ts[-1]
        disp[sel, :, 0] = (np.interp(tq, ts, xs) - x[i][:, None]) * mm
        disp[sel, :, 1] = (np.interp(tq, ts, ys) - y[i][:, None]) * mm

    # Constant velocity from the last two points the predictor has seen.
    prev = sample - 1
    dt_last = t[sample] - t[prev]
    ratio = horizons[None, :] / dt_last[:, None]
    cv = np.stack([(x[sample] - x[prev])[:, None] * ratio,
                   (y[sample] - y[prev])[:, None] * ratio], axis=2) * mm
    ls3 = ls3_velocity(t, x, y, sample, first)[:, None, :] * horizons[None, :, None] * mm
    return Dataset(hist, disp.astype(np.float32), valid, (~valid).astype(np.float32),
                   cv.astype(np.float32), ls3.astype(np.float32), dt_last.astype(np.float32),
                   sample - first[sample], last[sample] - first[sample], first[sample])


def ls3_velocity(t, x, y, sample, first):
    """Least-squares velocity (px/ms) over the last 3 samples the library has seen of the stroke
    (the pen-down sample only marks the boundary); over 2 samples it is the constant velocity,
    over 1 (or no time span) zero."""
    seen = sample - first[sample]  # samples seen, the newest included
    v = np.zeros((len(sample), 2))
    for count in (3, 2):
        sel = np.flatnonzero(np.minimum(seen, 3) == count)
        idx = sample[sel, None] - np.arange(count - 1, -1, -1)[None, :]
        tc = t[idx] - t[idx].mean(axis=1, keepdims=True)
        den = (tc ** 2).sum(axis=1)
        ok = den > 0
        for c, arr in enumerate((x, y)):
            xs = arr[idx]
            num = (tc * (xs - xs.mean(axis=1, keepdims=True))).sum(axis=1)
            v[sel[ok], c] = num[ok] / den[ok]
    return v


def error_table(pred, ds, horizons_ms):
    """Per horizon: (count, mean, median, p95) of the Euclidean error in mm."""
    err = np.linalg.norm(pred - ds.disp, axis=2)
    rows = []
    for h, hz in enumerate(horizons_ms):
        e = err[ds.valid[:, h], h]
        rows.append((hz, len(e), float(e.mean()), float(np.median(e)), float(np.percentile(e, 95))))
    return rows


def format_tables(model_pred, ds, horizons_ms, title):
    """Markdown table: model vs constant velocity per horizon."""
    m = error_table(model_pred, ds, horizons_ms)
    c = error_table(ds.cv, ds, horizons_ms)
    lines = ["%s (%d prediction points)" % (title, len(ds)), "",
             "| horizon ms | points | model mean | CV mean | model median | CV median | model p95 | CV p95 |",
             "|---:|---:|---:|---:|---:|---:|---:|---:|"]
    for (hz, n, mm_, md, mp), (_, _, cm, cd, cp) in zip(m, c):
        lines.append("| %d | %d | %.3f | %.3f | %.3f | %.3f | %.3f | %.3f |" % (hz, n, mm_, cm, md, cd, mp, cp))
    return "\n".join(lines), m, c
