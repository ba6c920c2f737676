// Cost of one prediction call in steady state (history full, batches of 4 samples), split into the
// model run and the predictor's own work (features, history, decoding, metrics).
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CirclingPen.h"
#include "GeneratedModel.h"
#include "ModelPredictor.h"
#include "TempDir.h"
#include "velmar/Log.h"

using styluspipeline::ModelPredictor;
using styluspipeline::ModelPredictorParams;
using styluspipeline::PredictedStylusTouchPointsCpp;
using Batch = std::map<unsigned long, StylusTouchPoint>;

namespace {

// Every operator the fast engine runs, so the call measured is the one of a model XNNPACK takes.
const std::string kModel = testkit::generatedModel("ops_n10_p5.tflite");
constexpr int kBatchSize = 4;
constexpr size_t kBatchCount = 1024;

ModelPredictorParams benchParams() {
    ModelPredictorParams p;
    p.model_path = kModel;
    p.num_historcal_points = 10;
    p.min_num_historical_points = 7;  // two batches of 4 start the stroke
    p.feature_timestamp_min = 0.0f;
    p.feature_timestamp_max = 16.0f;
    p.feature_xpos_min = -5.0f;
    p.feature_xpos_max = 5.0f;
    p.feature_ypos_min = -5.0f;
    p.feature_ypos_max = 5.0f;
    p.feature_pressure_min = -1.0f;
    p.feature_pressure_max = 1.0f;
    p.feature_tilt_min = -1.0f;
    p.feature_tilt_max = 1.0f;
    p.feature_orientation_min = -1.0f;
    p.feature_orientation_max = 1.0f;
    return p;
}

// A pen circling at 240 Hz, cut into batches of 4 samples.
std::vector<Batch> makeBatches() {
    std::vector<Batch> batches(kBatchCount);
    uint64_t timestamp = 1000;
    for (size_t b = 0; b < kBatchCount; ++b) {
        for (int i = 0; i < kBatchSize; ++i) {
            batches[b][timestamp] = testkit::circlingPen(timestamp, 0.01f * static_cast<float>(b * kBatchSize + i));
            timestamp += 4;
        }
    }
    return batches;
}

struct Setup {
    Setup() : batches(makeBatches()), predictor(benchParams(), metricsDir.file("runningMetrics.txt")), runner(kModel) {
        velmar::Log::init();
        velmar::Log::m_GlobalPriority.store(velmar::Info);
        // Two batches fill the history; from then on every call predicts.
        for (size_t b = 0; b < 2; ++b) {
            predictor.predictStylusTouchPoints(batches[b], b == 0, out);
        }
        next = 2;
        input.assign(elements(runner.getInputTensorDetails(0)), 0.1f);
        output0.assign(elements(runner.getOutputTensorDetails(0)), 0.0f);
        output1.assign(elements(runner.getOutputTensorDetails(1)), 0.0f);
    }

    static size_t elements(const talcflow::TALCTensorDetails& details) {
        size_t n = 1;
        for (uint32_t dim : details.shape) {
            n *= dim;
        }
        return n;
    }

    const Batch& nextBatch() {
        const Batch& batch = batches[next];
        next = (next + 1) % kBatchCount;
        return batch;
    }

    void inferenceWithCopies() {
        runner.SetInputTensorData(0, talcflow::TALCTensorType::Float32, input.data(), input.size() * sizeof(float));
        runner.runInference();
        const auto type = talcflow::TALCTensorType::Float32;
        runner.GetOutputTensorData(0, type, output0.data(), output0.size() * sizeof(float));
        runner.GetOutputTensorData(1, type, output1.data(), output1.size() * sizeof(float));
    }

    testkit::TempDir metricsDir;
    std::vector<Batch> batches;
    ModelPredictor predictor;
    talcflow::TALCModelRunner runner;
    PredictedStylusTouchPointsCpp out;
    std::vector<float> input, output0, output1;
    size_t next = 0;
};

void BM_PredictTotal(benchmark::State& state) {
    Setup s;
    for (auto _ : state) {
        benchmark::DoNotOptimize(s.predictor.predictStylusTouchPoints(s.nextBatch(), false, s.out));
    }
    state.SetLabel(s.runner.backendName());
}
BENCHMARK(BM_PredictTotal);

void BM_RunInference(benchmark::State& state) {
    Setup s;
    s.runner.SetInputTensorData(0, talcflow::TALCTensorType::Float32, s.input.data(), s.input.size() * sizeof(float));
    for (auto _ : state) {
        benchmark::DoNotOptimize(s.runner.runInference());
    }
}
BENCHMARK(BM_RunInference);

void BM_RunInferenceWithTensorCopies(benchmark::State& state) {
    Setup s;
    for (auto _ : state) {
        s.inferenceWithCopies();
        benchmark::DoNotOptimize(s.output1.data());
    }
}
BENCHMARK(BM_RunInferenceWithTensorCopies);

double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The predictor's own share: each iteration times a prediction call and, right after, the same model
// run with its tensor copies on a second runner, and counts the difference. Thread CPU time, so that
// other processes on a busy machine do not land in the difference.
void BM_PredictOwnShare(benchmark::State& state) {
    Setup s;
    for (auto _ : state) {
        const double t0 = threadCpuSeconds();
        benchmark::DoNotOptimize(s.predictor.predictStylusTouchPoints(s.nextBatch(), false, s.out));
        const double t1 = threadCpuSeconds();
        s.inferenceWithCopies();
        const double t2 = threadCpuSeconds();
        const double own = (t1 - t0) - (t2 - t1);
        state.SetIterationTime(own > 0 ? own : 0.0);
    }
}
BENCHMARK(BM_PredictOwnShare)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
