#!/usr/bin/python3
"""Resampling of training and validation strokes: positions smooth, everything else bounded,
tags and timestamps the way the library receives them."""
import os
import sys
import unittest

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from features import PEN_DOWN, PEN_UP, FeatureConfig, Recording, at_rate, hermite, quantize, resample  # noqa: E402
from targets import build  # noqa: E402

try:
    import train  # noqa: E402  (needs python3-torch)
except ImportError:
    train = None


def stroke(t, x, y, pressure):
    n = len(t)
    tag = np.full(n, 2)
    tag[0], tag[-1] = PEN_DOWN, PEN_UP
    return Recording(np.asarray(t), x, y, pressure, np.zeros(n), np.zeros(n), tag)


class HermiteTest(unittest.TestCase):
    def test_reproduces_a_quadratic_on_uneven_times_and_passes_every_sample(self):
        t = np.array([0.0, 5.0, 9.0, 15.0, 20.0, 21.0])
        f = lambda u: 0.3 * u * u - 2.0 * u + 7.0
        grid = np.linspace(0.0, 21.0, 85)
        np.testing.assert_allclose(hermite(grid, t, f(t)), f(grid), atol=1e-9)
        np.testing.assert_allclose(hermite(t, t, np.sin(t)), np.sin(t), atol=1e-12)

    def test_two_samples_are_joined_by_a_straight_line(self):
        np.testing.assert_allclose(hermite(np.array([0.0, 2.5, 10.0]), np.array([0.0, 10.0]),
                                           np.array([1.0, 5.0])), [1.0, 2.0, 5.0])


class ResampleTest(unittest.TestCase):
    def test_a_curved_stroke_at_another_rate(self):
        t = np.arange(0, 200, 5)
        rec = stroke(t, 100 + 0.01 * t ** 2, 50 + 0.5 * t, np.clip(np.sin(t / 30.0), 0, 1))
        for rate, smooth in ((250.0, True), (100.0, True), (500.0, False)):  # whole-ms periods: no rounding
            out = resample(rec, rate, smooth=smooth)
            self.assertEqual(out.tag[0], PEN_DOWN)
            self.assertEqual(out.tag[-1], PEN_UP)
            self.assertTrue((np.diff(out.t) > 0).all(), "timestamps rise by whole ms")
            self.assertEqual(out.t[0], 0)
            # Positions follow the curve (exactly between samples when smooth, on chords otherwise).
            err = np.abs(out.x - (100 + 0.01 * out.t.astype(np.float64) ** 2)).max()
            self.assertLess(err, 1e-3 if smooth else 0.07)
            # Pressure is never invented outside what the pen reported.
            self.assertGreaterEqual(out.pressure.min(), rec.pressure.min())
            self.assertLessEqual(out.pressure.max(), rec.pressure.max())

    def test_repeated_timestamps_and_one_sample_strokes_are_survived(self):
        rec = stroke([0, 4, 4, 8, 12, 16], [0, 1, 1, 2, 3, 4], [0] * 6, [0.5] * 6)
        out = resample(rec, 250.0)
        np.testing.assert_array_equal(out.t, [0, 4, 8, 12, 16])
        np.testing.assert_allclose(out.x, [0, 1, 2, 3, 4], atol=1e-9)
        self.assertEqual(len(resample(stroke([0], [0.0], [0.0], [0.5]), 250.0).t), 0)



def two_strokes():
    t = np.arange(0, 60, 2)
    a = stroke(t, 10.3 + 0.37 * t, 20.6 + 0.011 * t ** 2, np.full(len(t), 0.5))
    b = stroke(t + 100, 50.2 - 0.29 * t, 5.55 + 0.13 * t, np.full(len(t), 0.5))
    return Recording(np.concatenate([a.t, b.t]), np.concatenate([a.x, b.x]), np.concatenate([a.y, b.y]),
                     np.concatenate([a.pressure, b.pressure]), np.zeros(2 * len(t)), np.zeros(2 * len(t)),
                     np.concatenate([a.tag, b.tag]))


