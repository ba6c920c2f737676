// Writes the expected outputs of a model on fixed inputs (scripts/regenerate-model-fixture.sh).
// Usage: make-model-fixture MODEL.tflite OUTPUT.txt
#include <cstdio>
#include <exception>
#include <random>

#include "ModelOutputFixture.h"

namespace {

#if defined(__x86_64__)
const char* const kMachine = "x86-64";
#elif defined(__aarch64__)
const char* const kMachine = "arm64";
#else
const char* const kMachine = "unknown machine";
#endif

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: make-model-fixture MODEL.tflite OUTPUT.txt\n");
        return 2;
    }
    try {
        talcflow::TALCModelRunner runner(argv[1]);
        size_t inputSize = 1;
        for (uint32_t d : runner.getInputTensorDetails(0).shape) inputSize *= d;

        modelfixture::ModelOutputFixture fixture;
        fixture.model = modelfixture::fingerprintOf(argv[1]);
        fixture.madeBy = std::string(kMachine) + ", " + runner.backendName();
        // All zeros, then values across the normalised feature range, on both sides of every ReLU.
        std::mt19937 random(20261123);
        std::uniform_real_distribution<float> step(-1.5f, 1.5f);
        for (int c = 0; c < 4; ++c) {
            modelfixture::OutputCase one;
            one.input.resize(inputSize, 0.0f);
            if (c > 0) {
                for (float& v : one.input) v = step(random);
            }
            one.outputs = modelfixture::runModel(runner, one.input);
            fixture.cases.push_back(std::move(one));
        }
        modelfixture::writeFixture(argv[2], fixture, "scripts/regenerate-model-fixture.sh");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "make-model-fixture: %s\n", e.what());
        return 1;
    }
    return 0;
}
