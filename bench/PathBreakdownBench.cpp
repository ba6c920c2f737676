// Where a batch's time goes between the host's send returning and onPredictions, at pen rate. The
// pipeline's inference loop is rebuilt here from the library's own classes (input queue, arrival
// estimator, back-off, model predictor) with a clock read between its steps, so that the library's
// hot path carries no probe. The host side is the exported send: scan the batch into a message,
// queue it. Per batch, and reported as p50 / p99 of each step:
//   send_us       the host's scan and push (call to return)
//   visible_us    send returned -> the spinning thread sees the batch
//   pop_us        taking it from the queue
//   note_us       arrival bookkeeping and clearing the result
//   predict_us    ModelPredictor::predictStylusTouchPoints (its own split: preprocess_us, model_us)
//   deliver_us    copying the flat array up to the callback
//   total_us      send returned -> callback
// and the allocations and frees per batch on each thread (operator new / delete).
//
// Besides, the core's speed (a fixed register-only computation, work_*) at the start of the wait,
// when the batch is seen and after the callback, and the gap between the last empty poll and the
// poll that saw the batch (poll_gap, with --wait=probed), and whether the sender ran on the
// inference thread's CPU.
//
// Flags (before the Google Benchmark ones): --batches=N (default 3000), --config=P (default the
// shipped configuration), --spin-window-us=N (default the library's default), --period-us=N (batch
// interval, 0 flat out), --rewarm-us=N (the re-warm interval of --wait=library, default 50),
// --wait=library|warm-once|prefetch-once|continuous|cold|probed (how the
// thread waits in the window, below), --probe=1 (time an extra model run and the fixed
// computation), --only-spun=0 (count every batch, not only those awaited by a busy-wait).
#include "BenchFlags.h"
#include <benchmark/benchmark.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "BatchArrivalEstimator.h"
#include "BatchScan.h"
#include "CirclingPen.h"
#include "DataQueue.h"
#include "ModelPredictor.h"
#include "PredictedStylusTouchPointsCpp.h"
#include "PredictorParams.h"
#include "SpinBackoff.h"
#include "StylusPointMessage.h"
#include "TempDir.h"

namespace {

thread_local uint64_t t_allocations = 0;
thread_local uint64_t t_frees = 0;

}  // namespace

