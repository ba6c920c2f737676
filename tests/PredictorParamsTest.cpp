// The JSON writer includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/detail/file_parser_error.hpp>
#include <boost/property_tree/exceptions.hpp>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <sstream>
#include <utility>
#include <string>
#include <tuple>
#include <vector>

#include "ModelPredictor.h"
#include "PredictorParams.h"
#include "TestSupport.h"

namespace {

using styluspipeline::PredictorParams;
using testsupport::LogCapture;
using testsupport::thrownText;
using Lines = std::vector<std::string>;

// Construction sets the process-wide priority; put back whatever the test binary started with.
class PredictorParamsTest : public ::testing::Test {
protected:
    void TearDown() override { velmar::Log::m_GlobalPriority.store(savedPriority); }

    std::string config(const std::string& name, const std::string& text) {
        testsupport::writeFile(dir.file(name), text);
        return dir.file(name);
    }

    // A JSON configuration of every feature range, with the given keys set on top.
    std::string withRanges(const std::vector<std::pair<std::string, std::string>>& keys,
                           const std::string& name = "p.json") {
        boost::property_tree::ptree tree;
        for (const char* feature : styluspipeline::kInputFeatureNames) {
            tree.put(std::string("PredictionModel.feature_") + feature + "_min", "-2");
            tree.put(std::string("PredictionModel.feature_") + feature + "_max", "2");
        }
        for (const auto& [key, value] : keys) {
            tree.put(boost::property_tree::ptree::path_type(key, '.'), value);
        }
        std::ostringstream text;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".ini") == 0) {
            boost::property_tree::write_ini(text, tree);
        } else if (name.size() > 4 && name.compare(name.size() - 4, 4, ".xml") == 0) {
            boost::property_tree::write_xml(text, tree);
        } else {
            boost::property_tree::write_json(text, tree);
        }
        return config(name, text.str());
    }

    testsupport::TempDir dir;
    int32_t savedPriority = velmar::Log::m_GlobalPriority.load();
};

TEST_F(PredictorParamsTest, RangesOnlyConfigYieldsDefaultsAndLogsEverySettingInOrder) {
    const std::string path = withRanges({}, "predictor.json");
    LogCapture log;
    const PredictorParams p(path);
    const auto& m = p.modelParams;
    EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), velmar::Info);
    EXPECT_EQ(std::make_tuple(p.queueFullPolicy, p.cpusetFile, p.coreAffinity, p.enableDataWriting,
                              p.canControlDataWritingAtRunTime, p.chunkSizeInRecords, p.numChunksInFile,
                              p.dataFileNameSuffix, p.dataFileDirectory, p.diskFillPercentTh, p.inferenceSpinWindowUs),
              std::make_tuple(QueueFullPolicy::Block, std::string(), -1, false, false, 100, 100000,
                              std::string("stylus_input_events"), std::string(), 30, 1000));
    EXPECT_EQ(std::make_tuple(m.model_path, m.stroke_end_thres, m.num_predictions, m.prediction_time_delta_ms,
                              m.num_historcal_points, m.min_num_historical_points, m.mm_per_inch, m.pixel_per_inch,
                              m.feature_timestamp_min, m.feature_orientation_max, m.use_raw_pressure,
                              m.target_event_count, m.save_metrics_interval, m.predictionErrorMeasurementWindow,
                              m.max_pen_speed_mm_per_s),
              std::make_tuple(dir.path() + "/UNDEFINED", 0.5f, 5, 4, 25u, 25u, 25.4f, 213u, -2.0f, 2.0f, false, 50000u,
                              5000u, 120, 1000.0f));
    Lines expected{"Predictor Config File : " + path, "QueueFull Policy : Block", "Setting Info loglevel",
                   "Cpuset file name : ", "core affinity to use (if cpuset file is not specified) : -1",
                   "Input Config file Base Directory : \"" + dir.path() + "\"",
                   "modelParams.model_path : " + dir.path() + "/UNDEFINED", "modelParams.stroke_end_thres : 0.5",
                   "modelParams.num_predictions : 5", "modelParams.prediction_time_delta_ms : 4",
                   "modelParams.num_historcal_points : 25", "modelParams.min_num_historical_points : 25",
                   "modelParams.mm_per_inch : 25.4", "modelParams.pixel_per_inch : 213"};
    // The pressure range is logged twice, as the configuration reader always did.
    for (const std::string feature : {"timestamp", "xpos", "ypos", "tilt", "pressure", "orientation", "pressure"}) {
        expected.push_back("modelParams.feature_" + feature + "_max : 2");
        expected.push_back("modelParams.feature_" + feature + "_min : -2");
    }
    expected.insert(expected.end(),
                    {"modelParams.use_raw_pressure : false", "modelParams.target_event_count : 50000",
                     "modelParams.save_metrics_interval : 5000", "modelParams.predictionErrorMeasurementWindow : 120",
                     "modelParams.inference_engine : auto", "modelParams.max_pen_speed_mm_per_s : 1000",
                     "Enable debug writing : false",
                     "canControlDataWritingAtRunTime : false", "chunkSizeInRecords : 100", "numChunksInFile : 100000",
                     "Data File Name Suffix : stylus_input_events", "Data File Directory : ", "diskFillPercentTh : 30",
                     "diskCheckPath : /data/", "inferenceSpinWindowUs : 1000"});
    EXPECT_EQ(log.messages(), expected);
    for (const auto& line : log.lines()) {
        EXPECT_EQ(std::make_tuple(line.priority, line.tag, line.function),
                  std::make_tuple(velmar::Info, std::string("StylusPredictor-params"), std::string("PredictorParams")));
    }
}

