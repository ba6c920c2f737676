#include "XnnpackEngine.h"

#include <xnnpack.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <vector>

namespace talcflow {
namespace {

using tflite::Model;
using tflite::Operator;
using tflite::Tensor;

constexpr float kInf = std::numeric_limits<float>::infinity();

struct Clamp {
    float min = -kInf;
    float max = kInf;
};

// The fused activations that are clamps; TANH and the rest are not.
Clamp clampFor(const Operator& op) {
    switch (op.activation) {
        case tflite::kActivationNone: return {};
        case tflite::kActivationRelu: return {0.0f, kInf};
        case tflite::kActivationReluN1To1: return {-1.0f, 1.0f};
        case tflite::kActivationRelu6: return {0.0f, 6.0f};
        default:
            throw XnnpackUnsupported(tflite::operatorName(op.builtin) + " with fused activation " +
                                     tflite::activationName(op.activation));
    }
}

void check(xnn_status status, const std::string& what) {
    if (status != xnn_status_success)
        throw std::runtime_error("XNNPACK refused " + what + " (status " + std::to_string(status) + ")");
}

void initialiseOnce() {
    static std::once_flag once;
    static xnn_status status = xnn_status_uninitialized;
    std::call_once(once, [] { status = xnn_initialize(nullptr); });
    if (status != xnn_status_success)
        throw XnnpackUnsupported("XNNPACK cannot run on this processor (status " + std::to_string(status) + ")");
}

// Defines the subgraph's values and nodes for one model; only alive while the subgraph is built.
class GraphBuilder {
public:
    GraphBuilder(const Model& model, xnn_subgraph_t subgraph, std::vector<std::vector<float>>& constants)
        : model(model), subgraph(subgraph), constants(constants), ids(model.tensors.size(), XNN_INVALID_VALUE_ID) {}

    void build() {
        for (size_t i = 0; i < model.operators.size(); ++i) {
            const Operator& op = model.operators[i];
            try {
                define(op);
            } catch (const XnnpackUnsupported& e) {
                throw XnnpackUnsupported("operator " + std::to_string(i) + " (" + e.what() + ")");
            }
        }
    }

    // External ids: graph input k is k, graph output k is inputs + k.
    uint32_t value(int32_t index) {
        uint32_t& id = ids[static_cast<size_t>(index)];
        if (id != XNN_INVALID_VALUE_ID) return id;
        const Tensor& tensor = model.tensors[static_cast<size_t>(index)];
        if (tensor.type != tflite::kTensorFloat32)
            throw XnnpackUnsupported("tensor \"" + tensor.name + "\" is not float32");
        if (tensor.shape.size() > XNN_MAX_TENSOR_DIMS)
            throw XnnpackUnsupported("tensor \"" + tensor.name + "\" has too many dimensions");
        uint32_t external = XNN_INVALID_VALUE_ID;
        uint32_t flags = 0;
        for (size_t k = 0; k < model.inputs.size(); ++k) {
            if (model.inputs[k] == index) {
                external = static_cast<uint32_t>(k);
                flags |= XNN_VALUE_FLAG_EXTERNAL_INPUT;
            }
        }
        for (size_t k = 0; k < model.outputs.size(); ++k) {
            if (model.outputs[k] == index) {
                if (flags != 0) throw XnnpackUnsupported("tensor \"" + tensor.name + "\" is both input and output");
                external = static_cast<uint32_t>(model.inputs.size() + k);
                flags |= XNN_VALUE_FLAG_EXTERNAL_OUTPUT;
            }
        }
        const float* data = nullptr;
        if (tensor.data != nullptr) {
            if (flags != 0) throw XnnpackUnsupported("constant tensor \"" + tensor.name + "\" is a graph input or output");
            if (tensor.bytes != tflite::elementCount(tensor) * sizeof(float))
                throw XnnpackUnsupported("constant tensor \"" + tensor.name + "\" has the wrong size");
            // Copied so that the float data is aligned and outlives the file's bytes.
            constants.emplace_back(tflite::elementCount(tensor) + XNN_EXTRA_BYTES / sizeof(float));
            std::memcpy(constants.back().data(), tensor.data, tensor.bytes);
            // Its kernels clamp every result, which turns a NaN into an infinity: a graph with
            // non-finite constants keeps NaN semantics on Arm NN instead.
            for (size_t i = 0; i < tflite::elementCount(tensor); ++i) {
                if (!std::isfinite(constants.back()[i]))
                    throw XnnpackUnsupported("constant tensor \"" + tensor.name + "\" holds NaN or infinity");
            }
            data = constants.back().data();
        }
        const std::vector<size_t> dims = dimsOf(tensor);
        check(xnn_define_tensor_value(subgraph, xnn_datatype_fp32, dims.size(), dims.data(), data, external, flags, &id),
              "tensor \"" + tensor.name + "\"");
        return id;
    }

