"""The predictor network, its .tflite export and a numpy forward pass of the exported file."""

import os
import struct
import sys

import flatbuffers
import numpy as np
import torch
from torch import nn

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tflite"))

ACTIVATIONS = {"relu": nn.ReLU, "tanh": nn.Tanh}
# Floors that keep the divisions finite: sample gap (ms), least-squares denominator (ms^2), speed (mm/ms).
MIN_GAP_MS = 0.5
MIN_LS_DEN = 0.5
SPEED_EPS = 1e-3
# Speed (mm/ms) at which the bounded speed feature s / (s + c) is one half.
SPEED_HALF = 0.05
# A time window covers at least this many times the last two sample gaps (three samples).
WINDOW_COVER = 1.25
# Floor of the weighted least-squares denominator (weight^2 ms^2).
MIN_WINDOW_DEN = 1e-3
POSITION_COLUMNS = (1, 2)


class ResidualPredictor(nn.Module):
    """[B, N, 6] library rows -> ([B, 2P] displacements in mm, [B, P] stroke-end logits).

    Fixed part (constant weights, exported as such): sample gaps and steps are recovered from
    the normalised rows, giving per-row velocities, the least-squares velocity of the last three
    samples (the baseline) and a speed scale S (mean L1 speed over the history). The MLP sees the
    velocities divided by S (writing size drops out), the rows (without their x/y steps when
    `mask_positions`), a bounded speed and, with `roughness`, the mean absolute change of velocity
    from step to step over S (a grid or jitter shows as changes of the order of the speed itself).
    Its displacement output is a correction in units of S * horizon added to the baseline, so an
    output of zero means "do what least-squares velocity does"; with `mix_spans` the last hidden
    layer also weighs, per horizon, the velocities over the last m rows against the baseline, so
    that a smooth, regular pen can take its newest step outright and a coarse one a longer span.
    """

    def __init__(self, n_hist, hidden, num_predictions, delta_ms, ranges, mask_positions=True, linear_skip=True,
                 end_hidden=32, time_windows=(), end_layers=(), roughness=False, mix_spans=(), parabolas=()):
        super().__init__()
        n = self.n = n_hist
        self.p = num_predictions
        self.hidden = list(hidden)
        self.horizons = np.array([delta_ms * (k + 1) for k in range(num_predictions)], np.float64)
        f = n_hist * 6
        lo = np.array([r[0] for r in ranges], np.float64)
        span = np.array([r[1] - r[0] for r in ranges], np.float64)
        self.consts = {}

        def row_value(col, row):  # affine map flat -> value of column col (denormalised) in row
            w = np.zeros(f)
            w[row * 6 + col] = span[col]
            return w, lo[col]

        def fc(rows):
            w = np.stack([r[0] for r in rows])
            b = np.array([r[1] for r in rows])
            return w, b

        def combo(terms):  # sum of coefficient * row_value
            w, b = np.zeros(f), 0.0
            for coef, col, row in terms:
                rw, rb = row_value(col, row)
                w += coef * rw
                b += coef * rb
            return w, b

        gaps = [row_value(0, i) for i in range(n)]
        self.consts["gap2"] = fc(gaps + gaps)
        self.consts["step"] = fc([row_value(1, i) for i in range(n)] + [row_value(2, i) for i in range(n)])
        # Least squares over the last three samples, with gaps a (older) and b (newer) and steps
        # d1, d2: v = ((2a + b) d1 + (a + 2b) d2) / (2 (a^2 + ab + b^2)).
        ra, rb = n - 2, n - 1
        u = [combo([(2, 0, ra), (1, 0, rb)]), combo([(1, 0, ra), (2, 0, rb)])]
        self.consts["ls_u"] = fc(u + u + [combo([(1, 0, ra)]), combo([(1, 0, rb)])])
        self.consts["ls_w"] = fc([combo([(1, 1, ra)]), combo([(1, 1, rb)]), combo([(1, 2, ra)]),
                                  combo([(1, 2, rb)]), combo([(2, 0, ra), (2, 0, rb)]), combo([(2, 0, rb)])])
        self.consts["ls_num"] = (np.array([[1, 1, 0, 0, 0, 0], [0, 0, 1, 1, 0, 0]], np.float64), np.zeros(2))
        self.consts["ls_den"] = (np.array([[0, 0, 0, 0, 1, 1]] * 2, np.float64), np.zeros(2))
        mean = np.full((1, 2 * n), 1.0 / n)
        self.consts["speed2n"] = (np.repeat(mean, 2 * n, axis=0), np.full(2 * n, SPEED_EPS))
        self.consts["speed2"] = (np.repeat(mean, 2, axis=0), np.full(2, SPEED_EPS))
        self.consts["speed1"] = (mean, np.full(1, SPEED_EPS))
        self.consts["speed1c"] = (mean, np.full(1, SPEED_EPS + SPEED_HALF))
        hz = np.repeat(self.horizons, 2)
        self.consts["speed_h"] = (mean * hz[:, None], SPEED_EPS * hz)
        self.windows = [float(w) for w in time_windows]
        if self.windows:
            self._time_window_constants(n, combo, fc)
        self.roughness = bool(roughness)
        if self.roughness:
            self._roughness_constants(n)
        self.mix_spans = [int(m) for m in mix_spans]
        self.parabolas = [int(k) for k in parabolas]
        if self.parabolas and not self.mix_spans:
            raise ValueError("parabolas are weighed with the mix spans: give mix_spans too")
        if any(not 2 <= k <= n for k in self.parabolas):
            raise ValueError("a parabola spans 2 to %d rows" % n)
        self.n_mix = len(self.mix_spans) + len(self.parabolas)
        if self.mix_spans:
            self._mix_constants(n, combo, fc)
        if self.parabolas:
            self._parabola_constants(n, combo, fc)
        base = np.zeros((2 * self.p, 2))
        base[0::2, 0] = self.horizons
        base[1::2, 1] = self.horizons
        self.consts["base"] = (base, np.zeros(2 * self.p))
        for k, (w, b) in self.consts.items():
            self.register_buffer("c_%s_w" % k, torch.tensor(w, dtype=torch.float32))
            self.register_buffer("c_%s_b" % k, torch.tensor(b, dtype=torch.float32))
        self.mlp_in = 2 * n + 2 + 1 + f + 2 * len(self.windows) + (4 if self.roughness else 0)
        mask = np.ones(self.mlp_in, np.float32)
        for row in range(n if mask_positions else 0):
            for col in POSITION_COLUMNS:
                mask[2 * n + 3 + row * 6 + col] = 0.0
        self.register_buffer("in_mask", torch.tensor(mask))
        # A stroke-end branch of its own also reads each row's L1 speed (mm/ms), appended to z.
        self.end_layers = list(end_layers)
        self.z_width = self.mlp_in + (n if self.end_layers else 0)
        if self.end_layers:
            rows = np.zeros((n, 2 * n))
            for i in range(n):
                rows[i, i] = rows[i, n + i] = 1.0
            self.consts["row_speed"] = (rows, np.zeros(n))
            self.register_buffer("c_row_speed_w", torch.tensor(rows, dtype=torch.float32))
            self.register_buffer("c_row_speed_b", torch.zeros(n))
            mask = np.concatenate([mask, np.ones(n, np.float32)])
            self.register_buffer("in_mask_full", torch.tensor(mask))
        self.register_buffer("in_shift", torch.zeros(self.z_width))
        self.register_buffer("in_scale", torch.ones(self.z_width))
        layers, width = [], self.mlp_in
        for h in hidden:
            layers.append(nn.Linear(width, h))
            width = h
        self.layers = nn.ModuleList(layers)
        self.corr = nn.Linear(width, 2 * self.p)
        nn.init.zeros_(self.corr.weight)
        nn.init.zeros_(self.corr.bias)
        # Per horizon, weights of other velocity estimates (their difference from least squares):
        # switching to the last step's velocity on a smooth, regular pen, or to a longer span on a
        # coarse one, is then one product rather than something ReLU layers have to approximate.
        self.gate = nn.Linear(width, self.p * self.n_mix) if self.mix_spans else None
        if self.gate is not None:
            nn.init.zeros_(self.gate.weight)
            nn.init.zeros_(self.gate.bias)
        # A linear path from the inputs lets the correction express other velocity estimates
        # (the last step's, a longer least-squares fit) exactly, which ReLU layers only approximate.
        self.skip = nn.Linear(self.mlp_in, 2 * self.p, bias=False) if linear_skip else None
        if self.skip is not None:
            nn.init.zeros_(self.skip.weight)
        if self.end_layers:
            # Trained on its own inputs, the stroke-end branch does not have to share features
            # shaped for the displacement.
            branch, w = [], self.z_width
            for h in self.end_layers:
                branch.append(nn.Linear(w, h))
                w = h
            self.end_branch = nn.ModuleList(branch)
            self.end_hidden = None
            self.end = nn.Linear(w, self.p)
        else:
            # The stroke-end head has its own hidden layer on the first shared one.
            self.end_branch = None
            self.end_hidden = nn.Linear(hidden[0], end_hidden) if end_hidden else None
            self.end = nn.Linear(end_hidden if end_hidden else width, self.p)

    def _time_window_constants(self, n, combo, fc):
        """Weighted least-squares velocity over the last W ms for each window W: the same stretch of
        stroke whatever the sampling rate. Sample j (0 = oldest row's start) lies T_j = -(gaps from
        row j on) ms and X_j, Y_j mm from the newest sample, and weighs max(0, 1 + T_j / W') with
        W' = max(W, WINDOW_COVER * (last two gaps)), so that a window shorter than the pen's period
        still fits three samples."""
        k = len(self.windows)
        def back_sum(col, j):
            return combo([(-1.0, col, i) for i in range(j, n)])
        for name, col in (("tw_t", 0), ("tw_x", 1), ("tw_y", 2)):
            self.consts[name] = fc([back_sum(col, j) for _ in range(k) for j in range(n)])
        self.consts["tw_cover"] = fc([combo([(WINDOW_COVER, 0, n - 1), (WINDOW_COVER, 0, n - 2)])] * k)
        expand = np.zeros((k * n, k))
        for w in range(k):
            expand[w * n:(w + 1) * n, w] = 1.0
        self.consts["tw_expand"] = (expand, np.zeros(k * n))
        block = expand.T.copy()
        self.consts["tw_sum"] = (block, np.zeros(k))
        # The newest sample (T = X = Y = 0, weight 1) only adds to the weight sum.
        self.consts["tw_sum_w"] = (block, np.ones(k))
        speed = np.full((1, 2 * n), 1.0 / n)
        self.consts["speed_tw"] = (np.repeat(speed, 2 * k, axis=0), np.full(2 * k, SPEED_EPS))

    def _mix_constants(self, n, combo, fc):
        """Velocities over the last m rows (sum of steps over sum of gaps) for every span m, and
        their differences from least squares times each horizon, laid out horizon, axis, term;
        after the spans, each parabola's extrapolation minus least squares'."""
        k, q, p = len(self.mix_spans), len(self.parabolas), self.p
        t = self.n_mix
        self.consts["mix_step"] = fc([combo([(1, col, i) for i in range(n - m, n)])
                                      for col in (1, 2) for m in self.mix_spans])
        gap = [combo([(1, 0, i) for i in range(n - m, n)]) for m in self.mix_spans]
        self.consts["mix_gap"] = fc(gap + gap)
        # Input: span velocities (x for every span, then y), least squares (x, y), then per
        # parabola and axis its offset a, slope b and curvature c per ms (see _parabola_constants).
        w = np.zeros((p * 2 * t, 2 * k + 2 + 6 * q))
        for j, h in enumerate(self.horizons):
            for a in range(2):
                for m in range(k):
                    w[(j * 2 + a) * t + m, a * k + m] = h
                    w[(j * 2 + a) * t + m, 2 * k + a] = -h
                for m in range(q):
                    row, col = (j * 2 + a) * t + k + m, 2 * k + 2 + 6 * m + 3 * a
                    w[row, col:col + 3] = (1.0, h, h * h)
                    w[row, 2 * k + a] = -h
        self.consts["mix_e"] = (w, np.zeros(p * 2 * t))
        total = np.zeros((2 * p, p * 2 * t))
        for r in range(2 * p):
            total[r, r * t:(r + 1) * t] = 1.0
        self.consts["mix_sum"] = (total, np.zeros(2 * p))

    def _parabola_constants(self, n, combo, fc):
        """A least-squares parabola over the last k rows' k + 1 samples taken as equally spaced (a
        digitiser samples at a steady rate while host timestamps jitter): with positions relative
        to the newest sample and s = 0, -1, ..., -k samples, p(s) = a + b s + c s^2 is a fixed linear
        map over the rows' steps. The pen h ms ahead is p(h / g) for the mean gap g over those
        rows, so the terms are a, b / g and c / g^2 (per parabola and axis), the last two from
        dividing by [1, g, g] * [1, 1, g]."""
        abc, d1, d2 = [], [], []
        for k in self.parabolas:
            back = -np.arange(k + 1, dtype=np.float64)
            fit = np.linalg.pinv(np.stack([np.ones(k + 1), back, back * back], axis=1))  # [3, k + 1]
            g = combo([(1.0 / k, 0, i) for i in range(n - k, n)])
            one = (np.zeros(n * 6), 1.0)
            for col in (1, 2):
                # Sample j rows back lies minus the sum of the last j steps from the newest.
                for coef in fit:
                    abc.append(combo([(-sum(coef[j] for j in range(n - i, k + 1)), col, i)
                                      for i in range(n - k, n)]))
                d1 += [one, g, g]
                d2 += [one, one, g]
        self.consts["par_abc"] = fc(abc)
        self.consts["par_d1"] = fc(d1)
        self.consts["par_d2"] = fc(d2)

    def _roughness_constants(self, n):
        """How much the velocity changes from step to step, per axis, over the last three changes and
        over the whole history: a digitiser's grid or jitter shows up as changes of the order of the
        speed itself, a smooth stroke as small ones."""
        diff = np.zeros((2 * (n - 1), 2 * n))
        for a in range(2):
            for i in range(1, n):
                diff[a * (n - 1) + i - 1, a * n + i] = 1.0
                diff[a * (n - 1) + i - 1, a * n + i - 1] = -1.0
        self.consts["rough_diff"] = (diff, np.zeros(2 * (n - 1)))
        mean = np.zeros((4, 2 * (n - 1)))
        recent = min(3, n - 1)
        for a in range(2):
            mean[a, a * (n - 1) + n - 1 - recent:(a + 1) * (n - 1)] = 1.0 / recent
            mean[2 + a, a * (n - 1):(a + 1) * (n - 1)] = 1.0 / (n - 1)
        self.consts["rough_mean"] = (mean, np.zeros(4))
        speed = np.full((1, 2 * n), 1.0 / n)
        self.consts["speed4"] = (np.repeat(speed, 4, axis=0), np.full(4, SPEED_EPS))

    def _time_window_velocity(self, flat, absv):
        """[B, 2K] window velocities (x for every window, then y) divided by the speed scale."""
        W = torch.tensor(self.windows, dtype=torch.float32)
        inv = 1.0 / torch.maximum(self._c("tw_cover", flat), W)
        t, x, y = self._c("tw_t", flat), self._c("tw_x", flat), self._c("tw_y", flat)
        w = torch.maximum(t * self._c("tw_expand", inv) + 1.0, torch.tensor(0.0))
        wt = w * t
        s_w = self._c("tw_sum_w", w)
        s_t, s_tt = self._c("tw_sum", wt), self._c("tw_sum", wt * t)
        s_x, s_y = self._c("tw_sum", w * x), self._c("tw_sum", w * y)
        s_tx, s_ty = self._c("tw_sum", wt * x), self._c("tw_sum", wt * y)
        den = torch.maximum(s_w * s_tt - s_t * s_t, torch.tensor(MIN_WINDOW_DEN))
        v = torch.cat([(s_w * s_tx - s_t * s_x) / den, (s_w * s_ty - s_t * s_y) / den], dim=1)
        return v / self._c("speed_tw", absv)

    def _c(self, name, x):
        return x @ getattr(self, "c_%s_w" % name).T + getattr(self, "c_%s_b" % name)

    def features(self, x):
        """(MLP input, baseline displacement, speed per output) of float32 rows [B, N, 6]."""
        flat = x.reshape(x.shape[0], -1)
        gap = torch.maximum(self._c("gap2", flat), torch.tensor(MIN_GAP_MS))
        v = self._c("step", flat) / gap
        uw = self._c("ls_u", flat) * self._c("ls_w", flat)
        v_ls = self._c("ls_num", uw) / torch.maximum(self._c("ls_den", uw), torch.tensor(MIN_LS_DEN))
        absv = torch.maximum(v, v * -1.0)
        parts = [v / self._c("speed2n", absv), v_ls / self._c("speed2", absv),
                 self._c("speed1", absv) / self._c("speed1c", absv), flat]
        if self.windows:
            parts.append(self._time_window_velocity(flat, absv))
        if self.roughness:
            dv = self._c("rough_diff", v)
            parts.append(self._c("rough_mean", torch.maximum(dv, dv * -1.0)) / self._c("speed4", absv))
        if self.end_layers:
            parts.append(self._c("row_speed", absv))
        z = torch.cat(parts, dim=1)
        out = [z, self._c("base", v_ls), self._c("speed_h", absv)]
        if self.mix_spans:
            vm = self._c("mix_step", flat) / torch.maximum(self._c("mix_gap", flat), torch.tensor(MIN_GAP_MS))
            mix_in = [vm, v_ls]
            if self.parabolas:
                floor = torch.tensor(MIN_GAP_MS)
                den = torch.maximum(self._c("par_d1", flat), floor) * torch.maximum(self._c("par_d2", flat), floor)
                mix_in.append(self._c("par_abc", flat) / den)
            out.append(self._c("mix_e", torch.cat(mix_in, dim=1)))
        return tuple(out)

    def head(self, z, base, speed_h, mix_e=None):
        zall = (z - self.in_shift) * self.in_scale
        zs = zall[:, :self.mlp_in] * self.in_mask
        h = zs
        first = None
        for lin in self.layers:
            h = torch.relu(lin(h))
            first = h if first is None else first
        corr = self.corr(h)
        if self.skip is not None:
            corr = corr + self.skip(zs)
        if self.end_branch is not None:
            e = zall * self.in_mask_full
            for lin in self.end_branch:
                e = torch.relu(lin(e))
            e = self.end(e)
        else:
            e = self.end(torch.relu(self.end_hidden(first))) if self.end_hidden is not None else self.end(h)
        out = base + corr * speed_h
        if self.gate is not None:
            g = self.gate(h).view(-1, self.p, 1, self.n_mix)
            out = out + (mix_e.view(-1, self.p, 2, self.n_mix) * g).sum(3).reshape(-1, 2 * self.p)
        return out, e

    def forward(self, x):
        return self.head(*self.features(x))

    def set_standardisation(self, z):
        """Robust shift and scale of the MLP inputs (folded into the first layer at export)."""
        z = z.numpy()
        lo, hi = np.percentile(z, [1, 99], axis=0)
        self.in_shift.copy_(torch.tensor(np.median(z, axis=0), dtype=torch.float32))
        self.in_scale.copy_(torch.tensor(2.0 / np.maximum(hi - lo, 1e-3), dtype=torch.float32))

    def parameter_count(self):
        """Stored float parameters of the exported file (constants included)."""
        fixed = sum(w.size + b.size for w, b in self.consts.values())
        learned = sum(p.numel() for p in self.parameters())
        return learned, fixed

    def export(self, path, members=None):
        from tflite_writer import GraphBuilder
        g = GraphBuilder(self.n, 6)

        def fc(name, src, act="none"):
            w, b = self.consts[name]
            return g.fully_connected(name, src, w, b, act)

        def full(name, value, width):
            return g.constant(name, np.full(width, value))

        n2 = 2 * self.n
        gap = g.binary("maximum", "gap_floor", fc("gap2", g.flat), full("min_gap", MIN_GAP_MS, n2))
        v = g.binary("div", "velocity", fc("step", g.flat), gap)
        uw = g.binary("mul", "ls_terms", fc("ls_u", g.flat), fc("ls_w", g.flat))
        den = g.binary("maximum", "ls_den_floor", fc("ls_den", uw), full("min_ls_den", MIN_LS_DEN, 2))
        v_ls = g.binary("div", "ls_velocity", fc("ls_num", uw), den)
        absv = g.binary("maximum", "abs_velocity", v, g.binary("mul", "neg_velocity", v, full("minus_one", -1.0, n2)))
        parts = [g.binary("div", "velocity_rel", v, fc("speed2n", absv)),
                 g.binary("div", "ls_velocity_rel", v_ls, fc("speed2", absv)),
                 g.binary("div", "speed_bounded", fc("speed1", absv), fc("speed1c", absv)),
                 g.flat]
        if self.windows:
            parts.append(self._export_time_windows(g, fc, full, absv))
        if self.roughness:
            dv = fc("rough_diff", v)
            width = 2 * (self.n - 1)
            adv = g.binary("maximum", "abs_velocity_change", dv,
                           g.binary("mul", "neg_velocity_change", dv, full("minus_one_change", -1.0, width)))
            parts.append(g.binary("div", "roughness_rel", fc("rough_mean", adv), fc("speed4", absv)))
        z = g.concatenation("mlp_input", parts)
        end_in = g.concatenation("end_input", [z, fc("row_speed", absv)]) if self.end_layers else None
        members = members or [self]
        hs, ends, skips = [], [], []
        for j, m in enumerate(members):
            h, end_src, skip = m._export_learned(g, z, end_in, "m%d_" % j if len(members) > 1 else "")
            hs.append(h)
            ends.append(end_src)
            skips.append(skip)
        k = len(members)
        # Members are averaged in their last, linear layers: one layer over their concatenated
        # hidden units, each member's weights divided by the member count.
        joined = lambda name, xs: xs[0] if k == 1 else g.concatenation(name, xs)
        mean_w = lambda ws: np.concatenate(ws, axis=1) / k if k > 1 else ws[0]
        mean_b = lambda bs: sum(bs) / k if k > 1 else bs[0]
        h = joined("hidden_all", hs)
        corr = g.fully_connected("correction", h, mean_w([m.corr.weight.detach().numpy() for m in members]),
                                 mean_b([m.corr.bias.detach().numpy() for m in members]))
        if self.skip is not None:
            w, b = mean_b([s[0] for s in skips]), mean_b([s[1] for s in skips])
            corr = g.binary("add", "correction_total", corr, g.fully_connected("correction_linear", z, w, b))
        end_src = joined("end_all", ends)
        out0 = g.binary("add", "output0" if not self.mix_spans else "output_ls",
                        fc("base", v_ls), g.binary("mul", "correction_mm", corr, fc("speed_h", absv)))
        if self.mix_spans:
            n_mix = self.n_mix
            vm = g.binary("div", "mix_velocity", fc("mix_step", g.flat),
                          g.binary("maximum", "mix_gap_floor", fc("mix_gap", g.flat),
                                   full("mix_min_gap", MIN_GAP_MS, 2 * len(self.mix_spans))))
            mix_in = [vm, v_ls]
            if self.parabolas:
                width = 6 * len(self.parabolas)
                d1 = g.binary("maximum", "par_d1_floor", fc("par_d1", g.flat), full("par_min_d1", MIN_GAP_MS, width))
                d2 = g.binary("maximum", "par_d2_floor", fc("par_d2", g.flat), full("par_min_d2", MIN_GAP_MS, width))
                mix_in.append(g.binary("div", "par_terms", fc("par_abc", g.flat), g.binary("mul", "par_den", d1, d2)))
            e = fc("mix_e", g.concatenation("mix_input", mix_in))
            # The gate's rows repeated for x and y, so that its output lines up with e.
            gw = mean_w([m.gate.weight.detach().numpy().reshape(self.p, 1, n_mix, -1).repeat(2, axis=1)
                         .reshape(self.p * 2 * n_mix, -1) for m in members])
            gb = mean_b([m.gate.bias.detach().numpy().reshape(self.p, 1, n_mix).repeat(2, axis=1).reshape(-1)
                         for m in members])
            gate = g.fully_connected("mix_gate", h, gw, gb)
            out0 = g.binary("add", "output0", out0, fc("mix_sum", g.binary("mul", "mix_terms", e, gate)))
        out1 = g.fully_connected("output1", end_src, mean_w([m.end.weight.detach().numpy() for m in members]),
                                 mean_b([m.end.bias.detach().numpy() for m in members]))
        g.write(path, [out0, out1])
        ops = {"FULLY_CONNECTED", "RESHAPE", "MAXIMUM", "DIV", "MUL", "ADD", "CONCATENATION"}
        return sorted(ops | ({"SUB"} if self.windows else set()))

    def _export_learned(self, g, z, end_in, prefix):
        """This network's hidden layers in graph g, its input standardisation folded into the first:
        (last hidden layer, stroke-end source, folded linear path (weight, bias))."""
        k = self.mlp_in
        scale_all = self.in_scale.double().numpy() * (self.in_mask_full.double().numpy() if self.end_layers else
                                                      self.in_mask.double().numpy())
        shift_all = self.in_shift.double().numpy()
        scale, shift = scale_all[:k], shift_all[:k]

        def folded(w, b):  # standardisation folded into a layer that reads z
            return w * scale[None, :], b - w @ (shift * scale)

        h = z
        first = None
        for i, lin in enumerate(self.layers):
            w = lin.weight.detach().double().numpy()
            b = lin.bias.detach().double().numpy()
            if i == 0:
                w, b = folded(w, b)
            h = g.fully_connected("%shidden%d" % (prefix, i), h, w, b, "relu")
            first = h if first is None else first
        skip = None
        if self.skip is not None:
            skip = folded(self.skip.weight.detach().double().numpy(), np.zeros(2 * self.p))
        end_src = h
        if self.end_layers:
            end_src = end_in
            for i, lin in enumerate(self.end_branch):
                w = lin.weight.detach().double().numpy()
                b = lin.bias.detach().double().numpy()
                if i == 0:
                    w, b = w * scale_all[None, :], b - w @ (shift_all * scale_all)
                end_src = g.fully_connected("%send_hidden%d" % (prefix, i), end_src, w, b, "relu")
        elif self.end_hidden is not None:
            end_src = g.fully_connected("%send_hidden" % prefix, first, self.end_hidden.weight.detach().numpy(),
                                        self.end_hidden.bias.detach().numpy(), "relu")
        return h, end_src, skip

    def _export_time_windows(self, g, fc, full, absv):
        k, n = len(self.windows), self.n
        cover = g.binary("maximum", "tw_window", fc("tw_cover", g.flat), g.constant("tw_min", self.windows))
        inv = g.binary("div", "tw_inverse", full("tw_one", 1.0, k), cover)
        t, x, y = fc("tw_t", g.flat), fc("tw_x", g.flat), fc("tw_y", g.flat)
        scaled = g.binary("add", "tw_lin", g.binary("mul", "tw_scaled", t, fc("tw_expand", inv)),
                          full("tw_ones", 1.0, k * n))
        w = g.binary("maximum", "tw_weight", scaled, full("tw_zeros", 0.0, k * n))
        wt = g.binary("mul", "tw_wt", w, t)
        s_w = fc("tw_sum_w", w)
        s_t = g.fully_connected("tw_s_t", wt, *self.consts["tw_sum"])
        s_tt = g.fully_connected("tw_s_tt", g.binary("mul", "tw_wtt", wt, t), *self.consts["tw_sum"])
        sums = {}
        for c, src in (("x", x), ("y", y)):
            s_c = g.fully_connected("tw_s_" + c, g.binary("mul", "tw_w" + c, w, src), *self.consts["tw_sum"])
            s_tc = g.fully_connected("tw_s_t" + c, g.binary("mul", "tw_wt" + c, wt, src), *self.consts["tw_sum"])
            sums[c] = g.binary("sub", "tw_num_" + c, g.binary("mul", "tw_a_" + c, s_w, s_tc),
                               g.binary("mul", "tw_b_" + c, s_t, s_c))
        den = g.binary("maximum", "tw_den", g.binary("sub", "tw_den_raw", g.binary("mul", "tw_ww", s_w, s_tt),
                                                     g.binary("mul", "tw_tt", s_t, s_t)),
                       full("tw_min_den", MIN_WINDOW_DEN, k))
        v = g.concatenation("tw_velocity", [g.binary("div", "tw_vx", sums["x"], den),
                                            g.binary("div", "tw_vy", sums["y"], den)])
        return g.binary("div", "tw_velocity_rel", v, fc("speed_tw", absv))


