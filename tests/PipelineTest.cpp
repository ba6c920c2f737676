// End-to-end behaviour of the library through its exported C functions, with a generated model of
// known outputs, real configuration files and real recording directories.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <climits>
#include <cmath>
#include <limits>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "BatchScan.h"
#include "RecordingFormat.h"
#include "StylusStrokePredictor.h"
#include "TestSupport.h"

namespace {

using testsupport::LogCapture;
using testsupport::TempDir;
namespace fs = boost::filesystem;

constexpr auto kWaitLimit = std::chrono::seconds(30);

// What the host callbacks saw. Callbacks are plain C functions, so the state is global; the gate
// lets a test hold the inference thread inside onPredictions.
struct HostRecord {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<uint64_t, std::vector<PredictedStylusCoordinate>>> predictions;
    std::vector<std::vector<StylusTouchPoint>> inputBatches;
    bool gateClosed = false;
    int callbacksInGate = 0;

    void reset() {
        std::lock_guard<std::mutex> lock(mutex);
        predictions.clear();
        inputBatches.clear();
        gateClosed = false;
        callbacksInGate = 0;
    }
    void closeGate() {
        std::lock_guard<std::mutex> lock(mutex);
        gateClosed = true;
    }
    void openGate() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            gateClosed = false;
        }
        changed.notify_all();
    }
    bool waitForPredictions(size_t count) { return waitFor([&] { return predictions.size() >= count; }); }
    bool waitForCallbackInGate() { return waitFor([&] { return callbacksInGate > 0; }); }
    template <typename Reached>
    bool waitFor(Reached reached) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kWaitLimit, reached);
    }
    size_t predictionCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return predictions.size();
    }
};

HostRecord host;

void onPredictions(const PredictedStylusTouchPoints* result) {
    std::unique_lock<std::mutex> lock(host.mutex);
    host.predictions.emplace_back(result->timestamp, std::vector<PredictedStylusCoordinate>(
                                                         result->coordinates,
                                                         result->coordinates + result->numCoordinates));
    ++host.callbacksInGate;
    host.changed.notify_all();
    host.changed.wait(lock, [] { return !host.gateClosed; });
    --host.callbacksInGate;
}

void onInputPoints(const StylusTouchPoint* points, int numPoints) {
    std::lock_guard<std::mutex> lock(host.mutex);
    host.inputBatches.emplace_back(points, points + numPoints);
}

// Builds a configuration beside a copy of a generated model. Ranges are chosen so that no feature
// divides by zero; the constant model ignores its input anyway.
std::string writeConfig(const TempDir& dir, const std::string& pipelineExtra, const std::string& modelExtra = "",
                        const std::string& model = "const_n10_p5.tflite") {
    fs::copy_file(testkit::generatedModel(model), dir.file(model), fs::copy_options::overwrite_existing);
    const std::string config = dir.file("predictor.json");
    testsupport::writeFile(config, R"({"Pipeline": {"logLevel": "INFO")" + pipelineExtra +
                                       R"(}, "PredictionModel": {"model_name": ")" + model +
                                       R"(", "num_historical_points": 10, "min_num_historical_points": 10,
        "feature_timestamp_min": 0, "feature_timestamp_max": 10, "feature_xpos_min": -5, "feature_xpos_max": 5,
        "feature_ypos_min": -5, "feature_ypos_max": 5, "feature_pressure_min": -1, "feature_pressure_max": 1,
        "feature_tilt_min": -1, "feature_tilt_max": 1, "feature_orientation_min": -1,
        "feature_orientation_max": 1)" + modelExtra + "}}");
    return config;
}

StylusTouchPoint sample(uint64_t timestamp, float x, float y, int32_t tag) {
    StylusTouchPoint point{};
    point.timestamp = timestamp;
    point.x_pos = x;
    point.y_pos = y;
    point.pressure = 0.5f;
    point.tilt = 0.25f;
    point.orientation = 1.5f;
    point.tag = tag;
    return point;
}

