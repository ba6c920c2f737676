#include "talcflow/TALCModelRunner.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using talcflow::TALCModelRunner;
using talcflow::TALCTensorType;
using testsupport::TempDir;

namespace {

const TALCTensorType kFloat = TALCTensorType::Float32;

std::string model(const std::string& name) { return std::string(TEST_MODELS_DIR) + "/" + name + ".tflite"; }

std::vector<float> outputOf(TALCModelRunner& runner, int index, size_t count) {
    std::vector<float> out(count, -123.0f);
    EXPECT_EQ(runner.GetOutputTensorData(index, kFloat, out.data(), count * sizeof(float)), TALCModelRunner::kSuccess);
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
    for (uint32_t n : {4u, 10u, 25u}) {
        TALCModelRunner runner(model(n == 4 ? "small_n4_p5" : "const_n" + std::to_string(n) + "_p5"));
        const talcflow::TALCTensorDetails in = runner.getInputTensorDetails(0);
        EXPECT_EQ(in.shape, (std::vector<uint32_t>{1, n, 6}));
        EXPECT_EQ(in.type, kFloat);
        EXPECT_EQ(runner.getOutputTensorDetails(0).name, "output0");
        EXPECT_EQ(runner.getOutputTensorDetails(0).shape, (std::vector<uint32_t>{1, 10}));
        EXPECT_EQ(runner.getOutputTensorDetails(1).shape, (std::vector<uint32_t>{1, 5}));
        EXPECT_THROW(runner.getInputTensorDetails(1), std::out_of_range);
        EXPECT_THROW(runner.getInputTensorDetails(-1), std::out_of_range);
        EXPECT_THROW(runner.getOutputTensorDetails(2), std::out_of_range);
        const std::string backend = runner.backendName();
        EXPECT_TRUE(backend == "CpuAcc" || backend == "GpuAcc" || backend == "CpuRef") << backend;
    }
}

TEST(TALCModelRunnerTest, ConstantModelsGiveTheirExactBiasesWhateverTheInput) {
    TALCModelRunner runner(model("const_n10_p5"));
    for (float start : {0.0f, -7.5f}) {
        const std::vector<float> input = ramp(60, start);
        ASSERT_EQ(runner.SetInputTensorData(0, kFloat, input.data(), 240), TALCModelRunner::kSuccess);
        ASSERT_EQ(runner.runInference(), TALCModelRunner::kSuccess);
        expectConstOutputs(runner);
    }

    TALCModelRunner nan(model("nan_logit_n10_p5"));
    ASSERT_EQ(nan.runInference(), TALCModelRunner::kSuccess);
    const std::vector<float> logits = outputOf(nan, 1, 5);
    EXPECT_EQ(logits[0], -1.0f);
    EXPECT_TRUE(std::isnan(logits[1]));
    EXPECT_EQ(logits[2], -3.0f);
}

TEST(TALCModelRunnerTest, CopyModelSeesTheNewestRowOfEachInference) {
    TALCModelRunner runner(model("copy_n10_p5"));
    for (float start : {1.0f, -40.0f}) {
        const std::vector<float> input = ramp(60, start);
        ASSERT_EQ(runner.SetInputTensorData(0, kFloat, input.data(), input.size() * 4), TALCModelRunner::kSuccess);
        ASSERT_EQ(runner.runInference(), TALCModelRunner::kSuccess);
        const std::vector<float> out0 = outputOf(runner, 0, 10);
        for (size_t j = 0; j < 10; ++j) EXPECT_EQ(out0[j], input[54 + (j % 2 ? 2 : 1)]) << j;
        EXPECT_EQ(outputOf(runner, 1, 5), std::vector<float>(5, -10.0f));
    }
}

TEST(TALCModelRunnerTest, HiddenLayersMatchTheWritersReferenceForwardPass) {
    const std::string expected = testsupport::readFile(std::string(TEST_MODELS_DIR) + "/mlp_n10_p5.expected");
    ASSERT_EQ(expected.size(), (60 + 10 + 5) * sizeof(float));
    std::vector<float> reference(75);
    std::memcpy(reference.data(), expected.data(), expected.size());

    TALCModelRunner runner(model("mlp_n10_p5"));
    ASSERT_EQ(runner.SetInputTensorData(0, kFloat, reference.data(), 240), TALCModelRunner::kSuccess);
    ASSERT_EQ(runner.runInference(), TALCModelRunner::kSuccess);
    std::vector<float> actual = outputOf(runner, 0, 10);
    const std::vector<float> out1 = outputOf(runner, 1, 5);
    actual.insert(actual.end(), out1.begin(), out1.end());
    for (size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], reference[60 + i], 1e-5) << i;
}

