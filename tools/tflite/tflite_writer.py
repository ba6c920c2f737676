"""Writes small float32 multilayer perceptrons as standard .tflite files, without TensorFlow.

The file is a TFLite flatbuffer (schema version 3, identifier "TFL3") built table by table with
flatbuffers.Builder, so any TFLite-compatible runtime (Arm NN's TfLite parser here) can load it.
"""

import struct

import flatbuffers
import numpy as np

# Builtin operator codes and option-union tags of the TFLite schema.
_ADD = 0
_CONCATENATION = 2
_FULLY_CONNECTED = 9
_LOGISTIC = 14
_MUL = 18
_RESHAPE = 22
_CUSTOM = 32
_SUB = 41
_DIV = 42
_MAXIMUM = 55
_MINIMUM = 57
_FC_OPTIONS = 8
_CONCATENATION_OPTIONS = 10
_ADD_OPTIONS = 11
_RESHAPE_OPTIONS = 17
_MUL_OPTIONS = 21
_SUB_OPTIONS = 28
_DIV_OPTIONS = 29
_MAXIMUM_MINIMUM_OPTIONS = 39

# Element-wise binary operators: builtin code and the option table that carries the fused
# activation (MAXIMUM and MINIMUM have an empty option table).
BINARY_OPERATORS = {
    "add": (_ADD, _ADD_OPTIONS),
    "sub": (_SUB, _SUB_OPTIONS),
    "mul": (_MUL, _MUL_OPTIONS),
    "div": (_DIV, _DIV_OPTIONS),
    "maximum": (_MAXIMUM, _MAXIMUM_MINIMUM_OPTIONS),
    "minimum": (_MINIMUM, _MAXIMUM_MINIMUM_OPTIONS),
}

_FLOAT32 = 0
_INT32 = 2

_ACTIVATIONS = {"none": 0, "relu": 1, "relu_n1_to_1": 2, "relu6": 3, "tanh": 4}


