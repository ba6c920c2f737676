// The shipped model gives, on every machine and engine the tests run on, the outputs the fixture
// recorded on x86-64.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "ModelOutputFixture.h"
#include "TestSupport.h"

namespace {

// Relative to the tensor's largest magnitude: engines sum the 64-wide layers in different orders
// (NEON and x86 kernels, fused multiply-adds), which moves a float32 result by a few units in the
// last place of the largest partial sums, far below 1e-5 of them.
constexpr float kRelativeTolerance = 1e-5f;

}  // namespace

TEST(ShippedModelOutputsTest, EveryEngineGivesTheOutputsRecordedOnX86) {
    const modelfixture::ModelOutputFixture fixture = modelfixture::readFixture(SHIPPED_MODEL_FIXTURE);
    const modelfixture::ModelFingerprint model = modelfixture::fingerprintOf(SHIPPED_MODEL);
    ASSERT_TRUE(model == fixture.model)
        << SHIPPED_MODEL << " (" << model.bytes << " bytes) is not the model " << SHIPPED_MODEL_FIXTURE
        << " was made for (" << fixture.model.bytes << " bytes): regenerate with scripts/regenerate-model-fixture.sh";

    // The runner reads the engine choice from the environment when it is built.
    for (const char* engine : {"armnn", "xnnpack"}) {
        testsupport::ScopedEnvironment request("TALC_INFERENCE_ENGINE", engine);
        talcflow::TALCModelRunner runner(SHIPPED_MODEL);
        std::printf("engine %s ran on %s (fixture made by %s)\n", engine, runner.backendName().c_str(),
                    fixture.madeBy.c_str());
        for (size_t c = 0; c < fixture.cases.size(); ++c) {
            const std::vector<std::vector<float>> actual = modelfixture::runModel(runner, fixture.cases[c].input);
            const std::vector<std::vector<float>>& expected = fixture.cases[c].outputs;
            ASSERT_EQ(actual.size(), expected.size());
            for (size_t k = 0; k < expected.size(); ++k) {
                ASSERT_EQ(actual[k].size(), expected[k].size());
                float scale = 0.0f;
                for (float e : expected[k]) scale = std::max(scale, std::fabs(e));
                for (size_t i = 0; i < expected[k].size(); ++i) {
                    EXPECT_NEAR(actual[k][i], expected[k][i], kRelativeTolerance * scale)
                        << engine << " on " << runner.backendName() << ", case " << c << ", output " << k << "[" << i
                        << "]";
                }
            }
        }
    }
}