class AveragedPredictor(nn.Module):
    """The mean of networks trained alike from different seeds: each seed's network errs in its
    own places, and their mean is both more accurate and less dependent on the seed. Displacements
    and stroke-end logits are averaged; the fixed part is the same for all and computed once."""

    def __init__(self, members):
        super().__init__()
        first = members[0]
        for m in members[1:]:
            same = m.consts.keys() == first.consts.keys() and all(
                np.array_equal(m.consts[k][0], first.consts[k][0]) and np.array_equal(m.consts[k][1], first.consts[k][1])
                for k in first.consts)
            if not same or m.hidden != first.hidden:
                raise ValueError("ensemble members differ in their fixed part or layers")
        self.members = nn.ModuleList(members)
        self.mlp_in = first.mlp_in

    def features(self, x):
        return self.members[0].features(x)

    def head(self, *feats):
        outs = [m.head(*feats) for m in self.members]
        k = len(outs)
        return sum(o[0] for o in outs) / k, sum(o[1] for o in outs) / k

    def forward(self, x):
        return self.head(*self.features(x))

    def parameter_count(self):
        learned = sum(m.parameter_count()[0] for m in self.members)
        return learned, self.members[0].parameter_count()[1]

    def export(self, path):
        return self.members[0].export(path, list(self.members))


