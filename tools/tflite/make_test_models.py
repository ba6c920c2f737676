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
  ops_n10_p5.tflite       n = 10, every operator the XNNPACK engine runs besides RELU_N1_TO_1:
                          RESHAPE, FC with fused RELU6, RELU and NONE, MUL, ADD, SUB, DIV, MAXIMUM and
                          MINIMUM against broadcast constants, LOGISTIC, a three-way CONCATENATION;
  ops_n10_p5.expected     its numpy reference, laid out as mlp_n10_p5.expected.
  relu_n1_n10_p5.tflite   n = 10, FC 16 with fused RELU_N1_TO_1 -> heads 10 and 5;
  relu_n1_n10_p5.expected its numpy reference, likewise.
  rows_of_5_n12.tflite    input [1, 12, 5]: as many floats as ten rows of six, in rows of the wrong
                          width; outputs as const_n10_p5.
  one_head_n10.tflite     n = 10 with output 0 only.
"""

import os
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tflite_writer import (_ACTIVATIONS, _CONCATENATION, _CUSTOM, _FULLY_CONNECTED, _LOGISTIC,  # noqa: E402
                           BINARY_OPERATORS, _Graph, _flattened_input, write_mlp)

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


def write_expected(path, x, outputs):
    with open(path, "wb") as f:
        f.write(np.concatenate([x] + outputs).astype("<f4").tobytes())


def _fc(graph, name, source, weights, bias, activation):
    w = graph.constant(f"{name}/weights", weights)
    b = graph.constant(f"{name}/bias", bias)
    out = graph.tensor(name, [1, weights.shape[0]])
    graph.operator(_FULLY_CONNECTED, [source, w, b], [out], ("fc", _ACTIVATIONS[activation]))
    return out


def _binary(graph, kind, name, a, b, width):
    """A binary operator whose constant operand may be broadcast (shape [width] or [1, width])."""
    builtin, options_tag = BINARY_OPERATORS[kind]
    out = graph.tensor(name, [1, width])
    graph.operator(builtin, [a, b], [out], ("binary", options_tag, _ACTIVATIONS["none"]))
    return out


def _clamped(values, activation):
    low, high = {"none": (-np.inf, np.inf), "relu": (0, np.inf), "relu6": (0, 6), "relu_n1_to_1": (-1, 1)}[activation]
    return np.clip(values, low, high).astype(np.float32)


def write_ops_model(outdir, n=10):
    rng = np.random.default_rng(20261123)
    width = n * FEATURES
    w1, b1 = rng.normal(0, 1.5, (16, width)).astype(np.float32), rng.normal(0, 0.5, 16).astype(np.float32)
    w2, b2 = rng.normal(0, 0.3, (8, width)).astype(np.float32), rng.normal(0, 0.1, 8).astype(np.float32)
    c_mul = rng.uniform(-2, 2, 16).astype(np.float32)
    c_add = rng.uniform(-1, 1, (1, 16)).astype(np.float32)
    c_sub = rng.uniform(-1, 1, (1, 16)).astype(np.float32)
    c_div = (rng.uniform(0.5, 2, 16) * rng.choice([-1, 1], 16)).astype(np.float32)
    c_max = rng.uniform(-3, 0, 16).astype(np.float32)
    c_min = rng.uniform(0, 3, 16).astype(np.float32)
    w3, b3 = rng.normal(0, 0.3, (10, 40)).astype(np.float32), rng.normal(0, 0.1, 10).astype(np.float32)
    w4, b4 = rng.normal(0, 0.3, (5, 40)).astype(np.float32), rng.normal(0, 0.1, 5).astype(np.float32)

    graph = _Graph()
    source, flat, _ = _flattened_input(graph, n, FEATURES)
    h1 = _fc(graph, "wide", flat, w1, b1, "relu6")
    h2 = _fc(graph, "narrow", flat, w2, b2, "relu")
    t = _binary(graph, "mul", "scaled", h1, graph.constant("mul/c", c_mul), 16)
    t = _binary(graph, "add", "shifted", t, graph.constant("add/c", c_add), 16)
    t = _binary(graph, "sub", "flipped", graph.constant("sub/c", c_sub), t, 16)
    t = _binary(graph, "div", "divided", t, graph.constant("div/c", c_div), 16)
    t = _binary(graph, "maximum", "floored", t, graph.constant("max/c", c_max), 16)
    t = _binary(graph, "minimum", "capped", t, graph.constant("min/c", c_min), 16)
    g = graph.tensor("squashed", [1, 16])
    graph.operator(_LOGISTIC, [t], [g])
    cat = graph.tensor("joined", [1, 40])
    graph.operator(_CONCATENATION, [g, h2, h1], [cat], ("concat", -1, _ACTIVATIONS["none"]))
    out0 = _fc(graph, "output0", cat, w3, b3, "none")
    out1 = _fc(graph, "output1", cat, w4, b4, "none")
    graph.write(os.path.join(outdir, f"ops_n{n}_p5.tflite"), [source], [out0, out1])

    x = rng.uniform(-1, 1, width).astype(np.float32)
    a1 = _clamped(w1 @ x + b1, "relu6")
    a2 = _clamped(w2 @ x + b2, "relu")
    v = np.minimum(np.maximum((c_sub[0] - (a1 * c_mul + c_add[0])) / c_div, c_max), c_min).astype(np.float32)
    joined = np.concatenate([1 / (1 + np.exp(-v)), a2, a1]).astype(np.float32)
    write_expected(os.path.join(outdir, f"ops_n{n}_p5.expected"), x, [w3 @ joined + b3, w4 @ joined + b4])


def write_relu_n1_model(outdir, n=10):
    rng = np.random.default_rng(20261124)
    width = n * FEATURES
    w1, b1 = rng.normal(0, 0.3, (16, width)).astype(np.float32), rng.normal(0, 0.1, 16).astype(np.float32)
    w2, b2 = rng.normal(0, 0.3, (10, 16)).astype(np.float32), rng.normal(0, 0.1, 10).astype(np.float32)
    w3, b3 = rng.normal(0, 0.3, (5, 16)).astype(np.float32), rng.normal(0, 0.1, 5).astype(np.float32)
    write_mlp(os.path.join(outdir, f"relu_n1_n{n}_p5.tflite"), n, [(w1, b1, "relu_n1_to_1")], [(w2, b2), (w3, b3)])
    x = rng.uniform(-1, 1, width).astype(np.float32)
    h = _clamped(w1 @ x + b1, "relu_n1_to_1")
    write_expected(os.path.join(outdir, f"relu_n1_n{n}_p5.expected"), x, [w2 @ h + b2, w3 @ h + b3])


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
    write_ops_model(outdir)
    write_relu_n1_model(outdir)
    write_mlp(os.path.join(outdir, "rows_of_5_n12.tflite"), 12, [], constant_heads(10), input_features=5)
    write_mlp(os.path.join(outdir, "one_head_n10.tflite"), 10, [], constant_heads(10)[:1])


if __name__ == "__main__":
    main()
