#!/usr/bin/python3
"""Checks that the training code builds exactly the model input rows the library builds.

Runs the C++ dumper (stylus-feature-dump) on a recording and compares every history it wrote with
the history features.py builds for the same newest sample. Exits 1 on any difference.

usage: check_feature_parity.py DUMP_EXE CONFIG RECORDING
"""

import os
import subprocess
import sys
import tempfile

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from features import FEATURES, FeatureConfig, Recording, recording_histories  # noqa: E402

# Both sides compute in float32 in the same order; the tolerance only absorbs a fused multiply-add.
TOLERANCE = 1e-6


def main(argv):
    if len(argv) != 4:
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        return 2
    dump_exe, config_path, recording_path = argv[1:]
    cfg = FeatureConfig.from_file(config_path)
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "rows.csv")
        subprocess.run([dump_exe, config_path, recording_path, out], check=True)
        library = np.loadtxt(out, delimiter=",", dtype=np.float64, ndmin=2)

    rec = Recording.load(recording_path)
    sample_index, hist, _ = recording_histories(rec, cfg)
    python_by_time = {int(rec.t[i]): h for i, h in zip(sample_index, hist)}

    n = cfg.num_historical_points
    worst = 0.0
    for line in library:
        base = int(line[0])
        rows = line[1:].astype(np.float32).reshape(n, len(FEATURES))
        if base not in python_by_time:
            print(f"the library predicted at {base} ms, the training code has no history there", file=sys.stderr)
            return 1
        expected = python_by_time[base]
        scale = np.maximum(1.0, np.abs(expected))
        diff = float(np.max(np.abs(rows - expected) / scale))
        worst = max(worst, diff)
        if not diff <= TOLERANCE:
            row, col = np.unravel_index(np.argmax(np.abs(rows - expected) / scale), rows.shape)
            print(f"history at {base} ms differs at row {row}, column {col}: library {rows[row, col]!r}, "
                  f"training code {expected[row, col]!r}", file=sys.stderr)
            return 1
    if len(library) == 0:
        print("the library made no prediction on this recording", file=sys.stderr)
        return 1
    print(f"{len(library)} histories of {n} rows equal (largest relative difference {worst:.3g})")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
