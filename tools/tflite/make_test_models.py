#!/usr/bin/python3
"""Writes the small .tflite models the tests load, each with exactly known outputs.

Usage: make_test_models.py OUTDIR

Every model takes input [1, n, 6] (n history rows of 6 features, oldest first) and has two
outputs: output 0 [1, 10] (x, y displacement per predicted point) and output 1 [1, 5]
(stroke-end logits). Unless stated, all weights are zero, so the outputs are the biases:

  OUTPUT0_BIAS = [0.1, 0.2, ..., 1.0]   (0.1 * (j + 1) as float32)
  OUTPUT1_BIAS = [-1, 2, -3, -4, -5]    (with a 0.5 threshold: point 1 dropped, the others kept)

  const_n10_p5.tflite     n = 10, outputs = the biases above.
  const_n25_p5.tflite     n = 25, same outputs.
  small_n4_p5.tflite      n = 4, same outputs.
  nan_logit_n10_p5.tflite n = 10, output 1 bias = [-1, NaN, -3, -4, -5]; the NaN passes through
                          Arm NN unchanged (0 * x + NaN).
  copy_n10_p5.tflite      n = 10, output0[j] = input[(n-1)*6 + (1 if j is even else 2)], i.e. the
                          x and y feature of the newest row repeated five times; output 1 = all -10.
  mlp_n10_p5.tflite       n = 10, hidden 16 relu -> 8 tanh -> heads 10 and 5, seeded random weights;
  mlp_n10_p5.expected     its reference: little-endian float32 input (60 values), then the numpy
                          forward pass's output 0 (10 values) and output 1 (5 values).
  unsupported_op.tflite   a valid .tflite whose only operator is a custom op no runtime knows.
  rows_of_5_n12.tflite    input [1, 12, 5]: as many floats as ten rows of six, in rows of the wrong
                          width; outputs as const_n10_p5.
  one_head_n10.tflite     n = 10 with output 0 only.
"""

import os
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tflite_writer import _CUSTOM, _Graph, write_mlp  # noqa: E402

FEATURES = 6
OUTPUT0_BIAS = np.array([0.1 * (j + 1) for j in range(10)], dtype=np.float32)
OUTPUT1_BIAS = np.array([-1, 2, -3, -4, -5], dtype=np.float32)


def constant_heads(n, bias0=OUTPUT0_BIAS, bias1=OUTPUT1_BIAS):
    width = n * FEATURES
    return [(np.zeros((len(bias0), width), np.float32), bias0),
            (np.zeros((len(bias1), width), np.float32), bias1)]


def copy_heads(n):
    width = n * FEATURES
    w0 = np.zeros((10, width), np.float32)
    for j in range(10):
        w0[j, (n - 1) * FEATURES + (2 if j % 2 else 1)] = 1.0
    return [(w0, np.zeros(10, np.float32)),
            (np.zeros((5, width), np.float32), np.full(5, -10.0, np.float32))]


def write_reference_mlp(outdir, n=10):
    rng = np.random.default_rng(20240611)
    width = n * FEATURES

    def layer(out, inp):
        return (rng.normal(0, 0.3, (out, inp)).astype(np.float32),
                rng.normal(0, 0.1, out).astype(np.float32))

    w1, b1 = layer(16, width)
    w2, b2 = layer(8, 16)
    w3, b3 = layer(10, 8)
    w4, b4 = layer(5, 8)
    write_mlp(os.path.join(outdir, f"mlp_n{n}_p5.tflite"), n,
              [(w1, b1, "relu"), (w2, b2, "tanh")], [(w3, b3), (w4, b4)])

    x = rng.uniform(-1, 1, width).astype(np.float32)
    h = np.maximum(w1 @ x + b1, 0).astype(np.float32)
    h = np.tanh(w2 @ h + b2).astype(np.float32)
    reference = np.concatenate([x, w3 @ h + b3, w4 @ h + b4]).astype("<f4")
    with open(os.path.join(outdir, f"mlp_n{n}_p5.expected"), "wb") as f:
        f.write(reference.tobytes())


def write_unsupported(path, n=10):
    graph = _Graph()
    source = graph.tensor("input", [1, n, FEATURES])
    out = graph.tensor("output0", [1, n, FEATURES])
    graph.operator(_CUSTOM, [source], [out], custom_code="NoSuchOperator")
    graph.write(path, [source], [out])


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_test_models.py OUTDIR")
    outdir = sys.argv[1]
    os.makedirs(outdir, exist_ok=True)
    for n in (10, 25):
        write_mlp(os.path.join(outdir, f"const_n{n}_p5.tflite"), n, [], constant_heads(n))
    write_mlp(os.path.join(outdir, "small_n4_p5.tflite"), 4, [], constant_heads(4))
    nan_bias = OUTPUT1_BIAS.copy()
    nan_bias[1] = np.nan
    write_mlp(os.path.join(outdir, "nan_logit_n10_p5.tflite"), 10, [], constant_heads(10, bias1=nan_bias))
    write_mlp(os.path.join(outdir, "copy_n10_p5.tflite"), 10, [], copy_heads(10))
    write_reference_mlp(outdir)
    write_unsupported(os.path.join(outdir, "unsupported_op.tflite"))
    write_mlp(os.path.join(outdir, "rows_of_5_n12.tflite"), 12, [], constant_heads(10), input_features=5)
    write_mlp(os.path.join(outdir, "one_head_n10.tflite"), 10, [], constant_heads(10)[:1])


if __name__ == "__main__":
    main()