class FasterWriterTest(unittest.TestCase):
    CURVE = staticmethod(lambda u: 100 + 0.01 * u ** 2)  # pixels at the original writer's ms u

    def test_a_compressed_stroke_keeps_its_shape_and_its_targets_follow(self):
        t = np.arange(0, 400, 5)
        rec = stroke(t, self.CURVE(t), 50 + 0.5 * t, np.full(len(t), 0.5))
        out = resample(rec, 250.0, speed=4.0)
        # 395 ms drawn in 98.75: whole 4 ms steps up to 96, every position on the same curve.
        np.testing.assert_array_equal(out.t, np.arange(0, 97, 4))
        u = 4.0 * out.t
        np.testing.assert_allclose(out.x, self.CURVE(u), atol=1e-3)
        np.testing.assert_allclose(out.y, 50 + 0.5 * u, atol=1e-3)
        # The pen h ms later is where the original writer was 4 h ms later (0.1 mm per pixel).
        cfg = FeatureConfig({"num_historical_points": 4, "min_num_historical_points": 2,
                             "pixel_per_inch": 254, "mm_per_inch": 25.4})
        ds = build(out, cfg)
        h = 4.0 * np.arange(1, ds.disp.shape[1] + 1)
        now = 4.0 * out.t[ds.pos].astype(np.float64)[:, None]
        expected = 0.1 * (self.CURVE(now + 4.0 * h) - self.CURVE(now))
        self.assertGreater(ds.valid.sum(), 50)
        np.testing.assert_allclose(ds.disp[..., 0][ds.valid], expected[ds.valid], atol=1e-3)

    def test_each_stroke_is_compressed_about_its_own_pen_down(self):
        rec = two_strokes()  # two strokes of 58 ms, the second from t = 100
        out = resample(rec, 500.0, speed=[1.0, 2.0])
        first, second = out.t[out.tag == PEN_DOWN]
        self.assertEqual((first, second), (0, 100))
        np.testing.assert_array_equal(out.t[out.tag == PEN_UP], [58, 128])  # 29 ms in 2 ms steps
        np.testing.assert_array_equal(resample(rec, 500.0, speed=1.0).t, resample(rec, 500.0).t)

    def repeated_curve(self, count):
        """count copies of one 595 ms curved stroke, a second apart."""
        t = np.arange(0, 600, 5)
        one = stroke(t, self.CURVE(t / 4.0), 50 + 0.5 * t, np.full(len(t), 0.5))
        return Recording(*(np.concatenate([getattr(one, c)] * count) + (np.repeat(np.arange(count) * 1000, len(t))
                                                                          if c == "t" else 0)
                           for c in ("t", "x", "y", "pressure", "tilt", "orientation", "tag")))

    @unittest.skipUnless(train, "python3-torch is not installed")
    def test_augmented_copies_draw_a_share_of_strokes_faster(self):
        rec = self.repeated_curve(20)
        durations = {}
        for share in (0.0, 1.0):
            s = dict(train.SETTINGS, speed_share=share, speeds=(3.0, 3.0), quantize_share=0.0)
            reported, smooth = train.augment(rec, np.random.default_rng(5), s)
            down, up = reported.t[reported.tag == PEN_DOWN], reported.t[reported.tag == PEN_UP]
            durations[share] = up - down
            self.assertEqual(len(down), 20)
        # 595 ms of pen-down; a third of it when every stroke is three times faster (within a
        # sample period of the slowest rate drawn).
        self.assertTrue((durations[0.0] >= 595 - 12.5).all())
        np.testing.assert_allclose(durations[1.0], 595 / 3.0, atol=12.5)


    @unittest.skipUnless(train, "python3-torch is not installed")
    def test_fast_copies_come_after_the_others_and_leave_them_as_they_were(self):
        rec = self.repeated_curve(6)
        s = dict(train.SETTINGS, keep=1.0)
        cfg = FeatureConfig(train.model_section(s))
        plain = train.recording_block(rec, 0, s, cfg)
        more = train.recording_block(rec, 0, dict(s, speed_copies=1), cfg)
        np.testing.assert_array_equal(more.x[:len(plain)], plain.x)
        np.testing.assert_array_equal(more.disp[:len(plain)], plain.disp)
        # The fast copy: every stroke at least as fast, so fewer points than an ordinary copy.
        extra = len(more) - len(plain)
        ordinary = (len(plain) - s["native_copies"] * len(build(rec, cfg))) / (s["copies"] + s["pixel_copies"])
        self.assertGreater(extra, 0)
        self.assertLess(extra, ordinary)


class QuantizeTest(unittest.TestCase):
    def test_each_stroke_snaps_to_its_own_grid_and_zero_leaves_it_alone(self):
        rec = two_strokes()
        out = quantize(rec, [0.5, 0.0])
        first, second = slice(0, 30), slice(30, 60)
        x = out.x[first].astype(np.float64)
        np.testing.assert_allclose(x / 0.5, np.round(x / 0.5), atol=1e-4)
        self.assertLessEqual(np.abs(out.x[first] - rec.x[first]).max(), 0.25 + 1e-4)
        self.assertGreater(np.abs(out.x[first] - rec.x[first]).max(), 0.05)
        np.testing.assert_array_equal(out.x[second], rec.x[second])
        np.testing.assert_array_equal(out.y[second], rec.y[second])
        np.testing.assert_array_equal(out.t, rec.t)
        np.testing.assert_array_equal(out.tag, rec.tag)

    def test_whole_pixel_rates_resample_then_round(self):
        rec = two_strokes()
        out = at_rate(rec, "250px")
        np.testing.assert_array_equal(out.t, resample(rec, 250.0).t)
        np.testing.assert_array_equal(out.x, np.round(out.x))
        self.assertIs(at_rate(rec, "own"), rec)


class TruthTargetTest(unittest.TestCase):
    def test_targets_come_from_the_truth_rows_and_baselines_from_the_report(self):
        cfg = FeatureConfig({"num_historical_points": 4, "min_num_historical_points": 2,
                             "pixel_per_inch": 254, "mm_per_inch": 25.4})  # 0.1 mm per pixel
        smooth = two_strokes()
        reported = quantize(smooth, 1.0)
        ds, plain = build(reported, cfg, truth=smooth), build(reported, cfg)
        truth_only = build(smooth, cfg)
        np.testing.assert_array_equal(ds.x, plain.x)
        np.testing.assert_array_equal(ds.cv, plain.cv)
        np.testing.assert_array_equal(ds.ls3, plain.ls3)
        # Displacement: the true pen later minus the position the host reported now.
        shift = (smooth.x.astype(np.float64) - reported.x) * 0.1
        k = ds.pos[0]  # sample index of the first prediction (the first stroke starts at 0)
        expected = truth_only.disp[0, :, 0] + shift[k]
        np.testing.assert_allclose(ds.disp[0, :, 0], expected, atol=1e-5)
        self.assertFalse(np.allclose(ds.disp, plain.disp, atol=1e-3))


if __name__ == "__main__":
    unittest.main()
