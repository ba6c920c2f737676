#!/usr/bin/env python3
"""A fast pen's fallback inside the network: a damped least-squares line over the last W samples,
blended into the network's displacements by a gate that opens as the sample gap shrinks.

At a few hundred Hz the steps of a digitiser are small against its noise and pixel grid, and a
line fitted over a longer stretch predicts better than a network that saw mostly slow pens. The
digitiser samples at a steady rate while the host's timestamps jitter, so the fit treats the
samples as equally spaced (a fixed linear map over the history rows) and only the mean gap over
the window, a sum of rows, turns its slope per sample into one per ms:

    base(h)   = c0 + damping * slope * h / mean_gap
    gate      = clip(g_max * (gap_hi - mean_gap) / (gap_hi - gap_lo), 0, g_max)
              [* clip((step_hi - mean_step) / (step_hi - step_lo), 0, 1)]
    output 0  = network + gate * (base - network)

where c0 is the line's value at the newest sample (relative to it). With step_lo and step_hi the
gate also closes as the mean L1 step over the window (|dx| + |dy| per sample, mm) grows: the line
helps where a step is a fraction of the digitiser's noise and pixel, not on a fast pen's long steps.
Zero gate is the network unchanged; the stroke-end logits are untouched. Operators added:
FULLY_CONNECTED, DIV, MAXIMUM, MINIMUM, SUB, MUL, ADD (all run by the fast engine).

    /usr/bin/python3 tools/train/filter_blend.py IN.tflite OUT.tflite --config C.json
        --window 8 --damping 0.9 --gap-lo 1.7 --gap-hi 4 --gate-max 0.5
"""

import argparse
import os
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tflite"))
from features import FeatureConfig  # noqa: E402
from model import MIN_GAP_MS, load_tflite  # noqa: E402

FC, CONCAT, LOGISTIC, RESHAPE = 9, 2, 14, 22
BINARY = {0: "add", 41: "sub", 18: "mul", 42: "div", 55: "maximum", 57: "minimum"}
ACTIVATION = {0: "none", 1: "relu", 2: "relu_n1_to_1", 3: "relu6", 4: "tanh"}


class Blend:
    """Parameters of the fallback and the gate, and the constant maps they make over the rows."""

    def __init__(self, window=8, damping=0.9, gap_lo=1.7, gap_hi=4.0, gate_max=0.5, step_lo=None, step_hi=None):
        if window < 2 or not gap_hi > gap_lo:
            raise ValueError("need a window of at least 2 samples and gap_hi > gap_lo")
        if (step_lo is None) != (step_hi is None) or (step_lo is not None and not step_hi > step_lo >= 0):
            raise ValueError("need both step_lo and step_hi, with step_hi > step_lo >= 0, or neither")
        self.window, self.damping = int(window), float(damping)
        self.gap_lo, self.gap_hi, self.gate_max = float(gap_lo), float(gap_hi), float(gate_max)
        self.step_lo = None if step_lo is None else float(step_lo)
        self.step_hi = None if step_hi is None else float(step_hi)

    def as_dict(self):
        d = {"window": self.window, "damping": self.damping, "gap_lo_ms": self.gap_lo,
             "gap_hi_ms": self.gap_hi, "gate_max": self.gate_max}
        if self.step_lo is not None:
            d.update(step_lo_mm=self.step_lo, step_hi_mm=self.step_hi)
        return d

    def maps(self, cfg):
        """(weights [out, n*6], bias [out]) of the offset, slope-times-horizon, mean-gap and
        gate-before-clipping layers, each with one output per displacement (x0, y0, x1, ...); with a
        step term also the window's steps, their negation, and the term's layer over their sizes."""
        n, w = cfg.num_historical_points, self.window
        p = cfg.num_predictions
        if w - 1 > n:
            raise ValueError("window longer than the history")
        lo = np.array([float(r[0]) for r in cfg.ranges])
        span = np.array([float(r[1]) - float(r[0]) for r in cfg.ranges])
        h = cfg.prediction_time_delta_ms * np.arange(1, p + 1, dtype=np.float64)
        # Sample k back (k = 0 newest) sits at u = -k; x_k = -(sum of the newest k steps).
        u = -np.arange(w, dtype=np.float64)
        a = (u - u.mean()) / np.sum((u - u.mean()) ** 2)   # slope per sample from x_k
        b = 1.0 / w - a * u.mean()                          # value at u = 0 from x_k
        # Coefficient of the j-th newest step (j = 1 .. w-1): -(sum over k >= j).
        step_slope = np.array([-a[j:].sum() for j in range(1, w)])
        step_value = np.array([-b[j:].sum() for j in range(1, w)])
        f = n * 6

        def over_steps(coef, col):
            wt, bias = np.zeros(f), 0.0
            for j, c in enumerate(coef, start=1):
                row = n - j
                wt[row * 6 + col] += c * span[col]
                bias += c * lo[col]
            return wt, bias

        offset, slope_h, gap, gate = [], [], [], []
        g_w, g_b = over_steps(np.full(w - 1, 1.0 / (w - 1)), 0)
        scale = self.gate_max / (self.gap_hi - self.gap_lo)
        for i in range(p):
            for col in (1, 2):
                offset.append(over_steps(step_value, col))
                sw, sb = over_steps(step_slope, col)
                slope_h.append((sw * self.damping * h[i], sb * self.damping * h[i]))
                gap.append((g_w, g_b))
                gate.append((-scale * g_w, scale * (self.gap_hi - g_b)))
        stack = lambda rows: (np.stack([r[0] for r in rows]), np.array([r[1] for r in rows]))
        maps = {"offset": stack(offset), "slope_h": stack(slope_h), "gap": stack(gap), "gate": stack(gate)}
        if self.step_lo is not None:
            # The window's x and y steps (mm), one output each; their absolute values come from the
            # larger of these and their negation, and one more layer turns them into the step term.
            one = lambda j, col: over_steps(np.eye(w - 1)[j - 1], col)
            steps = stack([one(j, col) for j in range(1, w) for col in (1, 2)])
            maps["steps"] = steps
            maps["steps_neg"] = (-steps[0], -steps[1])
            scale = 1.0 / ((w - 1) * (self.step_hi - self.step_lo))
            maps["step_gate"] = (np.full((2 * p, 2 * (w - 1)), -scale),
                                 np.full(2 * p, self.step_hi / (self.step_hi - self.step_lo)))
        return maps

    def base(self, cfg, flat):
        """The line's displacements [K, 2P] from flattened rows (float64)."""
        m = self.maps(cfg)
        lin = lambda k: flat @ m[k][0].T + m[k][1]
        return lin("offset") + lin("slope_h") / np.maximum(lin("gap"), MIN_GAP_MS)

    def gate(self, cfg, flat):
        m = self.maps(cfg)
        gate = np.clip(flat @ m["gate"][0].T + m["gate"][1], 0.0, self.gate_max)
        if "steps" in m:
            steps = np.abs(flat @ m["steps"][0].T + m["steps"][1])
            gate = gate * np.clip(steps @ m["step_gate"][0].T + m["step_gate"][1], 0.0, 1.0)
        return gate

    def apply(self, cfg, x, net, base=None, gate=None):
        """The blended displacements [K, P, 2] from rows [K, N, 6] and the network's [K, P, 2]
        (float64: the search's stand-in for the exported graph); `base` and `gate`, when a
        search has them already for these rows."""
        flat = x.reshape(len(x), -1).astype(np.float64)
        base = self.base(cfg, flat) if base is None else base
        gate = self.gate(cfg, flat) if gate is None else gate
        net = net.reshape(len(x), -1).astype(np.float64)
        return (net + gate * (base - net)).reshape(len(x), -1, 2)


