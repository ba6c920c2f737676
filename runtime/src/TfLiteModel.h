// A read-only view of subgraph 0 of a .tflite file: tensors, constant data and operators, as far as
// the engines need them. The file's bytes are verified as a flatbuffer before anything is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace talcflow {
namespace tflite {

// Builtin operator codes of the TFLite schema that the runtime names or runs.
enum BuiltinOperator : int32_t {
    kAdd = 0,
    kConcatenation = 2,
    kFullyConnected = 9,
    kLogistic = 14,
    kMul = 18,
    kReshape = 22,
    kTanh = 28,
    kCustom = 32,
    kSub = 41,
    kDiv = 42,
    kMaximum = 55,
    kMinimum = 57,
};

enum FusedActivation : int8_t {
    kActivationNone = 0,
    kActivationRelu = 1,
    kActivationReluN1To1 = 2,
    kActivationRelu6 = 3,
    kActivationTanh = 4,
    kActivationSignBit = 5,
};

constexpr int8_t kTensorFloat32 = 0;
constexpr int32_t kNoTensor = -1;  // an optional operator input left out (a bias)

struct Tensor {
    std::string name;
    int8_t type = kTensorFloat32;
    std::vector<int32_t> shape;
    const uint8_t* data = nullptr;  // constant contents inside the file's bytes; null for activations
    size_t bytes = 0;
};

struct Operator {
    int32_t builtin = 0;
    std::string customCode;
    std::vector<int32_t> inputs;
    std::vector<int32_t> outputs;
    int8_t activation = kActivationNone;  // fused activation, for the operators that have one
    int32_t axis = 0;                     // CONCATENATION
    int8_t weightsFormat = 0;             // FULLY_CONNECTED: 0 is the plain float layout
    bool keepNumDims = false;             // FULLY_CONNECTED
};

struct Model {
    std::vector<Tensor> tensors;
    std::vector<Operator> operators;
    std::vector<int32_t> inputs;
    std::vector<int32_t> outputs;
};

// Reads subgraph 0. The view points into bytes, which must outlive it. Throws std::runtime_error
// saying what is wrong when the bytes are not a well-formed model.
Model readModel(const std::vector<uint8_t>& bytes);

// "FULLY_CONNECTED", "TANH", ... or "operator <code>".
std::string operatorName(int32_t builtin);
std::string activationName(int8_t activation);

size_t elementCount(const Tensor& tensor);

}  // namespace tflite
}  // namespace talcflow
