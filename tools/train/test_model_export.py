#!/usr/bin/python3
"""The predictor network's fixed parts and its .tflite export: the exported file computes what the
network computes, and the constant layers compute the velocities they are named after."""
import copy
import os
import sys
import tempfile
import unittest

import numpy as np

try:
    import torch
except ImportError:
    # Exit code 77: CTest reports the test as skipped, with this line as the reason.
    print("skipped: python3-torch is not installed (scripts/install-deps.sh test installs it)")
    sys.exit(77)

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import train  # noqa: E402
from features import PEN_DOWN, PEN_UP, FeatureConfig, Recording  # noqa: E402
from model import AveragedPredictor, tflite_forward  # noqa: E402
from targets import build  # noqa: E402

# The parabolas are left to their own tests below: the fixed-part checks read the gate's spans alone.
SETTINGS = dict(copy.deepcopy(train.SETTINGS), num_historical_points=10, hidden=[24, 16],
                end_layers=[8, 4], roughness=True, mix_spans=[1, 4, 8], parabolas=[])


def curved_stroke(gaps):
    """One stroke along a curve at uneven sample gaps (ms); positions in pixels."""
    t = np.concatenate([[0], np.cumsum(gaps)])
    x = 300.0 + 2.0 * t + 0.01 * t ** 2
    y = 200.0 + 30.0 * np.sin(t / 40.0)
    tag = np.full(len(t), 2)
    tag[0], tag[-1] = PEN_DOWN, PEN_UP
    # Tilt and orientation move a little, as a real pen's do (a constant column would get an
    # extreme standardisation scale).
    return Recording(t, x, y, np.linspace(0.2, 0.9, len(t)), 0.3 + 0.01 * np.sin(t / 7.0),
                     1.0 + 0.02 * np.cos(t / 9.0), tag)


def dataset(s, rec):
    cfg = FeatureConfig(train.model_section(s))
    return cfg, build(rec, cfg)


def trained_looking(seed, ds, settings=SETTINGS):
    """A network with its initial layers and heads that start at zero given weights of their own."""
    torch.manual_seed(seed)
    model = train.new_model(settings)
    for head in (model.corr, model.skip, model.gate):
        torch.nn.init.normal_(head.weight, std=0.05)
    # Each member standardises its inputs on its own sample.
    model.set_standardisation(model.features(torch.from_numpy(ds.x[seed % 3::2]))[0])
    return model.eval()


def float64_outputs(model, x):
    with torch.no_grad():
        disp, logit = copy.deepcopy(model).double()(torch.from_numpy(x.astype(np.float64)))
    return disp.numpy(), logit.numpy()


class ExportTest(unittest.TestCase):
    def setUp(self):
        _, self.ds = dataset(SETTINGS, curved_stroke(np.tile([2, 3, 2, 5, 8], 30)))

    def exported(self, model):
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "m.tflite")
            ops = model.export(path)
            return ops, tflite_forward(path, self.ds.x)

    def assert_same(self, out, ref):
        for got, want in zip(out, ref):
            np.testing.assert_allclose(got, want, atol=1e-5 * max(1.0, float(np.abs(want).max())))

    def test_the_file_computes_what_the_network_computes(self):
        model = trained_looking(3, self.ds)
        # Against the network in float64: the file, like the library, computes in float32.
        disp, logit = float64_outputs(model, self.ds.x)
        ops, out = self.exported(model)
        self.assertNotIn("TANH", ops)
        self.assert_same(out, (disp, logit))
        self.assertGreater(float(np.abs(disp).max()), 1.0)

    def test_an_ensemble_file_computes_the_mean_of_its_members(self):
        members = [trained_looking(seed, self.ds) for seed in (3, 4, 5)]
        refs = [float64_outputs(m, self.ds.x) for m in members]
        mean = tuple(sum(r[i] for r in refs) / 3 for i in range(2))
        # The members must disagree, or a file of one of them would pass too.
        self.assertGreater(np.abs(refs[0][0] - refs[1][0]).max(), 0.1)
        ops, out = self.exported(AveragedPredictor(members))
        self.assertIn("CONCATENATION", ops)
        self.assert_same(out, mean)
        learned, _ = AveragedPredictor(members).parameter_count()
        self.assertEqual(learned, 3 * members[0].parameter_count()[0])

    def test_members_of_different_shape_are_refused(self):
        wide = dict(SETTINGS, hidden=[32, 16])
        with self.assertRaises(ValueError):
            AveragedPredictor([trained_looking(3, self.ds), trained_looking(4, self.ds, wide)])

    def test_a_saved_ensemble_loads_as_its_members_mean(self):
        members = [trained_looking(seed, self.ds) for seed in (3, 4)]
        s = dict(SETTINGS, ensemble_seeds=[4])
        self.assertEqual([m["seed"] for m in train.member_settings(s)], [SETTINGS["seed"], 4])
        del s["distill"]  # saved before networks learned from a teacher
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "state.pt")
            torch.save({"settings": s, "states": [m.state_dict() for m in members], "train_s": 1.0}, path)
            settings, loaded, _ = train.load_state(path)
        self.assertEqual(settings["distill"], 0.0)
        want = AveragedPredictor(members)(torch.from_numpy(self.ds.x))[0]
        np.testing.assert_array_equal(loaded(torch.from_numpy(self.ds.x))[0].detach().numpy(), want.detach().numpy())


