#pragma once

#include <cstdint>
#include <string>

#include "DataQueue.h"
#include "ModelPredictorParams.h"

namespace styluspipeline {

// Every setting of the library, read once from the configuration file. Reading also sets the
// framework's process-wide log priority from Pipeline.logLevel.
struct PredictorParams {
    static constexpr int32_t kDefaultSpinWindowUs = 1000;

    // Throws what the configuration reader throws for an unreadable or unparsable file, and
    // boost::property_tree::ptree_bad_data, naming the file, the key, its value and what was expected,
    // for a value of the wrong type or outside what the library can work with (also logged as an
    // error), or for a key or section given twice. An unknown QueueFullPolicy or logLevel is not
    // refused: a warning names the value and the choice made. A key that is not read (misspelt, or
    // in the wrong section) is warned about, naming the nearest key that is read. A bare file name
    // lies in the working directory, and so does the model named in it.
    explicit PredictorParams(const std::string& configFile);

    ModelPredictorParams modelParams;
    QueueFullPolicy queueFullPolicy = QueueFullPolicy::Block;
    std::string cpusetFile;          // inference thread's cpuset task file; empty: none
    int32_t coreAffinity = -1;       // core for the inference thread when no cpuset file; -1: none
    // Width of the window, centred on the next batch expected while the pen is down, in which the
    // inference thread busy-waits instead of sleeping, so that no wake-up delays the batch. Costs
    // half of it per batch interval on average, only while a stroke is active; 0: always sleep.
    int32_t inferenceSpinWindowUs = kDefaultSpinWindowUs;
    bool enableDataWriting = false;
    bool canControlDataWritingAtRunTime = false;
    int32_t chunkSizeInRecords = 100;
    int32_t numChunksInFile = 10000;
    std::string dataFileNameSuffix;
    std::string dataFileDirectory;
    int32_t diskFillPercentTh = 30;  // highest disk fill, percent, at which a new recording file opens
    std::string diskCheckPath = "/data/";  // a path on the file system that holds the recordings
    std::string logTag = "StylusPredictor-params";
};

}  // namespace styluspipeline
