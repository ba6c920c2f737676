// End-to-end latency through the exported functions: from sendInputTouchPoints returning to the
// host's onPredictions being called for that batch. One pen stroke at 240 Hz, cut into batches of 4
// samples, sent either paced like a pen (one batch every 16.7 ms) or flat out. Each run reports
// p50, p99 and the maximum over every batch that produced a prediction, and the inference thread's
// CPU share between its first and last callback. Models: "minimal" (the generated const_n10_p5),
// "shipped" (models/, engine chosen as the library chooses it) and "shipped_armnn" (the same, forced
// onto Arm NN for comparison). The shipped model at pen rate runs twice: with the inference thread's
// busy-wait window at its default ("paced240Hz") and turned off ("paced240HzNoSpin").
//
// Extra flags (before the Google Benchmark ones):
//   --batches=N          batches per run (default 10000)
//   --shipped-config=P   configuration of the shipped model (default models/stylus_predictor.json)
//   --spin-window-us=N   Pipeline.inferenceSpinWindowUs for the runs with the window on (default: the
//                        library's default)
// The JSON parser includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include "BenchFlags.h"
#include <benchmark/benchmark.h>

#include <algorithm>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "StylusStrokePredictor.h"
#include "CirclingPen.h"
#include "GeneratedModel.h"
#include "TempDir.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kBatchSize = 4;
constexpr double kPenRateHz = 240.0;
const auto kBatchPeriod = std::chrono::nanoseconds(static_cast<int64_t>(1e9 * kBatchSize / kPenRateHz));

size_t g_batchCount = 10000;
std::string g_shippedConfig = STYLUS_SHIPPED_CONFIG;
std::string g_spinWindowUs;  // empty: the library's default

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

int64_t threadCpuNs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Writes a configuration beside a copy of the model: the given model keys, and pipeline keys that keep
// every batch (Block) and record nothing, with the busy-wait window given (empty: left to the default).
std::string writeConfig(const testkit::TempDir& dir, const fs::path& model, boost::property_tree::ptree modelKeys,
                        const std::string& spinWindowUs) {
    fs::copy_file(model, fs::path(dir.path()) / model.filename(), fs::copy_options::overwrite_existing);
    boost::property_tree::ptree tree;
    modelKeys.put("model_name", model.filename().string());
    tree.put_child("PredictionModel", modelKeys);
    tree.put("Pipeline.logLevel", "INFO");
    tree.put("Pipeline.QueueFullPolicy", "Block");
    tree.put("Pipeline.enableDataWriting", false);
    if (!spinWindowUs.empty()) {
        tree.put("Pipeline.inferenceSpinWindowUs", spinWindowUs);
    }
    const std::string config = dir.file("predictor.json");
    boost::property_tree::write_json(config, tree);
    return config;
}

// What the callback needs, global because the callbacks are plain C functions.
struct Run {
    std::vector<uint64_t> newestTimestamp;  // per batch, ascending
    std::vector<int64_t> callNs;            // sender thread only: before the call
    std::vector<int64_t> sentNs;            // sender thread only: after it returned
    std::vector<int64_t> calledNs;          // inference thread only
    // Inference thread only: wall and thread CPU clocks at its first and latest callback.
    int64_t firstCallbackNs = 0;
    int64_t firstCallbackCpuNs = 0;
    int64_t lastCallbackNs = 0;
    int64_t lastCallbackCpuNs = 0;
};
Run g_run;

void onPredictions(const PredictedStylusTouchPoints* predictions) {
    const int64_t now = nowNs();
    const auto& stamps = g_run.newestTimestamp;
    const auto it = std::lower_bound(stamps.begin(), stamps.end(), predictions->timestamp);
    if (it != stamps.end() && *it == predictions->timestamp) {
        g_run.calledNs[static_cast<size_t>(it - stamps.begin())] = now;
    }
    // Read after the latency's clock, so that it does not count.
    const int64_t cpu = threadCpuNs();
    if (g_run.firstCallbackNs == 0) {
        g_run.firstCallbackNs = now;
        g_run.firstCallbackCpuNs = cpu;
    }
    g_run.lastCallbackNs = now;
    g_run.lastCallbackCpuNs = cpu;
}

// A pen circling at 240 Hz: integer millisecond timestamps 4 or 5 ms apart.
std::vector<std::vector<StylusTouchPoint>> makeStroke(size_t batches) {
    std::vector<std::vector<StylusTouchPoint>> stroke(batches);
    size_t k = 0;
    for (auto& batch : stroke) {
        batch.resize(kBatchSize);
        for (auto& sample : batch) {
            sample = testkit::circlingPen(1000 + static_cast<uint64_t>(static_cast<double>(k) * 1000.0 / kPenRateHz),
                                          0.01f * static_cast<float>(k));
            sample.tag = k == 0 ? STYLUS_TAG_PEN_DOWN : STYLUS_TAG_MOVE;
            ++k;
        }
    }
    return stroke;
}

double percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty()) {
        return 0.0;
    }
    const size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    return sorted[std::min(sorted.size(), std::max<size_t>(rank, 1)) - 1];
}

