#include "PlainForwardPass.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tfl = talcflow::tflite;

PlainForwardPass::PlainForwardPass(const std::string& modelPath) {
    std::ifstream in(modelPath, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    model = tfl::readModel(bytes);
    for (const tfl::Tensor& t : model.tensors) {
        values.emplace_back(tfl::elementCount(t));
        if (t.data != nullptr && t.type == tfl::kTensorFloat32)
            std::memcpy(values.back().data(), t.data, std::min(t.bytes, values.back().size() * sizeof(float)));
    }
    transposed.resize(values.size());
    for (const tfl::Operator& op : model.operators) {
        if (op.builtin == tfl::kFullyConnected) {
            const size_t w = static_cast<size_t>(op.inputs[1]);
            const size_t outputs = static_cast<size_t>(model.tensors[w].shape[0]);
            const size_t width = values[w].size() / outputs;
            transposed[w].resize(values[w].size());
            for (size_t o = 0; o < outputs; ++o)
                for (size_t i = 0; i < width; ++i) transposed[w][i * outputs + o] = values[w][o * width + i];
        }
    }
    for (const tfl::Operator& op : model.operators) {
        switch (op.builtin) {
            case tfl::kFullyConnected: case tfl::kReshape: case tfl::kLogistic: case tfl::kTanh:
            case tfl::kAdd: case tfl::kSub: case tfl::kMul: case tfl::kDiv: case tfl::kMaximum: case tfl::kMinimum:
            case tfl::kConcatenation: break;
            default: throw std::runtime_error("no plain loop for " + tfl::operatorName(op.builtin));
        }
    }
}

void PlainForwardPass::activate(std::vector<float>& v, int8_t activation) const {
    switch (activation) {
        case tfl::kActivationRelu: for (float& x : v) x = std::max(x, 0.0f); break;
        case tfl::kActivationRelu6: for (float& x : v) x = std::min(std::max(x, 0.0f), 6.0f); break;
        case tfl::kActivationReluN1To1: for (float& x : v) x = std::min(std::max(x, -1.0f), 1.0f); break;
        case tfl::kActivationTanh: for (float& x : v) x = std::tanh(x); break;
        default: break;
    }
}

void PlainForwardPass::fullyConnected(const tfl::Operator& op) {
    const std::vector<float>& x = values[static_cast<size_t>(op.inputs[0])];
    const std::vector<float>& wt = transposed[static_cast<size_t>(op.inputs[1])];
    const bool hasBias = op.inputs.size() > 2 && op.inputs[2] >= 0;
    std::vector<float>& y = values[static_cast<size_t>(op.outputs[0])];
    const size_t outputs = static_cast<size_t>(model.tensors[static_cast<size_t>(op.inputs[1])].shape[0]);
    const size_t width = wt.size() / outputs;
    const size_t rows = x.size() / width;
    // Blocks of outputs held in a fixed-size array (registers once vectorised), input by input over
    // the transposed weights: every sum keeps its order, and no store happens inside the loop.
    constexpr size_t kBlock = 16;
    const float* bias = hasBias ? values[static_cast<size_t>(op.inputs[2])].data() : nullptr;
    for (size_t r = 0; r < rows; ++r) {
        const float* in = &x[r * width];
        float* out = &y[r * outputs];
        size_t o0 = 0;
        for (; o0 + kBlock <= outputs; o0 += kBlock) {
            float acc[kBlock];
            for (size_t j = 0; j < kBlock; ++j) acc[j] = bias != nullptr ? bias[o0 + j] : 0.0f;
            for (size_t i = 0; i < width; ++i) {
                const float xi = in[i];
                const float* column = &wt[i * outputs + o0];
                for (size_t j = 0; j < kBlock; ++j) acc[j] += column[j] * xi;
            }
            std::memcpy(out + o0, acc, sizeof(acc));
        }
        for (size_t o = o0; o < outputs; ++o) {
            float sum = bias != nullptr ? bias[o] : 0.0f;
            for (size_t i = 0; i < width; ++i) sum += wt[i * outputs + o] * in[i];
            out[o] = sum;
        }
    }
    activate(y, op.activation);
}

// Broadcasting as the models use it: the smaller operand repeats along the leading dimensions.
void PlainForwardPass::binary(const tfl::Operator& op) {
    const std::vector<float>& a = values[static_cast<size_t>(op.inputs[0])];
    const std::vector<float>& b = values[static_cast<size_t>(op.inputs[1])];
    std::vector<float>& y = values[static_cast<size_t>(op.outputs[0])];
    const size_t na = a.size(), nb = b.size();
    for (size_t i = 0; i < y.size(); ++i) {
        const float p = a[i % na], q = b[i % nb];
        switch (op.builtin) {
            case tfl::kAdd: y[i] = p + q; break;
            case tfl::kSub: y[i] = p - q; break;
            case tfl::kMul: y[i] = p * q; break;
            case tfl::kDiv: y[i] = p / q; break;
            case tfl::kMaximum: y[i] = std::max(p, q); break;
            default: y[i] = std::min(p, q); break;
        }
    }
    activate(y, op.activation);
}

void PlainForwardPass::concatenation(const tfl::Operator& op) {
    const tfl::Tensor& out = model.tensors[static_cast<size_t>(op.outputs[0])];
    const int32_t rank = static_cast<int32_t>(out.shape.size());
    const int32_t axis = op.axis < 0 ? op.axis + rank : op.axis;
    size_t outer = 1;
    for (int32_t d = 0; d < axis; ++d) outer *= static_cast<size_t>(out.shape[static_cast<size_t>(d)]);
    std::vector<float>& y = values[static_cast<size_t>(op.outputs[0])];
    const size_t stride = y.size() / outer;
    size_t offset = 0;
    for (int32_t index : op.inputs) {
        const std::vector<float>& x = values[static_cast<size_t>(index)];
        const size_t chunk = x.size() / outer;
        for (size_t o = 0; o < outer; ++o) std::memcpy(&y[o * stride + offset], &x[o * chunk], chunk * sizeof(float));
        offset += chunk;
    }
    activate(y, op.activation);
}

void PlainForwardPass::run() {
    for (const tfl::Operator& op : model.operators) {
        switch (op.builtin) {
            case tfl::kFullyConnected: fullyConnected(op); break;
            case tfl::kReshape:
                std::copy(values[static_cast<size_t>(op.inputs[0])].begin(), values[static_cast<size_t>(op.inputs[0])].end(),
                          values[static_cast<size_t>(op.outputs[0])].begin());
                break;
            case tfl::kLogistic:
            case tfl::kTanh: {
                const std::vector<float>& x = values[static_cast<size_t>(op.inputs[0])];
                std::vector<float>& y = values[static_cast<size_t>(op.outputs[0])];
                for (size_t i = 0; i < x.size(); ++i)
                    y[i] = op.builtin == tfl::kTanh ? std::tanh(x[i]) : 1.0f / (1.0f + std::exp(-x[i]));
                break;
            }
            case tfl::kConcatenation: concatenation(op); break;
            default: binary(op); break;
        }
    }
}
