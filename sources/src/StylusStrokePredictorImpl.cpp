#include "StylusStrokePredictorImpl.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <locale>
#include <sstream>
#include <vector>

#include "CacheTouch.h"
#include "SharedDirectoryFile.h"
#include "velmar/Log.h"

#define VELMAR_LOG_SOURCE "src/StylusStrokePredictorImpl"

namespace styluspipeline {

namespace {

int64_t steadyNowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               BatchArrivalEstimator::Clock::now().time_since_epoch())
        .count();
}

}  // namespace

StylusStrokePredictorImpl::StylusStrokePredictorImpl(const StylusPredictionParams& hostParams)
    : params(std::string(hostParams.configFilePath)),
      consentFilePath(params.dataFileDirectory + "/" + consentFileName),
      inputQueue(1, params.queueFullPolicy),
      modelPredictor(params.modelParams),
      onPredictions(hostParams.onPredictions),
      onInputPoints(hostParams.onInputPoints) {
    callbackCoordinatesCapacity = static_cast<size_t>(std::max(params.modelParams.num_predictions, 1));
    callbackCoordinates = std::make_unique<PredictedStylusCoordinate[]>(callbackCoordinatesCapacity);
    inferenceThread = std::thread(&StylusStrokePredictorImpl::runModelInference, this);

    if (params.enableDataWriting) {
        VELMAR_LOG(velmar::Info, logTag, "Stylus Data Writing enabled");
        StylusDataWriterParams writerParams;
        writerParams.dataFileDirectory = params.dataFileDirectory;
        writerParams.dataFileNameSuffix = params.dataFileNameSuffix;
        writerParams.chunkSizeInRecords = params.chunkSizeInRecords;
        writerParams.numChunksInFile = params.numChunksInFile;
        writerParams.diskFillPercentTh = params.diskFillPercentTh;
        writerParams.diskCheckPath = params.diskCheckPath;
        try {
            dataWriter = std::make_unique<StylusDataWriter>(writerParams);
        } catch (...) {
            // The inference thread is already running: stop it before the exception unwinds us.
            inputQueue.stop();
            inferenceThread.join();
            throw;
        }
    }

    std::vector<std::string> leftAlone;
    if (shareddirectory::removeStaleTemporaries(consentFilePath, leftAlone) > 0) {
        VELMAR_LOG(velmar::Warning, logTag, "Removed temporary files an interrupted write left beside " << consentFilePath);
    }
    int consent = -1;
    if (getUserDataCollectConsentFromPersistenceFile(consentFilePath, consent)) {
        VELMAR_LOG(velmar::Info, logTag, " User Persist Value : " << consent);
        if (consent >= 1) {
            dataWritingEnabled.store(true);
            VELMAR_LOG(velmar::Info, logTag, "Data Writing enabled for runtime control");
        }
    }
    VELMAR_LOG(velmar::Info, logTag, "StylusStrokePredictor constructor");
}

StylusStrokePredictorImpl::~StylusStrokePredictorImpl() {
    stop();
    VELMAR_LOG(velmar::Info, logTag, "StylusStrokePredictor destructor");
}

void StylusStrokePredictorImpl::stop() {
    inputQueue.stop();
    if (inferenceThread.joinable()) {
        inferenceThread.join();
    }
    // Only now, with the inference thread gone, is the recorder's producer side quiet.
    if (dataWriter != nullptr) {
        dataWriter->stop();
    }
}

RecorderCounts StylusStrokePredictorImpl::recorderCounts() const {
    return dataWriter != nullptr ? dataWriter->counts() : RecorderCounts{};
}

