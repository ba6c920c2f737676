// What the runner needs of an engine: tensors bound once to buffers the engine owns, and a run.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "talcflow/TALCModelRunner.h"

namespace talcflow {

// One model input or output and the buffer the engine reads or writes it from. The buffer is sized
// once, with room past the end for engines whose kernels read a little beyond a tensor.
struct TensorBuffer {
    TALCTensorDetails details;
    size_t bytes = 0;
    std::vector<float> storage;

    TensorBuffer(TALCTensorDetails tensorDetails, size_t tensorBytes, size_t slackBytes = 0)
        : details(std::move(tensorDetails)), bytes(tensorBytes), storage((tensorBytes + slackBytes + 3) / 4) {}

    bool accepts(TALCTensorType type, const void* data, size_t count) const {
        return type == TALCTensorType::Float32 && details.type == TALCTensorType::Float32 && count == bytes &&
               (data != nullptr || count == 0);
    }
};

class InferenceEngine {
public:
    virtual ~InferenceEngine() = default;
    // Runs the network on the bound buffers; false when the engine reports a failure.
    virtual bool invoke() = 0;
    // "XNNPACK", or the Arm NN backend ("CpuAcc", "GpuAcc", "CpuRef").
    virtual std::string backendName() const = 0;

    std::vector<TensorBuffer>& inputs() { return inputBuffers; }
    std::vector<TensorBuffer>& outputs() { return outputBuffers; }

protected:
    std::vector<TensorBuffer> inputBuffers;
    std::vector<TensorBuffer> outputBuffers;
};

}  // namespace talcflow
