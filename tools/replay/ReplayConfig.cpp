// The JSON parser includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include "ReplayConfig.h"

#include <boost/property_tree/info_parser.hpp>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <fstream>

#include "ReplayError.h"

namespace replay {

namespace {

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

ReplayConfig ReplayConfig::load(const std::string& path) {
    namespace pt = boost::property_tree;
    if (!std::ifstream(path)) {
        throw ReplayError(path + ": cannot open the predictor configuration");
    }
    ReplayConfig config;
    config.path = path;
    try {
        pt::ptree tree;
        if (endsWith(path, ".ini")) {
            pt::read_ini(path, tree);
        } else if (endsWith(path, ".xml")) {
            pt::read_xml(path, tree);
        } else if (endsWith(path, ".info")) {
            pt::read_info(path, tree);
        } else {
            pt::read_json(path, tree);
        }
        config.pixelPerInch = tree.get<double>("PredictionModel.pixel_per_inch", config.pixelPerInch);
        config.mmPerInch = tree.get<double>("PredictionModel.mm_per_inch", config.mmPerInch);
        config.predictionStepMs = tree.get<int>("PredictionModel.prediction_time_delta_ms", config.predictionStepMs);
        config.numPredictions = tree.get<int>("PredictionModel.num_predictions", config.numPredictions);
        config.queueFullPolicy = tree.get<std::string>("Pipeline.QueueFullPolicy", config.queueFullPolicy);
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