def write_blended(src, dst, cfg, blend):
    """Copies the graph of `src` and routes its output 0 through the blend."""
    from tflite_writer import GraphBuilder
    ops, const, outputs, source = load_tflite(src)
    g = GraphBuilder(cfg.num_historical_points, 6)
    names = {source: g.source}

    def value(i, width_hint=None):
        if i in names:
            return names[i]
        c = const(i)
        if c is None:
            raise ValueError("tensor %d used before it is computed" % i)
        names[i] = g.constant("const_%d" % i, c.reshape(-1))
        return names[i]

    for k, (code, ins, outs, act, axis) in enumerate(ops):
        name = "t%d" % outs[0]
        if code == RESHAPE:
            names[outs[0]] = g.flat
        elif code == FC:
            names[outs[0]] = g.fully_connected(name, value(ins[0]), const(ins[1]), const(ins[2]), ACTIVATION[act])
        elif code in BINARY:
            names[outs[0]] = g.binary(BINARY[code], name, value(ins[0]), value(ins[1]), ACTIVATION[act])
        elif code == CONCAT:
            if axis not in (1, -1) or act:
                raise ValueError("unexpected concatenation")
            names[outs[0]] = g.concatenation(name, [value(i) for i in ins])
        elif code == LOGISTIC:
            names[outs[0]] = g.logistic(name, value(ins[0]))
        else:
            raise ValueError("unexpected operator %d" % code)
    net, ends = names[outputs[0]], names[outputs[1]]
    m = blend.maps(cfg)
    width = 2 * cfg.num_predictions
    fc = lambda key: g.fully_connected("blend_" + key, g.flat, m[key][0], m[key][1])
    full = lambda name, v: g.constant(name, np.full(width, v))
    mean_gap = g.binary("maximum", "blend_gap_floor", fc("gap"), full("blend_min_gap", MIN_GAP_MS))
    base = g.binary("add", "blend_base", fc("offset"), g.binary("div", "blend_slope", fc("slope_h"), mean_gap))
    zero = full("blend_zero", 0.0)
    gate = g.binary("minimum", "blend_gate", g.binary("maximum", "blend_gate_floor", fc("gate"), zero),
                    full("blend_gate_max", blend.gate_max))
    if "steps" in m:
        size = g.binary("maximum", "blend_step_abs", fc("steps"), fc("steps_neg"))
        w, b = m["step_gate"]
        term = g.fully_connected("blend_step_gate", size, w, b)
        term = g.binary("minimum", "blend_step_term", g.binary("maximum", "blend_step_floor", term, zero),
                        full("blend_one", 1.0))
        gate = g.binary("mul", "blend_gate_steps", gate, term)
    out0 = g.binary("add", "output0_blended", net,
                    g.binary("mul", "blend_pull", gate, g.binary("sub", "blend_diff", base, net)))
    g.write(dst, [out0, ends])


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("src")
    ap.add_argument("dst")
    ap.add_argument("--config", required=True)
    ap.add_argument("--window", type=int, default=8)
    ap.add_argument("--damping", type=float, default=0.9)
    ap.add_argument("--gap-lo", type=float, default=1.7)
    ap.add_argument("--gap-hi", type=float, default=4.0)
    ap.add_argument("--gate-max", type=float, default=0.5)
    ap.add_argument("--step-lo", type=float, default=None, help="mm; with --step-hi, the gate closes on long steps")
    ap.add_argument("--step-hi", type=float, default=None)
    args = ap.parse_args(argv)
    cfg = FeatureConfig.from_file(args.config)
    write_blended(args.src, args.dst, cfg, Blend(args.window, args.damping, args.gap_lo, args.gap_hi, args.gate_max,
                                                 args.step_lo, args.step_hi))


if __name__ == "__main__":
    main()
