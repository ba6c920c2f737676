// The input queue's hand-off alone, with the real message (a batch of 4 samples in a map): the cost
// of push and pop on one thread, and the latency of a hand-off to a waiting thread, measured as a
// ping-pong between two queues (one iteration = two hand-offs).
#include <benchmark/benchmark.h>

#include <chrono>
#include <thread>

#include "DataQueue.h"
#include "StylusPointMessage.h"

namespace {

StylusPointMessage batchOfFour() {
    StylusPointMessage message;
    for (uint64_t t = 1000; t < 1016; t += 4) {
        StylusTouchPoint point{};
        point.timestamp = t;
        point.x_pos = static_cast<float>(t);
        point.tag = STYLUS_TAG_MOVE;
        message.points.emplace(t, point);
    }
    return message;
}

void BM_QueuePushPopSameThread(benchmark::State& state) {
    DataQueue<StylusPointMessage> queue(1, QueueFullPolicy::Block);
    const StylusPointMessage message = batchOfFour();
    StylusPointMessage out;
    for (auto _ : state) {
        queue.push(message);
        queue.pop(out);
        benchmark::DoNotOptimize(out.points.size());
    }
}
BENCHMARK(BM_QueuePushPopSameThread);

void BM_QueueHandOffRoundTrip(benchmark::State& state) {
    DataQueue<StylusPointMessage> toWorker(1, QueueFullPolicy::Block);
    DataQueue<StylusPointMessage> back(1, QueueFullPolicy::Block);
    std::thread worker([&] {
        StylusPointMessage message;
        while (toWorker.pop(message)) {
            back.push(message);
        }
    });
    const StylusPointMessage message = batchOfFour();
    StylusPointMessage out;
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        toWorker.push(message);
        back.pop(out);
    }
    const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
    toWorker.stop();
    worker.join();
    // Half a round trip is one hand-off from a pushing thread to a thread waiting in pop.
    state.counters["handoff_us"] = elapsed.count() / static_cast<double>(state.iterations()) / 2.0;
}
BENCHMARK(BM_QueueHandOffRoundTrip)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
