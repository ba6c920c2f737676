// The cost of waking the inference thread for a batch at pen rate: a producer hands one batch of 4
// samples every 16.7 ms to a consumer, and the time from the push being called to the consumer
// running is measured (from its return would be negative: the woken thread often runs first). Either the consumer sleeps in the input queue's pop (the library's way), or it spins
// on an atomic sequence number (what keeping the thread awake while a stroke is active would cost
// and give), or it sleeps until shortly before the next batch is due and busy-waits in a window
// around it (the library's way while the pen is down; the window at its default width). The
// consumer's CPU share over the run is the price.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

#include "BatchArrivalEstimator.h"
#include "DataQueue.h"
#include "PredictorParams.h"
#include "StylusPointMessage.h"

namespace {

using Clock = std::chrono::steady_clock;
const auto kPenPeriod = std::chrono::nanoseconds(16'666'667);
constexpr int kBatches = 600;

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

StylusPointMessage batchOfFour() {
    StylusPointMessage message;
    for (uint64_t t = 1000; t < 1016; t += 4) {
        StylusTouchPoint point{};
        point.timestamp = t;
        point.tag = STYLUS_TAG_MOVE;
        message.points.emplace(t, point);
    }
    return message;
}

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    const size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(v.size())));
    return v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1];
}

void report(benchmark::State& state, const std::vector<int64_t>& sent, const std::vector<int64_t>& woke,
            double consumerCpu, double wallSeconds) {
    std::vector<double> us;
    for (size_t i = 0; i < sent.size(); ++i) us.push_back(static_cast<double>(std::max<int64_t>(woke[i] - sent[i], 0)) / 1e3);
    state.counters["p50_us"] = percentile(us, 0.50);
    state.counters["p99_us"] = percentile(us, 0.99);
    state.counters["max_us"] = *std::max_element(us.begin(), us.end());
    state.counters["consumer_cpu_percent"] = 100.0 * consumerCpu / wallSeconds;
}

// The host's side: one batch every pen period into the queue, the push's call time kept in sent;
// stops the queue at the end and gives the run's wall time in seconds.
double sendAtPenRate(DataQueue<StylusPointMessage>& queue, std::vector<int64_t>& sent) {
    const StylusPointMessage batch = batchOfFour();
    const auto begin = Clock::now();
    for (int i = 0; i < kBatches; ++i) {
        std::this_thread::sleep_until(begin + kPenPeriod * (i + 1));
        sent[static_cast<size_t>(i)] = nowNs();
        queue.push(batch);
    }
    queue.stop();
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

void BM_WakeUpFromQueueWait(benchmark::State& state) {
    for (auto _ : state) {
        DataQueue<StylusPointMessage> queue(1, QueueFullPolicy::Block);
        std::vector<int64_t> sent(kBatches), woke(kBatches);
        double cpu = 0.0;
        std::thread consumer([&] {
            const double start = threadCpuSeconds();
            StylusPointMessage message;
            for (int i = 0; queue.pop(message); ++i) woke[static_cast<size_t>(i)] = nowNs();
            cpu = threadCpuSeconds() - start;
        });
        const double wallSeconds = sendAtPenRate(queue, sent);
        consumer.join();
        report(state, sent, woke, cpu, wallSeconds);
    }
}
BENCHMARK(BM_WakeUpFromQueueWait)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_WakeUpOfSpinningThread(benchmark::State& state) {
    for (auto _ : state) {
        std::atomic<int> published{0};
        std::atomic<bool> done{false};
        std::vector<int64_t> sent(kBatches), woke(kBatches);
        double cpu = 0.0;
        std::thread consumer([&] {
            const double start = threadCpuSeconds();
            int seen = 0;
            while (!done.load(std::memory_order_acquire)) {
                const int now = published.load(std::memory_order_acquire);
                if (now != seen) {
                    woke[static_cast<size_t>(now - 1)] = nowNs();
                    seen = now;
                }
            }
            cpu = threadCpuSeconds() - start;
        });
        const auto begin = Clock::now();
        for (int i = 0; i < kBatches; ++i) {
            std::this_thread::sleep_until(begin + kPenPeriod * (i + 1));
            sent[static_cast<size_t>(i)] = nowNs();
            published.store(i + 1, std::memory_order_release);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        done = true;
        consumer.join();
        report(state, sent, woke, cpu, std::chrono::duration<double>(Clock::now() - begin).count());
    }
}
BENCHMARK(BM_WakeUpOfSpinningThread)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// The inference thread's wait without the model: sleep until the window opens, busy-wait in it, and
// fall back to the plain wait when the batch is late or no pace is known yet.
void BM_WakeUpWithSpinWindow(benchmark::State& state) {
    using styluspipeline::BatchArrivalEstimator;
    const auto halfWindow = std::chrono::nanoseconds(int64_t{styluspipeline::PredictorParams::kDefaultSpinWindowUs} * 500);
    for (auto _ : state) {
        DataQueue<StylusPointMessage> queue(1, QueueFullPolicy::Block);
        std::vector<int64_t> sent(kBatches), woke(kBatches);
        double cpu = 0.0;
        std::thread consumer([&] {
            const double start = threadCpuSeconds();
            BatchArrivalEstimator arrivals;
            StylusPointMessage message;
            for (int i = 0;; ++i) {
                bool popped = false;
                bool decided = false;
                const auto now = Clock::now();
                if (arrivals.strokeActive(now)) {
                    const auto expected = arrivals.expectedNextArrival();
                    switch (queue.popUntil(message, expected - halfWindow)) {
                        case QueuePopResult::Popped:
                            popped = decided = true;
                            break;
                        case QueuePopResult::Stopped:
                            decided = true;
                            break;
                        case QueuePopResult::TimedOut:
                            queue.spinUntilReady(expected + halfWindow);
                            break;
                    }
                }
                if (!decided) popped = queue.pop(message);
                if (!popped) break;
                woke[static_cast<size_t>(i)] = nowNs();
                arrivals.noteArrival(Clock::now(), false);
            }
            cpu = threadCpuSeconds() - start;
        });
        const double wallSeconds = sendAtPenRate(queue, sent);
        consumer.join();
        report(state, sent, woke, cpu, wallSeconds);
    }
}
BENCHMARK(BM_WakeUpWithSpinWindow)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
