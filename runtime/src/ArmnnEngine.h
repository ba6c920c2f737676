// The network parsed, optimised and loaded by Arm NN on its fastest registered backend that runs it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "InferenceEngine.h"

namespace talcflow {

class ArmnnEngine : public InferenceEngine {
public:
    // Throws std::runtime_error with the reason; Arm NN's own exceptions pass unchanged.
    explicit ArmnnEngine(const std::vector<uint8_t>& model);
    ~ArmnnEngine() override;

    bool invoke() override;
    std::string backendName() const override;

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace talcflow