class EnsembleTrainingTest(unittest.TestCase):
    def test_each_network_trains_from_its_own_seed_and_alike_when_repeated(self):
        s = dict(SETTINGS, epochs=1, batch=64, ensemble_seeds=[5])
        _, ds = dataset(s, curved_stroke(np.tile([2, 3, 2, 5, 8], 30)))
        real = train.training_set
        train.training_set = lambda *args: ds
        try:
            first = train.train_ensemble(s, lambda m: None)
            again = train.train_ensemble(s, lambda m: None)
        finally:
            train.training_set = real
        self.assertEqual(len(first), 2)
        for a, b in zip(first, again):
            for k, v in a.state_dict().items():
                self.assertTrue(torch.equal(v, b.state_dict()[k]), k)
        # The seeds make different networks, or an ensemble of copies would pass.
        self.assertFalse(torch.equal(first[0].corr.weight, first[1].corr.weight))


class StillPen(torch.nn.Module):
    """A teacher far from the truth: the pen stays where it is and the stroke never ends."""
    def forward(self, x):
        return torch.zeros(len(x), train.NUM_PREDICTIONS * 2), torch.full((len(x), train.NUM_PREDICTIONS), -8.0)


class DistillationTest(unittest.TestCase):
    def setUp(self):
        self.s = dict(SETTINGS, epochs=30, batch=32, ensemble_seeds=[], distill=0.0)
        _, self.ds = dataset(self.s, curved_stroke(np.tile([2, 3, 2, 5, 8], 30)))

    def student(self, alpha, teacher):
        model = train.train_model(dict(self.s, distill=alpha), self.ds, lambda m: None, teacher)
        disp, logit = train.torch_predictor(model)(self.ds.x)
        return model, disp, logit

    def test_no_share_ignores_the_teacher(self):
        alone = train.train_model(self.s, self.ds, lambda m: None)
        taught = self.student(0.0, StillPen())[0]
        for k, v in alone.state_dict().items():
            self.assertTrue(torch.equal(v, taught.state_dict()[k]), k)

    def test_the_share_moves_the_student_from_the_truth_to_the_teacher(self):
        v = self.ds.valid
        truth = self.ds.disp[v]
        by_share = {}
        for alpha in (0.0, 0.5, 1.0):
            _, disp, logit = self.student(alpha, StillPen())
            # Distance to the truth and to the teacher (all zero), and the mean stroke-end probability.
            by_share[alpha] = (np.linalg.norm(disp[v] - truth, axis=1).mean(), np.linalg.norm(disp[v], axis=1).mean(),
                               (1 / (1 + np.exp(-logit))).mean())
        self.assertLess(by_share[0.0][0], by_share[0.5][0])
        self.assertLess(by_share[0.5][0], by_share[1.0][0])
        self.assertGreater(by_share[0.0][1], by_share[0.5][1])
        self.assertGreater(by_share[0.5][1], by_share[1.0][1])
        self.assertLess(by_share[1.0][1], 0.2 * by_share[0.0][1])
        self.assertGreater(by_share[0.0][2], by_share[1.0][2])

    def test_a_teacher_trained_once_is_saved_and_reused(self):
        s = dict(self.s, epochs=1, distill=0.5, teacher={"seeds": [5, 6]})
        real = train.training_set
        train.training_set = lambda *args: self.ds
        try:
            with tempfile.TemporaryDirectory() as tmp:
                path = os.path.join(tmp, "teacher.pt")
                trained = train.keep_teacher(s, path, lambda m: None)
                self.assertTrue(os.path.exists(path))
                train.training_set = None  # a second run must not train
                reused = train.keep_teacher(s, path, lambda m: None)
        finally:
            train.training_set = real
        self.assertIsInstance(trained, AveragedPredictor)
        x = torch.from_numpy(self.ds.x)
        np.testing.assert_array_equal(reused(x)[0].detach().numpy(), trained(x)[0].detach().numpy())

    def test_the_teacher_is_the_mean_of_networks_from_its_seeds(self):
        t = train.teacher_settings(dict(self.s, distill=0.5, teacher={"seeds": [7, 8, 9], "epochs": 5}))
        self.assertEqual([m["seed"] for m in train.member_settings(t)], [7, 8, 9])
        self.assertEqual((t["distill"], t["epochs"], t["hidden"]), (0.0, 5, self.s["hidden"]))