    static std::vector<size_t> dimsOf(const Tensor& tensor) {
        std::vector<size_t> dims;
        for (int32_t d : tensor.shape) {
            if (d < 1) throw XnnpackUnsupported("tensor \"" + tensor.name + "\" has a dynamic or empty dimension");
            dims.push_back(static_cast<size_t>(d));
        }
        return dims;
    }

private:
    const Tensor& tensor(int32_t index) const { return model.tensors[static_cast<size_t>(index)]; }

    void expectArity(const Operator& op, size_t minInputs, size_t maxInputs) const {
        if (op.inputs.size() < minInputs || op.inputs.size() > maxInputs || op.outputs.size() != 1)
            throw XnnpackUnsupported(tflite::operatorName(op.builtin) + " with " + std::to_string(op.inputs.size()) +
                                     " inputs and " + std::to_string(op.outputs.size()) + " outputs");
    }

    uint32_t internalValue(const std::vector<size_t>& dims) {
        uint32_t id = XNN_INVALID_VALUE_ID;
        check(xnn_define_tensor_value(subgraph, xnn_datatype_fp32, dims.size(), dims.data(), nullptr,
                                      XNN_INVALID_VALUE_ID, 0, &id),
              "an intermediate tensor");
        return id;
    }

    void define(const Operator& op) {
        const std::string name = tflite::operatorName(op.builtin);
        switch (op.builtin) {
            case tflite::kFullyConnected: return fullyConnected(op);
            case tflite::kReshape: {
                expectArity(op, 1, 2);
                const std::vector<size_t> shape = dimsOf(tensor(op.outputs[0]));
                const uint32_t in = value(op.inputs[0]);
                return check(xnn_define_static_reshape(subgraph, shape.size(), shape.data(), in, value(op.outputs[0]), 0),
                             name);
            }
            case tflite::kLogistic: {
                expectArity(op, 1, 1);
                const uint32_t in = value(op.inputs[0]);
                return check(xnn_define_sigmoid(subgraph, in, value(op.outputs[0]), 0), name);
            }
            case tflite::kAdd:
            case tflite::kSub:
            case tflite::kMul:
            case tflite::kDiv: {
                expectArity(op, 2, 2);
                const Clamp clamp = clampFor(op);
                const uint32_t a = value(op.inputs[0]);
                const uint32_t b = value(op.inputs[1]);
                const uint32_t out = value(op.outputs[0]);
                auto defineBinary = op.builtin == tflite::kAdd   ? &xnn_define_add2
                                    : op.builtin == tflite::kSub ? &xnn_define_subtract
                                    : op.builtin == tflite::kMul ? &xnn_define_multiply2
                                                                 : &xnn_define_divide;
                return check(defineBinary(subgraph, clamp.min, clamp.max, a, b, out, 0), name);
            }
            case tflite::kMaximum:
            case tflite::kMinimum: {
                expectArity(op, 2, 2);
                const uint32_t a = value(op.inputs[0]);
                const uint32_t b = value(op.inputs[1]);
                const uint32_t out = value(op.outputs[0]);
                return check(op.builtin == tflite::kMaximum ? xnn_define_maximum2(subgraph, a, b, out, 0)
                                                            : xnn_define_minimum2(subgraph, a, b, out, 0),
                             name);
            }
            case tflite::kConcatenation: return concatenation(op);
            case tflite::kCustom:
                throw XnnpackUnsupported("custom operator \"" + op.customCode + "\"");
            default:
                throw XnnpackUnsupported(name);
        }
    }

