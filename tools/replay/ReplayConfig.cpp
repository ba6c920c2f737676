#include "ReplayConfig.h"

#include <boost/property_tree/detail/file_parser_error.hpp>
#include <boost/property_tree/exceptions.hpp>
#include <boost/property_tree/ptree.hpp>
#include <fstream>

#include "ReplayError.h"
#include "velmar/Config.h"

namespace replay {

ReplayConfig ReplayConfig::load(const std::string& path) {
    namespace pt = boost::property_tree;
    if (!std::ifstream(path)) {
        throw ReplayError(path + ": cannot open the predictor configuration");
    }
    ReplayConfig config;
    config.path = path;
    try {
        // Read as the library reads it, so that both see the same tree.
        const pt::ptree tree =
            velmar::Config(path, velmar::Config::FormatByExtension, velmar::Config::InputFile).m_Tree;
        config.pixelPerInch = tree.get<double>("PredictionModel.pixel_per_inch", config.pixelPerInch);
        config.mmPerInch = tree.get<double>("PredictionModel.mm_per_inch", config.mmPerInch);
        config.predictionStepMs = tree.get<int>("PredictionModel.prediction_time_delta_ms", config.predictionStepMs);
        config.numPredictions = tree.get<int>("PredictionModel.num_predictions", config.numPredictions);
        config.queueFullPolicy = tree.get<std::string>("Pipeline.QueueFullPolicy", config.queueFullPolicy);
        config.targetEventCount =
            tree.get<unsigned long long>("PredictionModel.target_event_count", config.targetEventCount);
    } catch (const pt::file_parser_error& error) {
        throw ReplayError(path + ":" + std::to_string(error.line()) + ": " + error.message());
    } catch (const pt::ptree_error& error) {
        throw ReplayError(path + ": " + error.what());
    }
    if (!(config.pixelPerInch > 0.0) || !(config.mmPerInch > 0.0)) {
        throw ReplayError(path + ": pixel_per_inch and mm_per_inch must be positive");
    }
    return config;
}

}  // namespace replay