// A pen-down at t0 followed by moves every 4 ms, cut as touch hardware reports them: the first batch
// holds the pen-down and three moves, later batches four moves.
std::vector<std::vector<StylusTouchPoint>> strokeBatches(uint64_t t0, int batches) {
    std::vector<std::vector<StylusTouchPoint>> result;
    int move = 0;
    for (int b = 0; b < batches; ++b) {
        std::vector<StylusTouchPoint> batch;
        if (b == 0) {
            batch.push_back(sample(t0, 100.0f, 200.0f, STYLUS_TAG_PEN_DOWN));
        }
        while (batch.size() < 4) {
            ++move;
            batch.push_back(sample(t0 + 4 * move, 100.0f + 2.0f * move, 200.0f + 1.0f * move, STYLUS_TAG_MOVE));
        }
        result.push_back(batch);
    }
    return result;
}

class Pipeline {
public:
    explicit Pipeline(const std::string& config, bool withInputCallback = true) {
        StylusPredictionParams params{config.c_str(), &onPredictions, withInputCallback ? &onInputPoints : nullptr};
        handle = InitStylusLib(&params);
    }
    // Releases a held callback first, so that a failed assertion cannot leave the shutdown waiting.
    ~Pipeline() {
        host.openGate();
        stop();
    }
    void stop() {
        DeInitStylusLib(handle);
        handle = nullptr;
    }
    int send(const std::vector<StylusTouchPoint>& batch) {
        return sendInputTouchPoints(handle, batch.data(), static_cast<int>(batch.size()));
    }
    // Waits until the queue is empty and the thread is not inside a batch; bounded, never a fixed
    // sleep. The flag turns false only after the pop, so a batch just taken may still be in hand:
    // what the thread does with a batch is waited for through that batch's own output.
    bool waitIdle() {
        return testsupport::waitUntil([this] { return areAllInputPointsProcessed(handle) != 0; });
    }
    // Sends the first three batches of a stroke (the third predicts) and holds the inference thread
    // inside onPredictions, so that the queue's one slot is free and nothing drains it.
    bool holdInferenceOnFirstPrediction(const std::vector<std::vector<StylusTouchPoint>>& batches) {
        host.closeGate();
        for (int b = 0; b < 3; ++b) {
            if (send(batches[b]) != 0 || (b < 2 && !waitIdle())) {
                return false;
            }
        }
        return host.waitForCallbackInGate();
    }
    StylusLibHandle* handle = nullptr;
};

// Rows of every recording file in the directory, header checked and dropped, in file-name order.
std::vector<std::string> recordedRows(const std::string& dir) {
    std::vector<std::string> rows;
    for (const auto& name : testsupport::filesIn(dir)) {
        if (name.size() < 4 || name.compare(name.size() - 4, 4, ".dat") != 0) {
            continue;
        }
        std::ifstream in(name);
        std::string line;
        std::getline(in, line);
        EXPECT_EQ(line, "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag");
        while (std::getline(in, line)) {
            rows.push_back(line);
        }
    }
    return rows;
}

class PipelineTest : public ::testing::Test {
protected:
    void SetUp() override {
        host.reset();
        fs::create_directory(recordings);
    }
    void TearDown() override { host.openGate(); }
    TempDir dir;
    const std::string recordings = dir.file("rec");  // for the tests that record
};

