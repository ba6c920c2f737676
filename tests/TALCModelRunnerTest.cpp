#include "talcflow/TALCModelRunner.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using talcflow::TALCModelRunner;
using talcflow::TALCTensorType;

namespace {

const TALCTensorType kFloat = TALCTensorType::Float32;
constexpr int kOk = TALCModelRunner::kSuccess;
constexpr int kFail = TALCModelRunner::kFailure;

std::string model(const std::string& name) { return std::string(TEST_MODELS_DIR) + "/" + name + ".tflite"; }

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

std::string constructionError(const std::string& path) {
    try {
        TALCModelRunner runner(path);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(no exception)";
}

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

TEST(TALCModelRunnerTest, GeneratedModelsGiveTheirExactOutputs) {
    TALCModelRunner constant(model("const_n10_p5"));
    const std::vector<float> input = ramp(60, -7.5f);
    ASSERT_EQ(constant.SetInputTensorData(0, kFloat, input.data(), 240), kOk);
    ASSERT_EQ(constant.runInference(), kOk);
    expectConstOutputs(constant);

    TALCModelRunner nan(model("nan_logit_n10_p5"));
    ASSERT_EQ(nan.runInference(), kOk);
    const std::vector<float> logits = outputOf(nan, 1, 5);
    EXPECT_EQ(logits[0], -1.0f);
    EXPECT_TRUE(std::isnan(logits[1]));

    // Hidden layers against the forward pass of the script that wrote the model.
    const std::string expected = testsupport::readFile(std::string(TEST_MODELS_DIR) + "/mlp_n10_p5.expected");
    ASSERT_EQ(expected.size(), (60 + 10 + 5) * sizeof(float));
    std::vector<float> reference(75);
    std::memcpy(reference.data(), expected.data(), expected.size());
    TALCModelRunner mlp(model("mlp_n10_p5"));
    ASSERT_EQ(mlp.SetInputTensorData(0, kFloat, reference.data(), 240), kOk);
    ASSERT_EQ(mlp.runInference(), kOk);
    std::vector<float> actual = outputOf(mlp, 0, 10);
    const std::vector<float> out1 = outputOf(mlp, 1, 5);
    actual.insert(actual.end(), out1.begin(), out1.end());
    for (size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], reference[60 + i], 1e-5) << i;
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
