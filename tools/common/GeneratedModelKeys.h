// PredictionModel keys that suit the generated models of tools/tflite: a history of ten rows and
// feature ranges wide enough that no feature divides by zero.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <string>

#include "StylusModelInputFeatures.h"

inline boost::property_tree::ptree generatedModelKeys() {
    boost::property_tree::ptree keys;
    keys.put("num_historical_points", 10);
    keys.put("min_num_historical_points", 10);
    for (const char* feature : styluspipeline::kInputFeatureNames) {
        keys.put(std::string("feature_") + feature + "_min", -10);
        keys.put(std::string("feature_") + feature + "_max", 10);
    }
    return keys;
}