TEST_F(PipelineTest, PredictionsCarryExactCoordinatesTimestampsAndInputPoints) {
    Pipeline pipeline(writeConfig(dir, ""));
    EXPECT_EQ(areAllInputPointsProcessed(pipeline.handle), 0) << "nothing handled yet";
    EXPECT_EQ(numPredictedPoints(pipeline.handle), 5);

    const auto batches = strokeBatches(1000, 3);
    for (const auto& batch : batches) {
        ASSERT_EQ(pipeline.send(batch), 0);
    }
    ASSERT_TRUE(host.waitForPredictions(1));
    ASSERT_TRUE(pipeline.waitIdle());
    EXPECT_EQ(areAllInputPointsProcessed(pipeline.handle), 1);
    pipeline.stop();

    // Eleven moves fill the history of ten rows: only the third batch predicts.
    ASSERT_EQ(host.predictions.size(), 1u);
    const StylusTouchPoint& newest = batches[2].back();
    EXPECT_EQ(host.predictions[0].first, newest.timestamp);
    // The constant model yields displacements 0.1 * (j + 1) mm and logits (-1, 2, -3, -4, -5):
    // the second point lies past the stroke end and is dropped, the later ones are kept.
    const float pixelsPerMm = static_cast<float>(213u) / 25.4f;
    const std::vector<int> kept = {0, 2, 3, 4};
    const auto& coordinates = host.predictions[0].second;
    ASSERT_EQ(coordinates.size(), kept.size());
    for (size_t n = 0; n < kept.size(); ++n) {
        const int i = kept[n];
        SCOPED_TRACE("prediction " + std::to_string(i));
        EXPECT_EQ(coordinates[n].timestamp, newest.timestamp + 4u * static_cast<uint64_t>(i + 1));
        EXPECT_FLOAT_EQ(coordinates[n].x, newest.x_pos + static_cast<float>(0.1 * (2 * i + 1)) * pixelsPerMm);
        EXPECT_FLOAT_EQ(coordinates[n].y, newest.y_pos + static_cast<float>(0.1 * (2 * i + 2)) * pixelsPerMm);
    }
    ASSERT_EQ(host.inputBatches.size(), 1u);
    ASSERT_EQ(host.inputBatches[0].size(), 4u);
    for (size_t n = 0; n < 4; ++n) {
        EXPECT_EQ(host.inputBatches[0][n].timestamp, batches[2][n].timestamp);
    }
}

// The predictor sees a batch from its end: the last pen-down or pen-up is the boundary, the moves
// after it are its points, and a repeated timestamp keeps the later sample of the array.
TEST(BatchScanTest, TheLastBoundaryAndTheMovesAfterItByTimestamp) {
    const struct {
        std::vector<StylusTouchPoint> batch;
        int boundaryTimestamp;  // -1: none
        std::vector<float> pointXs;
    } cases[] = {
        {{sample(1, 1, 1, 2), sample(2, 2, 2, 0), sample(3, 3, 3, 2), sample(4, 4, 4, 2)}, 2, {3, 4}},
        {{sample(10, 1.5f, 1, 2), sample(10, 2.5f, 2, 2)}, -1, {2.5f}},
        {{sample(11, 5, 5, 2), sample(12, 6, 6, 2), sample(13, 7, 7, 1)}, 13, {}},
        {{}, -1, {}},
    };
    for (const auto& c : cases) {
        StylusPointMessage message;
        styluspipeline::scanBatch(c.batch.data(), c.batch.size(), message);
        EXPECT_EQ(message.hasStrokeBoundary ? static_cast<int>(message.strokeBoundaryPoint.timestamp) : -1,
                  c.boundaryTimestamp);
        std::vector<float> xs;
        for (const auto& entry : message.points) {
            EXPECT_EQ(entry.first, entry.second.timestamp);
            xs.push_back(entry.second.x_pos);
        }
        EXPECT_EQ(xs, c.pointXs);
    }
}

