#include "talcflow/TALCModelRunner.h"

#include <armnn/ArmNN.hpp>
#include <armnn/Exceptions.hpp>
#include <armnn/Utils.hpp>
#include <armnnTfLiteParser/ITfLiteParser.hpp>

#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <sys/stat.h>
#include <utility>

#ifndef TALC_ARMNN_BACKEND_DIR
#define TALC_ARMNN_BACKEND_DIR ""
#endif

namespace talcflow {
namespace {

// Fastest first; only those the runtime reports as registered are tried.
const char* const kBackendPreference[] = {"CpuAcc", "GpuAcc", "CpuRef"};

// Arm NN keeps its backend registry in an unguarded process-wide map that every runtime's creation,
// optimisation and destruction touches, so those steps are serialised across runners.
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

std::vector<uint8_t> readModelFile(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throw std::runtime_error("no such file");
    if (!S_ISREG(st.st_mode)) throw std::runtime_error("not a regular file");
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof()) throw std::runtime_error("the file cannot be read");
    // A flatbuffer carries its file identifier right after the root offset.
    if (bytes.size() < 8 || std::memcmp(bytes.data() + 4, "TFL3", 4) != 0)
        throw std::runtime_error("not a TensorFlow Lite model");
    return bytes;
}

// One tensor of the loaded network with the buffer Arm NN reads or writes it from; the buffer is
// sized once, so inference never allocates on our side.
struct Binding {
    armnn::LayerBindingId id = 0;
    armnn::TensorInfo info;
    TALCTensorDetails details;
    std::vector<float> storage;  // float-aligned, GetNumBytes() rounded up

    Binding(const std::string& name, const armnn::BindingPointInfo& point)
        : id(point.first), info(point.second), storage((point.second.GetNumBytes() + 3) / 4) {
        details.name = name;
        details.type = toTalcType(info.GetDataType());
        const armnn::TensorShape& shape = info.GetShape();
        for (unsigned int d = 0; d < shape.GetNumDimensions(); ++d) details.shape.push_back(shape[d]);
    }

    bool accepts(TALCTensorType type, const void* data, size_t bytes) const {
        return type == TALCTensorType::Float32 && details.type == TALCTensorType::Float32 &&
               bytes == info.GetNumBytes() && (data != nullptr || bytes == 0);
    }
};

const Binding& at(const std::vector<Binding>& bindings, int index, const char* kind) {
    if (index < 0 || static_cast<size_t>(index) >= bindings.size())
        throw std::out_of_range(std::string("TALCModelRunner: no ") + kind + " tensor " + std::to_string(index) +
                                " (the model has " + std::to_string(bindings.size()) + ")");
    return bindings[static_cast<size_t>(index)];
}

Binding* find(std::vector<Binding>& bindings, int index) {
    if (index < 0 || static_cast<size_t>(index) >= bindings.size()) return nullptr;
    return &bindings[static_cast<size_t>(index)];
}

}  // namespace

struct TALCModelRunner::Impl {
    armnn::IRuntimePtr runtime{nullptr, &armnn::IRuntime::Destroy};
    armnn::NetworkId networkId = 0;
    bool loaded = false;
    std::string backend;
    std::vector<Binding> inputs;
    std::vector<Binding> outputs;
    armnn::InputTensors inputTensors;
    armnn::OutputTensors outputTensors;

    ~Impl() {
        std::lock_guard<std::mutex> lock(armnnSetupMutex());
        if (loaded) runtime->UnloadNetwork(networkId);
        runtime.reset();
    }

    void load(const std::vector<uint8_t>& model);
};