TEST_F(PredictorParamsTest, ConfiguredValuesAreReadAndEchoed) {
    const std::string path = config("p.json", R"({
        "Pipeline": {"QueueFullPolicy": "Reject Newest", "cpusetFile": "/dev/cpuset/fg/tasks", "coreaffinity": 6,
                     "enableDataWriting": "true", "canControlDataWritingAtRunTime": "1",
                     "chunkSizeInRecords": 50, "numChunksInFile": 7, "dataFileNameSuffix": "s",
                     "dataFileDirectory": "/data/x", "diskFillPercentTh": 80, "diskCheckPath": "/data/x",
                     "inferenceSpinWindowUs": 2500},
        "PredictionModel": {"model_name": "net.tflite", "stroke_end_thres": 0.25, "num_predictions": 3,
                            "prediction_time_delta_ms": 8, "num_historical_points": 40, "mm_per_inch": 25,
                            "pixel_per_inch": 400, "feature_xpos_max": 12.5, "feature_xpos_min": 1,
                            "feature_pressure_min": -2, "feature_pressure_max": 1, "feature_timestamp_min": 0,
                            "feature_timestamp_max": 20, "feature_ypos_min": -1, "feature_ypos_max": 1.5,
                            "feature_tilt_min": 0, "feature_tilt_max": 1, "feature_orientation_min": -0.5,
                            "feature_orientation_max": 0.5, "use_raw_pressure": true, "target_event_count": 7, "save_metrics_interval": 9,
                            "predictionErrorWindow": 60, "max_pen_speed_mm_per_s": 750.5}})");
    LogCapture log;
    const PredictorParams p(path);
    const auto& m = p.modelParams;
    EXPECT_EQ(std::make_tuple(p.queueFullPolicy, p.cpusetFile, p.coreAffinity, p.enableDataWriting,
                              p.canControlDataWritingAtRunTime, p.chunkSizeInRecords, p.numChunksInFile,
                              p.dataFileNameSuffix, p.dataFileDirectory, p.diskFillPercentTh),
              std::make_tuple(QueueFullPolicy::RejectNewest, std::string("/dev/cpuset/fg/tasks"), 6, true, true, 50, 7,
                              std::string("s"), std::string("/data/x"), 80));
    EXPECT_EQ(p.diskCheckPath, "/data/x");
    EXPECT_EQ(p.inferenceSpinWindowUs, 2500);
    EXPECT_EQ(m.max_pen_speed_mm_per_s, 750.5f);
    // The minimum history follows the history length when not given.
    EXPECT_EQ(std::make_tuple(m.model_path, m.stroke_end_thres, m.num_predictions, m.prediction_time_delta_ms,
                              m.num_historcal_points, m.min_num_historical_points, m.mm_per_inch, m.pixel_per_inch,
                              m.feature_xpos_max, m.feature_xpos_min, m.feature_pressure_min, m.use_raw_pressure,
                              m.target_event_count, m.save_metrics_interval, m.predictionErrorMeasurementWindow),
              std::make_tuple(dir.path() + "/net.tflite", 0.25f, 3, 8, 40u, 40u, 25.0f, 400u, 12.5f, 1.0f, -2.0f, true,
                              7u, 9u, 60));
    for (const char* line : {"QueueFull Policy : Reject Newest", "modelParams.mm_per_inch : 25",
                             "modelParams.feature_xpos_max : 12.5", "modelParams.use_raw_pressure : true",
                             "Enable debug writing : true", "canControlDataWritingAtRunTime : true",
                             "inferenceSpinWindowUs : 2500"}) {
        EXPECT_EQ(log.count(line), 1) << line;
    }
    EXPECT_EQ(log.count("modelParams.feature_pressure_min : -2"), 2);
}