// Any policy but "Block" rejects the newest batch. Refusals of calls 5 to 119 are counted; the 120th call
// logs and resets without counting its own.
TEST_F(PipelineTest, RejectNewestRefusesWhileABatchIsQueuedCountsRefusalsAndShutdownDrainsIt) {
    Pipeline pipeline(writeConfig(dir, R"(, "QueueFullPolicy": "Reject")"));
    LogCapture log(velmar::Info);
    const auto batches = strokeBatches(0, 5);
    ASSERT_TRUE(pipeline.holdInferenceOnFirstPrediction(batches));
    EXPECT_EQ(pipeline.send(batches[3]), 0) << "room for one queued batch";
    for (int call = 5; call <= 120; ++call) {
        ASSERT_EQ(pipeline.send(batches[4]), -1) << "refused while the batch waits, call " << call;
    }
    EXPECT_EQ(log.count("QueueFullCount : 115 over last 120 iterations "), 1);
    EXPECT_EQ(areAllInputPointsProcessed(pipeline.handle), 0);
    host.openGate();
    pipeline.stop();
    // The queued batch was processed before the shutdown completed; the refused ones never were.
    ASSERT_EQ(host.predictions.size(), 2u);
    EXPECT_EQ(host.predictions[1].first, batches[3].back().timestamp);
}

TEST_F(PipelineTest, BlockPolicyHoldsTheSenderUntilThereIsRoom) {
    Pipeline pipeline(writeConfig(dir, R"(, "QueueFullPolicy": "Block")"));
    const auto batches = strokeBatches(0, 5);
    ASSERT_TRUE(pipeline.holdInferenceOnFirstPrediction(batches));
    ASSERT_EQ(pipeline.send(batches[3]), 0);
    std::atomic<bool> gateOpened{false};
    std::atomic<bool> returnedWhileHeld{false};
    std::atomic<int> result{1};
    std::thread sender([&] {
        result = pipeline.send(batches[4]);
        returnedWhileHeld = !gateOpened.load();
    });
    // The queue holds batch 3 and the inference thread is held: a sender that gets through while the
    // gate is shut has found room that is not there. The pause gives such a sender time to return.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    gateOpened = true;
    host.openGate();
    sender.join();
    EXPECT_FALSE(returnedWhileHeld.load());
    EXPECT_EQ(result.load(), 0);
    pipeline.stop();
    EXPECT_EQ(host.predictions.size(), 3u);
}

TEST_F(PipelineTest, SummariesAreLoggedEvery120Predictions) {
    Pipeline pipeline(writeConfig(dir, ""), false);
    LogCapture log(velmar::Info);
    // One stroke: the third batch predicts first, so 242 batches give 240 predictions.
    const auto batches = strokeBatches(0, 242);
    for (const auto& batch : batches) {
        ASSERT_EQ(pipeline.send(batch), 0);
    }
    pipeline.stop();
    EXPECT_EQ(host.predictions.size(), 240u);
    EXPECT_EQ(log.countPrefix("ModelLatency (max, avg in us) :: ("), 2);
    EXPECT_EQ(log.countPrefix("Model Accuracy :: Dist Error Mean: "), 2);
    for (const auto& line : log.messages()) {
        if (line.rfind("ModelLatency (max", 0) == 0) {
            EXPECT_NE(line.find(") over last 120 iterations"), std::string::npos) << line;
        }
    }
}

