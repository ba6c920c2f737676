#include "PredictorParams.h"

#include <boost/filesystem.hpp>
#include <algorithm>
#include <boost/property_tree/exceptions.hpp>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <set>
#include <vector>
#include <sstream>
#include <stdexcept>

#include "BatchArrivalEstimator.h"
#include "velmar/Config.h"
#include "talcflow/TALCModelRunner.h"
#include "velmar/Log.h"

#define VELMAR_LOG_SOURCE "src/PredictorParams"

namespace styluspipeline {

namespace {

// Far more history rows or predicted points than any model on a device would use; the model's
// tensors then fix the exact values.
constexpr int64_t kMaxHistoryRows = 1024;
constexpr int64_t kMaxPredictions = 1024;
// A step of more than a second is not a prediction of the pen a few milliseconds ahead.
constexpr int64_t kMaxPredictionStepMs = 1000;
constexpr int64_t kMaxPixelPerInch = 100000;
// Rows a recorder chunk holds in memory before it is written.
constexpr int64_t kMaxChunkSizeInRecords = 1000000;
// A window wider than the longest gap still taken for a moving pen would never let the thread sleep
// while the pen is down.
constexpr int64_t kMaxSpinWindowUs =
    std::chrono::duration_cast<std::chrono::microseconds>(BatchArrivalEstimator::kMaxStrokeGap).count();
constexpr int64_t kMaxUnsigned32 = std::numeric_limits<uint32_t>::max();
constexpr int64_t kMaxSigned32 = std::numeric_limits<int32_t>::max();

// Insertions, deletions and substitutions that turn a into b.
size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// Reads typed values from one configuration file and refuses, naming file, key, value and what was
// expected, any value that does not convert or lies outside what the library can work with.
class KeyReader {
public:
    // Refuses a file in which a key or section is given twice: lookups would see only the first.
    KeyReader(const std::string& file, const std::string& logTag)
        : file(file),
          logTag(logTag),
          config(file, velmar::Config::FormatByExtension, velmar::Config::InputFile) {
        refuseRepeats(config.m_Tree, "");
    }

    std::string text(const std::string& key, const std::string& defaultValue) const {
        readKeys.insert(key);
        return config.get<std::string>(key, defaultValue);
    }

    // Warns about every key of the file that none of the reads so far asked for, so that a misspelt
    // or misplaced key does not silently mean its default.
    void warnUnreadKeys() const { warnUnread(config.m_Tree, ""); }

    int64_t integer(const std::string& key, int64_t defaultValue, int64_t min, int64_t max) const {
        const std::string expected = "an integer from " + std::to_string(min) + " to " + std::to_string(max);
        const int64_t value = converted<int64_t>(key, defaultValue, expected);
        if (value < min || value > max) {
            refuse(key, expected);
        }
        return value;
    }

    float real(const std::string& key, float defaultValue, bool positive) const {
        const std::string expected = positive ? "a finite number above 0" : "a finite number";
        const float value = converted<float>(key, defaultValue, expected);
        if (!std::isfinite(value) || (positive && !(value > 0.0f))) {
            refuse(key, expected);
        }
        return value;
    }

    bool flag(const std::string& key, bool defaultValue) const {
        return converted<bool>(key, defaultValue, "true, false, 1 or 0");
    }

    // The key's text as written in the file, or the default the library took for an absent key.
    std::string shown(const std::string& key, const std::string& defaultText) const {
        return config.exists(key) ? "\"" + text(key, "") + "\"" : defaultText + " (not set)";
    }

    [[noreturn]] void refuse(const std::string& message) const {
        const std::string what = file + ": " + message;
        VELMAR_LOG(velmar::Error, logTag, what);
        throw boost::property_tree::ptree_bad_data(what, what);
    }

    void warn(const std::string& message) const { VELMAR_LOG(velmar::Warning, logTag, file << ": " << message); }

private:
    using Tree = boost::property_tree::ptree;

    static std::string joined(const std::string& path, const std::string& name) {
        return path.empty() ? name : path + "." + name;
    }

    // Array elements have empty names and the XML reader keeps attributes and comments under
    // reserved names: neither is a key.
    static bool isKey(const std::string& name) { return !name.empty() && name.rfind("<xml", 0) != 0; }