bool StylusStrokePredictorImpl::sendInputTouchPoints(const StylusPointMessage& message) {
    lastSendNs.store(steadyNowNs(), std::memory_order_relaxed);
    const bool pushed = inputQueue.push(message);
    const int32_t calls = inputCallCount.load(std::memory_order_relaxed) + 1;
    inputCallCount.store(calls, std::memory_order_relaxed);
    if (calls >= statsInterval) {
        const int32_t refused = queueFullCount.load(std::memory_order_relaxed);
        if (refused >= 1) {
            VELMAR_LOG(velmar::Info, logTag,
                       "QueueFullCount : " << refused << " over last " << statsInterval << " iterations ");
        }
        inputCallCount.store(0, std::memory_order_relaxed);
        queueFullCount.store(0, std::memory_order_relaxed);
    } else if (!pushed) {
        queueFullCount.store(queueFullCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    return pushed;
}

void StylusStrokePredictorImpl::runModelInference() {
    setCurrentThreadCoreAffinity();

    int32_t iterations = 0;
    int64_t latencySum = 0;
    StylusPointMessage message;
    PredictedStylusTouchPointsCpp result;
    while (true) {
        message = StylusPointMessage();
        if (!takeNextBatch(message)) {
            return;
        }
        allInputProcessed.store(false);
        batchArrivals.noteArrival(BatchArrivalEstimator::Clock::now(),
                                  message.hasStrokeBoundary && message.strokeBoundaryPoint.tag == STYLUS_TAG_PEN_UP);

        result.timestamp = 0;
        result.coordinates.clear();
        result.preprocessLatencyUs = 0;
        result.modelLatencyUs = 0;
        bool ok = false;
        try {
            ok = modelPredictor.predictStylusTouchPoints(message.points, message.hasStrokeBoundary, result);
        } catch (const std::exception& error) {
            // An exception leaving this thread would end the host process. The predictor throws only
            // when the runtime or the metrics fail; that batch yields no prediction and the thread
            // goes on with the next one.
            VELMAR_LOG(velmar::Error, logTag, "Prediction failed : " << error.what());
        }

        recordBatch(message);

        if (!ok) {
            allInputProcessed.store(true);
            VELMAR_LOG(velmar::Verbose, logTag, "Predictions not available yet");
            continue;
        }

        deliverPredictions(message, result);

        VELMAR_LOG(velmar::Verbose, logTag, "ModelLatency in us : " << result.modelLatencyUs);
        ++iterations;
        if (iterations < statsInterval) {
            maxModelLatencyUs = std::max(maxModelLatencyUs, result.modelLatencyUs);
            latencySum += result.modelLatencyUs;
        } else {
            // The 120th latency joins neither the maximum nor the sum, yet the average divides by 120.
            VELMAR_LOG(velmar::Info, logTag,
                       "ModelLatency (max, avg in us) :: (" << maxModelLatencyUs << ", "
                                                            << static_cast<float>(latencySum) /
                                                                   static_cast<float>(statsInterval)
                                                            << ") over last " << statsInterval << " iterations");
            maxModelLatencyUs = 0;
            const float distance = modelPredictor.getMetricsDistanceError();
            const float angle = modelPredictor.getMetricsAngleDevError();
            const unsigned int count = modelPredictor.getMetricsEventCount();
            VELMAR_LOG(velmar::Info, logTag,
                       "Model Accuracy :: Dist Error Mean: " << distance << ", Angle Dev Std: " << angle
                                                             << ", Count: " << count);
            latencySum = 0;
            iterations = 0;
            maxModelLatencyUs = 0;
        }
        allInputProcessed.store(true);
    }
}

bool StylusStrokePredictorImpl::takeNextBatch(StylusPointMessage& message) {
    using Clock = BatchArrivalEstimator::Clock;
    const auto halfWindow = std::chrono::nanoseconds(int64_t{params.inferenceSpinWindowUs} * 1000 / 2);
    const Clock::time_point now = Clock::now();
    if (halfWindow.count() == 0 || !batchArrivals.strokeActive(now)) {
        return inputQueue.pop(message);
    }
    if (!spinBackoff.spinAllowed()) {
        spinBackoff.noteSkippedSpin();
        return inputQueue.pop(message);
    }
    const Clock::time_point expected = batchArrivals.expectedNextArrival();
    const Clock::time_point spinEnd = expected + halfWindow;
    if (now >= spinEnd) {
        return inputQueue.pop(message);
    }
    switch (inputQueue.popUntil(message, expected - halfWindow)) {
        case QueuePopResult::Popped:
            return true;
        case QueuePopResult::Stopped:
            return false;
        case QueuePopResult::TimedOut:
            break;
    }
    // After a sleep of most of a batch interval the model's weights and the data and code of a
    // prediction are out of the caches and their pages out of the address-translation caches, and
    // they drift out again within a fraction of the window; bringing them back now and every
    // kRewarmInterval of the wait keeps those misses out of the batch's latency. A late batch falls
    // through to the ordinary wait.
    for (;;) {
        modelPredictor.warmUp();
        prefetchForNextBatch();
        const Clock::time_point until = std::min(spinEnd, Clock::now() + kRewarmInterval);
        if (inputQueue.spinUntilReady(until) || until >= spinEnd) {
            break;
        }
    }
    if (!inputQueue.pop(message)) {
        return false;
    }
    spinBackoff.noteSpin(std::chrono::nanoseconds(steadyNowNs() - lastSendNs.load(std::memory_order_relaxed)));
    return true;
}

void StylusStrokePredictorImpl::prefetchForNextBatch() const {
    modelPredictor.prefetchForNextBatch();
    touchForRead(callbackCoordinates.get(), callbackCoordinatesCapacity * sizeof(PredictedStylusCoordinate));
}

void StylusStrokePredictorImpl::recordBatch(const StylusPointMessage& message) {
    if (!params.enableDataWriting || dataWriter == nullptr) {
        return;
    }
    if (params.canControlDataWritingAtRunTime && !dataWritingEnabled.load()) {
        return;
    }
    // Every sample as the host sent it: the moves before a boundary and repeated timestamps too.
    if (!dataWriter->writeSamples(message.sent)) {
        VELMAR_LOG(velmar::Error, logTag, "Data dropped for writing stylus touch data");
    }
}

void StylusStrokePredictorImpl::deliverPredictions(const StylusPointMessage& message,
                                                   const PredictedStylusTouchPointsCpp& result) {
    // The arrays cross to the host and are valid only for the duration of its callbacks; they are
    // reused for the next batch.
    const size_t count = result.coordinates.size();
    if (count > callbackCoordinatesCapacity) {
        callbackCoordinates = std::make_unique<PredictedStylusCoordinate[]>(count);
        callbackCoordinatesCapacity = count;
    }
    std::copy(result.coordinates.begin(), result.coordinates.end(), callbackCoordinates.get());
    PredictedStylusTouchPoints flat{};
    flat.timestamp = result.timestamp;
    flat.coordinates = callbackCoordinates.get();
    flat.numCoordinates = static_cast<int32_t>(count);
    flat.preprocessLatencyUs = result.preprocessLatencyUs;
    flat.modelLatencyUs = result.modelLatencyUs;
    onPredictions(&flat);

    if (onInputPoints != nullptr) {
        callbackInputPoints.clear();
        for (const auto& entry : message.points) {
            callbackInputPoints.push_back(entry.second);
        }
        onInputPoints(callbackInputPoints.data(), static_cast<int>(callbackInputPoints.size()));
    }
}

bool StylusStrokePredictorImpl::areAllInputPointsProcessed() const {
    return inputQueue.size() == 0 && allInputProcessed.load();
}

int StylusStrokePredictorImpl::numPredictedPoints() const { return params.modelParams.num_predictions; }

void StylusStrokePredictorImpl::setCurrentThreadCoreAffinity() {
    const int64_t tid = static_cast<int64_t>(syscall(SYS_gettid));
    VELMAR_LOG(velmar::Info, logTag, "Predictive Model Inference Thread ID : " << tid);
    if (!params.cpusetFile.empty()) {
        // The cpuset file wins over a core number.
        FILE* file = std::fopen(params.cpusetFile.c_str(), "a");
        if (file != nullptr) {
            std::fprintf(file, "%lld\n", static_cast<long long>(tid));
            std::fclose(file);
            VELMAR_LOG(velmar::Info, logTag,
                       "cpuset file written : " << params.cpusetFile << " for tid : " << tid);
        } else {
            VELMAR_LOG(velmar::Error, logTag, "Failed to open cpu set file : " << params.cpusetFile);
        }
        return;
    }
    if (params.coreAffinity >= 0) {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        if (params.coreAffinity < CPU_SETSIZE) {
            CPU_SET(params.coreAffinity, &cpus);
        }
        if (sched_setaffinity(0, sizeof(cpus), &cpus) < 0) {
            VELMAR_LOG(velmar::Error, logTag, "Cannot set affinity to core : " << params.coreAffinity);
        } else {
            VELMAR_LOG(velmar::Info, logTag, "Core affinity set to core : " << params.coreAffinity);
        }
    }
}

bool StylusStrokePredictorImpl::controlDataWriting(bool enable) {
    if (!params.canControlDataWritingAtRunTime) {
        VELMAR_LOG(velmar::Error, logTag,
                   "Cannot control data writing at runtime. Please enable the flag canControlDataWritingAtRunTime "
                   "in the config file");
        return false;
    }
    if (dataWriter == nullptr) {
        VELMAR_LOG(velmar::Error, logTag,
                   "StylusDataWriter not created. Please enable the flag enableDataWriting in the config file");
        return false;
    }
    // A failed write loses only the persistence; the switch still applies to this run.
    if (!setUserDataCollectConsentToPersistenceFile(consentFilePath, enable ? 1 : 0)) {
        VELMAR_LOG(velmar::Error, logTag, "Unable to set android system property");
    }
    if (enable) {
        VELMAR_LOG(velmar::Info, logTag, "Data Writing enabled at runtime");
    } else {
        VELMAR_LOG(velmar::Info, logTag, "Data Writing disabled at runtime");
    }
    dataWritingEnabled.store(enable);
    return true;
}

// The consent file lies in the recording directory, which another process may write into: it is
// read only if it is a small regular file, and replaced rather than written through (see
// SharedDirectoryFile.h).
bool StylusStrokePredictorImpl::getUserDataCollectConsentFromPersistenceFile(const std::string& path, int& value) {
    constexpr size_t kMaxConsentFileBytes = 4096;
    std::string text;
    std::string reason;
    bool notFound = false;
    if (!shareddirectory::readSmall(path, kMaxConsentFileBytes, text, reason, notFound)) {
        if (!notFound) {
            VELMAR_LOG(velmar::Warning, logTag, "Consent file " << path << " not read (" << reason << ")");
        }
        return false;
    }
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    in >> value;
    return true;
}

bool StylusStrokePredictorImpl::setUserDataCollectConsentToPersistenceFile(const std::string& path, int value) {
    constexpr mode_t kConsentFileMode = 0644;
    std::string reason;
    bool created = false;
    if (!shareddirectory::replace(path, std::to_string(value), kConsentFileMode, reason, created)) {
        VELMAR_LOG(velmar::Warning, logTag, "Consent file " << path << " not written (" << reason << ")");
        return false;
    }
    return true;
}

float StylusStrokePredictorImpl::getMetricsDistanceError() { return modelPredictor.getMetricsDistanceError(); }
float StylusStrokePredictorImpl::getMetricsAngleDevError() { return modelPredictor.getMetricsAngleDevError(); }
bool StylusStrokePredictorImpl::getMetricsAreValid() { return modelPredictor.getMetricsAreValid(); }
unsigned int StylusStrokePredictorImpl::getMetricsEventCount() { return modelPredictor.getMetricsEventCount(); }

}  // namespace styluspipeline