// The recording holds every sample the host sent, in its order: moves before a pen-up or pen-down in
// the same batch and repeated timestamps included; a sample that is not a number is counted instead.
TEST_F(PipelineTest, RecordsEverySampleSentInOrderWithOpenPermissions) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    constexpr int32_t D = STYLUS_TAG_PEN_DOWN;
    constexpr int32_t U = STYLUS_TAG_PEN_UP;
    constexpr int32_t M = STYLUS_TAG_MOVE;
    const struct {
        const char* what;
        std::vector<std::vector<StylusTouchPoint>> batches;
        int notNumbers;
    } cases[] = {
        {"strokes as the hardware cuts them", strokeBatches(500, 12), 0},
        {"moves before a boundary",
         {{sample(0, 1, 1, D), sample(4, 2, 2, M), sample(8, 3, 3, M)},
          {sample(12, 4, 4, M), sample(16, 5, 5, M), sample(20, 6, 6, M), sample(24, 7, 7, U)},
          {sample(30, 1, 1, M), sample(34, 2, 2, U), sample(40, 9, 9, D), sample(44, 8, 8, M)}},
         0},
        {"repeated timestamps",
         {{sample(0, 1, 1, D), sample(4, 2, 2, M), sample(4, 3, 3, M), sample(4, 4, 4, M)},
          {sample(8, 5, 5, M), sample(8, 6, 6, U), sample(8, 7, 7, D)}},
         0},
        {"samples that are not numbers",
         {{sample(0, 1, 1, D), sample(4, nan, 2, M), sample(8, 3, 3, M)},
          {sample(12, 4, inf, M), sample(16, 5, 5, M), sample(20, 6, -inf, U)}},
         3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir out;
        LogCapture log(velmar::Warning);
        Pipeline pipeline(writeConfig(dir, R"(, "enableDataWriting": true, "chunkSizeInRecords": 2,
            "numChunksInFile": 1000, "diskFillPercentTh": 100, "dataFileDirectory": ")" + out.path() + "\""));
        std::vector<std::string> expected;
        for (const auto& batch : c.batches) {
            ASSERT_EQ(pipeline.send(batch), 0);
            ASSERT_TRUE(pipeline.waitIdle());
            for (const auto& point : batch) {
                if (std::isfinite(point.x_pos) && std::isfinite(point.y_pos)) {
                    const std::string row = recordingformat::row(point);
                    expected.push_back(row.substr(0, row.size() - 1));
                }
            }
        }
        pipeline.stop();
        EXPECT_EQ(recordedRows(out.path()), expected);
        EXPECT_EQ(log.countPrefix("Sample at timestamp 4 not recorded: a value is not a number (1 so far)"),
                  c.notNumbers > 0 ? 1 : 0);
        EXPECT_EQ(log.countPrefix("Recorder samples at shutdown : accepted " + std::to_string(expected.size() + c.notNumbers) +
                                  ", written " + std::to_string(expected.size()) + ", lost 0, refused by the full queue 0, not numbers " +
                                  std::to_string(c.notNumbers)),
                  1);
        for (const auto& name : testsupport::filesIn(out.path())) {
            EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
            struct stat info {};
            ASSERT_EQ(::stat(name.c_str(), &info), 0);
            EXPECT_EQ(info.st_mode & 0777, 0666u) << name;
        }
    }
}

TEST_F(PipelineTest, TooFullDiskSkipsRecording) {
    LogCapture log(velmar::Info);
    // Any file system holding files is fuller than 0 %; a missing one counts as full.
    Pipeline pipeline(writeConfig(dir, R"(, "enableDataWriting": true, "chunkSizeInRecords": 2,
        "diskFillPercentTh": 0, "dataFileDirectory": ")" + recordings + "\""));
    ASSERT_EQ(pipeline.send(strokeBatches(0, 1)[0]), 0);
    pipeline.stop();
    EXPECT_TRUE(testsupport::filesIn(recordings).empty());
    EXPECT_GE(log.countPrefix("Disk Fill Percentage : "), 1);
}