void* operator new(std::size_t size) {
    ++t_allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    if (p != nullptr) {
        ++t_frees;
    }
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

namespace {

using styluspipeline::BatchArrivalEstimator;
using styluspipeline::ModelPredictor;
using styluspipeline::PredictedStylusTouchPointsCpp;
using styluspipeline::PredictorParams;
using styluspipeline::SpinBackoff;
using Clock = std::chrono::steady_clock;

constexpr int kBatchSize = 4;
constexpr double kPenRateHz = 240.0;
auto g_batchPeriod = std::chrono::nanoseconds(static_cast<int64_t>(1e9 * kBatchSize / kPenRateHz));

size_t g_batchCount = 3000;
std::string g_config = STYLUS_SHIPPED_CONFIG;
int32_t g_spinWindowUs = PredictorParams::kDefaultSpinWindowUs;
// How the inference thread waits in the window: library (as the library does), warm-once (one
// model warm-up, then a busy-wait), prefetch-once (the same plus one prefetch), continuous (model
// warm-ups until the batch is seen), cold (a busy-wait alone), probed (warm-once, each poll timed).
std::string g_wait = "library";
int32_t g_rewarmUs = 50;  // the library's interval between warm-ups while it busy-waits
bool g_probe = false;     // time one extra model run right after the pop, before the prediction
bool g_onlySpun = true;   // count only batches awaited by a spin

// A fixed chain of dependent arithmetic on registers: its duration shows how fast the core runs
// right now, whatever the caches hold.
int64_t timeFixedWork() {
    const auto start = Clock::now();
    uint64_t x = 88172645463325252ull;
    for (int i = 0; i < 4000; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
    }
    benchmark::DoNotOptimize(x);
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
}

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// Clock points of one batch; host fields written by the sender, the rest by the inference thread.
struct Points {
    int64_t call = 0, scanned = 0, pushed = 0, returned = 0;
    int hostCpu = -1, inferenceCpu = -1;
    int64_t lastEmptyPoll = 0;  // the spinning thread's last poll that found the queue empty
    int64_t seen = 0, popped = 0, noted = 0, predicted = 0, delivered = 0, called = 0;
    int64_t preprocessUs = 0, modelUs = 0;
    int64_t probeNs = 0;
    int64_t cpuAtSpinNs = 0, cpuAtSeenNs = 0, cpuAfterNs = 0;
    bool spun = false;
    uint64_t hostAllocations = 0, hostFrees = 0, inferenceAllocations = 0, inferenceFrees = 0;
};

std::vector<Points> g_points;
size_t g_current = 0;  // inference thread only

void onPredictions(const PredictedStylusTouchPoints*) { g_points[g_current].called = nowNs(); }

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

// The inference thread's loop, step by step as the library runs it, with the clock read between steps.
class InferenceLoop {
public:
    InferenceLoop(const PredictorParams& params, const std::string& metricsPath, DataQueue<StylusPointMessage>& queue,
                  std::atomic<int64_t>& lastSendNs)
        : params(params), queue(queue), lastSendNs(lastSendNs), predictor(params.modelParams, metricsPath) {
        coordinatesCapacity = static_cast<size_t>(std::max(params.modelParams.num_predictions, 1));
        coordinates = std::make_unique<PredictedStylusCoordinate[]>(coordinatesCapacity);
    }

    void run() {
        StylusPointMessage message;
        PredictedStylusTouchPointsCpp result;
        for (size_t batch = 0;; ++batch) {
            message = StylusPointMessage();
            bool spun = false;
            int64_t seen = 0;
            const uint64_t allocationsBefore = t_allocations;
            const uint64_t freesBefore = t_frees;
            if (!takeNextBatch(message, spun, seen)) {
                return;
            }
            Points& p = g_points[batch];
            g_current = batch;
            p.popped = nowNs();
            p.seen = spun ? seen : p.popped;
            p.spun = spun;
            p.lastEmptyPoll = lastEmptyPoll;
            p.inferenceCpu = sched_getcpu();
            arrivals.noteArrival(Clock::now(),
                                 message.hasStrokeBoundary && message.strokeBoundaryPoint.tag == STYLUS_TAG_PEN_UP);
            result.timestamp = 0;
            result.coordinates.clear();
            result.preprocessLatencyUs = 0;
            result.modelLatencyUs = 0;
            if (g_probe) {
                p.cpuAtSeenNs = timeFixedWork();
                const int64_t before = nowNs();
                predictor.warmUp();
                p.probeNs = nowNs() - before;
            }
            p.noted = nowNs();
            const bool ok = predictor.predictStylusTouchPoints(message.points, message.hasStrokeBoundary, result);
            p.predicted = nowNs();
            if (ok) {
                p.preprocessUs = result.preprocessLatencyUs;
                p.modelUs = result.modelLatencyUs;
                const size_t count = result.coordinates.size();
                std::copy(result.coordinates.begin(), result.coordinates.end(), coordinates.get());
                PredictedStylusTouchPoints flat{};
                flat.timestamp = result.timestamp;
                flat.coordinates = coordinates.get();
                flat.numCoordinates = static_cast<int32_t>(count);
                p.delivered = nowNs();
                onPredictions(&flat);
            }
            if (g_probe) {
                p.cpuAfterNs = timeFixedWork();
                p.cpuAtSpinNs = cpuAtSpin;
            }
            p.inferenceAllocations = t_allocations - allocationsBefore;
            p.inferenceFrees = t_frees - freesBefore;
        }
    }

private:
    bool takeNextBatch(StylusPointMessage& message, bool& spun, int64_t& seen) {
        const auto halfWindow = std::chrono::nanoseconds(int64_t{params.inferenceSpinWindowUs} * 1000 / 2);
        const Clock::time_point now = Clock::now();
        if (halfWindow.count() == 0 || !arrivals.strokeActive(now)) {
            return queue.pop(message);
        }
        if (!backoff.spinAllowed()) {
            backoff.noteSkippedSpin();
            return queue.pop(message);
        }
        const Clock::time_point expected = arrivals.expectedNextArrival();
        const Clock::time_point spinEnd = expected + halfWindow;
        if (now >= spinEnd) {
            return queue.pop(message);
        }
        switch (queue.popUntil(message, expected - halfWindow)) {
            case QueuePopResult::Popped:
                return true;
            case QueuePopResult::Stopped:
                return false;
            case QueuePopResult::TimedOut:
                break;
        }
        if (g_probe) {
            cpuAtSpin = timeFixedWork();
        }
        if (g_wait == "library") {
            // As the library waits: warm up and prefetch, again every interval, busy-waiting in between.
            const auto interval = std::chrono::microseconds(g_rewarmUs);
            for (;;) {
                predictor.warmUp();
                predictor.prefetchForNextBatch();
                const Clock::time_point until = std::min(spinEnd, Clock::now() + interval);
                spun = queue.spinUntilReady(until);
                if (spun || until >= spinEnd) {
                    break;
                }
            }
        } else if (g_wait == "continuous") {
            do {
                predictor.warmUp();
            } while (!queue.hasItems() && !queue.isStopped() && Clock::now() < spinEnd);
            spun = queue.hasItems() || queue.isStopped();
        } else {
            if (g_wait != "cold") {
                predictor.warmUp();
            }
            if (g_wait == "prefetch-once") {
                predictor.prefetchForNextBatch();
            }
            spun = g_wait == "probed" ? probedSpin(spinEnd) : queue.spinUntilReady(spinEnd);
        }
        seen = nowNs();
        if (!queue.pop(message)) {
            return false;
        }
        backoff.noteSpin(std::chrono::nanoseconds(nowNs() - lastSendNs.load(std::memory_order_relaxed)));
        return true;
    }

    // The queue's busy-wait, with the clock read at every poll so that a gap in the polling shows.
    bool probedSpin(Clock::time_point deadline) {
        for (uint32_t poll = 1;; ++poll) {
            if (queue.hasItems() || queue.isStopped()) {
                return true;
            }
            const int64_t now = nowNs();
            lastEmptyPoll = now;
            if (poll % 16 == 0) {
                if (Clock::now() >= deadline) {
                    return false;
                }
                std::this_thread::yield();
            } else {
                cpuRelax();
            }
        }
    }

public:
    int64_t lastEmptyPoll = 0;

private:
    const PredictorParams& params;
    DataQueue<StylusPointMessage>& queue;
    std::atomic<int64_t>& lastSendNs;
    ModelPredictor predictor;
    BatchArrivalEstimator arrivals;
    SpinBackoff backoff;
    int64_t cpuAtSpin = 0;
    std::unique_ptr<PredictedStylusCoordinate[]> coordinates;
    size_t coordinatesCapacity = 0;
};

double percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0.0;
    }
    std::sort(v.begin(), v.end());
    const size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(v.size())));
    return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

