"""The predictor network, its .tflite export and a numpy forward pass of the exported file."""

import os
import struct
import sys

import flatbuffers
import numpy as np
import torch
from torch import nn

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tflite"))

ACTIVATIONS = {"relu": nn.ReLU, "tanh": nn.Tanh}


class StrokeMLP(nn.Module):
    """[B, N, 6] rows -> ([B, 2P] displacements in mm, [B, P] stroke-end logits).

    `shift`/`scale` standardise the flattened input during training and are folded
    into the first layer at export, so the shipped model takes the library's rows.
    """

    def __init__(self, n_hist, hidden, activation, num_predictions, shift, scale):
        super().__init__()
        self.n_in = n_hist * 6
        self.activation = activation
        self.register_buffer("shift", torch.as_tensor(shift, dtype=torch.float32))
        self.register_buffer("scale", torch.as_tensor(scale, dtype=torch.float32))
        layers, width = [], self.n_in
        for h in hidden:
            layers += [nn.Linear(width, h), ACTIVATIONS[activation]()]
            width = h
        self.body = nn.Sequential(*layers)
        self.disp = nn.Linear(width, 2 * num_predictions)
        self.end = nn.Linear(width, num_predictions)

    def forward(self, x):
        z = self.body((x.reshape(x.shape[0], -1) - self.shift) * self.scale)
        return self.disp(z), self.end(z)

    def export_layers(self):
        """(hidden, heads) as float32 arrays for write_mlp, standardisation folded in."""
        linears = [m for m in self.body if isinstance(m, nn.Linear)]
        hidden = []
        for i, lin in enumerate(linears):
            w = lin.weight.detach().double().numpy()
            b = lin.bias.detach().double().numpy()
            if i == 0:
                s = self.scale.double().numpy()
                b = b - w @ (self.shift.double().numpy() * s)
                w = w * s[None, :]
            hidden.append((w.astype(np.float32), b.astype(np.float32), self.activation))
        heads = [(h.weight.detach().numpy().astype(np.float32), h.bias.detach().numpy().astype(np.float32))
                 for h in (self.disp, self.end)]
        return hidden, heads


def export_tflite(model, path, n_hist):
    from tflite_writer import write_mlp
    hidden, heads = model.export_layers()
    write_mlp(path, n_hist, hidden, heads, input_features=6)


# --- Reading the .tflite back: enough of the schema to run a fully connected graph.

def _table(buf, pos):
    return flatbuffers.table.Table(buf, pos)


def _field(t, slot):
    off = t.Offset(4 + 2 * slot)
    return off


def _vector(t, slot, fmt, size):
    off = _field(t, slot)
    if not off:
        return []
    start = t.Vector(off)
    n = t.VectorLen(off)
    return list(struct.unpack_from("<%d%s" % (n, fmt), t.Bytes, start)) if n else []


def _tables(t, slot):
    off = _field(t, slot)
    if not off:
        return []
    start, n = t.Vector(off), t.VectorLen(off)
    return [_table(t.Bytes, t.Indirect(start + 4 * i)) for i in range(n)]


def _scalar(t, slot, fmt, default):
    off = _field(t, slot)
    return struct.unpack_from("<" + fmt, t.Bytes, t.Pos + off)[0] if off else default


def load_tflite(path):
    """Parses a RESHAPE + FULLY_CONNECTED graph into numpy layers (W, b, activation code)."""
    buf = bytearray(open(path, "rb").read())
    if buf[4:8] != b"TFL3":
        raise ValueError("not a TFLite file")
    model = _table(buf, struct.unpack_from("<I", buf, 0)[0])
    buffers = []
    for b in _tables(model, 4):
        off = _field(b, 0)
        buffers.append(bytes(buf[b.Vector(off):b.Vector(off) + b.VectorLen(off)]) if off else b"")
    opcodes = [_scalar(c, 0, "b", 0) for c in _tables(model, 1)]
    sub = _tables(model, 2)[0]
    tensors = []
    for t in _tables(sub, 0):
        tensors.append((_vector(t, 0, "i", 4), _scalar(t, 2, "I", 0)))
    outputs = _vector(sub, 2, "i", 4)
    ops = []
    for op in _tables(sub, 3):
        code = opcodes[_scalar(op, 0, "I", 0)]
        ins, outs = _vector(op, 1, "i", 4), _vector(op, 2, "i", 4)
        act = 0
        opt = _field(op, 4)
        if opt:
            act = _scalar(_table(buf, op.Indirect(op.Pos + opt)), 0, "b", 0)
        ops.append((code, ins, outs, act))

    def const(i):
        shape, b = tensors[i]
        return np.frombuffer(buffers[b], dtype="<f4").reshape(shape)
    return ops, const, outputs


def tflite_forward(path, x):
    """Runs the exported graph on float32 [B, N, 6] rows; returns the outputs in order."""
    ops, const, outputs = load_tflite(path)
    values = {}
    acts = {0: lambda v: v, 1: lambda v: np.maximum(v, 0), 4: np.tanh}
    for code, ins, outs, act in ops:
        if code == 22:  # RESHAPE of the model input
            values[outs[0]] = x.reshape(x.shape[0], -1).astype(np.float32)
        elif code == 9:  # FULLY_CONNECTED
            w, b = const(ins[1]), const(ins[2])
            values[outs[0]] = acts[act](values[ins[0]] @ w.T + b).astype(np.float32)
        else:
            raise ValueError("unexpected operator %d" % code)
    return [values[o] for o in outputs]
