#!/usr/bin/python3
"""The fast-pen line fallback: its constant maps fit the same line as the least-squares peer,
its gate opens with the sample gap (and closes on long steps) as specified, and the exported graph
computes the blend."""
import os
import sys
import tempfile
import unittest

import numpy as np

try:
    import torch  # noqa: F401  (the training code's model module needs it)
except ImportError:
    # Exit code 77: CTest reports the test as skipped, with this line as the reason.
    print("skipped: python3-torch is not installed (scripts/install-deps.sh test installs it)")
    sys.exit(77)

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from features import PEN_DOWN, PEN_UP, FeatureConfig, Recording  # noqa: E402
from filter_blend import Blend, write_blended  # noqa: E402
from model import tflite_forward, tflite_operators  # noqa: E402
from peers import fit_predictions  # noqa: E402
from targets import build  # noqa: E402

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
CONFIG = os.path.join(ROOT, "models", "stylus_predictor.json")
MODEL = os.path.join(ROOT, "models", "stylus_predictor.tflite")
CFG = FeatureConfig.from_file(CONFIG)
HORIZONS = CFG.prediction_time_delta_ms * np.arange(1, CFG.num_predictions + 1, dtype=np.float64)
MM = float(CFG.mm_per_pixel)


def curved_stroke(gap_ms, n=80):
    t = np.arange(n) * gap_ms
    x = 100 + 0.9 * t + 4 * np.sin(t / 25.0)
    y = 80 + 0.3 * t + 3 * np.cos(t / 17.0)
    tag = np.full(n, 2)
    tag[0], tag[-1] = PEN_DOWN, PEN_UP
    return Recording(t, x, y, np.full(n, 0.4), np.zeros(n), np.zeros(n), tag)


class BlendTest(unittest.TestCase):
    def test_the_fallback_is_the_least_squares_line_on_evenly_sampled_strokes(self):
        for gap, window, damping in ((2, 8, 0.9), (3, 5, 1.0), (1, 12, 0.8)):
            rec = curved_stroke(gap)
            ds = build(rec, CFG)
            got = {}
            fit_predictions(rec.t.astype(np.float64), rec.x.astype(np.float64), rec.y.astype(np.float64), ds,
                            HORIZONS, 1, (window,), (damping,), lambda k, d: got.__setitem__(k, d), MM)
            full = ds.pos >= window  # no padded rows inside the window
            base = Blend(window, damping).base(CFG, ds.x.reshape(len(ds.x), -1).astype(np.float64))
            # Rows are float32 steps of a few tenths of a mm: 1e-5 mm is far above their rounding.
            np.testing.assert_allclose(base[full].reshape(-1, CFG.num_predictions, 2), got[(0, 0)][full],
                                       atol=1e-5, err_msg="gap %d window %d" % (gap, window))

    def test_the_gate_opens_as_the_gap_shrinks(self):
        b = Blend(8, 0.9, gap_lo=2.0, gap_hi=5.0, gate_max=0.6)
        net = np.ones((1, CFG.num_predictions, 2))
        for gap, gate in ((1.0, 0.6), (2.0, 0.6), (3.0, 0.4), (4.0, 0.2), (5.0, 0.0), (8.0, 0.0)):
            ds = build(curved_stroke(gap, n=40), CFG)
            x = ds.x[-1:]
            flat = x.reshape(1, -1).astype(np.float64)
            np.testing.assert_allclose(b.gate(CFG, flat), gate, atol=1e-5, err_msg="gap %g" % gap)
            base = b.base(CFG, flat).reshape(1, -1, 2)
            np.testing.assert_allclose(b.apply(CFG, x, net), net + gate * (base - net), atol=1e-5)
        with self.assertRaises(ValueError):
            Blend(1)
        with self.assertRaises(ValueError):
            Blend(8, gap_lo=4.0, gap_hi=4.0)
        for lo, hi in ((0.2, None), (None, 0.2), (0.2, 0.2), (-0.1, 0.2)):
            with self.assertRaises(ValueError):
                Blend(8, step_lo=lo, step_hi=hi)

    def test_the_step_term_closes_the_gate_as_the_mean_l1_step_grows(self):
        # Straight strokes at 2 ms (gap gate fully open, 0.6) whose every step is (dx, dy) mm: the
        # term is 1 up to 0.1 mm, 0 from 0.3 mm, linear between, on |dx| + |dy| in any direction.
        b = Blend(8, 0.9, gap_lo=2.0, gap_hi=5.0, gate_max=0.6, step_lo=0.1, step_hi=0.3)
        for dx, dy, term in ((0.05, 0.0, 1.0), (0.2, 0.0, 0.5), (-0.1, 0.1, 0.5), (0.0, -0.25, 0.25),
                             (0.15, -0.15, 0.0), (0.4, 0.0, 0.0)):
            n = 30
            t = np.arange(n) * 2.0
            tag = np.full(n, 2)
            tag[0], tag[-1] = PEN_DOWN, PEN_UP
            rec = Recording(t, 200 + np.arange(n) * dx / MM, 200 + np.arange(n) * dy / MM, np.full(n, 0.4),
                            np.zeros(n), np.zeros(n), tag)
            flat = build(rec, CFG).x[-1:].reshape(1, -1).astype(np.float64)
            np.testing.assert_allclose(b.gate(CFG, flat), 0.6 * term, atol=1e-4, err_msg="step %g, %g" % (dx, dy))
        self.assertEqual(b.as_dict()["step_hi_mm"], 0.3)
        self.assertNotIn("step_lo_mm", Blend(8).as_dict())

    def test_the_exported_graph_computes_the_blend_and_keeps_the_stroke_end_logits(self):
        rows = np.concatenate([build(curved_stroke(g), CFG).x for g in (1, 2, 4, 8)])
        # The curved strokes' steps run from about 0.1 to 0.9 mm: the step term is partly open on them.
        for b in (Blend(8, 0.9, 1.7, 4.5, 0.5), Blend(8, 0.9, 1.7, 4.5, 0.5, step_lo=0.1, step_hi=0.4)):
            with tempfile.TemporaryDirectory() as tmp:
                out = os.path.join(tmp, "blended.tflite")
                write_blended(MODEL, out, CFG, b)
                net, ends = tflite_forward(MODEL, rows)
                blended, ends2 = tflite_forward(out, rows)
                ops = tflite_operators(out)
            want = b.apply(CFG, rows, net.reshape(len(rows), -1, 2)).reshape(len(rows), -1)
            np.testing.assert_allclose(blended, want, atol=1e-5)  # float32 graph against float64
            np.testing.assert_array_equal(ends2, ends)
            self.assertTrue(np.abs(blended - net).max() > 1e-3)  # the 1-2 ms strokes are pulled
            self.assertLessEqual(set(ops), {"ADD", "CONCATENATION", "DIV", "FULLY_CONNECTED", "MAXIMUM", "MINIMUM",
                                            "MUL", "RESHAPE", "SUB"})


if __name__ == "__main__":
    unittest.main()