// Anything but the exact spellings falls back, with a warning naming the value and the choice. The level
// is set before its own line, so that line passes the filter it just set; the policy's line before it
// does not pass the capture's filter.
TEST_F(PredictorParamsTest, PolicyAndLogLevelMatchExactSpellingOnlyAndWarnOtherwise) {
    const auto policyWarning = [](const std::string& value) {
        return "unknown Pipeline.QueueFullPolicy \"" + value +
               "\" (expected \"Block\" or \"Reject Newest\"): using Reject Newest";
    };
    const QueueFullPolicy kReject = QueueFullPolicy::RejectNewest;
    const auto levelWarning = [](const std::string& value) {
        return "unknown Pipeline.logLevel \"" + value + "\" (expected \"VERBOSE\", \"DEBUG\" or \"INFO\"): using INFO";
    };
    const struct {
        const char* policy;
        const char* level;
        QueueFullPolicy expectedPolicy;
        int32_t expectedPriority;
        const char* expectedLine;
        Lines warnings;
    } cases[] = {
        {"Block", "VERBOSE", QueueFullPolicy::Block, velmar::Verbose, "Setting Verbose loglevel", {}},
        {"Reject Newest", "INFO", kReject, velmar::Info, "Setting Info loglevel", {}},
        {"block", "DEBUG", kReject, velmar::Debug, "Setting Debug loglevel", {policyWarning("block")}},
        {"Reject", "INFO", kReject, velmar::Info, "Setting Info loglevel", {policyWarning("Reject")}},
        {"Block ", "debug", kReject, velmar::Info, "Setting Info loglevel",
         {policyWarning("Block "), levelWarning("debug")}},
        {"BLOCK", "ERROR", kReject, velmar::Info, "Setting Info loglevel", {policyWarning("BLOCK"), levelWarning("ERROR")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.policy) + "/" + c.level);
        const std::string path = withRanges({{"Pipeline.QueueFullPolicy", c.policy}, {"Pipeline.logLevel", c.level}});
        LogCapture log(velmar::Warning);
        const PredictorParams p(path);
        EXPECT_EQ(p.queueFullPolicy, c.expectedPolicy);
        EXPECT_EQ(velmar::Log::m_GlobalPriority.load(), c.expectedPriority);
        EXPECT_EQ(log.count(c.expectedLine), 1);
        EXPECT_EQ(log.countPrefix("QueueFull Policy"), 0);
        Lines expected;
        for (const auto& warning : c.warnings) {
            expected.push_back(path + ": " + warning);
        }
        EXPECT_EQ(log.messagesAt(velmar::Warning), expected);
    }
}

// The window's bounds are accepted as they stand; 0 turns the busy-wait off.
TEST_F(PredictorParamsTest, SpinWindowBoundsAreAccepted) {
    for (const char* value : {"0", "1", "50000"}) {
        SCOPED_TRACE(value);
        LogCapture log;
        const PredictorParams p(withRanges({{"Pipeline.inferenceSpinWindowUs", value}}));
        EXPECT_EQ(p.inferenceSpinWindowUs, std::stoi(value));
    }
}

// A bare file name lies in the working directory, and its model beside it there.
TEST_F(PredictorParamsTest, BareFileNameResolvesAgainstTheWorkingDirectory) {
    boost::filesystem::copy_file(testkit::generatedModel("const_n10_p5.tflite"), dir.file("stylus.tflite"));
    withRanges({{"PredictionModel.model_name", "stylus.tflite"},
                {"PredictionModel.num_historical_points", "10"}},
               "bare.json");
    struct Restore {
        boost::filesystem::path cwd = boost::filesystem::current_path();
        ~Restore() { boost::filesystem::current_path(cwd); }
    } restore;
    boost::filesystem::current_path(dir.path());
    LogCapture log;
    const PredictorParams p("bare.json");
    EXPECT_EQ(p.modelParams.model_path, "./stylus.tflite");
    EXPECT_EQ(log.count("Input Config file Base Directory : \".\""), 1);
    EXPECT_NO_THROW(styluspipeline::ModelPredictor(p.modelParams, dir.file("runningMetrics.txt")));
}