    static std::string described(const Tree& node) {
        return node.empty() ? "\"" + node.data() + "\"" : "a section";
    }

    void refuseRepeats(const Tree& node, const std::string& path) const {
        for (auto child = node.begin(); child != node.end(); ++child) {
            if (!isKey(child->first)) {
                continue;
            }
            const std::string key = joined(path, child->first);
            for (auto later = std::next(child); later != node.end(); ++later) {
                if (later->first == child->first) {
                    refuse(key + " is given twice, first as " + described(child->second) + ", then as " +
                           described(later->second) + ": only the first would be read");
                }
            }
            refuseRepeats(child->second, key);
        }
    }

    void warnUnread(const Tree& node, const std::string& path) const {
        for (const auto& child : node) {
            if (!isKey(child.first)) {
                continue;
            }
            const std::string key = joined(path, child.first);
            if (readKeys.count(key) != 0) {
                continue;
            }
            if (!child.second.empty()) {
                warnUnread(child.second, key);
                continue;
            }
            // A near miss is a typing error, in the section's name too; otherwise a known leaf name
            // says in which section the key belongs.
            size_t distance = 0;
            const std::string nearest = nearestReadKey(key, distance);
            const std::string home = distance <= kTypingSlips ? "" : readKeyNamed(child.first);
            if (!home.empty()) {
                warn("misplaced key " + key + ", ignored: it is read as " + home);
            } else {
                warn("unknown key " + key + ", ignored; nearest known key: " + nearest);
            }
        }
    }

    // The key read under a section with this last name, if any.
    std::string readKeyNamed(const std::string& name) const {
        for (const std::string& known : readKeys) {
            if (known.size() > name.size() && known[known.size() - name.size() - 1] == '.' &&
                known.compare(known.size() - name.size(), std::string::npos, name) == 0) {
                return known;
            }
        }
        return "";
    }

    std::string nearestReadKey(const std::string& key, size_t& best) const {
        std::string nearest;
        best = std::numeric_limits<size_t>::max();
        for (const std::string& known : readKeys) {
            const size_t distance = editDistance(key, known);
            if (distance < best) {
                best = distance;
                nearest = known;
            }
        }
        return nearest;
    }

    static constexpr size_t kTypingSlips = 2;

    template <typename T>
    T converted(const std::string& key, const T& defaultValue, const std::string& expected) const {
        readKeys.insert(key);
        try {
            return config.get<T>(key, defaultValue);
        } catch (const boost::property_tree::ptree_bad_data&) {
            refuse(key, expected);
        }
    }

    [[noreturn]] void refuse(const std::string& key, const std::string& expected) const {
        refuse(key + " = " + shown(key, "") + ": expected " + expected);
    }