class _Graph:
    """One-subgraph model under construction: buffers, tensors, operator codes and operators."""

    def __init__(self):
        self.buffers = [b""]  # buffer 0 is the empty sentinel shared by non-constant tensors
        self.tensors = []  # (name, shape, type, buffer index)
        self.opcodes = []  # (builtin code, custom code or None)
        self.operators = []  # (opcode index, inputs, outputs, options)

    def tensor(self, name, shape, dtype=_FLOAT32, data=None):
        buffer_index = 0
        if data is not None:
            self.buffers.append(bytes(data))
            buffer_index = len(self.buffers) - 1
        self.tensors.append((name, [int(d) for d in shape], dtype, buffer_index))
        return len(self.tensors) - 1

    def constant(self, name, array):
        array = np.ascontiguousarray(array, dtype="<f4")
        return self.tensor(name, array.shape, _FLOAT32, array.tobytes())

    def operator(self, builtin, inputs, outputs, options=None, custom_code=None):
        """options: None, ("fc", activation code), ("reshape", new shape), ("binary", option
        tag, activation code) or ("concat", axis, activation code)."""
        key = (builtin, custom_code)
        if key not in self.opcodes:
            self.opcodes.append(key)
        self.operators.append((self.opcodes.index(key), list(inputs), list(outputs), options))

    def write(self, path, inputs, outputs, description="tflite_writer"):
        with open(path, "wb") as f:
            f.write(self._serialise(inputs, outputs, description))

    # Flatbuffers are built bottom-up: every child (vector, string, table) before its parent.
    def _serialise(self, inputs, outputs, description):
        b = flatbuffers.Builder(1024)

        def int32_vector(values):
            b.StartVector(4, len(values), 4)
            for v in reversed(values):
                b.PrependInt32(int(v))
            return b.EndVector()

        def offset_vector(offsets):
            b.StartVector(4, len(offsets), 4)
            for off in reversed(offsets):
                b.PrependUOffsetTRelative(off)
            return b.EndVector()

        def byte_vector(data):
            b.StartVector(1, len(data), 16)
            b.head = b.head - len(data)
            b.Bytes[b.head:b.head + len(data)] = data
            return b.EndVector()

        buffer_offsets = []
        for data in self.buffers:
            data_off = byte_vector(data) if data else None
            b.StartObject(1)
            if data_off is not None:
                b.PrependUOffsetTRelativeSlot(0, data_off, 0)
            buffer_offsets.append(b.EndObject())

        tensor_offsets = []
        for name, shape, dtype, buffer_index in self.tensors:
            name_off = b.CreateString(name)
            shape_off = int32_vector(shape)
            b.StartObject(6)
            b.PrependUOffsetTRelativeSlot(0, shape_off, 0)
            b.PrependInt8Slot(1, dtype, 0)
            b.PrependUint32Slot(2, buffer_index, 0)
            b.PrependUOffsetTRelativeSlot(3, name_off, 0)
            tensor_offsets.append(b.EndObject())

        operator_offsets = []
        for opcode_index, op_inputs, op_outputs, options in self.operators:
            in_off = int32_vector(op_inputs)
            out_off = int32_vector(op_outputs)
            options_type, options_off = 0, None
            if options is not None and options[0] == "fc":
                b.StartObject(2)
                b.PrependInt8Slot(0, options[1], 0)
                options_type, options_off = _FC_OPTIONS, b.EndObject()
            elif options is not None and options[0] == "reshape":
                shape_off = int32_vector(options[1])
                b.StartObject(1)
                b.PrependUOffsetTRelativeSlot(0, shape_off, 0)
                options_type, options_off = _RESHAPE_OPTIONS, b.EndObject()
            elif options is not None and options[0] == "binary":
                if options[1] == _MAXIMUM_MINIMUM_OPTIONS:
                    b.StartObject(0)
                else:
                    b.StartObject(1)
                    b.PrependInt8Slot(0, options[2], 0)
                options_type, options_off = options[1], b.EndObject()
            elif options is not None and options[0] == "concat":
                b.StartObject(2)
                b.PrependInt32Slot(0, options[1], 0)
                b.PrependInt8Slot(1, options[2], 0)
                options_type, options_off = _CONCATENATION_OPTIONS, b.EndObject()
            b.StartObject(5)
            b.PrependUint32Slot(0, opcode_index, 0)
            b.PrependUOffsetTRelativeSlot(1, in_off, 0)
            b.PrependUOffsetTRelativeSlot(2, out_off, 0)
            if options_off is not None:
                b.PrependUint8Slot(3, options_type, 0)
                b.PrependUOffsetTRelativeSlot(4, options_off, 0)
            operator_offsets.append(b.EndObject())

        tensors_vec = offset_vector(tensor_offsets)
        inputs_vec = int32_vector(inputs)
        outputs_vec = int32_vector(outputs)
        operators_vec = offset_vector(operator_offsets)
        subgraph_name = b.CreateString("main")
        b.StartObject(5)
        b.PrependUOffsetTRelativeSlot(0, tensors_vec, 0)
        b.PrependUOffsetTRelativeSlot(1, inputs_vec, 0)
        b.PrependUOffsetTRelativeSlot(2, outputs_vec, 0)
        b.PrependUOffsetTRelativeSlot(3, operators_vec, 0)
        b.PrependUOffsetTRelativeSlot(4, subgraph_name, 0)
        subgraph = b.EndObject()

        opcode_offsets = []
        for builtin, custom_code in self.opcodes:
            custom_off = b.CreateString(custom_code) if custom_code is not None else None
            b.StartObject(3)
            b.PrependInt8Slot(0, builtin, 0)
            if custom_off is not None:
                b.PrependUOffsetTRelativeSlot(1, custom_off, 0)
            b.PrependInt32Slot(2, 1, 1)
            opcode_offsets.append(b.EndObject())

        opcodes_vec = offset_vector(opcode_offsets)
        subgraphs_vec = offset_vector([subgraph])
        description_off = b.CreateString(description)
        buffers_vec = offset_vector(buffer_offsets)
        b.StartObject(5)
        b.PrependUint32Slot(0, 3, 0)
        b.PrependUOffsetTRelativeSlot(1, opcodes_vec, 0)
        b.PrependUOffsetTRelativeSlot(2, subgraphs_vec, 0)
        b.PrependUOffsetTRelativeSlot(3, description_off, 0)
        b.PrependUOffsetTRelativeSlot(4, buffers_vec, 0)
        model = b.EndObject()
        b.Finish(model, file_identifier=b"TFL3")
        return bytes(b.Output())


def _fully_connected(graph, name, source, width, weights, bias, activation):
    weights = np.asarray(weights, dtype=np.float32)
    bias = np.asarray(bias, dtype=np.float32)
    if weights.ndim != 2 or weights.shape[1] != width:
        raise ValueError(f"{name}: weights of shape {weights.shape} do not take {width} inputs")
    if bias.shape != (weights.shape[0],):
        raise ValueError(f"{name}: bias of shape {bias.shape} does not match {weights.shape[0]} outputs")
    if activation not in _ACTIVATIONS:
        raise ValueError(f"{name}: unknown activation {activation!r}")
    w = graph.constant(f"{name}/weights", weights)
    bi = graph.constant(f"{name}/bias", bias)
    out = graph.tensor(name, [1, weights.shape[0]])
    graph.operator(_FULLY_CONNECTED, [source, w, bi], [out], ("fc", _ACTIVATIONS[activation]))
    return out, weights.shape[0]


