#include "talcflow/TALCModelRunner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ModelPredictor.h"
#include "PredictorParams.h"
#include "TestSupport.h"

using talcflow::TALCEngine;
using talcflow::TALCModelRunner;
using talcflow::TALCTensorType;

namespace {

const TALCTensorType kFloat = TALCTensorType::Float32;
constexpr int kOk = TALCModelRunner::kSuccess;
constexpr int kFail = TALCModelRunner::kFailure;

std::string model(const std::string& name) { return testkit::generatedModel(name + ".tflite"); }

std::vector<float> outputOf(TALCModelRunner& runner, int index, size_t count) {
    std::vector<float> out(count, -123.0f);
    EXPECT_EQ(runner.GetOutputTensorData(index, kFloat, out.data(), count * sizeof(float)), kOk);
    return out;
}

std::vector<float> ramp(size_t count, float start) {
    std::vector<float> v(count);
    for (size_t i = 0; i < count; ++i) v[i] = start + 0.25f * static_cast<float>(i);
    return v;
}

std::string constructionError(const std::string& path, TALCEngine engine = TALCEngine::Auto) {
    return testsupport::thrownText<std::runtime_error>([&] { TALCModelRunner runner(path, engine); });
}

size_t elements(const talcflow::TALCTensorDetails& details) {
    size_t n = 1;
    for (uint32_t d : details.shape) n *= d;
    return n;
}

// Runs one input through a runner and returns all outputs, concatenated in output order.
std::vector<float> allOutputs(TALCModelRunner& runner, const std::vector<float>& input) {
    EXPECT_EQ(runner.SetInputTensorData(0, kFloat, input.data(), input.size() * sizeof(float)), kOk);
    EXPECT_EQ(runner.runInference(), kOk);
    std::vector<float> all;
    for (int k = 0;; ++k) {
        size_t count = 0;
        try {
            count = elements(runner.getOutputTensorDetails(k));
        } catch (const std::out_of_range&) {
            return all;
        }
        const std::vector<float> out = outputOf(runner, k, count);
        all.insert(all.end(), out.begin(), out.end());
    }
}

// Both engines compute in float32 with different summation orders and XNNPACK's sigmoid is a
// polynomial: relative 1e-5. A value that cancels to near zero carries the rounding of the terms that
// cancelled, which are as large as the outputs: relative to the largest output then.
void expectSameOutputs(const std::vector<float>& actual, const std::vector<float>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    float scale = 0.0f;
    for (float v : expected) {
        if (std::isfinite(v)) scale = std::max(scale, std::fabs(v));
    }
    for (size_t i = 0; i < actual.size(); ++i) {
        if (std::isnan(expected[i])) {
            EXPECT_TRUE(std::isnan(actual[i])) << i;
            continue;
        }
        const float tolerance = 1e-5f * std::max({std::fabs(actual[i]), std::fabs(expected[i]), scale}) + 1e-6f;
        EXPECT_NEAR(actual[i], expected[i], tolerance) << i;
    }
}

// Model input (first values) and the numpy forward pass's outputs (the rest), as the model generator
// writes them.
std::pair<std::vector<float>, std::vector<float>> reference(const std::string& name, size_t inputs) {
    const std::string bytes = testsupport::readFile(testkit::generatedModel(name + ".expected"));
    std::vector<float> all(bytes.size() / sizeof(float));
    std::memcpy(all.data(), bytes.data(), all.size() * sizeof(float));
    if (all.size() < inputs) return {};
    return {std::vector<float>(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(inputs)),
            std::vector<float>(all.begin() + static_cast<std::ptrdiff_t>(inputs), all.end())};
}

// Arm NN's fastest backend on the machine under test: the NEON one on arm64, where the test sysroot
// installs it, else the reference backend.
#if defined(__aarch64__)
const std::string kArmNNBackend = "CpuAcc";
#else
const std::string kArmNNBackend = "CpuRef";
#endif

void expectConstOutputs(TALCModelRunner& runner) {
    const std::vector<float> out0 = outputOf(runner, 0, 10);
    for (size_t j = 0; j < 10; ++j) EXPECT_EQ(out0[j], static_cast<float>(0.1 * static_cast<double>(j + 1))) << j;
    EXPECT_EQ(outputOf(runner, 1, 5), (std::vector<float>{-1, 2, -3, -4, -5}));
}

}  // namespace

