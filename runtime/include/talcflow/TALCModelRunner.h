// Binding of the model runtime: loads a .tflite model once and runs it on the fastest engine that
// can run the whole graph (XNNPACK, else Arm NN), copying tensors in and out of buffers bound once.
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

// Auto: XNNPACK when it runs every operator of the graph, Arm NN otherwise. The other two force one
// engine, for comparisons; a forced XNNPACK fails at load on a graph it does not run.
enum class TALCEngine : int32_t {
    Auto = 0,
    XNNPACK = 1,
    ArmNN = 2,
};

class TALCModelRunner {
public:
    static constexpr int kSuccess = 1;
    static constexpr int kFailure = 0;
    // With TALCEngine::Auto, this environment variable (auto, xnnpack or armnn) chooses instead.
    static constexpr const char* kEngineEnvironmentVariable = "TALC_INFERENCE_ENGINE";

    // Throws std::runtime_error naming the path and the reason when the file is missing, is not a
    // model, or cannot be prepared for the engine asked for.
    explicit TALCModelRunner(const std::string& modelPath, TALCEngine engine = TALCEngine::Auto);
    ~TALCModelRunner();
    TALCModelRunner(const TALCModelRunner&) = delete;
    TALCModelRunner& operator=(const TALCModelRunner&) = delete;

    // "auto", "xnnpack" or "armnn" (any case); throws std::invalid_argument for anything else.
    static TALCEngine engineFromName(const std::string& name);

    // Throw std::out_of_range for an index the model does not have.
    TALCTensorDetails getInputTensorDetails(int index) const;
    TALCTensorDetails getOutputTensorDetails(int index) const;

    // kSuccess, or kFailure (changing nothing) for a wrong index, type or byte count.
    int SetInputTensorData(int index, TALCTensorType type, const void* data, size_t bytes);
    // Runs the network on the bound buffers; allocates nothing on the XNNPACK engine.
    int runInference();
    int GetOutputTensorData(int index, TALCTensorType type, void* data, size_t bytes);

    // "XNNPACK", or the Arm NN backend the network was optimised for ("CpuAcc", "GpuAcc", "CpuRef").
    std::string backendName() const;
    // One line for the load log: the engine and why it was chosen, e.g.
    // "Arm NN CpuRef (XNNPACK does not run operator 2 (FULLY_CONNECTED with fused activation TANH))".
    std::string engineReport() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace talcflow
