// The small models of tools/tflite, generated at build time with exactly known outputs, and
// configuration keys that suit them.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <string>

namespace testkit {

// Full path of a generated model, e.g. "const_n10_p5.tflite".
std::string generatedModel(const std::string& name);

// PredictionModel keys: a history of ten rows and feature ranges wide enough that no feature
// divides by zero.
boost::property_tree::ptree generatedModelKeys();

}  // namespace testkit
