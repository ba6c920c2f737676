// The network built once as an XNNPACK subgraph and run single-threaded on the caller's thread.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "InferenceEngine.h"
#include "TfLiteModel.h"

namespace talcflow {

// Thrown when the graph holds something the XNNPACK engine does not run; what() names it.
class XnnpackUnsupported : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class XnnpackEngine : public InferenceEngine {
public:
    // The model view (and the bytes under it) need not outlive the engine: constants are copied.
    // Throws XnnpackUnsupported for an operator, activation, type or shape it does not run, and
    // std::runtime_error when XNNPACK itself fails.
    explicit XnnpackEngine(const tflite::Model& model);
    ~XnnpackEngine() override;

    bool invoke() override;
    std::string backendName() const override { return "XNNPACK"; }

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace talcflow