void BM_PathBreakdown(benchmark::State& state) {
    testkit::TempDir dir;
    PredictorParams params(g_config);
    params.inferenceSpinWindowUs = g_spinWindowUs;
    const auto stroke = makeStroke(g_batchCount);
    for (auto _ : state) {
        g_points.assign(stroke.size(), Points{});
        DataQueue<StylusPointMessage> queue(1, params.queueFullPolicy);
        std::atomic<int64_t> lastSendNs{0};
        InferenceLoop loop(params, dir.file("runningMetrics.txt"), queue, lastSendNs);
        std::thread inference([&] { loop.run(); });
        const auto start = Clock::now();
        for (size_t b = 0; b < stroke.size(); ++b) {
            std::this_thread::sleep_until(start + g_batchPeriod * static_cast<int64_t>(b));
            Points& p = g_points[b];
            const uint64_t allocationsBefore = t_allocations;
            const uint64_t freesBefore = t_frees;
            p.call = nowNs();
            {
                StylusPointMessage message;
                styluspipeline::scanBatch(stroke[b].data(), kBatchSize, message);
                p.scanned = nowNs();
                lastSendNs.store(nowNs(), std::memory_order_relaxed);
                queue.push(message);
                p.pushed = nowNs();
                p.hostCpu = sched_getcpu();
            }
            p.returned = nowNs();
            p.hostAllocations = t_allocations - allocationsBefore;
            p.hostFrees = t_frees - freesBefore;
        }
        queue.stop();
        inference.join();
    }

    // Only batches awaited by a spin that saw them after the send returned: the steady state the
    // window is for.
    std::vector<double> send, visible, pop, note, predict, preprocess, model, deliver, total, probe, cpuSpin,
        cpuSeen, cpuAfter, pollGap, seenAfterPush, pushToReturn;
    double hostAllocations = 0, hostFrees = 0, inferenceAllocations = 0, inferenceFrees = 0;
    size_t counted = 0;
    size_t sameCpu = 0;
    const auto us = [](int64_t ns) { return static_cast<double>(ns) / 1000.0; };
    for (const Points& p : g_points) {
        if ((g_onlySpun && !p.spun) || p.called == 0) {
            continue;
        }
        ++counted;
        sameCpu += p.hostCpu == p.inferenceCpu ? 1 : 0;
        send.push_back(us(p.returned - p.call));
        visible.push_back(us(std::max<int64_t>(p.seen - p.returned, 0)));
        probe.push_back(us(p.probeNs));
        cpuSpin.push_back(us(p.cpuAtSpinNs));
        if (p.lastEmptyPoll != 0) {  // only the probed wait records its polls
            pollGap.push_back(us(p.seen - p.lastEmptyPoll));
        }
        seenAfterPush.push_back(us(p.seen - p.pushed));
        pushToReturn.push_back(us(p.returned - p.pushed));
        cpuSeen.push_back(us(p.cpuAtSeenNs));
        cpuAfter.push_back(us(p.cpuAfterNs));
        pop.push_back(us(p.popped - p.seen));
        note.push_back(us(p.noted - p.popped));
        predict.push_back(us(p.predicted - p.noted));
        preprocess.push_back(static_cast<double>(p.preprocessUs));
        model.push_back(static_cast<double>(p.modelUs));
        deliver.push_back(us(p.called - p.predicted));
        total.push_back(us(std::max<int64_t>(p.called - p.returned, 0)));
        hostAllocations += static_cast<double>(p.hostAllocations);
        hostFrees += static_cast<double>(p.hostFrees);
        inferenceAllocations += static_cast<double>(p.inferenceAllocations);
        inferenceFrees += static_cast<double>(p.inferenceFrees);
    }
    const struct {
        const char* name;
        const std::vector<double>* values;
    } steps[] = {{"send", &send},
                 {"visible", &visible},
                 {"pop", &pop},
                 {"note", &note},
                 {"predict", &predict},
                 {"preprocess", &preprocess},
                 {"model", &model},
                 {"deliver", &deliver},
                 {"total", &total},
                 {"probe", &probe},
                 {"work_spin", &cpuSpin},
                 {"work_seen", &cpuSeen},
                 {"work_after", &cpuAfter},
                 {"poll_gap", &pollGap},
                 {"seen_after_push", &seenAfterPush},
                 {"push_to_return", &pushToReturn}};
    for (const auto& step : steps) {
        if (step.values->empty()) {
            continue;
        }
        state.counters[std::string(step.name) + "_p50_us"] = percentile(*step.values, 0.50);
        state.counters[std::string(step.name) + "_p99_us"] = percentile(*step.values, 0.99);
    }
    const double n = std::max<double>(static_cast<double>(counted), 1.0);
    state.counters["spun_batches"] = static_cast<double>(counted);
    state.counters["same_cpu_percent"] = 100.0 * static_cast<double>(sameCpu) / n;
    state.counters["host_allocations_per_batch"] = hostAllocations / n;
    state.counters["host_frees_per_batch"] = hostFrees / n;
    state.counters["inference_allocations_per_batch"] = inferenceAllocations / n;
    state.counters["inference_frees_per_batch"] = inferenceFrees / n;
}

}  // namespace