# --- Reading the .tflite back: enough of the schema to run a fully connected graph.


def _table(buf, pos):
    return flatbuffers.table.Table(buf, pos)


def _field(t, slot):
    off = t.Offset(4 + 2 * slot)
    return off


def _vector(t, slot, fmt, size):
    off = _field(t, slot)
    if not off:
        return []
    start = t.Vector(off)
    n = t.VectorLen(off)
    return list(struct.unpack_from("<%d%s" % (n, fmt), t.Bytes, start)) if n else []


def _tables(t, slot):
    off = _field(t, slot)
    if not off:
        return []
    start, n = t.Vector(off), t.VectorLen(off)
    return [_table(t.Bytes, t.Indirect(start + 4 * i)) for i in range(n)]


def _scalar(t, slot, fmt, default):
    off = _field(t, slot)
    return struct.unpack_from("<" + fmt, t.Bytes, t.Pos + off)[0] if off else default


def load_tflite(path):
    """Parses the graph into (operators, constant getter, output tensors, input tensor).

    Each operator is (builtin code, inputs, outputs, fused activation, concatenation axis)."""
    with open(path, "rb") as f:
        buf = bytearray(f.read())
    if buf[4:8] != b"TFL3":
        raise ValueError("not a TFLite file")
    model = _table(buf, struct.unpack_from("<I", buf, 0)[0])
    buffers = []
    for b in _tables(model, 4):
        off = _field(b, 0)
        buffers.append(bytes(buf[b.Vector(off):b.Vector(off) + b.VectorLen(off)]) if off else b"")
    opcodes = [_scalar(c, 0, "b", 0) for c in _tables(model, 1)]
    sub = _tables(model, 2)[0]
    tensors = []
    for t in _tables(sub, 0):
        tensors.append((_vector(t, 0, "i", 4), _scalar(t, 2, "I", 0)))
    inputs = _vector(sub, 1, "i", 4)
    outputs = _vector(sub, 2, "i", 4)
    ops = []
    for op in _tables(sub, 3):
        code = opcodes[_scalar(op, 0, "I", 0)]
        ins, outs = _vector(op, 1, "i", 4), _vector(op, 2, "i", 4)
        act, axis = 0, 0
        opt = _field(op, 4)
        if opt:
            table = _table(buf, op.Indirect(op.Pos + opt))
            if code == _CONCATENATION:
                axis, act = _scalar(table, 0, "i", 0), _scalar(table, 1, "b", 0)
            elif code != _RESHAPE:
                act = _scalar(table, 0, "b", 0)
        ops.append((code, ins, outs, act, axis))

    def const(i):
        shape, b = tensors[i]
        return np.frombuffer(buffers[b], dtype="<f4").reshape(shape) if buffers[b] else None
    return ops, const, outputs, inputs[0]


