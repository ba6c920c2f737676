#!/usr/bin/python3
"""card_tables.py on summaries whose answers are known: the figures land in the right columns,
the cells the model does not win are marked and counted, drops come from the right counters."""
import contextlib
import io
import json
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import card_tables  # noqa: E402


def dist(mean, p95, count=10):
    return {"count": count, "mean_mm": mean, "median_mm": mean, "p95_mm": p95}


def horizon(ms, model, ls3, cv, dropped_in=0, dropped_past=0):
    """model, ls3, cv: (mean, p95) on the drops-charged set; the other set is 1 mm everywhere."""
    charged = {"count": 10, "recordings": 1, "model": dist(*model), "least_squares_3": dist(*ls3),
               "constant_velocity": dist(*cv)}
    common = {"count": 9, "recordings": 1, "model": dist(1, 1, 9), "least_squares_3": dist(1, 1, 9),
              "constant_velocity": dist(1, 1, 9)}
    return {"ms": ms, "index": ms // 4, "predictions": 10, "past_stroke_end": 0, "dropped_inside_stroke": dropped_in,
            "dropped_past_end": dropped_past, "model": dist(1, 1, 9), "constant_velocity": dist(1, 1, 9),
            "predicted_by_all": common, "drops_charged": charged}


def counts(dropped_in, dropped_past):
    keys = ("recordings", "strokes", "samples", "batches", "refused_batches", "predicted_batches", "predictions",
            "measured_predictions", "past_stroke_end", "before_stroke_start", "unmatched_callbacks")
    c = dict.fromkeys(keys, 1)
    c.update(dropped_inside_stroke=dropped_in, dropped_past_end=dropped_past)
    return c


def summary(batch, recordings):
    """recordings: [(path, [horizon, ...], dropped_in, dropped_past)]; pooled = the first recording's."""
    return {"settings": {"batch_size": batch}, "counts": counts(7, 3),
            "horizons": recordings[0][1], "macro_average": {"horizons": recordings[0][1]},
            "recordings": [{"path": p, "horizons": hs, "counts": counts(i, x)} for p, hs, i, x in recordings]}


WINS = [horizon(4, (0.1, 0.5), (0.2, 0.6), (0.3, 0.7)), horizon(8, (0.4, 0.9), (0.5, 1.0), (0.6, 1.1), 2, 1)]
# Loses at 4 ms to constant velocity (ratio 1.5), ties least squares at 8 ms (ratio 1.0).
LOSES = [horizon(4, (0.3, 0.5), (0.4, 0.6), (0.2, 0.7)), horizon(8, (0.5, 0.9), (0.5, 1.0), (0.6, 1.1))]


def run(*argv):
    out = io.StringIO()
    with contextlib.redirect_stdout(out):
        card_tables.main(list(argv))
    return out.getvalue()


class CardTablesTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)

    def write(self, name, data):
        path = os.path.join(self.dir.name, name)
        with open(path, "w") as f:
            json.dump(data, f)
        return path

    def test_rows_put_model_least_squares_and_constant_velocity_in_order(self):
        text = run(self.write("a.json", summary(4, [("dir/a.csv", WINS, 2, 1)])))
        self.assertIn("| 4 | 10 | 0.100 | 0.200 | 0.300 | 0.500 | 0.600 | 0.700 | 0 | 0 |", text)
        self.assertIn("| 8 | 10 | 0.400 | 0.500 | 0.600 | 0.900 | 1.000 | 1.100 | 2 | 1 |", text)
        self.assertIn("| a.csv | 10 | 0.100 / 0.200 / 0.300 | 0.400 / 0.500 / 0.600 | 2 | 1 |", text)
        self.assertIn("batches of 4", text)
        self.assertIn("dropped by the model: 7 inside a stroke, 3 past its end", text)

    def test_the_other_point_set_on_request(self):
        text = run("--points", "predicted_by_all", self.write("a.json", summary(4, [("a.csv", WINS, 0, 0)])))
        self.assertIn("| 4 | 9 | 1.000 | 1.000 | 1.000 |", text)

    def test_cells_not_won_are_marked_and_counted_ties_included(self):
        a = self.write("a.json", summary(1, [("a.csv", WINS, 0, 0), ("b.csv", LOSES, 0, 0)]))
        b = self.write("b.json", summary(8, [("a.csv", WINS, 0, 0)]))
        text = run("--label", "100 Hz, batch 1", a, b)
        self.assertIn("| b.csv | 10 | **0.300 / 0.400 / 0.200** | **0.500 / 0.500 / 0.600** |", text)
        self.assertIn("| a.csv | 10 | 0.100 / 0.200 / 0.300 | 0.400 / 0.500 / 0.600 |", text)
        self.assertIn("| 100 Hz, batch 1 | 10 | 0.100 / 0.200 / 0.300 | 0.400 / 0.500 / 0.600 "
                      "| 0.900 / 1.000 / 1.100 | 1.500 | 2 of 4 |", text)
        self.assertIn("| b, batch 8 | 10 |", text)
        self.assertIn("over every recording x horizon cell of every replay: 1.500; "
                      "cells where the model is not better: 2 of 6.", text)

    def test_all_replays_pooled_weighs_every_point(self):
        a = self.write("a.json", summary(1, [("a.csv", WINS, 0, 0)]))
        b = self.write("b.json", summary(1, [("b.csv", LOSES, 0, 0)]))
        text = run("--sweep-only", a, b)
        self.assertIn("| all replays pooled | 20 | 0.200 / 0.300 / 0.250 | 0.450 / 0.500 / 0.600 |", text)

    def test_missing_figures_are_dashes_and_no_cell(self):
        empty = [horizon(4, (None, None), (0.2, 0.6), (0.3, 0.7))]
        a = self.write("a.json", summary(4, [("a.csv", empty, 0, 0)]))
        text = run("--sweep-only", a, a)
        self.assertIn("| a, batch 4 | 10 | - / 0.200 / 0.300 | - / 0.600 / 0.700 | - | 0 of 0 |", text)
        self.assertIn("every replay: -; cells where the model is not better: 0 of 0.", text)


if __name__ == "__main__":
    unittest.main()
