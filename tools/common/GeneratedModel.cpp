#include "GeneratedModel.h"

#include "StylusModelInputFeatures.h"

namespace testkit {

std::string generatedModel(const std::string& name) { return std::string(TEST_MODELS_DIR) + "/" + name; }

boost::property_tree::ptree generatedModelKeys() {
    boost::property_tree::ptree keys;
    keys.put("num_historical_points", 10);
    keys.put("min_num_historical_points", 10);
    for (const char* feature : styluspipeline::kInputFeatureNames) {
        keys.put(std::string("feature_") + feature + "_min", -10);
        keys.put(std::string("feature_") + feature + "_max", 10);
    }
    return keys;
}

}  // namespace testkit
