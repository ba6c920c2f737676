#include "talcflow/TALCModelRunner.h"

#include <armnn/Exceptions.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/stat.h>

#include "ArmnnEngine.h"
#include "TfLiteModel.h"
#include "XnnpackEngine.h"
#include "velmar/Log.h"

#define VELMAR_LOG_SOURCE "runtime/TALCModelRunner"

namespace talcflow {
namespace {

const char* const kLogTag = "TALCModelRunner";

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

// The engine asked for, and by whom, for the load log.
struct Request {
    TALCEngine engine = TALCEngine::Auto;
    std::string source;
};

Request resolve(TALCEngine engine) {
    if (engine != TALCEngine::Auto) return {engine, "forced by the caller"};
    const char* variable = std::getenv(TALCModelRunner::kEngineEnvironmentVariable);
    if (variable == nullptr || *variable == '\0') return {TALCEngine::Auto, ""};
    try {
        return {TALCModelRunner::engineFromName(variable),
                std::string("forced by ") + TALCModelRunner::kEngineEnvironmentVariable + "=" + variable};
    } catch (const std::invalid_argument& e) {
        throw std::runtime_error(std::string(TALCModelRunner::kEngineEnvironmentVariable) + ": " + e.what());
    }
}

}  // namespace

struct TALCModelRunner::Impl {
    std::unique_ptr<InferenceEngine> engine;
    std::string report;

    void load(const std::vector<uint8_t>& bytes, const Request& request);
};

void TALCModelRunner::Impl::load(const std::vector<uint8_t>& bytes, const Request& request) {
    std::string notOnXnnpack;
    if (request.engine != TALCEngine::ArmNN) {
        try {
            const tflite::Model model = tflite::readModel(bytes);
            engine = std::make_unique<XnnpackEngine>(model);
            report = "XNNPACK (all " + std::to_string(model.operators.size()) + " operators of subgraph 0" +
                     (request.source.empty() ? "" : "; " + request.source) + ")";
            return;
        } catch (const XnnpackUnsupported& e) {
            if (request.engine == TALCEngine::XNNPACK)
                throw std::runtime_error(std::string("XNNPACK does not run ") + e.what() + " (" + request.source + ")");
            notOnXnnpack = std::string("XNNPACK does not run ") + e.what();
        } catch (const std::runtime_error& e) {
            if (request.engine == TALCEngine::XNNPACK) throw;
            // Arm NN reads the file on its own and rejects it in its own words if it is malformed.
            notOnXnnpack = std::string("XNNPACK cannot take it: ") + e.what();
        }
    }
    engine = std::make_unique<ArmnnEngine>(bytes);
    report = "Arm NN " + engine->backendName() + " (" + (notOnXnnpack.empty() ? request.source : notOnXnnpack) + ")";
}

TALCModelRunner::TALCModelRunner(const std::string& modelPath, TALCEngine engine) : impl(std::make_unique<Impl>()) {
    try {
        const std::vector<uint8_t> bytes = readModelFile(modelPath);
        impl->load(bytes, resolve(engine));
        VELMAR_LOG(velmar::Info, kLogTag, "Inference engine : " << impl->report);
    } catch (const armnn::Exception& e) {
        throw std::runtime_error("TALCModelRunner: cannot load model \"" + modelPath +
                                 "\": rejected by Arm NN: " + e.what());
    } catch (const std::exception& e) {
        throw std::runtime_error("TALCModelRunner: cannot load model \"" + modelPath + "\": " + e.what());
    }
}

TALCModelRunner::~TALCModelRunner() = default;

TALCEngine TALCModelRunner::engineFromName(const std::string& name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "auto") return TALCEngine::Auto;
    if (lower == "xnnpack") return TALCEngine::XNNPACK;
    if (lower == "armnn") return TALCEngine::ArmNN;
    throw std::invalid_argument("unknown inference engine \"" + name + "\" (auto, xnnpack or armnn)");
}

namespace {

const TensorBuffer& at(const std::vector<TensorBuffer>& buffers, int index, const char* kind) {
    if (index < 0 || static_cast<size_t>(index) >= buffers.size())
        throw std::out_of_range(std::string("TALCModelRunner: no ") + kind + " tensor " + std::to_string(index) +
                                " (the model has " + std::to_string(buffers.size()) + ")");
    return buffers[static_cast<size_t>(index)];
}

TensorBuffer* find(std::vector<TensorBuffer>& buffers, int index) {
    if (index < 0 || static_cast<size_t>(index) >= buffers.size()) return nullptr;
    return &buffers[static_cast<size_t>(index)];
}

}  // namespace

TALCTensorDetails TALCModelRunner::getInputTensorDetails(int index) const {
    return at(impl->engine->inputs(), index, "input").details;
}

TALCTensorDetails TALCModelRunner::getOutputTensorDetails(int index) const {
    return at(impl->engine->outputs(), index, "output").details;
}

int TALCModelRunner::SetInputTensorData(int index, TALCTensorType type, const void* data, size_t bytes) {
    TensorBuffer* b = find(impl->engine->inputs(), index);
    if (b == nullptr || !b->accepts(type, data, bytes)) return kFailure;
    if (bytes > 0) std::memcpy(b->storage.data(), data, bytes);
    return kSuccess;
}

int TALCModelRunner::runInference() { return impl->engine->invoke() ? kSuccess : kFailure; }

int TALCModelRunner::GetOutputTensorData(int index, TALCTensorType type, void* data, size_t bytes) {
    TensorBuffer* b = find(impl->engine->outputs(), index);
    if (b == nullptr || !b->accepts(type, data, bytes)) return kFailure;
    if (bytes > 0) std::memcpy(data, b->storage.data(), bytes);
    return kSuccess;
}

std::string TALCModelRunner::backendName() const { return impl->engine->backendName(); }

std::string TALCModelRunner::engineReport() const { return impl->report; }

}  // namespace talcflow