    void fullyConnected(const Operator& op) {
        expectArity(op, 2, 3);
        const Clamp clamp = clampFor(op);
        if (op.weightsFormat != 0) throw XnnpackUnsupported("FULLY_CONNECTED with packed weights");
        const Tensor& weights = tensor(op.inputs[1]);
        if (weights.data == nullptr || weights.shape.size() != 2)
            throw XnnpackUnsupported("FULLY_CONNECTED whose weights are not a constant matrix");
        const bool hasBias = op.inputs.size() == 3 && op.inputs[2] != tflite::kNoTensor;
        if (hasBias && tensor(op.inputs[2]).data == nullptr)
            throw XnnpackUnsupported("FULLY_CONNECTED whose bias is not constant");
        // TFLite flattens any input to [batch, input channels] unless told to keep its dimensions.
        const uint32_t flags =
            (!op.keepNumDims && tensor(op.inputs[0]).shape.size() != 2) ? XNN_FLAG_TENSORFLOW_RESHAPE_2D : 0;
        const uint32_t in = value(op.inputs[0]);
        const uint32_t filter = value(op.inputs[1]);
        const uint32_t bias = hasBias ? value(op.inputs[2]) : XNN_INVALID_VALUE_ID;
        check(xnn_define_fully_connected(subgraph, clamp.min, clamp.max, in, filter, bias, value(op.outputs[0]), flags),
              "FULLY_CONNECTED");
    }

    // XNNPACK of this release has no concatenation node: each input is zero-padded to the output's
    // shape at its place along the axis and the padded tensors are added, which is exact.
    void concatenation(const Operator& op) {
        if (op.inputs.empty() || op.outputs.size() != 1) throw XnnpackUnsupported("CONCATENATION without inputs");
        const Clamp clamp = clampFor(op);
        const std::vector<size_t> outDims = dimsOf(tensor(op.outputs[0]));
        const int32_t rank = static_cast<int32_t>(outDims.size());
        const int32_t axis = op.axis < 0 ? op.axis + rank : op.axis;
        if (axis < 0 || axis >= rank) throw XnnpackUnsupported("CONCATENATION along axis " + std::to_string(op.axis));
        const uint32_t out = value(op.outputs[0]);
        if (op.inputs.size() == 1) {
            check(xnn_define_clamp(subgraph, clamp.min, clamp.max, value(op.inputs[0]), out, 0), "CONCATENATION");
            return;
        }
        size_t offset = 0;
        uint32_t sum = XNN_INVALID_VALUE_ID;
        for (size_t k = 0; k < op.inputs.size(); ++k) {
            const std::vector<size_t> dims = dimsOf(tensor(op.inputs[k]));
            if (dims.size() != outDims.size())
                throw XnnpackUnsupported("CONCATENATION of tensors of different ranks");
            std::vector<size_t> pre(dims.size(), 0), post(dims.size(), 0);
            pre[static_cast<size_t>(axis)] = offset;
            offset += dims[static_cast<size_t>(axis)];
            if (offset > outDims[static_cast<size_t>(axis)])
                throw XnnpackUnsupported("CONCATENATION whose inputs exceed its output");
            post[static_cast<size_t>(axis)] = outDims[static_cast<size_t>(axis)] - offset;
            const uint32_t padded = internalValue(outDims);
            check(xnn_define_static_constant_pad(subgraph, pre.data(), post.data(), 0.0f, value(op.inputs[k]), padded, 0),
                  "CONCATENATION padding");
            if (k == 0) {
                sum = padded;
                continue;
            }
            const bool last = k + 1 == op.inputs.size();
            const uint32_t target = last ? out : internalValue(outDims);
            check(xnn_define_add2(subgraph, last ? clamp.min : -kInf, last ? clamp.max : kInf, sum, padded, target, 0),
                  "CONCATENATION sum");
            sum = target;
        }
        if (offset != outDims[static_cast<size_t>(axis)])
            throw XnnpackUnsupported("CONCATENATION whose inputs do not fill its output");
    }