TEST_F(PipelineTest, ConsentFileAndRuntimeControl) {
    const std::string consent = recordings + "/data_collect_user_pref";
    const std::string config = writeConfig(dir, R"(, "enableDataWriting": true, "canControlDataWritingAtRunTime": true,
        "chunkSizeInRecords": 1, "diskFillPercentTh": 100, "dataFileDirectory": ")" + recordings + "\"");

    for (const std::string content : {"0", "-3", "abc", ""}) {
        testsupport::writeFile(consent, content);
        LogCapture log(velmar::Info);
        Pipeline pipeline(config);
        EXPECT_FALSE(log.contains("Data Writing enabled for runtime control")) << "content '" << content << "'";
    }
    {
        testsupport::writeFile(consent, "7");
        LogCapture log(velmar::Info);
        Pipeline pipeline(config);
        EXPECT_TRUE(log.contains(" User Persist Value : 7"));
        EXPECT_TRUE(log.contains("Data Writing enabled for runtime control"));
    }

    fs::remove(consent);
    Pipeline pipeline(config);
    // No consent yet: batches are not recorded until the host switches recording on.
    ASSERT_EQ(pipeline.send({sample(1, 1, 1, 0)}), 0);
    ASSERT_TRUE(pipeline.waitIdle());
    EXPECT_EQ(controlDataWriting(pipeline.handle, 5), 0);
    EXPECT_EQ(testsupport::readFile(consent), "1");
    ASSERT_EQ(pipeline.send({sample(2, 2, 2, 0)}), 0);
    ASSERT_TRUE(pipeline.waitIdle());
    EXPECT_EQ(controlDataWriting(pipeline.handle, 0), 0);
    EXPECT_EQ(testsupport::readFile(consent), "0");
    ASSERT_EQ(pipeline.send({sample(3, 3, 3, 0)}), 0);
    pipeline.stop();
    ASSERT_EQ(recordedRows(recordings).size(), 1u);
    EXPECT_EQ(recordedRows(recordings)[0].substr(0, 2), "2,");
}

TEST_F(PipelineTest, RuntimeControlRefusals) {
    {
        LogCapture log(velmar::Info);
        Pipeline pipeline(writeConfig(dir, R"(, "enableDataWriting": true, "diskFillPercentTh": 100,
            "dataFileDirectory": ")" + dir.path() + "\""));
        EXPECT_EQ(controlDataWriting(pipeline.handle, 1), -1);
        EXPECT_TRUE(log.contains("Cannot control data writing at runtime. Please enable the flag "
                                 "canControlDataWritingAtRunTime in the config file"));
        EXPECT_FALSE(fs::exists(dir.file("data_collect_user_pref")));
    }
    {
        LogCapture log(velmar::Info);
        Pipeline pipeline(writeConfig(dir, R"(, "canControlDataWritingAtRunTime": true,
            "dataFileDirectory": ")" + dir.path() + "\""));
        EXPECT_EQ(controlDataWriting(pipeline.handle, 1), -1);
        EXPECT_TRUE(log.contains(
            "StylusDataWriter not created. Please enable the flag enableDataWriting in the config file"));
    }
    {
        // Without a recorder a consent of 1 still switches the runtime flag on.
        testsupport::writeFile(dir.file("data_collect_user_pref"), "1");
        LogCapture log(velmar::Info);
        Pipeline pipeline(writeConfig(dir, R"(, "dataFileDirectory": ")" + dir.path() + "\""));
        EXPECT_TRUE(log.contains("Data Writing enabled for runtime control"));
    }
    {
        // An unwritable consent file loses only the persistence.
        LogCapture log(velmar::Info);
        Pipeline pipeline(writeConfig(dir, R"(, "enableDataWriting": true, "canControlDataWritingAtRunTime": true,
            "diskFillPercentTh": 100, "dataFileDirectory": ")" + dir.file("missing") + "\""));
        EXPECT_EQ(controlDataWriting(pipeline.handle, 1), 0);
        EXPECT_TRUE(log.contains("Unable to set android system property"));
        EXPECT_TRUE(log.contains("Data Writing enabled at runtime"));
    }
}

// A cpuset file takes precedence over the core number; each start appends its thread id to the file.
TEST_F(PipelineTest, InferenceThreadPlacement) {
    const std::string cpuset = dir.file("tasks");
    const std::string missing = dir.file("no/such/dir/tasks");
    const std::string both = R"(, "cpusetFile": ")" + cpuset + R"(", "coreaffinity": 0)";
    const struct {
        std::string keys;
        std::string line;
        bool exact;  // else a prefix
    } cases[] = {
        {both, "cpuset file written : " + cpuset + " for tid : ", false},
        {both, "cpuset file written : " + cpuset + " for tid : ", false},
        {R"(, "cpusetFile": ")" + missing + "\"", "Failed to open cpu set file : " + missing, true},
        {R"(, "coreaffinity": 1024)", "Cannot set affinity to core : 1024", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keys);
        LogCapture log(velmar::Info);
        Pipeline pipeline(writeConfig(dir, c.keys));
        ASSERT_EQ(pipeline.send({sample(1, 1, 1, 0)}), 0);
        ASSERT_TRUE(pipeline.waitIdle());
        EXPECT_EQ(c.exact ? log.count(c.line) : log.countPrefix(c.line), 1);
        EXPECT_EQ(log.countPrefix("Core affinity set to core : "), 0);
    }
    const std::string content = testsupport::readFile(cpuset);
    EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 2);
}