_ADD, _CONCATENATION, _FULLY_CONNECTED, _LOGISTIC, _MUL, _RESHAPE = 0, 2, 9, 14, 18, 22
_SUB, _DIV, _MAXIMUM, _MINIMUM = 41, 42, 55, 57
_BINARY = {_ADD: np.add, _SUB: np.subtract, _MUL: np.multiply, _DIV: np.divide,
           _MAXIMUM: np.maximum, _MINIMUM: np.minimum}
_FUSED = {0: lambda v: v, 1: lambda v: np.maximum(v, 0), 2: lambda v: np.clip(v, -1, 1),
          3: lambda v: np.clip(v, 0, 6), 4: np.tanh}
OPERATOR_NAMES = {_ADD: "ADD", _CONCATENATION: "CONCATENATION", _FULLY_CONNECTED: "FULLY_CONNECTED",
                  _LOGISTIC: "LOGISTIC", _MUL: "MUL", _RESHAPE: "RESHAPE", _SUB: "SUB", _DIV: "DIV",
                  _MAXIMUM: "MAXIMUM", _MINIMUM: "MINIMUM"}


def tflite_operators(path):
    """Names of the operators the file uses, sorted."""
    return sorted({OPERATOR_NAMES.get(op[0], str(op[0])) for op in load_tflite(path)[0]})