def _flattened_input(graph, n_hist, input_features):
    """Adds the [1, n_hist, input_features] input and its reshape to [1, n_hist * input_features]."""
    flat = n_hist * input_features
    source = graph.tensor("input", [1, n_hist, input_features])
    shape = graph.tensor("flatten/shape", [2], _INT32, struct.pack("<2i", 1, flat))
    flattened = graph.tensor("flatten", [1, flat])
    graph.operator(_RESHAPE, [source, shape], [flattened], ("reshape", [1, flat]))
    return source, flattened, flat


def write_mlp(path, n_hist, hidden, heads, input_features=6):
    """Writes a float32 multilayer perceptron as a .tflite file.

    Graph: input "input" [1, n_hist, input_features] -> RESHAPE [1, n_hist * input_features]
    -> one FULLY_CONNECTED layer per entry of `hidden` -> one FULLY_CONNECTED head per entry of
    `heads`, each fed by the last hidden activation (by the flattened input when `hidden` is empty).

    path            file to write.
    n_hist          number of history rows of the input.
    hidden          list of (W, b, activation): W float32 [out, in], b float32 [out], activation
                    "relu", "tanh" or "none" (fused into the layer).
    heads           list of (W, b): W float32 [out, in], b float32 [out]; head k is the model's
                    output k, a tensor "output<k>" of shape [1, out] with no activation.
    input_features  columns of one history row.

    Weights are stored row-major exactly as given, so y = W @ x + b for a flattened input x
    (row-major over [n_hist, input_features], oldest row first). With hidden=[] the heads are
    affine maps of the input itself, which gives test models with exactly known outputs.
    Raises ValueError when a layer's shapes do not chain.
    """
    if n_hist < 1 or input_features < 1:
        raise ValueError("n_hist and input_features must be positive")
    if not heads:
        raise ValueError("a model needs at least one head")
    graph = _Graph()
    source, current, width = _flattened_input(graph, n_hist, input_features)
    for i, (weights, bias, activation) in enumerate(hidden):
        current, width = _fully_connected(graph, f"hidden{i}", current, width, weights, bias, activation)
    outputs = []
    for k, (weights, bias) in enumerate(heads):
        out, _ = _fully_connected(graph, f"output{k}", current, width, weights, bias, "none")
        outputs.append(out)
    graph.write(path, [source], outputs)


class GraphBuilder:
    """A float32 graph of the fast engine's operators, built node by node.

    Every tensor is [1, width] except the input [1, n_hist, input_features]. Binary operators take
    two tensors of the same shape (constants are stored at full shape, never broadcast), which
    every runtime runs without a broadcasting path.
    """

    def __init__(self, n_hist, input_features=6):
        self.graph = _Graph()
        self.source, self.flat, self.flat_width = _flattened_input(self.graph, n_hist, input_features)
        self.widths = {self.flat: self.flat_width}
        self.outputs = []

    def fully_connected(self, name, source, weights, bias, activation="none"):
        out, width = _fully_connected(self.graph, name, source, self.widths[source], weights, bias, activation)
        self.widths[out] = width
        return out

    def constant(self, name, values):
        values = np.asarray(values, dtype=np.float32).reshape(1, -1)
        c = self.graph.constant(name, values)
        self.widths[c] = values.shape[1]
        return c

    def binary(self, kind, name, a, b, activation="none"):
        if kind not in BINARY_OPERATORS:
            raise ValueError(f"{name}: unknown binary operator {kind!r}")
        if self.widths[a] != self.widths[b]:
            raise ValueError(f"{name}: operands of width {self.widths[a]} and {self.widths[b]}")
        builtin, option_tag = BINARY_OPERATORS[kind]
        out = self.graph.tensor(name, [1, self.widths[a]])
        self.graph.operator(builtin, [a, b], [out], ("binary", option_tag, _ACTIVATIONS[activation]))
        self.widths[out] = self.widths[a]
        return out

    def concatenation(self, name, sources, activation="none"):
        width = sum(self.widths[s] for s in sources)
        out = self.graph.tensor(name, [1, width])
        self.graph.operator(_CONCATENATION, list(sources), [out], ("concat", 1, _ACTIVATIONS[activation]))
        self.widths[out] = width
        return out

    def logistic(self, name, source):
        out = self.graph.tensor(name, [1, self.widths[source]])
        self.graph.operator(_LOGISTIC, [source], [out])
        self.widths[out] = self.widths[source]
        return out

    def write(self, path, outputs):
        self.graph.write(path, [self.source], list(outputs))
