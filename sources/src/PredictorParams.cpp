#include "PredictorParams.h"

#include <boost/filesystem.hpp>
#include <type_traits>

#include "velmar/Config.h"
#include "velmar/Log.h"

#define VELMAR_LOG_SOURCE "src/PredictorParams"

namespace styluspipeline {

// A macro rather than a helper function so that each line is logged from the constructor itself.
#define READ_LOGGED(type, key, defaultValue, field, label)                 \
    do {                                                                   \
        (field) = static_cast<std::remove_reference_t<decltype(field)>>(config.get<type>((key), (defaultValue))); \
        VELMAR_LOG(velmar::Info, logTag, (label) << (field));              \
    } while (0)

PredictorParams::PredictorParams(const std::string& configFile) {
    VELMAR_LOG(velmar::Info, logTag, "Predictor Config File : " << configFile);
    velmar::Config config(configFile, velmar::Config::FormatByExtension, velmar::Config::InputFile);

    const std::string policy = config.get<std::string>("Pipeline.QueueFullPolicy", "Block");
    queueFullPolicy = policy == "Block" ? QueueFullPolicy::Block : QueueFullPolicy::RejectNewest;
    VELMAR_LOG(velmar::Info, logTag,
               "QueueFull Policy : " << (queueFullPolicy == QueueFullPolicy::Block ? "Block" : "Reject Newest"));

    const std::string logLevel = config.get<std::string>("Pipeline.logLevel", "INFO");
    if (logLevel == "VERBOSE") {
        velmar::Log::m_GlobalPriority.store(velmar::Verbose);
        VELMAR_LOG(velmar::Info, logTag, "Setting Verbose loglevel");
    } else if (logLevel == "DEBUG") {
        velmar::Log::m_GlobalPriority.store(velmar::Debug);
        VELMAR_LOG(velmar::Info, logTag, "Setting Debug loglevel");
    } else {
        velmar::Log::m_GlobalPriority.store(velmar::Info);
        VELMAR_LOG(velmar::Info, logTag, "Setting Info loglevel");
    }

    READ_LOGGED(std::string, "Pipeline.cpusetFile", "", cpusetFile, "Cpuset file name : ");
    READ_LOGGED(int, "Pipeline.coreaffinity", -1, coreAffinity,
                    "core affinity to use (if cpuset file is not specified) : ");

    ModelPredictorParams& m = modelParams;
    const std::string modelName = config.get<std::string>("PredictionModel.model_name", "UNDEFINED");
    const boost::filesystem::path baseDirectory = boost::filesystem::path(configFile).parent_path();
    VELMAR_LOG(velmar::Info, logTag, "Input Config file Base Directory : " << baseDirectory);
    m.model_path = baseDirectory.string() + "/" + modelName;
    VELMAR_LOG(velmar::Info, logTag, "modelParams.model_path : " << m.model_path);

    READ_LOGGED(float, "PredictionModel.stroke_end_thres", 0.5f, m.stroke_end_thres,
                      "modelParams.stroke_end_thres : ");
    READ_LOGGED(int, "PredictionModel.num_predictions", 5, m.num_predictions,
                    "modelParams.num_predictions : ");
    READ_LOGGED(int, "PredictionModel.prediction_time_delta_ms", 4, m.prediction_time_delta_ms,
                    "modelParams.prediction_time_delta_ms : ");
    READ_LOGGED(int, "PredictionModel.num_historical_points", 25, m.num_historcal_points,
                 "modelParams.num_historcal_points : ");
    READ_LOGGED(int, "PredictionModel.min_num_historical_points",
                 static_cast<int>(m.num_historcal_points), m.min_num_historical_points,
                 "modelParams.min_num_historical_points : ");
    READ_LOGGED(float, "PredictionModel.mm_per_inch", 25.4f, m.mm_per_inch,
                      "modelParams.mm_per_inch : ");
    READ_LOGGED(int, "PredictionModel.pixel_per_inch", 213, m.pixel_per_inch,
                 "modelParams.pixel_per_inch : ");

    struct RangeKey {
        const char* key;
        float* field;
        const char* label;
    };
    // Pressure comes twice on purpose: start-up logs show both reads.
    const RangeKey ranges[] = {
        {"PredictionModel.feature_timestamp_max", &m.feature_timestamp_max, "modelParams.feature_timestamp_max : "},
        {"PredictionModel.feature_timestamp_min", &m.feature_timestamp_min, "modelParams.feature_timestamp_min : "},
        {"PredictionModel.feature_xpos_max", &m.feature_xpos_max, "modelParams.feature_xpos_max : "},
        {"PredictionModel.feature_xpos_min", &m.feature_xpos_min, "modelParams.feature_xpos_min : "},
        {"PredictionModel.feature_ypos_max", &m.feature_ypos_max, "modelParams.feature_ypos_max : "},
        {"PredictionModel.feature_ypos_min", &m.feature_ypos_min, "modelParams.feature_ypos_min : "},
        {"PredictionModel.feature_tilt_max", &m.feature_tilt_max, "modelParams.feature_tilt_max : "},
        {"PredictionModel.feature_tilt_min", &m.feature_tilt_min, "modelParams.feature_tilt_min : "},
        {"PredictionModel.feature_pressure_max", &m.feature_pressure_max, "modelParams.feature_pressure_max : "},
        {"PredictionModel.feature_pressure_min", &m.feature_pressure_min, "modelParams.feature_pressure_min : "},
        {"PredictionModel.feature_orientation_max", &m.feature_orientation_max,
         "modelParams.feature_orientation_max : "},
        {"PredictionModel.feature_orientation_min", &m.feature_orientation_min,
         "modelParams.feature_orientation_min : "},
        {"PredictionModel.feature_pressure_max", &m.feature_pressure_max, "modelParams.feature_pressure_max : "},
        {"PredictionModel.feature_pressure_min", &m.feature_pressure_min, "modelParams.feature_pressure_min : "},
    };
    for (const RangeKey& range : ranges) {
        READ_LOGGED(float, range.key, 1.0f, *range.field, range.label);
    }

    READ_LOGGED(bool, "PredictionModel.use_raw_pressure", false, m.use_raw_pressure,
                     "modelParams.use_raw_pressure : ");
    READ_LOGGED(unsigned int, "PredictionModel.target_event_count", 50000u, m.target_event_count,
                             "modelParams.target_event_count : ");
    READ_LOGGED(unsigned int, "PredictionModel.save_metrics_interval", 5000u,
                             m.save_metrics_interval, "modelParams.save_metrics_interval : ");
    READ_LOGGED(int, "PredictionModel.predictionErrorWindow", 120, m.predictionErrorMeasurementWindow,
                    "modelParams.predictionErrorMeasurementWindow : ");
    READ_LOGGED(std::string, "PredictionModel.inference_engine", "auto", m.inference_engine,
                "modelParams.inference_engine : ");

    READ_LOGGED(bool, "Pipeline.enableDataWriting", false, enableDataWriting,
                     "Enable debug writing : ");
    READ_LOGGED(bool, "Pipeline.canControlDataWritingAtRunTime", false,
                     canControlDataWritingAtRunTime, "canControlDataWritingAtRunTime : ");
    READ_LOGGED(int, "Pipeline.chunkSizeInRecords", 100, chunkSizeInRecords, "chunkSizeInRecords : ");
    READ_LOGGED(int, "Pipeline.numChunksInFile", 100000, numChunksInFile, "numChunksInFile : ");
    READ_LOGGED(std::string, "Pipeline.dataFileNameSuffix", "stylus_input_events",
                            dataFileNameSuffix, "Data File Name Suffix : ");
    READ_LOGGED(std::string, "Pipeline.dataFileDirectory", "", dataFileDirectory,
                            "Data File Directory : ");
    READ_LOGGED(int, "Pipeline.diskFillPercentTh", 30, diskFillPercentTh, "diskFillPercentTh : ");
}

}  // namespace styluspipeline
