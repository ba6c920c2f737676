#include "ArmnnEngine.h"

#include <armnn/ArmNN.hpp>
#include <armnn/Exceptions.hpp>
#include <armnn/Utils.hpp>
#include <armnnTfLiteParser/ITfLiteParser.hpp>

#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#ifndef TALC_ARMNN_BACKEND_DIR
#define TALC_ARMNN_BACKEND_DIR ""
#endif

namespace talcflow {
namespace {

// Fastest first; only those the runtime reports as registered are tried.
const char* const kBackendPreference[] = {"CpuAcc", "GpuAcc", "CpuRef"};

// Arm NN keeps its backend registry in an unguarded process-wide map that every runtime's creation,
// optimisation and destruction touches, so those steps are serialised across engines.
std::mutex& armnnSetupMutex() {
    static std::mutex mutex;
    return mutex;
}

// Arm NN would print to the host's stdout; every failure that matters reaches the caller as an
// exception or a status instead.
void silenceArmnnLogging() {
    static std::once_flag once;
    std::call_once(once, [] { armnn::ConfigureLogging(false, false, armnn::LogSeverity::Fatal); });
}

TALCTensorType toTalcType(armnn::DataType type) {
    switch (type) {
        case armnn::DataType::Float32: return TALCTensorType::Float32;
        case armnn::DataType::Signed32: return TALCTensorType::Int32;
        case armnn::DataType::QAsymmU8:
        case armnn::DataType::Boolean: return TALCTensorType::UInt8;
        case armnn::DataType::QAsymmS8:
        case armnn::DataType::QSymmS8: return TALCTensorType::Int8;
        case armnn::DataType::QSymmS16: return TALCTensorType::Int16;
        default: return TALCTensorType::Undefined;
    }
}

TensorBuffer makeBuffer(const std::string& name, const armnn::TensorInfo& info) {
    TALCTensorDetails details;
    details.name = name;
    details.type = toTalcType(info.GetDataType());
    const armnn::TensorShape& shape = info.GetShape();
    for (unsigned int d = 0; d < shape.GetNumDimensions(); ++d) details.shape.push_back(shape[d]);
    return TensorBuffer(std::move(details), info.GetNumBytes());
}

}  // namespace

struct ArmnnEngine::State {
    armnn::IRuntimePtr runtime{nullptr, &armnn::IRuntime::Destroy};
    armnn::NetworkId networkId = 0;
    bool loaded = false;
    std::string backend;
    armnn::InputTensors inputTensors;
    armnn::OutputTensors outputTensors;

    ~State() {
        std::lock_guard<std::mutex> lock(armnnSetupMutex());
        if (loaded) runtime->UnloadNetwork(networkId);
        runtime.reset();
    }
};

ArmnnEngine::ArmnnEngine(const std::vector<uint8_t>& model) : state(std::make_unique<State>()) {
    silenceArmnnLogging();
    std::lock_guard<std::mutex> lock(armnnSetupMutex());
    armnnTfLiteParser::ITfLiteParserPtr parser = armnnTfLiteParser::ITfLiteParser::Create();
    armnn::INetworkPtr network = parser->CreateNetworkFromBinary(model);
    if (!network || parser->GetSubgraphCount() < 1) throw std::runtime_error("the model has no graph");
    std::vector<armnn::LayerBindingId> inputIds, outputIds;
    for (const std::string& name : parser->GetSubgraphInputTensorNames(0)) {
        const armnn::BindingPointInfo point = parser->GetNetworkInputBindingInfo(0, name);
        inputIds.push_back(point.first);
        inputBuffers.push_back(makeBuffer(name, point.second));
    }
    // Output index k is entry k of the subgraph's output list.
    for (const std::string& name : parser->GetSubgraphOutputTensorNames(0)) {
        const armnn::BindingPointInfo point = parser->GetNetworkOutputBindingInfo(0, name);
        outputIds.push_back(point.first);
        outputBuffers.push_back(makeBuffer(name, point.second));
    }

    armnn::IRuntime::CreationOptions options;
    // The packaged libarmnn looks for dynamic backends under a directory of an older release, so
    // point it at the one the backend package really installs (found when building).
    options.m_DynamicBackendsPath = TALC_ARMNN_BACKEND_DIR;
    state->runtime = armnn::IRuntime::Create(options);

    const armnn::BackendIdSet& available = state->runtime->GetDeviceSpec().GetSupportedBackends();
    std::string failures;
    armnn::IOptimizedNetworkPtr optimised{nullptr, &armnn::IOptimizedNetwork::Destroy};
    for (const char* candidate : kBackendPreference) {
        if (available.count(armnn::BackendId(candidate)) == 0) continue;
        std::vector<std::string> messages;
        try {
            optimised = armnn::Optimize(*network, {armnn::BackendId(candidate)}, state->runtime->GetDeviceSpec(),
                                        armnn::OptimizerOptions(), armnn::Optional<std::vector<std::string>&>(messages));
        } catch (const armnn::Exception& e) {
            messages.emplace_back(e.what());
        }
        if (optimised) {
            state->backend = candidate;
            break;
        }
        failures += std::string(failures.empty() ? "" : "; ") + candidate + ":";
        for (const std::string& m : messages) failures += " " + m;
    }
    if (!optimised) {
        if (failures.empty())
            throw std::runtime_error(std::string("no Arm NN backend is available (searched \"") +
                                     TALC_ARMNN_BACKEND_DIR + "\")");
        throw std::runtime_error("no Arm NN backend can run it (" + failures + ")");
    }

    std::string error;
    if (state->runtime->LoadNetwork(state->networkId, std::move(optimised), error) != armnn::Status::Success)
        throw std::runtime_error("Arm NN cannot load the network on " + state->backend + ": " + error);
    state->loaded = true;

    // Bound only now that both buffer lists are final: the tensors point into their storage.
    for (size_t i = 0; i < inputBuffers.size(); ++i) {
        const armnn::TensorInfo info = state->runtime->GetInputTensorInfo(state->networkId, inputIds[i]);
        state->inputTensors.emplace_back(inputIds[i], armnn::ConstTensor(info, inputBuffers[i].storage.data()));
    }
    for (size_t i = 0; i < outputBuffers.size(); ++i) {
        const armnn::TensorInfo info = state->runtime->GetOutputTensorInfo(state->networkId, outputIds[i]);
        state->outputTensors.emplace_back(outputIds[i], armnn::Tensor(info, outputBuffers[i].storage.data()));
    }
}

ArmnnEngine::~ArmnnEngine() = default;

bool ArmnnEngine::invoke() {
    try {
        return state->runtime->EnqueueWorkload(state->networkId, state->inputTensors, state->outputTensors) ==
               armnn::Status::Success;
    } catch (const std::exception&) {
        return false;
    }
}

std::string ArmnnEngine::backendName() const { return state->backend; }

}  // namespace talcflow