// A key that nothing reads would silently leave its setting at the default: each is named with the
// key it was probably meant to be. A key given twice would be read only once: it is refused.
TEST_F(PredictorParamsTest, UnreadKeysAreWarnedAboutAndRepeatedKeysRefused) {
    const struct {
        const char* name;  // its extension picks the format
        std::vector<std::pair<std::string, std::string>> keys;
        Lines warnings;  // after the file name and ": "
    } warned[] = {
        {"misspelt.json", {{"PredictionModel.use_raw_presure", "true"}},
         {"unknown key PredictionModel.use_raw_presure, ignored; nearest known key: PredictionModel.use_raw_pressure"}},
        {"section.json", {{"PredictonModel.num_predictions", "3"}, {"Pipeline.logLevel", "INFO"}},
         {"unknown key PredictonModel.num_predictions, ignored; nearest known key: "
          "PredictionModel.num_predictions"}},
        {"unknown.json", {{"Pipeline.colour.shade", "blue"}},
         {"unknown key Pipeline.colour.shade, ignored; nearest known key: Pipeline.cpusetFile"}},
        {"misplaced.json", {{"Pipeline.use_raw_pressure", "true"}, {"num_predictions", "3"}},
         {"misplaced key Pipeline.use_raw_pressure, ignored: it is read as PredictionModel.use_raw_pressure",
          "misplaced key num_predictions, ignored: it is read as PredictionModel.num_predictions"}},
        {"misplaced.ini", {{"Pipeline.model_name", "x.tflite"}},
         {"misplaced key Pipeline.model_name, ignored: it is read as PredictionModel.model_name"}},
        {"comments.xml", {{"Pipeline.<xmlcomment>", "a note"}, {"Pipeline.<xmlcomment>", "another"}}, {}},
    };
    for (const auto& c : warned) {
        SCOPED_TRACE(c.name);
        const std::string path = withRanges(c.keys, c.name);
        LogCapture log(velmar::Warning);
        PredictorParams p(path);
        Lines expected;
        for (const auto& warning : c.warnings) {
            expected.push_back(path + ": " + warning);
        }
        EXPECT_EQ(log.messagesAt(velmar::Warning), expected);
    }
    // The ranges are in every file below, so that nothing else is refused.
    const std::string ranges = R"("feature_timestamp_min": 0, "feature_timestamp_max": 1, "feature_xpos_min": 0,
        "feature_xpos_max": 1, "feature_ypos_min": 0, "feature_ypos_max": 1, "feature_tilt_min": 0,
        "feature_tilt_max": 1, "feature_pressure_min": 0, "feature_pressure_max": 1,
        "feature_orientation_min": 0, "feature_orientation_max": 1)";
    const struct {
        const char* name;
        std::string text;
        std::string refused;
    } repeated[] = {
        {"key.json", R"({"PredictionModel": {)" + ranges + R"(, "use_raw_pressure": true, "use_raw_pressure": false}})",
         "PredictionModel.use_raw_pressure is given twice, first as \"true\", then as \"false\": only the first "
         "would be read"},
        {"section.json", R"({"PredictionModel": {)" + ranges + R"(}, "PredictionModel": {"num_predictions": 3}})",
         "PredictionModel is given twice, first as a section, then as a section: only the first would be read"},
        {"key.xml", "<Pipeline><logLevel>INFO</logLevel><logLevel>DEBUG</logLevel></Pipeline>",
         "Pipeline.logLevel is given twice, first as \"INFO\", then as \"DEBUG\": only the first would be read"},
    };
    for (const auto& c : repeated) {
        SCOPED_TRACE(c.name);
        const std::string path = config(c.name, c.text);
        LogCapture log(velmar::Error);
        EXPECT_EQ(thrownText<boost::property_tree::ptree_bad_data>([&] { PredictorParams p(path); }),
                  path + ": " + c.refused);
        EXPECT_EQ(log.messagesAt(velmar::Error), Lines{path + ": " + c.refused});
    }
    // The INI reader refuses a repeated key itself, naming the line.
    const std::string ini = config("key.ini", "[Pipeline]\nlogLevel=INFO\nlogLevel=DEBUG\n");
    try {
        PredictorParams p(ini);
        FAIL() << "accepted";
    } catch (const boost::property_tree::file_parser_error& e) {
        EXPECT_EQ(e.line(), 3u);
        EXPECT_EQ(e.filename(), ini);
    }
}

