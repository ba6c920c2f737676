// Binding of the model runtime: loads a .tflite model once and runs it on the fastest backend
// available, copying tensors in and out of buffers the network was prepared with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace talcflow {

enum class TALCTensorType : int32_t {
    Undefined = 0,
    Int8 = 1,
    UInt8 = 2,
    Int16 = 3,
    Int32 = 4,
    Int64 = 5,
    Float32 = 6,
};

struct TALCTensorDetails {
    std::string name;
    TALCTensorType type = TALCTensorType::Undefined;
    std::vector<uint32_t> shape;
};

class TALCModelRunner {
public:
    static constexpr int kSuccess = 1;
    static constexpr int kFailure = 0;

    // Throws std::runtime_error naming the path and the reason when the file is missing, is not a
    // model, or cannot be prepared for any backend.
    explicit TALCModelRunner(const std::string& modelPath);
    ~TALCModelRunner();
    TALCModelRunner(const TALCModelRunner&) = delete;
    TALCModelRunner& operator=(const TALCModelRunner&) = delete;

    // Throw std::out_of_range for an index the model does not have.
    TALCTensorDetails getInputTensorDetails(int index) const;
    TALCTensorDetails getOutputTensorDetails(int index) const;

    // kSuccess, or kFailure (changing nothing) for a wrong index, type or byte count.
    int SetInputTensorData(int index, TALCTensorType type, const void* data, size_t bytes);
    int runInference();
    int GetOutputTensorData(int index, TALCTensorType type, void* data, size_t bytes);

    // Name of the backend the network was optimised for ("CpuAcc", "GpuAcc" or "CpuRef").
    std::string backendName() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace talcflow