def tflite_forward(path, x):
    """Runs the exported graph in float32 on rows [B, N, 6] (the batch dimension replaces the
    file's 1); returns the outputs in order."""
    ops, const, outputs, source = load_tflite(path)
    values = {source: np.asarray(x, np.float32)}

    def value(i):
        if i in values:
            return values[i]
        c = const(i)
        if c is None:
            raise ValueError("tensor %d used before it is computed" % i)
        return c

    with np.errstate(divide="ignore", invalid="ignore"):
        for code, ins, outs, act, axis in ops:
            if code == _RESHAPE:
                r = value(ins[0]).reshape(x.shape[0], -1)
            elif code == _FULLY_CONNECTED:
                r = value(ins[0]) @ const(ins[1]).T + const(ins[2])
            elif code in _BINARY:
                r = _BINARY[code](value(ins[0]), value(ins[1]))
            elif code == _CONCATENATION:
                parts = [value(i) for i in ins]
                r = np.concatenate([np.broadcast_to(p, (x.shape[0],) + p.shape[1:]) for p in parts], axis=axis)
            elif code == _LOGISTIC:
                r = 1.0 / (1.0 + np.exp(-value(ins[0])))
            else:
                raise ValueError("unexpected operator %d" % code)
            values[outs[0]] = _FUSED[act](r).astype(np.float32)
    return [values[o] for o in outputs]
