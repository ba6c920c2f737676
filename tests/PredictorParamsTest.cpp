#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/exceptions.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "PredictorParams.h"
#include "TestSupport.h"

namespace {

using styluspipeline::PredictorParams;
using testsupport::LogCapture;
using Lines = std::vector<std::string>;

// Construction sets the process-wide priority; put back whatever the test binary started with.
class PredictorParamsTest : public ::testing::Test {
protected:
    void TearDown() override { velmar::Log::m_GlobalPriority.store(savedPriority); }

    std::string config(const std::string& name, const std::string& text) {
        testsupport::writeFile(dir.file(name), text);
        return dir.file(name);
    }

    testsupport::TempDir dir;
    int32_t savedPriority = velmar::Log::m_GlobalPriority.load();
};

TEST_F(PredictorParamsTest, EmptyConfigYieldsDefaultsAndLogsEverySettingInOrder) {
    const std::string path = config("predictor.json", "{}");
    LogCapture log;
    const PredictorParams p(path);
    const auto& m = p.modelParams;
    EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), velmar::Info);
    EXPECT_EQ(std::make_tuple(p.queueFullPolicy, p.cpusetFile, p.coreAffinity, p.enableDataWriting,
                              p.canControlDataWritingAtRunTime, p.chunkSizeInRecords, p.numChunksInFile,
                              p.dataFileNameSuffix, p.dataFileDirectory, p.diskFillPercentTh),
              std::make_tuple(QueueFullPolicy::Block, std::string(), -1, false, false, 100, 100000,
                              std::string("stylus_input_events"), std::string(), 30));
    EXPECT_EQ(std::make_tuple(m.model_path, m.stroke_end_thres, m.num_predictions, m.prediction_time_delta_ms,
                              m.num_historcal_points, m.min_num_historical_points, m.mm_per_inch, m.pixel_per_inch,
                              m.feature_timestamp_min, m.feature_orientation_max, m.use_raw_pressure,
                              m.target_event_count, m.save_metrics_interval, m.predictionErrorMeasurementWindow),
              std::make_tuple(dir.path() + "/UNDEFINED", 0.5f, 5, 4, 25u, 25u, 25.4f, 213u, 1.0f, 1.0f, false, 50000u,
                              5000u, 120));
    // The pressure range is logged twice, as the configuration reader always did.
    EXPECT_EQ(log.messages(),
              (Lines{"Predictor Config File : " + path, "QueueFull Policy : Block", "Setting Info loglevel",
                     "Cpuset file name : ", "core affinity to use (if cpuset file is not specified) : -1",
                     "Input Config file Base Directory : \"" + dir.path() + "\"",
                     "modelParams.model_path : " + dir.path() + "/UNDEFINED", "modelParams.stroke_end_thres : 0.5",
                     "modelParams.num_predictions : 5", "modelParams.prediction_time_delta_ms : 4",
                     "modelParams.num_historcal_points : 25", "modelParams.min_num_historical_points : 25",
                     "modelParams.mm_per_inch : 25.4", "modelParams.pixel_per_inch : 213",
                     "modelParams.feature_timestamp_max : 1", "modelParams.feature_timestamp_min : 1",
                     "modelParams.feature_xpos_max : 1", "modelParams.feature_xpos_min : 1",
                     "modelParams.feature_ypos_max : 1", "modelParams.feature_ypos_min : 1",
                     "modelParams.feature_tilt_max : 1", "modelParams.feature_tilt_min : 1",
                     "modelParams.feature_pressure_max : 1", "modelParams.feature_pressure_min : 1",
                     "modelParams.feature_orientation_max : 1", "modelParams.feature_orientation_min : 1",
                     "modelParams.feature_pressure_max : 1", "modelParams.feature_pressure_min : 1",
                     "modelParams.use_raw_pressure : false", "modelParams.target_event_count : 50000",
                     "modelParams.save_metrics_interval : 5000", "modelParams.predictionErrorMeasurementWindow : 120",
                     "modelParams.inference_engine : auto",
                     "Enable debug writing : false", "canControlDataWritingAtRunTime : false",
                     "chunkSizeInRecords : 100", "numChunksInFile : 100000",
                     "Data File Name Suffix : stylus_input_events", "Data File Directory : ", "diskFillPercentTh : 30"}));
    for (const auto& line : log.lines()) {
        EXPECT_EQ(std::make_tuple(line.priority, line.tag, line.function),
                  std::make_tuple(velmar::Info, std::string("StylusPredictor-params"), std::string("PredictorParams")));
    }
}

