#include "ReplayHost.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "ReplayError.h"

namespace replay {

namespace {

// Filled on the library's inference thread, emptied by the host thread after a drain.
struct CallbackSink {
    std::mutex mutex;
    std::vector<CallbackRecord> records;
};

CallbackSink sink;
std::atomic<bool> hostExists{false};

constexpr auto drainTimeout = std::chrono::seconds(60);
constexpr auto pollInterval = std::chrono::microseconds(100);

void onPredictions(const PredictedStylusTouchPoints* predictions) {
    CallbackRecord record;
    record.receivedAt = std::chrono::steady_clock::now();
    record.timestamp = predictions->timestamp;
    // The library frees its array when this returns.
    if (predictions->coordinates != nullptr && predictions->numCoordinates > 0) {
        record.coordinates.assign(predictions->coordinates, predictions->coordinates + predictions->numCoordinates);
    }
    record.preprocessLatencyUs = predictions->preprocessLatencyUs;
    record.modelLatencyUs = predictions->modelLatencyUs;
    const std::lock_guard<std::mutex> lock(sink.mutex);
    sink.records.push_back(std::move(record));
}

}  // namespace

ReplayHost::ReplayHost(const std::string& configPath) {
    if (hostExists.exchange(true)) {
        throw ReplayError("only one replay host can run at a time");
    }
    const StylusPredictionParams params{configPath.c_str(), &onPredictions, nullptr};
    try {
        handle = InitStylusLib(&params);
    } catch (const std::exception& error) {
        hostExists = false;
        throw ReplayError(configPath + ": the predictor did not start: " + error.what());
    }
}

ReplayHost::~ReplayHost() {
    DeInitStylusLib(handle);
    hostExists = false;
}

RecordingReplay ReplayHost::replay(const Recording& recording, const Batching& batching, bool realtime,
                                   const std::function<void(std::size_t)>& progress) {
    {
        const std::lock_guard<std::mutex> lock(sink.mutex);
        sink.records.clear();
    }
    RecordingReplay result;
    result.sends.resize(batching.batches.size());
    if (recording.samples.empty()) {
        return result;
    }
    const auto start = std::chrono::steady_clock::now();
    const uint64_t firstTimestamp = recording.samples.front().timestamp;
    for (std::size_t i = 0; i < batching.batches.size(); ++i) {
        const Batch& batch = batching.batches[i];
        const StylusTouchPoint* points = recording.samples.data() + batch.first;
        if (realtime) {
            // A panel reports a batch once its newest sample has been taken.
            std::this_thread::sleep_until(start + std::chrono::milliseconds(points[batch.count - 1].timestamp -
                                                                            firstTimestamp));
        }
        const int status = sendInputTouchPoints(handle, points, static_cast<int>(batch.count));
        result.sends[i] = {status == 0, std::chrono::steady_clock::now()};
        if (progress) {
            progress(i + 1);
        }
    }
    closeStrokeAndDrain(recording.samples.back());
    const std::lock_guard<std::mutex> lock(sink.mutex);
    result.callbacks.swap(sink.records);
    return result;
}

// areAllInputPointsProcessed can report true in the short moment after the inference thread has
// taken a batch and before it marks itself busy. A final batch queued behind the real ones closes
// that gap: once it has left the queue, every real batch has been handled, and the query then
// turns true only after the final batch too. Being a pen-up, it also resets the predictor.
void ReplayHost::closeStrokeAndDrain(const StylusTouchPoint& last) {
    StylusTouchPoint penUp = last;
    penUp.tag = STYLUS_TAG_PEN_UP;
    const auto deadline = std::chrono::steady_clock::now() + drainTimeout;
    while (sendInputTouchPoints(handle, &penUp, 1) != 0) {  // refused only under Reject Newest
        if (std::chrono::steady_clock::now() > deadline) {
            throw ReplayError("the predictor refused every batch for 60 s");
        }
        std::this_thread::sleep_for(pollInterval);
    }
    while (areAllInputPointsProcessed(handle) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw ReplayError("the predictor did not finish its batches within 60 s");
        }
        std::this_thread::sleep_for(pollInterval);
    }
}

LibraryMetrics ReplayHost::metrics() const {
    LibraryMetrics metrics;
    metrics.available = true;
    metrics.distanceErrorMm = getMetricsDistanceError(handle);
    metrics.angleDevErrorDeg = getMetricsAngleDevError(handle);
    metrics.valid = getMetricsAreValid(handle);
    return metrics;
}

int ReplayHost::numPredictedPoints() const { return ::numPredictedPoints(handle); }

}  // namespace replay
