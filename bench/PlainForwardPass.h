// The floor of the inference benchmarks: the model's graph, as the runtime's .tflite reader parses
// it, run as plain float32 loops over preallocated tensors, one operator after the other. No engine
// can do the same arithmetic with less overhead than this on one core.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TfLiteModel.h"

class PlainForwardPass {
public:
    // Throws std::runtime_error for an unreadable model or an operator it has no loop for.
    explicit PlainForwardPass(const std::string& modelPath);

    std::vector<float>& input() { return values[static_cast<size_t>(model.inputs[0])]; }
    const std::vector<float>& output(size_t k) const { return values[static_cast<size_t>(model.outputs[k])]; }
    size_t outputCount() const { return model.outputs.size(); }
    void run();

private:
    void fullyConnected(const talcflow::tflite::Operator& op);
    void binary(const talcflow::tflite::Operator& op);
    void concatenation(const talcflow::tflite::Operator& op);
    void activate(std::vector<float>& v, int8_t activation) const;

    std::vector<uint8_t> bytes;
    talcflow::tflite::Model model;
    std::vector<std::vector<float>> values;      // one per tensor; constants hold their data
    std::vector<std::vector<float>> transposed;  // fully connected weights as [input][output]
};