TEST(TALCModelRunnerTest, ReportsShapesInSubgraphOrderAndRejectsBadIndices) {
    TALCModelRunner runner(model("const_n25_p5"));
    EXPECT_EQ(runner.getInputTensorDetails(0).shape, (std::vector<uint32_t>{1, 25, 6}));
    EXPECT_EQ(runner.getInputTensorDetails(0).type, kFloat);
    EXPECT_EQ(runner.getOutputTensorDetails(0).name, "output0");
    EXPECT_EQ(runner.getOutputTensorDetails(0).shape, (std::vector<uint32_t>{1, 10}));
    EXPECT_EQ(runner.getOutputTensorDetails(1).shape, (std::vector<uint32_t>{1, 5}));
    EXPECT_THROW(runner.getInputTensorDetails(1), std::out_of_range);
    EXPECT_THROW(runner.getInputTensorDetails(-1), std::out_of_range);
    EXPECT_THROW(runner.getOutputTensorDetails(2), std::out_of_range);
}

// The copy model outputs input[55] on even and input[56] on odd indices: the newest row reaches the network.
TEST(TALCModelRunnerTest, CopyModelSeesEachInferencesInputAndRejectedTransfersChangeNothing) {
    TALCModelRunner runner(model("copy_n10_p5"));
    const std::vector<float> other = ramp(61, -9.0f);
    for (float start : {1.0f, -40.0f}) {
        const std::vector<float> input = ramp(60, start);
        ASSERT_EQ(runner.SetInputTensorData(0, kFloat, input.data(), 240), kOk);
        EXPECT_EQ(runner.SetInputTensorData(1, kFloat, other.data(), 240), kFail);
        EXPECT_EQ(runner.SetInputTensorData(-1, kFloat, other.data(), 240), kFail);
        EXPECT_EQ(runner.SetInputTensorData(0, TALCTensorType::Int32, other.data(), 240), kFail);
        for (size_t bytes : {0u, 236u, 239u, 244u}) {
            EXPECT_EQ(runner.SetInputTensorData(0, kFloat, other.data(), bytes), kFail) << bytes;
        }
        EXPECT_EQ(runner.SetInputTensorData(0, kFloat, nullptr, 240), kFail);
        ASSERT_EQ(runner.runInference(), kOk);
        const std::vector<float> out0 = outputOf(runner, 0, 10);
        for (size_t j = 0; j < 10; ++j) EXPECT_EQ(out0[j], input[54 + (j % 2 ? 2 : 1)]) << j;
        EXPECT_EQ(outputOf(runner, 1, 5), std::vector<float>(5, -10.0f));
    }
    std::vector<float> out(11, 42.0f);
    EXPECT_EQ(runner.GetOutputTensorData(2, kFloat, out.data(), 40), kFail);
    EXPECT_EQ(runner.GetOutputTensorData(-1, kFloat, out.data(), 40), kFail);
    EXPECT_EQ(runner.GetOutputTensorData(0, TALCTensorType::Undefined, out.data(), 40), kFail);
    EXPECT_EQ(runner.GetOutputTensorData(0, kFloat, out.data(), 36), kFail);
    EXPECT_EQ(runner.GetOutputTensorData(0, kFloat, out.data(), 44), kFail);
    EXPECT_EQ(runner.GetOutputTensorData(1, kFloat, out.data(), 40), kFail);
    EXPECT_EQ(out, std::vector<float>(11, 42.0f));
}

TEST(TALCModelRunnerTest, ConstructionFailuresNameThePathAndTheReason) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir.file("garbage"), std::string(4096, '\x5a'));
    testsupport::writeFile(dir.file("empty"), "");
    const std::string whole = testsupport::readFile(model("const_n10_p5"));
    testsupport::writeFile(dir.file("truncated"), whole.substr(0, whole.size() / 2));
    const std::pair<std::string, std::string> cases[] = {
        {dir.file("absent"), "no such file"},
        {dir.path(), "not a regular file"},
        {dir.file("garbage"), "not a TensorFlow Lite model"},
        {dir.file("empty"), "not a TensorFlow Lite model"},
        {dir.file("truncated"), "rejected by Arm NN"},
        {model("unsupported_op"), "rejected by Arm NN"},
    };
    for (const auto& [path, reason] : cases) {
        const std::string message = constructionError(path);
        EXPECT_NE(message.find("\"" + path + "\""), std::string::npos) << message;
        EXPECT_NE(message.find(reason), std::string::npos) << message;
    }
}