TEST(TALCModelRunnerTest, RejectedTransfersChangeNothing) {
    TALCModelRunner runner(model("copy_n10_p5"));
    const std::vector<float> good = ramp(60, 3.0f);
    const std::vector<float> other = ramp(61, -9.0f);
    ASSERT_EQ(runner.SetInputTensorData(0, kFloat, good.data(), 240), TALCModelRunner::kSuccess);

    EXPECT_EQ(runner.SetInputTensorData(1, kFloat, other.data(), 240), TALCModelRunner::kFailure);
    EXPECT_EQ(runner.SetInputTensorData(-1, kFloat, other.data(), 240), TALCModelRunner::kFailure);
    EXPECT_EQ(runner.SetInputTensorData(0, TALCTensorType::Int32, other.data(), 240), TALCModelRunner::kFailure);
    for (size_t bytes : {0u, 236u, 239u, 244u})
        EXPECT_EQ(runner.SetInputTensorData(0, kFloat, other.data(), bytes), TALCModelRunner::kFailure) << bytes;
    EXPECT_EQ(runner.SetInputTensorData(0, kFloat, nullptr, 240), TALCModelRunner::kFailure);

    ASSERT_EQ(runner.runInference(), TALCModelRunner::kSuccess);
    EXPECT_EQ(outputOf(runner, 0, 10)[0], good[55]);

    std::vector<float> out(11, 42.0f);
    EXPECT_EQ(runner.GetOutputTensorData(2, kFloat, out.data(), 40), TALCModelRunner::kFailure);
    EXPECT_EQ(runner.GetOutputTensorData(-1, kFloat, out.data(), 40), TALCModelRunner::kFailure);
    EXPECT_EQ(runner.GetOutputTensorData(0, TALCTensorType::Undefined, out.data(), 40), TALCModelRunner::kFailure);
    EXPECT_EQ(runner.GetOutputTensorData(0, kFloat, out.data(), 36), TALCModelRunner::kFailure);
    EXPECT_EQ(runner.GetOutputTensorData(0, kFloat, out.data(), 44), TALCModelRunner::kFailure);
    EXPECT_EQ(runner.GetOutputTensorData(1, kFloat, out.data(), 40), TALCModelRunner::kFailure);
    EXPECT_EQ(out, std::vector<float>(11, 42.0f));
}

TEST(TALCModelRunnerTest, ConstructionFailuresNameThePathAndTheReason) {
    TempDir dir;
    const std::string missing = dir.file("absent.tflite");
    const std::string garbage = dir.file("garbage.tflite");
    const std::string empty = dir.file("empty.tflite");
    const std::string truncated = dir.file("truncated.tflite");
    testsupport::writeFile(garbage, std::string(4096, '\x5a'));
    testsupport::writeFile(empty, "");
    const std::string whole = testsupport::readFile(model("const_n10_p5"));
    testsupport::writeFile(truncated, whole.substr(0, whole.size() / 2));

    const struct {
        std::string path;
        std::string reason;
    } cases[] = {
        {missing, "no such file"},
        {dir.path(), "not a regular file"},
        {garbage, "not a TensorFlow Lite model"},
        {empty, "not a TensorFlow Lite model"},
        {truncated, "rejected by Arm NN"},
        {model("unsupported_op"), "rejected by Arm NN"},
    };
    for (const auto& c : cases) {
        const std::string message = constructionError(c.path);
        EXPECT_NE(message.find("\"" + c.path + "\""), std::string::npos) << message;
        EXPECT_NE(message.find(c.reason), std::string::npos) << message;
    }
}

// Arm NN registers dynamic backends process-wide per runtime; runners must stay independent of
// each other's lifetimes and of the thread that builds them.
TEST(TALCModelRunnerTest, RunnersOutliveEachOtherAndBuildOnAnyThread) {
    auto first = std::make_unique<TALCModelRunner>(model("const_n10_p5"));
    TALCModelRunner second(model("copy_n10_p5"));
    first.reset();
    const std::vector<float> input = ramp(60, 5.0f);
    ASSERT_EQ(second.SetInputTensorData(0, kFloat, input.data(), 240), TALCModelRunner::kSuccess);
    ASSERT_EQ(second.runInference(), TALCModelRunner::kSuccess);
    EXPECT_EQ(outputOf(second, 0, 10)[1], input[56]);

    std::vector<std::thread> threads;
    std::vector<int> statuses(2, TALCModelRunner::kFailure);
    for (size_t t = 0; t < statuses.size(); ++t)
        threads.emplace_back([&statuses, t] {
            TALCModelRunner runner(model("const_n10_p5"));
            statuses[t] = runner.runInference();
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(statuses, std::vector<int>(2, TALCModelRunner::kSuccess));
    TALCModelRunner third(model("const_n10_p5"));
    ASSERT_EQ(third.runInference(), TALCModelRunner::kSuccess);
    expectConstOutputs(third);
}