    const Model& model;
    xnn_subgraph_t subgraph;
    std::vector<std::vector<float>>& constants;
    std::vector<uint32_t> ids;
};

TALCTensorDetails detailsOf(const Tensor& tensor) {
    TALCTensorDetails details;
    details.name = tensor.name;
    details.type = tensor.type == tflite::kTensorFloat32 ? TALCTensorType::Float32 : TALCTensorType::Undefined;
    for (int32_t d : tensor.shape) details.shape.push_back(static_cast<uint32_t>(d < 0 ? 0 : d));
    return details;
}

}  // namespace

struct XnnpackEngine::State {
    std::vector<std::vector<float>> constants;  // static weights; XNNPACK keeps pointers to them
    xnn_runtime_t runtime = nullptr;

    ~State() {
        if (runtime != nullptr) xnn_delete_runtime(runtime);
    }
};

XnnpackEngine::XnnpackEngine(const Model& model) : state(std::make_unique<State>()) {
    if (model.inputs.empty() || model.outputs.empty()) throw XnnpackUnsupported("a graph without inputs or outputs");
    initialiseOnce();

    xnn_subgraph_t subgraph = nullptr;
    check(xnn_create_subgraph(static_cast<uint32_t>(model.inputs.size() + model.outputs.size()), 0, &subgraph),
          "a new subgraph");
    std::unique_ptr<xnn_subgraph, decltype(&xnn_delete_subgraph)> owner(subgraph, &xnn_delete_subgraph);
    GraphBuilder builder(model, subgraph, state->constants);
    // Inputs and outputs first, so that each has its external id even if no operator touches it.
    for (int32_t index : model.inputs) builder.value(index);
    for (int32_t index : model.outputs) builder.value(index);
    builder.build();
    // A subgraph without a node for an output would leave its buffer unwritten.
    for (int32_t index : model.outputs) {
        bool produced = false;
        for (const Operator& op : model.operators)
            for (int32_t out : op.outputs) produced = produced || out == index;
        if (!produced) throw XnnpackUnsupported("graph output \"" + model.tensors[static_cast<size_t>(index)].name +
                                                "\" is computed by no operator");
    }
    // No thread pool: the network is far too small to gain from one, and the caller's thread runs it.
    check(xnn_create_runtime_v2(subgraph, nullptr, 0, &state->runtime), "the runtime");

    for (int32_t index : model.inputs) {
        const Tensor& t = model.tensors[static_cast<size_t>(index)];
        inputBuffers.emplace_back(detailsOf(t), tflite::elementCount(t) * sizeof(float), XNN_EXTRA_BYTES);
    }
    for (int32_t index : model.outputs) {
        const Tensor& t = model.tensors[static_cast<size_t>(index)];
        outputBuffers.emplace_back(detailsOf(t), tflite::elementCount(t) * sizeof(float), XNN_EXTRA_BYTES);
    }
    // Bound once: the buffers never move from here on.
    std::vector<xnn_external_value> external;
    for (size_t k = 0; k < inputBuffers.size(); ++k)
        external.push_back({static_cast<uint32_t>(k), inputBuffers[k].storage.data()});
    for (size_t k = 0; k < outputBuffers.size(); ++k)
        external.push_back({static_cast<uint32_t>(inputBuffers.size() + k), outputBuffers[k].storage.data()});
    check(xnn_setup_runtime(state->runtime, external.size(), external.data()), "the tensor buffers");
}

XnnpackEngine::~XnnpackEngine() = default;

bool XnnpackEngine::invoke() { return xnn_invoke_runtime(state->runtime) == xnn_status_success; }

}  // namespace talcflow