    const std::string& file;
    const std::string& logTag;
    velmar::Config config;
    mutable std::set<std::string> readKeys;
};

std::string defaultText(float value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

}  // namespace

// A macro rather than a helper function so that each line is logged from the constructor itself.
#define READ_LOGGED(read, field, label)                                          \
    do {                                                                         \
        (field) = static_cast<std::remove_reference_t<decltype(field)>>(read);   \
        VELMAR_LOG(velmar::Info, logTag, (label) << (field));                    \
    } while (0)

PredictorParams::PredictorParams(const std::string& configFile) {
    VELMAR_LOG(velmar::Info, logTag, "Predictor Config File : " << configFile);
    const KeyReader config(configFile, logTag);

    const std::string policy = config.text("Pipeline.QueueFullPolicy", "Block");
    queueFullPolicy = policy == "Block" ? QueueFullPolicy::Block : QueueFullPolicy::RejectNewest;
    VELMAR_LOG(velmar::Info, logTag,
               "QueueFull Policy : " << (queueFullPolicy == QueueFullPolicy::Block ? "Block" : "Reject Newest"));
    if (policy != "Block" && policy != "Reject Newest") {
        config.warn("unknown Pipeline.QueueFullPolicy \"" + policy +
                    "\" (expected \"Block\" or \"Reject Newest\"): using Reject Newest");
    }

    const std::string logLevel = config.text("Pipeline.logLevel", "INFO");
    if (logLevel == "VERBOSE") {
        velmar::Log::m_GlobalPriority.store(velmar::Verbose);
        VELMAR_LOG(velmar::Info, logTag, "Setting Verbose loglevel");
    } else if (logLevel == "DEBUG") {
        velmar::Log::m_GlobalPriority.store(velmar::Debug);
        VELMAR_LOG(velmar::Info, logTag, "Setting Debug loglevel");
    } else {
        velmar::Log::m_GlobalPriority.store(velmar::Info);
        VELMAR_LOG(velmar::Info, logTag, "Setting Info loglevel");
        if (logLevel != "INFO") {
            config.warn("unknown Pipeline.logLevel \"" + logLevel +
                        "\" (expected \"VERBOSE\", \"DEBUG\" or \"INFO\"): using INFO");
        }
    }

    READ_LOGGED(config.text("Pipeline.cpusetFile", ""), cpusetFile, "Cpuset file name : ");
    READ_LOGGED(config.integer("Pipeline.coreaffinity", -1, -1, kMaxSigned32), coreAffinity,
                "core affinity to use (if cpuset file is not specified) : ");

    ModelPredictorParams& m = modelParams;
    const std::string modelName = config.text("PredictionModel.model_name", "UNDEFINED");
    // A bare file name lies in the working directory, and so does its model.
    boost::filesystem::path baseDirectory = boost::filesystem::path(configFile).parent_path();
    if (baseDirectory.empty()) {
        baseDirectory = ".";
    }
    VELMAR_LOG(velmar::Info, logTag, "Input Config file Base Directory : " << baseDirectory);
    m.model_path = baseDirectory.string() + "/" + modelName;
    VELMAR_LOG(velmar::Info, logTag, "modelParams.model_path : " << m.model_path);

    // Above 1 no point is ever dropped; at 0 or below every point would be.
    READ_LOGGED(config.real("PredictionModel.stroke_end_thres", 0.5f, true), m.stroke_end_thres,
                "modelParams.stroke_end_thres : ");
    READ_LOGGED(config.integer("PredictionModel.num_predictions", 5, 1, kMaxPredictions), m.num_predictions,
                "modelParams.num_predictions : ");
    READ_LOGGED(config.integer("PredictionModel.prediction_time_delta_ms", 4, 1, kMaxPredictionStepMs),
                m.prediction_time_delta_ms, "modelParams.prediction_time_delta_ms : ");
    READ_LOGGED(config.integer("PredictionModel.num_historical_points", 25, 1, kMaxHistoryRows),
                m.num_historcal_points, "modelParams.num_historcal_points : ");
    // More than the history holds would stage more rows than fit, and the stroke would never predict.
    READ_LOGGED(config.integer("PredictionModel.min_num_historical_points", m.num_historcal_points, 0,
                               m.num_historcal_points),
                m.min_num_historical_points, "modelParams.min_num_historical_points : ");
    READ_LOGGED(config.real("PredictionModel.mm_per_inch", 25.4f, true), m.mm_per_inch,
                "modelParams.mm_per_inch : ");
    READ_LOGGED(config.integer("PredictionModel.pixel_per_inch", 213, 1, kMaxPixelPerInch), m.pixel_per_inch,
                "modelParams.pixel_per_inch : ");

    struct RangeKey {
        const char* key;
        float* field;
        const char* label;
    };
    // Every input feature's pair, max first, in start-up log order. Pressure comes twice on purpose:
    // start-up logs show both reads.
#define STYLUS_RANGE_KEY(name, bound) \
    { "PredictionModel.feature_" #name "_" #bound, &m.feature_##name##_##bound, "modelParams.feature_" #name "_" #bound " : " }
    RangeKey ranges[2 * kInputFeatureCount + 2] = {};
#define STYLUS_INPUT_FEATURE_RANGE_KEYS(name, logPlace)  \
    ranges[2 * (logPlace)] = STYLUS_RANGE_KEY(name, max); \
    ranges[2 * (logPlace) + 1] = STYLUS_RANGE_KEY(name, min);
    STYLUS_INPUT_FEATURES(STYLUS_INPUT_FEATURE_RANGE_KEYS)
#undef STYLUS_INPUT_FEATURE_RANGE_KEYS
    ranges[2 * kInputFeatureCount] = STYLUS_RANGE_KEY(pressure, max);
    ranges[2 * kInputFeatureCount + 1] = STYLUS_RANGE_KEY(pressure, min);
#undef STYLUS_RANGE_KEY
    constexpr float kRangeDefault = 1.0f;
    for (const RangeKey& range : ranges) {
        READ_LOGGED(config.real(range.key, kRangeDefault, false), *range.field, range.label);
    }
    // Normalisation divides by max - min: an empty range gives every row infinities, a reversed one
    // mirrors the feature.
    for (size_t i = 0; i + 1 < sizeof(ranges) / sizeof(ranges[0]); i += 2) {
        const RangeKey& max = ranges[i];
        const RangeKey& min = ranges[i + 1];
        if (!(*min.field < *max.field)) {
            config.refuse(std::string(min.key) + " = " + config.shown(min.key, defaultText(kRangeDefault)) + " and " +
                          max.key + " = " + config.shown(max.key, defaultText(kRangeDefault)) +
                          ": expected the minimum below the maximum");
        }
    }

    READ_LOGGED(config.flag("PredictionModel.use_raw_pressure", false), m.use_raw_pressure,
                "modelParams.use_raw_pressure : ");
    READ_LOGGED(config.integer("PredictionModel.target_event_count", 50000, 0, kMaxUnsigned32), m.target_event_count,
                "modelParams.target_event_count : ");
    READ_LOGGED(config.integer("PredictionModel.save_metrics_interval", 5000, 0, kMaxUnsigned32),
                m.save_metrics_interval, "modelParams.save_metrics_interval : ");
    // Read and logged only; any integer will do.
    READ_LOGGED(config.integer("PredictionModel.predictionErrorWindow", 120, std::numeric_limits<int32_t>::min(),
                               kMaxSigned32),
                m.predictionErrorMeasurementWindow, "modelParams.predictionErrorMeasurementWindow : ");
    READ_LOGGED(config.text("PredictionModel.inference_engine", "auto"), m.inference_engine,
                "modelParams.inference_engine : ");
    try {
        talcflow::TALCModelRunner::engineFromName(m.inference_engine);
    } catch (const std::invalid_argument&) {
        config.refuse("PredictionModel.inference_engine = " + config.shown("PredictionModel.inference_engine", "") +
                      ": expected auto, xnnpack or armnn");
    }

    // The fastest strokes of the training recordings reach some 600 mm/s over 10 ms.
    READ_LOGGED(config.real("PredictionModel.max_pen_speed_mm_per_s", 1000.0f, true), m.max_pen_speed_mm_per_s,
                "modelParams.max_pen_speed_mm_per_s : ");

    READ_LOGGED(config.flag("Pipeline.enableDataWriting", false), enableDataWriting, "Enable debug writing : ");
    READ_LOGGED(config.flag("Pipeline.canControlDataWritingAtRunTime", false), canControlDataWritingAtRunTime,
                "canControlDataWritingAtRunTime : ");
    READ_LOGGED(config.integer("Pipeline.chunkSizeInRecords", 100, 1, kMaxChunkSizeInRecords), chunkSizeInRecords,
                "chunkSizeInRecords : ");
    READ_LOGGED(config.integer("Pipeline.numChunksInFile", 100000, 1, kMaxSigned32), numChunksInFile,
                "numChunksInFile : ");
    READ_LOGGED(config.text("Pipeline.dataFileNameSuffix", "stylus_input_events"), dataFileNameSuffix,
                "Data File Name Suffix : ");
    READ_LOGGED(config.text("Pipeline.dataFileDirectory", ""), dataFileDirectory, "Data File Directory : ");
    READ_LOGGED(config.integer("Pipeline.diskFillPercentTh", 30, 0, 100), diskFillPercentTh, "diskFillPercentTh : ");
    READ_LOGGED(config.text("Pipeline.diskCheckPath", "/data/"), diskCheckPath, "diskCheckPath : ");
    READ_LOGGED(config.integer("Pipeline.inferenceSpinWindowUs", inferenceSpinWindowUs, 0, kMaxSpinWindowUs),
                inferenceSpinWindowUs, "inferenceSpinWindowUs : ");
    config.warnUnreadKeys();
}

}  // namespace styluspipeline