void TALCModelRunner::Impl::load(const std::vector<uint8_t>& model) {
    armnnTfLiteParser::ITfLiteParserPtr parser = armnnTfLiteParser::ITfLiteParser::Create();
    armnn::INetworkPtr network = parser->CreateNetworkFromBinary(model);
    if (!network || parser->GetSubgraphCount() < 1) throw std::runtime_error("the model has no graph");
    for (const std::string& name : parser->GetSubgraphInputTensorNames(0))
        inputs.emplace_back(name, parser->GetNetworkInputBindingInfo(0, name));
    // Output index k is entry k of the subgraph's output list.
    for (const std::string& name : parser->GetSubgraphOutputTensorNames(0))
        outputs.emplace_back(name, parser->GetNetworkOutputBindingInfo(0, name));

    armnn::IRuntime::CreationOptions options;
    // The packaged libarmnn looks for dynamic backends under a directory of an older release, so
    // point it at the one the backend package really installs (found when building).
    options.m_DynamicBackendsPath = TALC_ARMNN_BACKEND_DIR;
    runtime = armnn::IRuntime::Create(options);

    const armnn::BackendIdSet& available = runtime->GetDeviceSpec().GetSupportedBackends();
    std::string failures;
    armnn::IOptimizedNetworkPtr optimised{nullptr, &armnn::IOptimizedNetwork::Destroy};
    for (const char* candidate : kBackendPreference) {
        if (available.count(armnn::BackendId(candidate)) == 0) continue;
        std::vector<std::string> messages;
        try {
            optimised = armnn::Optimize(*network, {armnn::BackendId(candidate)}, runtime->GetDeviceSpec(),
                                        armnn::OptimizerOptions(), armnn::Optional<std::vector<std::string>&>(messages));
        } catch (const armnn::Exception& e) {
            messages.emplace_back(e.what());
        }
        if (optimised) {
            backend = candidate;
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
    if (runtime->LoadNetwork(networkId, std::move(optimised), error) != armnn::Status::Success)
        throw std::runtime_error("Arm NN cannot load the network on " + backend + ": " + error);
    loaded = true;

    // Bind only after both vectors are final: the tensors point into the bindings' storage.
    for (Binding& b : inputs) {
        b.info = runtime->GetInputTensorInfo(networkId, b.id);
        inputTensors.emplace_back(b.id, armnn::ConstTensor(b.info, b.storage.data()));
    }
    for (Binding& b : outputs) {
        b.info = runtime->GetOutputTensorInfo(networkId, b.id);
        outputTensors.emplace_back(b.id, armnn::Tensor(b.info, b.storage.data()));
    }
}

TALCModelRunner::TALCModelRunner(const std::string& modelPath) : impl(std::make_unique<Impl>()) {
    silenceArmnnLogging();
    try {
        const std::vector<uint8_t> model = readModelFile(modelPath);
        std::lock_guard<std::mutex> lock(armnnSetupMutex());
        impl->load(model);
    } catch (const armnn::Exception& e) {
        throw std::runtime_error("TALCModelRunner: cannot load model \"" + modelPath +
                                 "\": rejected by Arm NN: " + e.what());
    } catch (const std::exception& e) {
        throw std::runtime_error("TALCModelRunner: cannot load model \"" + modelPath + "\": " + e.what());
    }
}

TALCModelRunner::~TALCModelRunner() = default;

TALCTensorDetails TALCModelRunner::getInputTensorDetails(int index) const {
    return at(impl->inputs, index, "input").details;
}

TALCTensorDetails TALCModelRunner::getOutputTensorDetails(int index) const {
    return at(impl->outputs, index, "output").details;
}

int TALCModelRunner::SetInputTensorData(int index, TALCTensorType type, const void* data, size_t bytes) {
    Binding* b = find(impl->inputs, index);
    if (b == nullptr || !b->accepts(type, data, bytes)) return kFailure;
    if (bytes > 0) std::memcpy(b->storage.data(), data, bytes);
    return kSuccess;
}

int TALCModelRunner::runInference() {
    try {
        return impl->runtime->EnqueueWorkload(impl->networkId, impl->inputTensors, impl->outputTensors) ==
                       armnn::Status::Success
                   ? kSuccess
                   : kFailure;
    } catch (const std::exception&) {
        return kFailure;
    }
}

int TALCModelRunner::GetOutputTensorData(int index, TALCTensorType type, void* data, size_t bytes) {
    Binding* b = find(impl->outputs, index);
    if (b == nullptr || !b->accepts(type, data, bytes)) return kFailure;
    if (bytes > 0) std::memcpy(data, b->storage.data(), bytes);
    return kSuccess;
}

std::string TALCModelRunner::backendName() const { return impl->backend; }

}  // namespace talcflow
