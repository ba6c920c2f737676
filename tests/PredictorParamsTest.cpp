#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/property_tree/exceptions.hpp>
#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include "PredictorParams.h"
#include "TestSupport.h"

namespace {

using styluspipeline::PredictorParams;
using testsupport::LogCapture;
using testsupport::TempDir;
using testsupport::writeFile;

// Construction sets the process-wide priority; put back whatever the test binary started with.
class PredictorParamsTest : public ::testing::Test {
protected:
    void TearDown() override { velmar::Log::m_GlobalPriority.store(savedPriority); }

    std::string config(const std::string& name, const std::string& text) {
        writeFile(dir.file(name), text);
        return dir.file(name);
    }

    TempDir dir;
    int32_t savedPriority = velmar::Log::m_GlobalPriority.load();
};

class CwdGuard {
public:
    explicit CwdGuard(const std::string& target) {
        char buffer[PATH_MAX];
        if (getcwd(buffer, sizeof(buffer)) == nullptr || chdir(target.c_str()) != 0) {
            throw std::runtime_error("cannot change into " + target);
        }
        saved = buffer;
    }
    ~CwdGuard() { EXPECT_EQ(chdir(saved.c_str()), 0); }

private:
    std::string saved;
};

TEST_F(PredictorParamsTest, EmptyConfigYieldsDefaultsAndLogsEverySetting) {
    const std::string path = config("predictor.json", "{}");
    LogCapture log;
    const PredictorParams p(path);

    const auto& m = p.modelParams;
    EXPECT_EQ(p.queueFullPolicy, QueueFullPolicy::Block);
    EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), velmar::Info);
    EXPECT_EQ(p.cpusetFile, "");
    EXPECT_EQ(p.coreAffinity, -1);
    EXPECT_EQ(m.model_path, dir.path() + "/UNDEFINED");
    EXPECT_EQ(m.stroke_end_thres, 0.5f);
    EXPECT_EQ(m.num_predictions, 5);
    EXPECT_EQ(m.prediction_time_delta_ms, 4);
    EXPECT_EQ(m.num_historcal_points, 25u);
    EXPECT_EQ(m.min_num_historical_points, 25u);
    EXPECT_EQ(m.mm_per_inch, 25.4f);
    EXPECT_EQ(m.pixel_per_inch, 213u);
    for (float v : {m.feature_timestamp_max, m.feature_timestamp_min, m.feature_xpos_max, m.feature_xpos_min,
                    m.feature_ypos_max, m.feature_ypos_min, m.feature_tilt_max, m.feature_tilt_min,
                    m.feature_pressure_max, m.feature_pressure_min, m.feature_orientation_max,
                    m.feature_orientation_min}) {
        EXPECT_EQ(v, 1.0f);
    }
    EXPECT_FALSE(m.use_raw_pressure);
    EXPECT_EQ(m.target_event_count, 50000u);
    EXPECT_EQ(m.save_metrics_interval, 5000u);
    EXPECT_EQ(m.predictionErrorMeasurementWindow, 120);
    EXPECT_FALSE(p.enableDataWriting);
    EXPECT_FALSE(p.canControlDataWritingAtRunTime);
    EXPECT_EQ(p.chunkSizeInRecords, 100);
    EXPECT_EQ(p.numChunksInFile, 100000);
    EXPECT_EQ(p.dataFileNameSuffix, "stylus_input_events");
    EXPECT_EQ(p.dataFileDirectory, "");
    EXPECT_EQ(p.diskFillPercentTh, 30);
    EXPECT_EQ(p.logTag, "StylusPredictor-params");

    const std::vector<std::string> expected = {
        "Predictor Config File : " + path,
        "QueueFull Policy : Block",
        "Setting Info loglevel",
        "Cpuset file name : ",
        "core affinity to use (if cpuset file is not specified) : -1",
        "Input Config file Base Directory : \"" + dir.path() + "\"",
        "modelParams.model_path : " + dir.path() + "/UNDEFINED",
        "modelParams.stroke_end_thres : 0.5",
        "modelParams.num_predictions : 5",
        "modelParams.prediction_time_delta_ms : 4",
        "modelParams.num_historcal_points : 25",
        "modelParams.min_num_historical_points : 25",
        "modelParams.mm_per_inch : 25.4",
        "modelParams.pixel_per_inch : 213",
        "modelParams.feature_timestamp_max : 1",
        "modelParams.feature_timestamp_min : 1",
        "modelParams.feature_xpos_max : 1",
        "modelParams.feature_xpos_min : 1",
        "modelParams.feature_ypos_max : 1",
        "modelParams.feature_ypos_min : 1",
        "modelParams.feature_tilt_max : 1",
        "modelParams.feature_tilt_min : 1",
        "modelParams.feature_pressure_max : 1",
        "modelParams.feature_pressure_min : 1",
        "modelParams.feature_orientation_max : 1",
        "modelParams.feature_orientation_min : 1",
        "modelParams.feature_pressure_max : 1",
        "modelParams.feature_pressure_min : 1",
        "modelParams.use_raw_pressure : false",
        "modelParams.target_event_count : 50000",
        "modelParams.save_metrics_interval : 5000",
        "modelParams.predictionErrorMeasurementWindow : 120",
        "Enable debug writing : false",
        "canControlDataWritingAtRunTime : false",
        "chunkSizeInRecords : 100",
        "numChunksInFile : 100000",
        "Data File Name Suffix : stylus_input_events",
        "Data File Directory : ",
        "diskFillPercentTh : 30",
    };
    EXPECT_EQ(log.messages(), expected);
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.priority, velmar::Info);
        EXPECT_EQ(line.tag, "StylusPredictor-params");
        EXPECT_EQ(line.function, "PredictorParams");
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
    EXPECT_EQ(p.queueFullPolicy, QueueFullPolicy::RejectNewest);
    EXPECT_EQ(p.cpusetFile, "/dev/cpuset/fg/tasks");
    EXPECT_EQ(p.coreAffinity, 6);
    EXPECT_EQ(m.model_path, dir.path() + "/net.tflite");
    EXPECT_EQ(m.stroke_end_thres, 0.25f);
    EXPECT_EQ(m.num_predictions, 3);
    EXPECT_EQ(m.prediction_time_delta_ms, 8);
    EXPECT_EQ(m.num_historcal_points, 40u);
    EXPECT_EQ(m.min_num_historical_points, 40u);
    EXPECT_EQ(m.mm_per_inch, 25.0f);
    EXPECT_EQ(m.pixel_per_inch, 400u);
    EXPECT_EQ(m.feature_xpos_max, 12.5f);
    EXPECT_EQ(m.feature_xpos_min, 1.0f);
    EXPECT_EQ(m.feature_pressure_min, -2.0f);
    EXPECT_TRUE(m.use_raw_pressure);
    EXPECT_EQ(m.target_event_count, 7u);
    EXPECT_EQ(m.save_metrics_interval, 9u);
    EXPECT_EQ(m.predictionErrorMeasurementWindow, 60);
    EXPECT_TRUE(p.enableDataWriting);
    EXPECT_TRUE(p.canControlDataWritingAtRunTime);
    EXPECT_EQ(p.chunkSizeInRecords, 50);
    EXPECT_EQ(p.numChunksInFile, 7);
    EXPECT_EQ(p.dataFileNameSuffix, "s");
    EXPECT_EQ(p.dataFileDirectory, "/data/x");
    EXPECT_EQ(p.diskFillPercentTh, 80);

    for (const char* line : {"QueueFull Policy : Reject Newest", "Cpuset file name : /dev/cpuset/fg/tasks",
                             "modelParams.min_num_historical_points : 40", "modelParams.mm_per_inch : 25",
                             "modelParams.feature_xpos_max : 12.5", "modelParams.use_raw_pressure : true",
                             "Enable debug writing : true", "canControlDataWritingAtRunTime : true",
                             "Data File Directory : /data/x"}) {
        EXPECT_EQ(log.count(line), 1) << line;
    }
    EXPECT_EQ(log.count("modelParams.feature_pressure_min : -2"), 2);
}

