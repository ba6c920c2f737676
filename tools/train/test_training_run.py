#!/usr/bin/python3
"""A short retraining from a directory in the recorder's format, as a device maker runs it: in two
processes on this machine and in one (the same bytes), sharded across two processes with and
without torchrun (the same bytes, and the one-process network within the stated tolerance); the
outputs load in the library and are replayed against the shipped model.

    test_training_run.py STYLUS_REPLAY SHIPPED_CONFIG

Exits 77 (skipped) when python3-torch is missing.
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
try:
    import torch
except ImportError:
    print("skipped: python3-torch is not installed (apt-get install python3-torch)")
    sys.exit(77)

import train  # noqa: E402
from distributed import Group, Layout  # noqa: E402
from features import FeatureConfig, Recording  # noqa: E402
from model import tflite_forward  # noqa: E402
from targets import build  # noqa: E402

REPLAY, SHIPPED = (sys.argv[1], sys.argv[2]) if len(sys.argv) > 2 else (None, None)
# One process against two: the same sums in another order. Float32 rounding differences of about 1e-7
# per step grow through the updates; after a short run the outputs agree to far below a screen pixel
# (0.119 mm) and the stroke-end probabilities to far below the threshold step (0.001).
TOLERANCE_MM = 1e-3
TOLERANCE_PROBABILITY = 1e-3
SHORT = ["--epochs", "2", "--set", 'teacher={"seeds": [1, 2], "epochs": 1}', "--set", "batch=256"]


def strokes(seed, count, period_ms):
    """Recorder rows of `count` curved strokes (pixels, ms), each pen-down, moves, pen-up."""
    rng = np.random.default_rng(seed)
    rows, t = [], 1_700_000_000_000
    for _ in range(count):
        n = int(rng.integers(25, 60))
        u = np.arange(n) * period_ms
        r, w, phase = rng.uniform(40, 120), rng.uniform(0.002, 0.01), rng.uniform(0, 6.3)
        x = 500 + r * np.cos(w * u + phase) + 0.05 * u
        y = 400 + r * np.sin(w * u + phase)
        p = np.clip(np.sin(np.pi * (np.arange(n) + 0.5) / n), 0.05, 1.0)
        for k in range(n):
            tag = 0 if k == 0 else 1 if k == n - 1 else 2
            rows.append("%d,%.7f,%.7f,%.7f,%.7f,%.7f,%d" % (t + u[k], x[k], y[k], p[k], 0.6, 1.2, tag))
        t += int(u[-1]) + 300
    return rows


def write_recording(path, rows):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as f:
        f.write("timestamp,x_pos,y_pos,pressure,tilt,orientation,tag\n" + "\n".join(rows) + "\n")


class FakeGroup(Group):
    """A rank of a group whose sums are made by the test."""

    def sum(self, array):
        return array


class LayoutTest(unittest.TestCase):
    def test_every_batch_is_split_across_the_processes_without_loss_or_overlap(self):
        counts = np.array([5, 0, 7, 3, 9], np.int64)
        owner = Group(0, 2).owners([50, 1, 70, 30, 90])
        # Largest first, each to the least loaded process.
        np.testing.assert_array_equal(owner, [1, 0, 1, 0, 0])
        ranks = [Layout(FakeGroup(r, 2), counts, owner) for r in range(2)]
        self.assertEqual([l.local_count for l in ranks], [12, 12])
        perm = np.random.default_rng(3).permutation(counts.sum())
        orders = [l.epoch_order(perm, 10) for l in ranks]
        for b in range(3):
            batch = perm[b * 10:(b + 1) * 10]
            held = [l.global_of[order[bounds[b]:bounds[b + 1]]] for l, (order, bounds) in zip(ranks, orders)]
            self.assertEqual(sorted(np.concatenate(held)), sorted(batch))
            # Within a process the batch keeps the permutation's order.
            for h in held:
                np.testing.assert_array_equal(h, [g for g in batch if g in set(h)])
        self.assertEqual([len(bounds) for _, bounds in orders], [4, 4])
        # Each process holds its recordings' blocks in recording order.
        start = np.concatenate([[0], np.cumsum(counts)[:-1]])
        np.testing.assert_array_equal(ranks[1].global_of, np.concatenate([np.arange(start[j], start[j] + counts[j])
                                                                          for j in (0, 2)]))
        valid = np.ones((12, 2), bool)
        valid[::3, 1] = False
        both = sum(l.batch_counts(perm, 10, valid) for l in ranks)
        np.testing.assert_array_equal(both[:, -1], [10, 10, 4])
        self.assertEqual(both[:, 1].sum(), 2 * (12 - 4))


def outputs(out_dir, rec):
    cfg = FeatureConfig.from_file(os.path.join(out_dir, "stylus_predictor.json"))
    x = build(rec, cfg).x
    disp, logit = tflite_forward(os.path.join(out_dir, "stylus_predictor.tflite"), x)
    return disp, 1.0 / (1.0 + np.exp(-np.clip(logit.astype(np.float64), -60, 60)))


@unittest.skipIf(REPLAY is None, "needs the stylus-replay binary and the shipped configuration")
class TrainingRunTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        root = cls.tmp.name
        cls.data = os.path.join(root, "device")
        cls.val = os.path.join(root, "validation")
        write_recording(os.path.join(cls.data, "stylus_input_events_2026-01-01_10-00-00.dat"), strokes(1, 30, 5))
        bad = strokes(2, 30, 8)
        bad.insert(40, "1700000000999,1.0,2.0")
        cls.bad = os.path.join(cls.data, "stylus_input_events_2026-01-01_10-05-00.dat")
        write_recording(cls.bad, bad)
        write_recording(os.path.join(cls.data, "stylus_input_events_2026-01-01_10-09-00.dat.tmp"), strokes(3, 3, 5))
        cls.val_file = os.path.join(cls.val, "stylus_input_events_2026-01-02_09-00-00.dat")
        write_recording(cls.val_file, strokes(4, 12, 4))
        cls.runs = {}
        for name, launcher in (("two", ["--jobs", "2"]), ("one", ["--jobs", "1"]),
                               ("torchrun", ["--shard"]), ("two-shard", ["--jobs", "2", "--shard"])):
            cls.runs[name] = cls.train(name, launcher)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @classmethod
    def train(cls, name, jobs):
        out = os.path.join(cls.tmp.name, name)
        args = ["--data", cls.data, "--validation", cls.val, "--out", out, "--replay", REPLAY,
                "--shipped", SHIPPED, "--teacher", os.path.join(out, "teacher.pt"),
                "--state", os.path.join(out, "state.pt")] + SHORT
        script = os.path.join(HERE, "train.py")
        if name == "torchrun":
            # Debian's torchrun on Python 3.11 needs --redirects and --tee other than 0.
            cmd = [sys.executable, "-m", "torch.distributed.run", "--redirects", "1", "--tee", "1", "--standalone",
                   "--nproc_per_node=2", script] + args + jobs
        else:
            cmd = [sys.executable, script] + args + jobs
        run = subprocess.run(cmd, capture_output=True, text=True, env=dict(os.environ, OMP_NUM_THREADS="1"))
        if run.returncode != 0:
            raise AssertionError("%s failed:\n%s\n%s" % (" ".join(cmd), run.stdout[-3000:], run.stderr[-3000:]))
        return out, run.stdout

    def read(self, name, file):
        with open(os.path.join(self.runs[name][0], file), "rb") as f:
            return f.read()

    def test_a_run_writes_the_model_its_configuration_and_card_and_compares_it(self):
        out, text = self.runs["two"]
        self.assertIn("training in 2 processes", text)
        self.assertIn("skipped 1 unfinished recorder file (.dat.tmp)", text)
        self.assertIn("%s:42: expected 7 fields, found 3" % self.bad, text)
        # Named once, by the process that read every recording.
        self.assertEqual(text.count(":42: expected 7 fields"), 1)
        # Sharded, by the process that read it.
        self.assertIn(":42: expected 7 fields", self.runs["two-shard"][1])
        for row in ("new model", "shipped model", "least-squares velocity", "constant velocity"):
            self.assertRegex(text, r"\| %s \| \d+\.\d{3} / \d+\.\d{3} \|" % row)
        self.assertRegex(text, r"The new model is better than the shipped one at \d of 5 horizons")
        card = self.read("two", "MODEL_CARD.md").decode()
        self.assertIn("`%s`" % os.path.basename(self.val_file), card)
        # No path of the machine it was trained on.
        self.assertNotIn(self.tmp.name, card)

    def test_any_process_count_gives_the_same_bytes_unsharded(self):
        for f in ("stylus_predictor.tflite", "stylus_predictor.json"):
            self.assertEqual(self.read("two", f), self.read("one", f), f)
        # The teacher's networks, trained side by side, are the ones one process trains in turn.
        teachers = [torch.load(os.path.join(self.runs[n][0], "teacher.pt")) for n in ("one", "two")]
        for mine, theirs in zip(*(ts["states"] for ts in teachers)):
            self.assertEqual(mine.keys(), theirs.keys())
            for k in mine:
                self.assertTrue(torch.equal(mine[k], theirs[k]), k)
        self.assertEqual([len(ts["states"]) for ts in teachers], [2, 2])
        first, second = teachers[0]["states"]
        self.assertFalse(all(torch.equal(first[k], second[k]) for k in first))
        self.assertIn("[process 1] seed 2:", self.runs["two"][1])

    def test_sharded_the_same_process_count_gives_the_same_bytes_with_or_without_torchrun(self):
        for f in ("stylus_predictor.tflite", "stylus_predictor.json"):
            self.assertEqual(self.read("two-shard", f), self.read("torchrun", f), f)

    def test_sharded_two_processes_train_the_one_process_network_within_the_tolerance(self):
        rec = Recording.load(self.val_file)
        d1, p1 = outputs(self.runs["one"][0], rec)
        d2, p2 = outputs(self.runs["two-shard"][0], rec)
        self.assertLess(np.abs(d1 - d2).max(), TOLERANCE_MM)
        self.assertLess(np.abs(p1 - p2).max(), TOLERANCE_PROBABILITY)
        # Not the same bytes, or the comparison would not test the summation across processes.
        self.assertNotEqual(self.read("one", "stylus_predictor.tflite"), self.read("two-shard", "stylus_predictor.tflite"))

    def test_a_saved_network_is_exported_again_with_another_fallback_only(self):
        out = self.runs["two"][0]

        def card_from(dst, *settings):
            cmd = [sys.executable, os.path.join(HERE, "train.py"), "--card-from", os.path.join(out, "state.pt"),
                   "--data", self.data, "--validation", self.val, "--out", dst]
            for kv in settings:
                cmd += ["--set", kv]
            return subprocess.run(cmd, capture_output=True, text=True, env=dict(os.environ, OMP_NUM_THREADS="1"))

        same, steps = os.path.join(self.tmp.name, "again"), os.path.join(self.tmp.name, "steps")
        fallback = dict(train.SETTINGS["fallback"])
        self.assertEqual(card_from(same, "fallback=" + json.dumps(fallback)).returncode, 0)
        self.assertEqual(card_from(steps, "fallback=" + json.dumps(dict(fallback, step_lo=0.01, step_hi=0.02)))
                         .returncode, 0)

        def read(d, f):
            with open(os.path.join(d, f), "rb") as fh:
                return fh.read()
        # The run's own fallback gives its bytes back; a step term changes the file, not the configuration.
        self.assertEqual(read(same, "stylus_predictor.tflite"), self.read("two", "stylus_predictor.tflite"))
        self.assertNotEqual(read(steps, "stylus_predictor.tflite"), self.read("two", "stylus_predictor.tflite"))
        self.assertEqual(read(steps, "stylus_predictor.json"), self.read("two", "stylus_predictor.json"))
        refused = card_from(os.path.join(self.tmp.name, "refused"), "hidden=[3]")
        self.assertNotEqual(refused.returncode, 0)
        self.assertIn("--card-from takes --set only for fallback, not hidden", refused.stderr)

    def test_the_library_loads_the_new_model(self):
        out = self.runs["two"][0]
        summary = os.path.join(self.tmp.name, "replay.json")
        subprocess.run([REPLAY, "--config", os.path.join(out, "stylus_predictor.json"), "--json", summary, "--quiet",
                        "--log", os.path.join(self.tmp.name, "replay.log"), self.val_file],
                       check=True, stdout=subprocess.DEVNULL, cwd=self.tmp.name)
        with open(summary) as f:
            replay = json.load(f)
        self.assertGreater(replay["counts"]["predictions"], 100)
        model = replay["horizons"][-1]["drops_charged"]["model"]
        self.assertGreater(model["count"], 0)
        self.assertTrue(np.isfinite(model["mean_mm"]))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
