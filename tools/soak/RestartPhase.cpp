#include "RestartPhase.h"

// The JSON parser includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <algorithm>
#include <boost/property_tree/json_parser.hpp>
#include <chrono>
#include <cmath>
#include <exception>
#include <random>
#include <thread>
#include <vector>

#include "PlantedFiles.h"
#include "RecordingCount.h"
#include "ResidentMemory.h"
#include "StylusLibHandle.h"

namespace soak {

namespace {

namespace fs = std::filesystem;

struct BadKey {
    const char* key;
    const char* value;
};

// Values that cannot work. Which of them InitStylusLib refuses is reported, not assumed.
const BadKey kBadKeys[] = {
    {"PredictionModel.num_historical_points", "abc"},
    {"PredictionModel.num_historical_points", "25"},
    {"PredictionModel.min_num_historical_points", "-1"},
    {"PredictionModel.num_predictions", "0"},
    {"PredictionModel.prediction_time_delta_ms", "0"},
    {"PredictionModel.mm_per_inch", "0"},
    {"PredictionModel.pixel_per_inch", "0"},
    {"PredictionModel.feature_xpos_max", "-10"},
    {"PredictionModel.model_name", "missing.tflite"},
    {"Pipeline.chunkSizeInRecords", "-1"},
    {"Pipeline.QueueFullPolicy", "block"},
    {"Pipeline.dataFileDirectory", ""},
};

constexpr uint64_t kSampleStepMs = 4;
constexpr int kSamplesPerBatch = 4;
constexpr int kStrokeBatches = 50;
constexpr uint64_t kSteps[] = {1, 2, 5, 40, 1000};  // how far a batch goes back, in ms

}  // namespace

RestartPhase::RestartPhase(const boost::property_tree::ptree& goodConfig, const fs::path& dir,
                           StylusPredictionCallback onPredictions, StylusInputPointsCallback onInputPoints)
    : goodConfig(goodConfig), dir(dir), onPredictions(onPredictions), onInputPoints(onInputPoints) {}

RestartPhaseReport RestartPhase::run(int rounds, int batchesPerRun, uint32_t seed) {
    RestartPhaseReport report;
    for (int round = 0; round < rounds; ++round) {
        const BadKey& bad = kBadKeys[static_cast<size_t>(round) % std::size(kBadKeys)];
        boost::property_tree::ptree badConfig = goodConfig;
        badConfig.put(bad.key, bad.value);
        ++report.badConfigsTried;
        if (!runPipeline(badConfig, "bad-" + std::to_string(round), batchesPerRun / 4, seed + 2u * round, report)) {
            ++report.badConfigsRefused;
        }
        if (!runPipeline(goodConfig, "good-" + std::to_string(round), batchesPerRun, seed + 2u * round + 1u,
                         report)) {
            ++report.goodConfigsRefused;
        }
        ++report.rounds;
        if (round == 0) {
            report.rssStartMiB = residentMiB();
        }
    }
    report.rssEndMiB = residentMiB();
    return report;
}

bool RestartPhase::runPipeline(const boost::property_tree::ptree& config, const std::string& name, int batches,
                               uint32_t seed, RestartPhaseReport& report) {
    boost::property_tree::ptree tree = config;
    const fs::path recordings = dir / name;
    fs::create_directories(recordings);
    if (!tree.get<std::string>("Pipeline.dataFileDirectory").empty()) {
        tree.put("Pipeline.dataFileDirectory", recordings.string());
    }
    tree.put("Pipeline.diskCheckPath", recordings.string());
    const std::string configPath = (dir / (name + ".json")).string();
    boost::property_tree::write_json(configPath, tree);
    PlantedFiles planted(recordings, dir / (name + "-outside"));

    const StylusPredictionParams params{configPath.c_str(), onPredictions, onInputPoints};
    StylusLibHandle* handle = nullptr;
    try {
        handle = InitStylusLib(&params);
    } catch (const std::exception&) {
        report.plantedUntouched = report.plantedUntouched && planted.untouched();
        planted.remove();
        fs::remove_all(recordings);
        return false;
    }
    ++report.pipelinesRun;

    std::mt19937 random(seed);
    std::vector<StylusTouchPoint> batch(kSamplesPerBatch);
    uint64_t clock = 1000000;
    float angle = 0.0f;
    for (int b = 0; b < batches; ++b) {
        // Every other batch starts before the previous one's last sample.
        if (b % 2 == 1) {
            clock -= std::min<uint64_t>(clock - 1, kSteps[random() % std::size(kSteps)]);
            ++report.batchesGoingBack;
        }
        for (StylusTouchPoint& point : batch) {
            angle += 0.02f;
            point = StylusTouchPoint{};
            point.timestamp = clock;
            point.x_pos = 800.0f + 300.0f * std::cos(angle);
            point.y_pos = 1200.0f + 300.0f * std::sin(angle);
            point.pressure = 0.5f;
            point.tilt = 0.3f;
            point.tag = STYLUS_TAG_MOVE;
            clock += kSampleStepMs;
        }
        if (b % kStrokeBatches == 0) {
            batch.front().tag = STYLUS_TAG_PEN_DOWN;
        }
        ++report.batchesSent;
        if (sendInputTouchPoints(handle, batch.data(), kSamplesPerBatch) != 0) {
            ++report.batchesRefused;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    const auto stopStart = std::chrono::steady_clock::now();
    handle->impl->stop();
    const RecorderCounts counts = handle->impl->recorderCounts();
    DeInitStylusLib(handle);
    const std::chrono::duration<double, std::milli> stopTime = std::chrono::steady_clock::now() - stopStart;
    report.deInitMsMax = std::max(report.deInitMsMax, stopTime.count());
    report.plantedUntouched = report.plantedUntouched && planted.untouched();
    planted.remove();

    const RecordingCount recorded = RecordingCount::of(recordings);
    report.recorder.accepted += counts.accepted;
    report.recorder.refused += counts.refused;
    report.recorder.written += counts.written;
    report.recorder.lost += counts.lost;
    report.recorder.notNumbers += counts.notNumbers;
    report.rowsRecorded += recorded.rows;
    report.recorderBalanced = report.recorderBalanced && recorded.rows == counts.written &&
                              counts.written + counts.lost + counts.notNumbers == counts.accepted;
    report.filesWhole = report.filesWhole && recorded.whole();
    fs::remove_all(recordings);
    return true;
}

}  // namespace soak