TEST_F(PredictorParamsTest, PolicyAndLogLevelMatchExactSpellingOnly) {
    struct Case {
        const char* policy;
        const char* level;
        QueueFullPolicy expectedPolicy;
        int32_t expectedPriority;
        const char* expectedLine;
    };
    const Case cases[] = {
        {"Block", "VERBOSE", QueueFullPolicy::Block, velmar::Verbose, "Setting Verbose loglevel"},
        {"block", "DEBUG", QueueFullPolicy::RejectNewest, velmar::Debug, "Setting Debug loglevel"},
        {"Block ", "debug", QueueFullPolicy::RejectNewest, velmar::Info, "Setting Info loglevel"},
        {"BLOCK", "ERROR", QueueFullPolicy::RejectNewest, velmar::Info, "Setting Info loglevel"},
    };
    for (const Case& c : cases) {
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

TEST_F(PredictorParamsTest, NegativeCountsWrapToUnsigned) {
    const std::string path = config("p.json", R"({"PredictionModel": {"num_historical_points": -1,
                                                                      "pixel_per_inch": -2}})");
    LogCapture log;
    const PredictorParams p(path);
    EXPECT_EQ(p.modelParams.num_historcal_points, 4294967295u);
    EXPECT_EQ(p.modelParams.min_num_historical_points, 4294967295u);
    EXPECT_EQ(p.modelParams.pixel_per_inch, 4294967294u);
    EXPECT_EQ(log.count("modelParams.num_historcal_points : 4294967295"), 1);
    EXPECT_EQ(log.count("modelParams.min_num_historical_points : 4294967295"), 1);
    EXPECT_EQ(log.count("modelParams.pixel_per_inch : 4294967294"), 1);
}

TEST_F(PredictorParamsTest, BareFileNamePutsModelAtRoot) {
    writeFile(dir.file("bare.json"), R"({"PredictionModel": {"model_name": "stylus.tflite"}})");
    CwdGuard cwd(dir.path());
    LogCapture log;
    const PredictorParams p("bare.json");
    EXPECT_EQ(p.modelParams.model_path, "/stylus.tflite");
    EXPECT_EQ(log.count("Input Config file Base Directory : \"\""), 1);
}

TEST_F(PredictorParamsTest, IniConfigIsRead) {
    const std::string path = config("p.ini",
                                    "[Pipeline]\nQueueFullPolicy=Reject\nlogLevel=DEBUG\n"
                                    "[PredictionModel]\nnum_predictions=9\nmin_num_historical_points=12\n");
    LogCapture log;
    const PredictorParams p(path);
    EXPECT_EQ(p.queueFullPolicy, QueueFullPolicy::RejectNewest);
    EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), velmar::Debug);
    EXPECT_EQ(p.modelParams.num_predictions, 9);
    EXPECT_EQ(p.modelParams.num_historcal_points, 25u);
    EXPECT_EQ(p.modelParams.min_num_historical_points, 12u);
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
