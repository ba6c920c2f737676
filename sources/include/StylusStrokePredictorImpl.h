#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BatchArrivalEstimator.h"
#include "DataQueue.h"
#include "ModelPredictor.h"
#include "PredictorParams.h"
#include "SpinBackoff.h"
#include "StylusDataWriter.h"
#include "StylusPointMessage.h"
#include "StylusStrokePredictor.h"

namespace styluspipeline {

// The prediction pipeline behind one handle: configuration, input queue, model, inference thread
// and the optional recorder. Host threads call in; one inference thread works the queue.
class StylusStrokePredictorImpl {
public:
    // Throws when the configuration or the model cannot be loaded, or the thread cannot start.
    explicit StylusStrokePredictorImpl(const StylusPredictionParams& hostParams);
    // Stops, as stop() does, then tears down.
    ~StylusStrokePredictorImpl();
    StylusStrokePredictorImpl(const StylusStrokePredictorImpl&) = delete;
    StylusStrokePredictorImpl& operator=(const StylusStrokePredictorImpl&) = delete;

    // Stops the input queue, lets the inference thread finish a queued batch, then drains and stops
    // the recorder. Later batches are refused. Call from one thread, not racing the other calls.
    void stop();
    // Final once stop() has returned; zeros without a recorder.
    RecorderCounts recorderCounts() const;
    // Whether batches may be recorded, so that the host thread copies them whole.
    bool recordsInput() const { return dataWriter != nullptr; }

    // True if queued. Under Reject Newest a batch arriving while another waits is refused.
    bool sendInputTouchPoints(const StylusPointMessage& message);
    void runModelInference();
    bool areAllInputPointsProcessed() const;
    int numPredictedPoints() const;

    void setCurrentThreadCoreAffinity();

    bool controlDataWriting(bool enable);
    bool getUserDataCollectConsentFromPersistenceFile(const std::string& path, int& value);
    bool setUserDataCollectConsentToPersistenceFile(const std::string& path, int value);

    float getMetricsDistanceError();
    float getMetricsAngleDevError();
    bool getMetricsAreValid();
    unsigned int getMetricsEventCount();

private:
    // Waits for the next batch; false once the input queue is stopped and drained. While a stroke is
    // active the thread sleeps only until shortly before the next batch is due, warms the model up
    // and busy-waits for it, so that the batch does not wait for the thread to be woken; not while
    // the machine has shown that it has no core to spare for that.
    bool takeNextBatch(StylusPointMessage& message);
    // Reads what the next batch's prediction and delivery will touch; changes nothing.
    void prefetchForNextBatch() const;
    void recordBatch(const StylusPointMessage& message);
    void deliverPredictions(const StylusPointMessage& message, const PredictedStylusTouchPointsCpp& result);

    // How long the busy-wait runs before the model and the prediction's data are brought back again.
    static constexpr std::chrono::microseconds kRewarmInterval{50};

    std::string logTag = "StylusPredictor";
    int32_t statsInterval = 120;
    std::string consentFileName = "data_collect_user_pref";
    int64_t maxModelLatencyUs = 0;
    // Host threads update these without a lock and may lose counts; only a log line depends on them.
    // Relaxed atomics keep that looseness without a data race.
    std::atomic<int32_t> inputCallCount{0};
    std::atomic<int32_t> queueFullCount{0};
    PredictorParams params;
    std::string consentFilePath;
    DataQueue<StylusPointMessage> inputQueue;
    ModelPredictor modelPredictor;
    BatchArrivalEstimator batchArrivals;  // inference thread only
    SpinBackoff spinBackoff;              // inference thread only
    // Steady-clock time at which the latest batch was handed to the queue, so that the inference
    // thread can tell how long a batch waited for it.
    std::atomic<int64_t> lastSendNs{0};
    std::thread inferenceThread;
    std::map<unsigned long, StylusTouchPoint> lastInputPoints;
    StylusPredictionCallback onPredictions;
    StylusInputPointsCallback onInputPoints;
    // The arrays handed to the callbacks, kept across batches so that the inference thread does not
    // allocate per batch; the prediction array is sized at start for the largest prediction count.
    std::unique_ptr<PredictedStylusCoordinate[]> callbackCoordinates;
    size_t callbackCoordinatesCapacity = 0;
    std::vector<StylusTouchPoint> callbackInputPoints;
    std::atomic<bool> allInputProcessed{false};
    std::unique_ptr<StylusDataWriter> dataWriter;
    std::atomic<bool> dataWritingEnabled{false};
};

}  // namespace styluspipeline