// Each configuration that cannot work is refused with the file, the key, the value as written and
// what was expected, as the exception's text and as an error line.
TEST_F(PredictorParamsTest, ValuesThatCannotWorkAreRefusedNamingFileKeyValueAndExpectation) {
    const std::string history = "PredictionModel.num_historical_points";
    const std::string minimum = "PredictionModel.min_num_historical_points";
    struct Refusal {
        std::vector<std::pair<std::string, std::string>> keys;
        std::string refused;  // key = "value" as the message shows it
        std::string expected;
        std::string name = "p.json";  // its extension picks the format
    };
    std::vector<Refusal> cases = {
        {{{history, "-1"}}, history + " = \"-1\"", "an integer from 1 to 1024", "p.ini"},
        {{{"PredictionModel.num_predictions", "0"}}, "PredictionModel.num_predictions = \"0\"",
         "an integer from 1 to 1024", "p.xml"},
        {{{history, "10"}, {minimum, "-1"}}, minimum + " = \"-1\"", "an integer from 0 to 10"},
        {{{history, "10"}, {minimum, "11"}}, minimum + " = \"11\"", "an integer from 0 to 10"},
        {{{"PredictionModel.feature_xpos_min", "2"}},
         "PredictionModel.feature_xpos_min = \"2\" and PredictionModel.feature_xpos_max = \"2\"",
         "the minimum below the maximum"},
        {{{"PredictionModel.feature_tilt_min", "3"}},
         "PredictionModel.feature_tilt_min = \"3\" and PredictionModel.feature_tilt_max = \"2\"",
         "the minimum below the maximum"},
    };
    const struct {
        std::string key;
        std::vector<std::string> values;
        std::string expected;
    } oneKey[] = {
        {history, {"0", "-1", "2000000000", "1e8", "ten"}, "an integer from 1 to 1024"},
        {"PredictionModel.num_predictions", {"0", "-5", "2147483647", "five"}, "an integer from 1 to 1024"},
        {"PredictionModel.prediction_time_delta_ms", {"0", "-4"}, "an integer from 1 to 1000"},
        {"PredictionModel.mm_per_inch", {"0", "-25.4", "1e39", "nan"}, "a finite number above 0"},
        {"PredictionModel.pixel_per_inch", {"0", "-2"}, "an integer from 1 to 100000"},
        {"PredictionModel.stroke_end_thres", {"0"}, "a finite number above 0"},
        {"PredictionModel.feature_ypos_max", {"inf"}, "a finite number"},
        {"PredictionModel.max_pen_speed_mm_per_s", {"0", "-1", "inf", "fast"}, "a finite number above 0"},
        {"PredictionModel.target_event_count", {"-1"}, "an integer from 0 to 4294967295"},
        {"PredictionModel.use_raw_pressure", {"yes"}, "true, false, 1 or 0"},
        {"PredictionModel.inference_engine", {"tflite"}, "auto, xnnpack or armnn"},
        {"Pipeline.chunkSizeInRecords", {"0", "-1"}, "an integer from 1 to 1000000"},
        {"Pipeline.numChunksInFile", {"0"}, "an integer from 1 to 2147483647"},
        {"Pipeline.diskFillPercentTh", {"-1", "101"}, "an integer from 0 to 100"},
        {"Pipeline.coreaffinity", {"-2"}, "an integer from -1 to 2147483647"},
        {"Pipeline.enableDataWriting", {"maybe"}, "true, false, 1 or 0"},
        {"Pipeline.inferenceSpinWindowUs", {"-1", "50001", "1.5", "off"}, "an integer from 0 to 50000"},
    };
    for (const auto& row : oneKey) {
        for (const auto& value : row.values) {
            cases.push_back({{{row.key, value}}, row.key + " = \"" + value + "\"", row.expected});
        }
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(c.refused);
        const std::string path = withRanges(c.keys, c.name);
        LogCapture log(velmar::Error);
        const std::string message = path + ": " + c.refused + ": expected " + c.expected;
        EXPECT_EQ(thrownText<boost::property_tree::ptree_bad_data>([&] { PredictorParams p(path); }), message);
        EXPECT_EQ(log.messagesAt(velmar::Error), Lines{message});
    }
}

TEST_F(PredictorParamsTest, LeftOutRangesAndMissingFilesAreRefused) {
    const std::string empty = config("empty.json", "{}");
    EXPECT_EQ(thrownText<boost::property_tree::ptree_bad_data>([&] { PredictorParams p(empty); }),
              empty + ": PredictionModel.feature_timestamp_min = 1 (not set) and "
                      "PredictionModel.feature_timestamp_max = 1 (not set): expected the minimum below the maximum");
    const std::string missing = dir.file("nothing.json");
    const std::string text = thrownText([&] { PredictorParams p(missing); });
    EXPECT_NE(text.find(missing), std::string::npos) << text;
}

}  // namespace
