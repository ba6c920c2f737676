// One inference of the shipped model (tensor copies in and out included) on each engine, against
// the floor: a plain float32 forward pass of the same weights. Warm (back to back) and at pen rate
// (one inference every 16.7 ms, so caches and branch predictors have cooled down between runs, as
// on a device while the pen moves).
//
// Extra flag (before the Google Benchmark ones): --model=PATH (default models/stylus_predictor.tflite)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "PlainForwardPass.h"
#include "talcflow/TALCModelRunner.h"

namespace {

using Clock = std::chrono::steady_clock;
const auto kPenPeriod = std::chrono::nanoseconds(16'666'667);
constexpr int kPacedRuns = 600;

std::string g_model = STYLUS_SHIPPED_MODEL;

std::vector<float> sampleInput(size_t count) {
    std::mt19937 random(3);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> input(count);
    for (float& v : input) v = value(random);
    return input;
}

size_t elements(const talcflow::TALCTensorDetails& details) {
    size_t n = 1;
    for (uint32_t d : details.shape) n *= d;
    return n;
}

// One inference as the predictor does it: input in, run, every output out.
class Subject {
public:
    explicit Subject(const std::string& engine) {
        if (engine == "floor") {
            floor = std::make_unique<PlainForwardPass>(g_model);
            input = sampleInput(floor->input().size());
            for (size_t k = 0; k < floor->outputCount(); ++k) outputs.emplace_back(floor->output(k).size());
        } else {
            runner = std::make_unique<talcflow::TALCModelRunner>(
                g_model, engine == "XNNPACK" ? talcflow::TALCEngine::XNNPACK : talcflow::TALCEngine::ArmNN);
            input = sampleInput(elements(runner->getInputTensorDetails(0)));
            for (int k = 0;; ++k) {
                try {
                    outputs.emplace_back(elements(runner->getOutputTensorDetails(k)));
                } catch (const std::out_of_range&) {
                    break;
                }
            }
        }
    }

    void infer() {
        const auto type = talcflow::TALCTensorType::Float32;
        if (floor) {
            std::memcpy(floor->input().data(), input.data(), input.size() * sizeof(float));
            floor->run();
            for (size_t k = 0; k < outputs.size(); ++k)
                std::memcpy(outputs[k].data(), floor->output(k).data(), outputs[k].size() * sizeof(float));
            return;
        }
        runner->SetInputTensorData(0, type, input.data(), input.size() * sizeof(float));
        runner->runInference();
        for (size_t k = 0; k < outputs.size(); ++k)
            runner->GetOutputTensorData(static_cast<int>(k), type, outputs[k].data(), outputs[k].size() * sizeof(float));
    }

    std::vector<std::vector<float>> outputs;

private:
    std::unique_ptr<PlainForwardPass> floor;
    std::unique_ptr<talcflow::TALCModelRunner> runner;
    std::vector<float> input;
};

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    const size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(v.size())));
    return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

void warm(benchmark::State& state, const std::string& engine) {
    Subject subject(engine);
    for (auto _ : state) {
        subject.infer();
        benchmark::DoNotOptimize(subject.outputs[0].data());
    }
    // The floor's outputs are the reference: how far this engine lands from them.
    Subject reference("floor");
    reference.infer();
    double worst = 0.0;
    for (size_t k = 0; k < subject.outputs.size(); ++k)
        for (size_t i = 0; i < subject.outputs[k].size(); ++i)
            worst = std::max(worst, static_cast<double>(std::fabs(subject.outputs[k][i] - reference.outputs[k][i])));
    state.counters["max_abs_diff_vs_floor"] = worst;
}

void paced(benchmark::State& state, const std::string& engine) {
    Subject subject(engine);
    std::vector<double> us;
    auto next = Clock::now();
    for (auto _ : state) {
        next += kPenPeriod;
        std::this_thread::sleep_until(next);
        const auto t0 = Clock::now();
        subject.infer();
        const auto t1 = Clock::now();
        benchmark::DoNotOptimize(subject.outputs[0].data());
        const std::chrono::duration<double> elapsed = t1 - t0;
        state.SetIterationTime(elapsed.count());
        us.push_back(elapsed.count() * 1e6);
    }
    state.counters["p50_us"] = percentile(us, 0.50);
    state.counters["p99_us"] = percentile(us, 0.99);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> rest = {argv[0]};
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--model=", 8) == 0) {
            g_model = argv[i] + 8;
        } else {
            rest.push_back(argv[i]);
        }
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) return 1;
    for (const std::string engine : {"floor", "XNNPACK", "ArmNN"}) {
        benchmark::RegisterBenchmark(("Inference/" + engine + "/warm").c_str(),
                                     [engine](benchmark::State& s) { warm(s, engine); });
        benchmark::RegisterBenchmark(("Inference/" + engine + "/paced60Hz").c_str(),
                                     [engine](benchmark::State& s) { paced(s, engine); })
            ->Iterations(kPacedRuns)
            ->UseManualTime();
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