// Every start-up failure leaves InitStylusLib as an exception whose text says what to fix.
TEST_F(PipelineTest, StartupFailuresPropagateNamingWhatToFixAndNullHandleIsIgnored) {
    DeInitStylusLib(nullptr);
    const std::string config = dir.file("predictor.json");
    const struct {
        const char* name;
        std::function<void()> write;
        std::vector<std::string> mentions;
    } cases[] = {
        {"missing configuration", [&] { fs::remove(config); }, {config}},
        {"missing model", [&] { writeConfig(dir, ""); fs::remove(dir.file("const_n10_p5.tflite")); },
         {dir.file("const_n10_p5.tflite")}},
        {"bad value", [&] { writeConfig(dir, R"(, "numChunksInFile": "many")"); },
         {config, "Pipeline.numChunksInFile", "\"many\"", "expected an integer"}},
        {"model of 25 rows for a history of 10", [&] { writeConfig(dir, "", "", "const_n25_p5.tflite"); },
         {dir.file("const_n25_p5.tflite"), "[1, 25, 6]", "PredictionModel.num_historical_points = 10"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.write();
        StylusPredictionParams params{config.c_str(), &onPredictions, nullptr};
        const std::string message = testsupport::thrownText([&] { DeInitStylusLib(InitStylusLib(&params)); });
        for (const std::string& text : c.mentions) {
            EXPECT_NE(message.find(text), std::string::npos) << message << " lacks " << text;
        }
    }
}

TEST_F(PipelineTest, NullArrayIsRefusedWhateverTheCountAndNegativeCountsQueueAnEmptyBatch) {
    Pipeline pipeline(writeConfig(dir, ""));
    LogCapture log(velmar::Verbose);
    for (const int count : {INT_MIN, -1, 0, 1, 4, INT_MAX}) {
        SCOPED_TRACE(count);
        EXPECT_EQ(sendInputTouchPoints(pipeline.handle, nullptr, count), -1);
    }
    EXPECT_EQ(log.countPrefix("Sending a batch of "), 0);
    // With an array, a count of zero or below reads nothing and queues an empty batch.
    const StylusTouchPoint unread = sample(1, 1, 1, STYLUS_TAG_PEN_DOWN);
    for (const int count : {INT_MIN, -1}) {
        EXPECT_EQ(sendInputTouchPoints(pipeline.handle, &unread, count), 0);
        ASSERT_TRUE(pipeline.waitIdle());
        EXPECT_EQ(log.count("Sending a batch of " + std::to_string(count) + " points"), 1);
    }
    EXPECT_EQ(log.countPrefix("Down Event detected"), 0);
    // The pipeline still serves a whole stroke.
    for (const auto& batch : strokeBatches(100, 3)) {
        ASSERT_EQ(pipeline.send(batch), 0);
    }
    EXPECT_TRUE(host.waitForPredictions(1));
}

TEST_F(PipelineTest, ConcurrentSendersControlAndGettersThenShutdown) {
    Pipeline pipeline(writeConfig(dir, R"(, "QueueFullPolicy": "Reject Newest", "enableDataWriting": true,
        "canControlDataWritingAtRunTime": true, "chunkSizeInRecords": 16, "diskFillPercentTh": 100,
        "dataFileDirectory": ")" + recordings + "\""));
    std::atomic<int> accepted{0};
    std::vector<std::thread> senders;
    for (int s = 0; s < 3; ++s) {
        senders.emplace_back([&, s] {
            const auto batches = strokeBatches(100000u * static_cast<uint64_t>(s + 1), 150);
            for (const auto& batch : batches) {
                accepted += pipeline.send(batch) == 0 ? 1 : 0;
            }
        });
    }
    std::thread controller([&] {
        for (int i = 0; i < 200; ++i) {
            EXPECT_EQ(controlDataWriting(pipeline.handle, i % 2), 0);
            (void)getMetricsDistanceError(pipeline.handle);
            (void)getMetricsAngleDevError(pipeline.handle);
            (void)getMetricsAreValid(pipeline.handle);
            (void)areAllInputPointsProcessed(pipeline.handle);
        }
    });
    for (auto& sender : senders) {
        sender.join();
    }
    controller.join();
    pipeline.stop();
    EXPECT_GT(accepted.load(), 0);
    EXPECT_LE(host.predictionCount(), static_cast<size_t>(accepted.load()));
}

// Twelve moves right after a pen-down are more than the history of ten holds: the first batch
// predicts from its newest samples, and so does the next.
TEST_F(PipelineTest, ABatchLongerThanTheHistoryPredicts) {
    LogCapture log(velmar::Info);
    Pipeline pipeline(writeConfig(dir, ""));
    std::vector<StylusTouchPoint> batch = {sample(0, 0, 0, STYLUS_TAG_PEN_DOWN)};
    for (int i = 1; i <= 12; ++i) {
        batch.push_back(sample(4u * static_cast<uint64_t>(i), static_cast<float>(i), 0, STYLUS_TAG_MOVE));
    }
    ASSERT_EQ(pipeline.send(batch), 0);
    ASSERT_EQ(pipeline.send({sample(100, 13, 0, STYLUS_TAG_MOVE)}), 0);
    ASSERT_TRUE(host.waitForPredictions(2));
    EXPECT_EQ(log.countPrefix("Prediction failed : "), 0);
}

// With the busy-wait on, batches sent at a steady pace reach the thread while it spins, just after
// its warm-up run of the model; a pen-up and a second stroke pass through it too. The predictions
// must be exactly those of a thread that always sleeps, and a shutdown while the thread spins for a
// batch that never comes must end it.
TEST_F(PipelineTest, SpinWindowLeavesPredictionsUnchangedAndShutdownEndsTheSpin) {
    auto batches = strokeBatches(1000, 10);
    batches.push_back({sample(1200, 300, 300, STYLUS_TAG_MOVE), sample(1204, 302, 301, STYLUS_TAG_PEN_UP)});
    for (auto& batch : strokeBatches(5000, 10)) {
        batches.push_back(batch);
    }
    using Flat = std::vector<std::tuple<uint64_t, uint64_t, float, float>>;
    std::vector<Flat> runs;
    for (const char* window : {"0", "50000"}) {
        SCOPED_TRACE(window);
        host.reset();
        TempDir runDir;
        Pipeline pipeline(
            writeConfig(runDir, std::string(R"(, "inferenceSpinWindowUs": )") + window, "", "ops_n10_p5.tflite"));
        for (const auto& batch : batches) {
            ASSERT_EQ(pipeline.send(batch), 0);
            // Pacing only, so that the thread learns a pace and waits for each batch.
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        ASSERT_TRUE(pipeline.waitIdle());
        pipeline.stop();
        Flat flat;
        for (const auto& [timestamp, coordinates] : host.predictions) {
            for (const auto& c : coordinates) {
                flat.emplace_back(timestamp, c.timestamp, c.x, c.y);
            }
        }
        runs.push_back(flat);
    }
    EXPECT_GT(runs[0].size(), 0u);
    EXPECT_EQ(runs[1], runs[0]);
}

}  // namespace