TEST_F(PredictorParamsTest, ConfiguredValuesAreReadAndEchoed) {
    const std::string path = config("p.json", R"({
        "Pipeline": {"QueueFullPolicy": "Reject", "cpusetFile": "/dev/cpuset/fg/tasks", "coreaffinity": 6,
                     "enableDataWriting": "true", "canControlDataWritingAtRunTime": "1",
                     "chunkSizeInRecords": 50, "numChunksInFile": 7, "dataFileNameSuffix": "s",
                     "dataFileDirectory": "/data/x", "diskFillPercentTh": 80},
        "PredictionModel": {"model_name": "net.tflite", "stroke_end_thres": 0.25, "num_predictions": 3,
                            "prediction_time_delta_ms": 8, "num_historical_points": 40, "mm_per_inch": 25,
                            "pixel_per_inch": 400, "feature_xpos_max": 12.5, "feature_pressure_min": -2,
                            "use_raw_pressure": true, "target_event_count": 7, "save_metrics_interval": 9,
                            "predictionErrorWindow": 60}})");
    LogCapture log;
    const PredictorParams p(path);
    const auto& m = p.modelParams;
    EXPECT_EQ(std::make_tuple(p.queueFullPolicy, p.cpusetFile, p.coreAffinity, p.enableDataWriting,
                              p.canControlDataWritingAtRunTime, p.chunkSizeInRecords, p.numChunksInFile,
                              p.dataFileNameSuffix, p.dataFileDirectory, p.diskFillPercentTh),
              std::make_tuple(QueueFullPolicy::RejectNewest, std::string("/dev/cpuset/fg/tasks"), 6, true, true, 50, 7,
                              std::string("s"), std::string("/data/x"), 80));
    // The minimum history follows the history length when not given.
    EXPECT_EQ(std::make_tuple(m.model_path, m.stroke_end_thres, m.num_predictions, m.prediction_time_delta_ms,
                              m.num_historcal_points, m.min_num_historical_points, m.mm_per_inch, m.pixel_per_inch,
                              m.feature_xpos_max, m.feature_xpos_min, m.feature_pressure_min, m.use_raw_pressure,
                              m.target_event_count, m.save_metrics_interval, m.predictionErrorMeasurementWindow),
              std::make_tuple(dir.path() + "/net.tflite", 0.25f, 3, 8, 40u, 40u, 25.0f, 400u, 12.5f, 1.0f, -2.0f, true,
                              7u, 9u, 60));
    for (const char* line : {"QueueFull Policy : Reject Newest", "modelParams.mm_per_inch : 25",
                             "modelParams.feature_xpos_max : 12.5", "modelParams.use_raw_pressure : true",
                             "Enable debug writing : true", "canControlDataWritingAtRunTime : true"}) {
        EXPECT_EQ(log.count(line), 1) << line;
    }
    EXPECT_EQ(log.count("modelParams.feature_pressure_min : -2"), 2);
}

TEST_F(PredictorParamsTest, PolicyAndLogLevelMatchExactSpellingOnly) {
    const struct {
        const char* policy;
        const char* level;
        QueueFullPolicy expectedPolicy;
        int32_t expectedPriority;
        const char* expectedLine;
    } cases[] = {
        {"Block", "VERBOSE", QueueFullPolicy::Block, velmar::Verbose, "Setting Verbose loglevel"},
        {"block", "DEBUG", QueueFullPolicy::RejectNewest, velmar::Debug, "Setting Debug loglevel"},
        {"Block ", "debug", QueueFullPolicy::RejectNewest, velmar::Info, "Setting Info loglevel"},
        {"BLOCK", "ERROR", QueueFullPolicy::RejectNewest, velmar::Info, "Setting Info loglevel"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.policy) + "/" + c.level);
        const std::string path = config("p.json", std::string(R"({"Pipeline": {"QueueFullPolicy": ")") + c.policy +
                                                      R"(", "logLevel": ")" + c.level + R"("}})");
        LogCapture log(velmar::Error);
        const PredictorParams p(path);
        EXPECT_EQ(p.queueFullPolicy, c.expectedPolicy);
        EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), c.expectedPriority);
        // The priority is set before its line, so the line passes the filter it just set.
        EXPECT_EQ(log.count(c.expectedLine), 1);
        EXPECT_EQ(log.countPrefix("QueueFull Policy"), 0);
    }
}

// Nothing is validated: negative counts wrap to unsigned.
TEST_F(PredictorParamsTest, IniConfigIsReadAndNegativeCountsWrap) {
    const std::string path = config("p.ini", "[Pipeline]\nQueueFullPolicy=Reject\nlogLevel=DEBUG\n[PredictionModel]\n"
                                             "num_predictions=9\nnum_historical_points=-1\nmin_num_historical_points=12\n"
                                             "pixel_per_inch=-2\n");
    LogCapture log;
    const PredictorParams p(path);
    EXPECT_EQ(p.queueFullPolicy, QueueFullPolicy::RejectNewest);
    EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), velmar::Debug);
    const auto& m = p.modelParams;
    EXPECT_EQ(std::make_tuple(m.num_predictions, m.num_historcal_points, m.min_num_historical_points, m.pixel_per_inch),
              std::make_tuple(9, 4294967295u, 12u, 4294967294u));
    EXPECT_EQ(log.count("modelParams.num_historcal_points : 4294967295"), 1);
    EXPECT_EQ(log.count("modelParams.pixel_per_inch : 4294967294"), 1);
}

TEST_F(PredictorParamsTest, BareFileNamePutsModelAtRoot) {
    config("bare.json", R"({"PredictionModel": {"model_name": "stylus.tflite"}})");
    struct Restore {
        boost::filesystem::path cwd = boost::filesystem::current_path();
        ~Restore() { boost::filesystem::current_path(cwd); }
    } restore;
    boost::filesystem::current_path(dir.path());
    LogCapture log;
    EXPECT_EQ(PredictorParams("bare.json").modelParams.model_path, "/stylus.tflite");
    EXPECT_EQ(log.count("Input Config file Base Directory : \"\""), 1);
}

TEST_F(PredictorParamsTest, BadValueOrMissingFileThrows) {
    LogCapture log;
    const std::string path = config("p.json", R"({"PredictionModel": {"num_predictions": "five"}})");
    try {
        PredictorParams p(path);
        FAIL() << "a word for an int key must throw";
    } catch (const boost::property_tree::ptree_bad_data& e) {
        EXPECT_NE(std::string(e.what()).find("conversion of data to type"), std::string::npos) << e.what();
    }
    const std::string missing = dir.file("nothing.json");
    try {
        PredictorParams p(missing);
        FAIL() << "a missing file must throw";
    } catch (const std::exception& e) {
        EXPECT_NE(std::string(e.what()).find(missing), std::string::npos) << e.what();
    }
}

}  // namespace