// Arm NN registers dynamic backends process-wide per runtime; runners must stay independent of
// each other's lifetimes and of the thread that builds them.
TEST(TALCModelRunnerTest, RunnersOutliveEachOtherAndBuildOnAnyThread) {
    auto first = std::make_unique<TALCModelRunner>(model("copy_n10_p5"));
    std::vector<int> statuses(2, kFail);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < statuses.size(); ++t) {
        threads.emplace_back([&statuses, t] { statuses[t] = TALCModelRunner(model("const_n10_p5")).runInference(); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(statuses, std::vector<int>(2, kOk));
    TALCModelRunner second(model("const_n10_p5"));
    first.reset();
    ASSERT_EQ(second.runInference(), kOk);
    expectConstOutputs(second);
}

// Every model both engines load, the shipped one read as it is today: the same input gives the same
// outputs on XNNPACK and on Arm NN.
TEST(TALCModelRunnerTest, BothEnginesGiveTheSameOutputsOnEveryModelTheyBothRun) {
    const std::string models[] = {model("const_n10_p5"), model("const_n25_p5"), model("small_n4_p5"),
                                  model("copy_n10_p5"), model("ops_n10_p5"), STYLUS_SHIPPED_MODEL};
    std::mt19937 random(7);
    // Rows as the library feeds them: each feature mapped into its configured range, time steps above
    // zero. Outside it the shipped model divides by near-zero time steps and both engines only agree
    // on how large the result is.
    std::uniform_real_distribution<float> value(0.05f, 0.95f);
    for (const std::string& path : models) {
        SCOPED_TRACE(path);
        TALCModelRunner xnnpack(path, TALCEngine::XNNPACK);
        TALCModelRunner armnn(path, TALCEngine::ArmNN);
        EXPECT_EQ(xnnpack.backendName(), "XNNPACK");
        EXPECT_EQ(armnn.backendName(), kArmNNBackend);
        EXPECT_EQ(xnnpack.getInputTensorDetails(0).shape, armnn.getInputTensorDetails(0).shape);
        for (int trial = 0; trial < 3; ++trial) {
            std::vector<float> input(elements(xnnpack.getInputTensorDetails(0)));
            for (float& v : input) v = value(random);
            expectSameOutputs(allOutputs(xnnpack, input), allOutputs(armnn, input));
        }
    }
}

// The numpy forward pass of the script that wrote the model is the reference: on XNNPACK for every
// fast-path operator and for RELU_N1_TO_1 (fused by XNNPACK, not taken by Arm NN's parser), on Arm NN
// for hidden TANH layers. The constant model's exact outputs are checked on every engine choice below.
TEST(TALCModelRunnerTest, EachEngineMatchesTheForwardPassOfTheModelGenerator) {
    const std::pair<const char*, std::string> cases[] = {
        {"ops_n10_p5", "XNNPACK"}, {"relu_n1_n10_p5", "XNNPACK"}, {"mlp_n10_p5", kArmNNBackend}};
    for (const auto& [name, backend] : cases) {
        SCOPED_TRACE(name);
        TALCModelRunner runner(model(name));
        EXPECT_EQ(runner.backendName(), backend);
        const auto [input, expected] = reference(name, 60);
        ASSERT_EQ(expected.size(), 15u);
        expectSameOutputs(allOutputs(runner, input), expected);
    }
}

TEST(TALCModelRunnerTest, GraphsXnnpackDoesNotRunFallBackToArmNNAndSaySo) {
    struct Case {
        std::string name;
        std::string why;  // in the load report of the automatic choice and in the forced failure
    };
    const Case cases[] = {
        {"mlp_n10_p5", "XNNPACK does not run operator 2 (FULLY_CONNECTED with fused activation TANH)"},
        {"nan_logit_n10_p5", "XNNPACK does not run operator 2 (constant tensor \"output1/bias\" holds NaN or infinity)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        testsupport::LogCapture log(velmar::Info);
        TALCModelRunner runner(model(c.name));
        EXPECT_EQ(runner.backendName(), kArmNNBackend);
        EXPECT_EQ(runner.engineReport(), "Arm NN " + kArmNNBackend + " (" + c.why + ")");
        EXPECT_EQ(log.messages(), std::vector<std::string>{"Inference engine : Arm NN " + kArmNNBackend + " (" + c.why + ")"});
        const std::string forced = constructionError(model(c.name), TALCEngine::XNNPACK);
        EXPECT_NE(forced.find("\"" + model(c.name) + "\": " + c.why + " (forced by the caller)"), std::string::npos)
            << forced;
        if (c.name == "nan_logit_n10_p5") {  // the NaN constant reaches the output as it is
            ASSERT_EQ(runner.runInference(), kOk);
            const std::vector<float> logits = outputOf(runner, 1, 5);
            EXPECT_EQ(logits[0], -1.0f);
            EXPECT_TRUE(std::isnan(logits[1]));
        }
    }
    EXPECT_NE(constructionError(model("unsupported_op"), TALCEngine::XNNPACK)
                  .find("XNNPACK does not run operator 0 (custom operator \"NoSuchOperator\")"),
              std::string::npos);
}

TEST(TALCModelRunnerTest, ForcedEngineIsHonouredFromArgumentEnvironmentAndConfiguration) {
    struct Case {
        TALCEngine argument;
        const char* environment;  // TALC_INFERENCE_ENGINE, null for unset
        std::string backend;
        std::string report;
    };
    const std::string xnn = "XNNPACK (all 3 operators of subgraph 0";
    const std::string armnn = "Arm NN " + kArmNNBackend + " (forced by ";
    const Case cases[] = {
        {TALCEngine::Auto, nullptr, "XNNPACK", xnn + ")"},
        {TALCEngine::Auto, "", "XNNPACK", xnn + ")"},
        {TALCEngine::ArmNN, nullptr, kArmNNBackend, armnn + "the caller)"},
        {TALCEngine::XNNPACK, nullptr, "XNNPACK", xnn + "; forced by the caller)"},
        {TALCEngine::Auto, "armnn", kArmNNBackend, armnn + "TALC_INFERENCE_ENGINE=armnn)"},
        {TALCEngine::Auto, "XNNPACK", "XNNPACK", xnn + "; forced by TALC_INFERENCE_ENGINE=XNNPACK)"},
        {TALCEngine::Auto, "auto", "XNNPACK", xnn + "; forced by TALC_INFERENCE_ENGINE=auto)"},
        {TALCEngine::XNNPACK, "armnn", "XNNPACK", xnn + "; forced by the caller)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.report);
        testsupport::ScopedEnvironment environment(TALCModelRunner::kEngineEnvironmentVariable, c.environment);
        TALCModelRunner runner(model("const_n10_p5"), c.argument);
        EXPECT_EQ(runner.backendName(), c.backend);
        EXPECT_EQ(runner.engineReport(), c.report);
        ASSERT_EQ(runner.runInference(), kOk);
        expectConstOutputs(runner);
    }
    {
        testsupport::ScopedEnvironment environment(TALCModelRunner::kEngineEnvironmentVariable, "tflite");
        EXPECT_NE(constructionError(model("const_n10_p5"))
                      .find("TALC_INFERENCE_ENGINE: unknown inference engine \"tflite\" (auto, xnnpack or armnn)"),
                  std::string::npos);
    }

    EXPECT_EQ(TALCModelRunner::engineFromName("ArmNN"), TALCEngine::ArmNN);
    EXPECT_EQ(TALCModelRunner::engineFromName("xnnpack"), TALCEngine::XNNPACK);
    EXPECT_EQ(TALCModelRunner::engineFromName("AUTO"), TALCEngine::Auto);
    for (const char* bad : {"", "xnn", "arm nn", "cpuref"}) {
        EXPECT_THROW(TALCModelRunner::engineFromName(bad), std::invalid_argument) << bad;
    }

    // The configuration key reaches the runner through the predictor's parameters.
    testsupport::TempDir dir;
    const std::string config = dir.file("predictor.json");
    testsupport::writeFile(dir.file("m.tflite"), testsupport::readFile(model("const_n10_p5")));
    std::string keys = "\"model_name\": \"m.tflite\", \"num_historical_points\": 10";
    for (const char* feature : {"timestamp", "xpos", "ypos", "pressure", "tilt", "orientation"}) {
        keys += std::string(", \"feature_") + feature + "_min\": -1, \"feature_" + feature + "_max\": 1";
    }
    for (const std::string& engine : {std::string("armnn"), std::string("xnnpack")}) {
        testsupport::writeFile(config, "{\"PredictionModel\": {" + keys + ", \"inference_engine\": \"" + engine + "\"}}");
        testsupport::LogCapture log(velmar::Info);
        styluspipeline::PredictorParams params(config);
        styluspipeline::ModelPredictor predictor(params.modelParams, dir.file("metrics.txt"));
        EXPECT_EQ(log.count("Inference engine : " + (engine == "armnn" ? armnn : xnn + "; forced by ") + "the caller)"), 1)
            << engine;
    }
}
