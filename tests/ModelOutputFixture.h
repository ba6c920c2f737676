// Outputs of a model on fixed inputs, kept as a small text file made on one machine so that another
// machine (arm64 under emulation, another engine) can be checked against them. The file names the
// model by size and hash, so a retrained model is noticed instead of compared.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "talcflow/TALCModelRunner.h"

namespace modelfixture {

struct ModelFingerprint {
    uint64_t bytes = 0;
    uint64_t fnv1a64 = 0;
    bool operator==(const ModelFingerprint& other) const { return bytes == other.bytes && fnv1a64 == other.fnv1a64; }
    bool operator!=(const ModelFingerprint& other) const { return !(*this == other); }
};

struct OutputCase {
    std::vector<float> input;                 // input tensor 0, flat
    std::vector<std::vector<float>> outputs;  // every output tensor, flat, in the model's order
};

struct ModelOutputFixture {
    ModelFingerprint model;
    std::string madeBy;  // the engine and backend that computed the outputs
    std::vector<OutputCase> cases;
};

// Every output tensor of one inference on input tensor 0; throws std::runtime_error when the runner
// refuses the input or the inference fails.
std::vector<std::vector<float>> runModel(talcflow::TALCModelRunner& runner, const std::vector<float>& input);

// Throws std::runtime_error when the file cannot be read.
ModelFingerprint fingerprintOf(const std::string& modelPath);

// Throw std::runtime_error naming the file and line on a malformed or unreadable fixture.
ModelOutputFixture readFixture(const std::string& path);
void writeFixture(const std::string& path, const ModelOutputFixture& fixture, const std::string& regenerateCommand);

}  // namespace modelfixture