class FixedPartTest(unittest.TestCase):
    def setUp(self):
        self.rec = curved_stroke(np.tile([2, 3, 2, 5, 8], 30))
        self.cfg, self.ds = dataset(SETTINGS, self.rec)
        self.model = train.new_model(SETTINGS)
        self.model.eval()

    def run_gate(self, span_index):
        """Displacements with every horizon's weight on one span and nothing else learned."""
        with torch.no_grad():
            bias = torch.zeros(self.model.p, len(SETTINGS["mix_spans"]))
            bias[:, span_index] = 1.0
            self.model.gate.bias.copy_(bias.reshape(-1))
            d, _ = self.model(torch.from_numpy(self.ds.x))
        return d.numpy().reshape(-1, self.model.p, 2)

    def test_all_weights_zero_is_least_squares_velocity(self):
        with torch.no_grad():
            d, _ = self.model(torch.from_numpy(self.ds.x))
        np.testing.assert_allclose(d.numpy().reshape(self.ds.ls3.shape), self.ds.ls3, atol=2e-4)

    def test_a_span_of_one_row_is_constant_velocity(self):
        np.testing.assert_allclose(self.run_gate(0), self.ds.cv, atol=2e-4)

    def test_a_longer_span_is_its_steps_over_its_gaps(self):
        # Where the history holds four real rows: the newest sample against the one four before.
        full = self.ds.pos >= 5
        idx = (self.ds.stroke + self.ds.pos)[full]  # one stroke, starting at sample 0
        horizons = self.cfg.prediction_time_delta_ms * np.arange(1, self.model.p + 1)
        got = self.run_gate(1)[full]
        for axis, v in ((0, self.rec.x), (1, self.rec.y)):
            v = v.astype(np.float64)
            velocity = (v[idx] - v[idx - 4]) / (self.rec.t[idx] - self.rec.t[idx - 4]) * float(self.cfg.mm_per_pixel)
            np.testing.assert_allclose(got[:, :, axis], velocity[:, None] * horizons[None, :], atol=2e-4)
        self.assertGreater(full.sum(), 100)

    def test_roughness_is_zero_on_a_steady_pen_and_grows_with_a_jittery_one(self):
        steady = curved_stroke(np.full(60, 4))
        line = Recording(steady.t, 100.0 + 3.0 * steady.t, 50.0 + 1.0 * steady.t, steady.pressure,
                         steady.tilt, steady.orientation, steady.tag)
        jitter = Recording(line.t, line.x + np.where(np.arange(len(line.t)) % 2, 1.5, 0.0), line.y,
                           line.pressure, line.tilt, line.orientation, line.tag)
        rough = []
        for rec in (line, jitter):
            _, ds = dataset(SETTINGS, rec)
            with torch.no_grad():
                z = self.model.features(torch.from_numpy(ds.x))[0].numpy()
            rough.append(z[-1, self.model.mlp_in - 4:self.model.mlp_in])
        np.testing.assert_allclose(rough[0], 0.0, atol=1e-5)
        # x steps alternate 3 * 4 + 1.5 and 3 * 4 - 1.5 px: every change of the x velocity is
        # 3 px / 4 ms, against a mean L1 speed of (3 + 1) px / ms (plus the speed floor).
        mm = float(self.cfg.mm_per_pixel)
        expect = 0.75 * mm / (4.0 * mm + 1e-3)
        self.assertAlmostEqual(float(rough[1][0]), expect, places=5)
        self.assertAlmostEqual(float(rough[1][2]), expect, places=5)
        np.testing.assert_allclose(rough[1][[1, 3]], 0.0, atol=1e-5)


