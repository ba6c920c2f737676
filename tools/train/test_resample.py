#!/usr/bin/python3
"""Resampling of training and validation strokes: positions smooth, everything else bounded,
tags and timestamps the way the library receives them."""
import os
import sys
import unittest

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from features import PEN_DOWN, PEN_UP, Recording, hermite, resample  # noqa: E402


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


if __name__ == "__main__":
    unittest.main()