void runLatency(benchmark::State& state, const std::string& modelKind, bool paced, bool spin) {
    testkit::TempDir dir;
    std::string config;
    const std::string spinWindowUs = spin ? g_spinWindowUs : "0";
    if (modelKind == "minimal") {
        config = writeConfig(dir, testkit::generatedModel("const_n10_p5.tflite"), testkit::generatedModelKeys(),
                             spinWindowUs);
    } else {
        boost::property_tree::ptree shipped;
        boost::property_tree::read_json(g_shippedConfig, shipped);
        const fs::path model = fs::path(g_shippedConfig).parent_path() /
                               shipped.get<std::string>("PredictionModel.model_name");
        boost::property_tree::ptree keys = shipped.get_child("PredictionModel");
        if (modelKind == "shipped_armnn") {
            keys.put("inference_engine", "armnn");
        }
        config = writeConfig(dir, model, keys, spinWindowUs);
    }

    const auto stroke = makeStroke(g_batchCount);
    g_run.newestTimestamp.clear();
    for (const auto& batch : stroke) {
        g_run.newestTimestamp.push_back(batch.back().timestamp);
    }
    g_run.callNs.assign(stroke.size(), 0);
    g_run.sentNs.assign(stroke.size(), 0);
    g_run.calledNs.assign(stroke.size(), 0);
    g_run.firstCallbackNs = 0;

    for (auto _ : state) {
        StylusPredictionParams params{config.c_str(), &onPredictions, nullptr};
        StylusLibHandle* handle = InitStylusLib(&params);
        const auto start = Clock::now();
        for (size_t b = 0; b < stroke.size(); ++b) {
            if (paced) {
                std::this_thread::sleep_until(start + kBatchPeriod * static_cast<int64_t>(b));
            }
            g_run.callNs[b] = nowNs();
            if (sendInputTouchPoints(handle, stroke[b].data(), kBatchSize) != 0) {
                state.SkipWithError("a batch was refused under the Block policy");
                break;
            }
            g_run.sentNs[b] = nowNs();
        }
        DeInitStylusLib(handle);  // drains the queue and joins the inference thread
    }

    std::vector<double> latenciesUs;
    std::vector<double> fromCallUs;  // from the call itself: never negative
    size_t callbackFirst = 0;
    for (size_t b = 0; b < stroke.size(); ++b) {
        if (g_run.calledNs[b] == 0) {
            continue;  // no prediction for this batch (history still filling)
        }
        const int64_t latency = g_run.calledNs[b] - g_run.sentNs[b];
        // The callback can run before the sender's clock read after the call returns.
        if (latency < 0) {
            ++callbackFirst;
        }
        latenciesUs.push_back(static_cast<double>(std::max<int64_t>(latency, 0)) / 1000.0);
        fromCallUs.push_back(static_cast<double>(g_run.calledNs[b] - g_run.callNs[b]) / 1000.0);
    }
    std::sort(latenciesUs.begin(), latenciesUs.end());
    std::sort(fromCallUs.begin(), fromCallUs.end());
    state.counters["from_call_p50_us"] = percentile(fromCallUs, 0.50);
    state.counters["from_call_p99_us"] = percentile(fromCallUs, 0.99);
    double sum = 0.0;
    for (double latency : latenciesUs) {
        sum += latency;
    }
    state.counters["batches"] = static_cast<double>(stroke.size());
    state.counters["predicted"] = static_cast<double>(latenciesUs.size());
    state.counters["p50_us"] = percentile(latenciesUs, 0.50);
    state.counters["p99_us"] = percentile(latenciesUs, 0.99);
    state.counters["max_us"] = latenciesUs.empty() ? 0.0 : latenciesUs.back();
    state.counters["mean_us"] = latenciesUs.empty() ? 0.0 : sum / static_cast<double>(latenciesUs.size());
    state.counters["callback_before_return"] = static_cast<double>(callbackFirst);
    const int64_t wallNs = g_run.lastCallbackNs - g_run.firstCallbackNs;
    state.counters["inference_thread_cpu_percent"] =
        wallNs > 0 ? 100.0 * static_cast<double>(g_run.lastCallbackCpuNs - g_run.firstCallbackCpuNs) /
                         static_cast<double>(wallNs)
                   : 0.0;
    state.SetLabel(modelKind + (paced ? ", paced 240 Hz" : ", flat out") + (spin ? "" : ", no busy-wait"));
}

}  // namespace

int main(int argc, char** argv) {
    using benchflags::takeFlag;
    std::vector<char*> rest = {argv[0]};
    for (int i = 1; i < argc; ++i) {
        std::string value;
        if (takeFlag(argv[i], "--batches", value)) {
            g_batchCount = std::max<size_t>(std::stoul(value), 1);
        } else if (takeFlag(argv[i], "--shipped-config", value)) {
            g_shippedConfig = value;
        } else if (takeFlag(argv[i], "--spin-window-us", value)) {
            g_spinWindowUs = value;
        } else {
            rest.push_back(argv[i]);
        }
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) {
        return 1;
    }

    std::vector<std::string> models = {"minimal"};
    if (fs::exists(g_shippedConfig)) {
        models.push_back("shipped");
        models.push_back("shipped_armnn");
    } else {
        std::fprintf(stderr, "No shipped model configuration at %s: only the minimal model is measured\n",
                     g_shippedConfig.c_str());
    }
    struct Variant {
        bool paced;
        bool spin;
        const char* name;
    };
    const Variant variants[] = {{false, true, "flatOut"}, {true, true, "paced240Hz"}, {true, false, "paced240HzNoSpin"}};
    for (const std::string& model : models) {
        for (const Variant& v : variants) {
            if (model == "shipped_armnn" && !v.paced) {
                continue;  // the comparison that matters is at pen rate
            }
            if (model != "shipped" && !v.spin) {
                continue;  // the busy-wait's gain is shown on the shipped model
            }
            const std::string name = "EndToEndLatency/" + model + "/" + v.name;
            benchmark::RegisterBenchmark(name.c_str(), [model, v](benchmark::State& state) {
                runLatency(state, model, v.paced, v.spin);
            })->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