class ParabolaTest(unittest.TestCase):
    """The parabola terms: a least-squares parabola over the last rows taken as equally spaced."""
    SETTINGS = dict(SETTINGS, parabolas=[6, 10])

    def gated(self, index):
        """A network whose only learned output is every horizon's full weight on one mix term."""
        model = train.new_model(self.SETTINGS).eval()
        with torch.no_grad():
            bias = torch.zeros(model.p, model.n_mix)
            bias[:, index] = 1.0
            model.gate.bias.copy_(bias.reshape(-1))
        return model

    def test_a_constant_acceleration_stroke_is_predicted_exactly_by_torch_and_by_the_file(self):
        t = np.arange(0, 300, 5)  # a steady 5 ms period
        n = len(t)
        tag = np.full(n, 2)
        tag[0], tag[-1] = PEN_DOWN, PEN_UP
        x, y = 300.0 + 0.8 * t + 0.004 * t ** 2, 200.0 - 0.3 * t + 0.002 * t ** 2
        rec = Recording(t, x, y, np.full(n, 0.5), 0.3 + 0.01 * np.sin(t / 7.0), np.ones(n), tag)
        cfg, ds = dataset(self.SETTINGS, rec)
        full = ds.pos >= 11  # the history holds the parabola's ten rows and the stroke's own samples
        now = t[ds.pos].astype(np.float64)[full][:, None]
        h = cfg.prediction_time_delta_ms * np.arange(1, 6, dtype=np.float64)[None, :]
        mm = float(cfg.mm_per_pixel)
        want = np.stack([(0.8 + 0.008 * now) * h + 0.004 * h * h,
                         (-0.3 + 0.004 * now) * h + 0.002 * h * h], axis=2) * mm
        k = len(self.SETTINGS["mix_spans"])
        for index in (k, k + 1):
            model = self.gated(index)
            with torch.no_grad():
                got = model(torch.from_numpy(ds.x))[0].numpy().reshape(-1, 5, 2)
            np.testing.assert_allclose(got[full], want, atol=2e-4)
            with tempfile.TemporaryDirectory() as tmp:
                path = os.path.join(tmp, "m.tflite")
                ops = model.export(path)
                out0, _ = tflite_forward(path, ds.x)
            self.assertLessEqual(set(ops), {"ADD", "CONCATENATION", "DIV", "FULLY_CONNECTED", "MAXIMUM",
                                            "MINIMUM", "MUL", "RESHAPE", "SUB"})
            np.testing.assert_allclose(out0.reshape(-1, 5, 2)[full], want, atol=2e-4)
        # Least squares over three samples lags a turning pen by the acceleration term: the
        # parabola's exactness above is its own.
        self.assertGreater(np.abs(ds.ls3[full] - want).max(), 0.01)
        self.assertGreater(full.sum(), 30)

    def test_uneven_timestamps_use_the_mean_gap(self):
        # Host timestamps 4, 6, 4, 6 ms apart on a pen sampled every 5 ms: taken as equally spaced,
        # the parabola sees the steady pen, whose velocity the mean gap recovers.
        t = np.arange(0, 300, 5)
        stamps = t + np.where(np.arange(len(t)) % 2, 1, 0)
        n = len(t)
        tag = np.full(n, 2)
        tag[0], tag[-1] = PEN_DOWN, PEN_UP
        rec = Recording(stamps, 300.0 + 0.8 * t, 200.0 + 0.0 * t, np.full(n, 0.5), np.zeros(n), np.ones(n), tag)
        cfg, ds = dataset(self.SETTINGS, rec)
        full = ds.pos >= 11
        model = self.gated(len(self.SETTINGS["mix_spans"]))
        with torch.no_grad():
            got = model(torch.from_numpy(ds.x))[0].numpy().reshape(-1, 5, 2)[full]
        # Over ten rows the mean gap is exactly 5 ms.
        h = cfg.prediction_time_delta_ms * np.arange(1, 6, dtype=np.float64)
        np.testing.assert_allclose(got[:, :, 0], np.tile(0.8 * h * float(cfg.mm_per_pixel), (full.sum(), 1)),
                                   atol=2e-4)

    def test_spans_the_history_cannot_hold_are_refused(self):
        for bad in ([1], [SETTINGS["num_historical_points"] + 1]):
            with self.assertRaises(ValueError):
                train.new_model(dict(SETTINGS, parabolas=bad))
        with self.assertRaises(ValueError):
            train.new_model(dict(SETTINGS, parabolas=[6], mix_spans=[]))