int main(int argc, char** argv) {
    using benchflags::takeFlag;
    std::vector<char*> rest = {argv[0]};
    for (int i = 1; i < argc; ++i) {
        std::string value;
        if (takeFlag(argv[i], "--batches", value)) {
            g_batchCount = std::max<size_t>(std::stoul(value), 1);
        } else if (takeFlag(argv[i], "--config", value)) {
            g_config = value;
        } else if (takeFlag(argv[i], "--period-us", value)) {
            g_batchPeriod = std::chrono::microseconds(std::stoi(value));
        } else if (takeFlag(argv[i], "--only-spun", value)) {
            g_onlySpun = value == "1";
        } else if (takeFlag(argv[i], "--rewarm-us", value)) {
            g_rewarmUs = std::stoi(value);
        } else if (takeFlag(argv[i], "--wait", value)) {
            g_wait = value;
        } else if (takeFlag(argv[i], "--probe", value)) {
            g_probe = value == "1";
        } else if (takeFlag(argv[i], "--spin-window-us", value)) {
            g_spinWindowUs = std::stoi(value);
        } else {
            rest.push_back(argv[i]);
        }
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) {
        return 1;
    }
    benchmark::RegisterBenchmark("PathBreakdown/paced240Hz", BM_PathBreakdown)
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