class GroupPushTest(unittest.TestCase):
    """A group that loses to the baseline gains loss weight, each horizon's mean weight stays."""

    def test_a_losing_group_gains_weight_and_small_groups_are_left_alone(self):
        from types import SimpleNamespace
        n, p = 1000, train.NUM_PREDICTIONS
        group = np.repeat([0, 1, 2], [500, 450, 50])  # group 2 is too small to judge
        rng = np.random.default_rng(1)
        disp = rng.normal(size=(n, p, 2)).astype(np.float32)
        valid = np.ones((n, p), bool)
        valid[::7, p - 1] = False
        base_err = np.full((n, p), 0.1)
        miss = np.where(group == 0, 0.05, 0.2)  # group 0 wins (ratio 0.5), groups 1 and 2 lose (2.0)
        pred = disp.copy()
        pred[:, :, 0] += miss[:, None]
        ds = SimpleNamespace(group=group, valid=valid, disp=disp)
        base = np.tile(np.linspace(1.0, 2.0, p, dtype=np.float32), (n, 1))
        push = train.GroupPush(ds, base_err, torch.from_numpy(base))
        model = SimpleNamespace(head=lambda idx: (torch.from_numpy(pred[idx.numpy()].reshape(len(idx), -1)), None))
        w = push.update(model, [torch.arange(n)], 1.0, lambda _: None).numpy()
        for h in range(p):
            v = valid[:, h]
            self.assertAlmostEqual(float(w[v, h].mean()), float(base[v, h].mean()), places=4)
            ratio = w[:, h] / base[:, h]
            # exp(1.0 * (2.0 - 0.95)) against 1 (winning groups are not pushed below their weight)
            self.assertAlmostEqual(float(ratio[group == 1][0] / ratio[group == 0][0]), np.exp(1.05), places=4)
            self.assertAlmostEqual(float(ratio[group == 2][0]), float(ratio[group == 0][0]), places=6)
        for _ in range(10):  # repeated losses stop at the cap
            push.update(model, [torch.arange(n)], 1.0, lambda _: None)
        self.assertEqual(push.mult.max(), train.GroupPush.CAP)


class EndTradeoffTest(unittest.TestCase):
    """The card's table of stroke-end drops against catches, on logits whose answers are known."""

    def test_shares_per_threshold_and_the_threshold_that_catches_half(self):
        p = 2
        valid = np.ones((1000, p), bool)
        valid[900:, 1] = False            # 100 past-end points, all at the last horizon
        logits = np.full((1000, p), -5.0)
        logits[:3, 1] = 5.0               # 3 of 1000 in-stroke points at the last horizon look like an end
        logits[900:950, 1] = 5.0          # half of the past-end points are seen, sigmoid 0.9933
        logits[950:, 1] = 0.0             # the other half are not (sigmoid 0.5)
        rows = {line.split(" | ")[0].lstrip("| "): line for line in
                train.end_tradeoff_table(logits, valid, 0.95, thresholds=(0.9, 0.995)).splitlines()[2:]}
        self.assertEqual(list(rows), ["0.900", "0.950 (shipped)", "0.995", "0.993 (half caught)"])
        # 3 of 1900 in-stroke points over both horizons, 3 of 900 at the last
        self.assertEqual(rows["0.950 (shipped)"], "| 0.950 (shipped) | 0.158 % | 50.0 % | 0.333 % | 50.0 % |")
        self.assertEqual(rows["0.995"], "| 0.995 | 0.000 % | 0.0 % | 0.000 % | 0.0 % |")
        self.assertIn("| 0.993 (half caught) | 0.158 % | 50.0 % |", rows["0.993 (half caught)"])


if __name__ == "__main__":
    unittest.main()
