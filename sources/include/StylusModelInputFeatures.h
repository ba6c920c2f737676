#pragma once

#include <array>
#include <cstddef>

// The model's input features, in column order: the one list the input row, the configuration's
// range keys, the generated-model keys and the feature dump are made from (the training code keeps
// the same list, and the parity test compares them). Each entry gives the feature's place in the
// configuration reader's start-up log, which has always shown tilt before pressure.
//   timestamp: time gap, host units          xpos, ypos: displacement, millimetres
//   pressure: difference, or absolute pressure with raw pressure on
//   tilt, orientation: difference
#define STYLUS_INPUT_FEATURES(FEATURE) \
    FEATURE(timestamp, 0)              \
    FEATURE(xpos, 1)                   \
    FEATURE(ypos, 2)                   \
    FEATURE(pressure, 4)               \
    FEATURE(tilt, 3)                   \
    FEATURE(orientation, 5)

// One model input row: the normalised step from one sample to the next.
struct StylusModelInputFeatures {
#define STYLUS_INPUT_FEATURE_FIELD(name, logPlace) float name;
    STYLUS_INPUT_FEATURES(STYLUS_INPUT_FEATURE_FIELD)
#undef STYLUS_INPUT_FEATURE_FIELD
};

namespace styluspipeline {

#define STYLUS_INPUT_FEATURE_NAME(name, logPlace) #name,
constexpr std::array kInputFeatureNames = {STYLUS_INPUT_FEATURES(STYLUS_INPUT_FEATURE_NAME)};
#undef STYLUS_INPUT_FEATURE_NAME
constexpr std::size_t kInputFeatureCount = kInputFeatureNames.size();

#define STYLUS_INPUT_FEATURE_COLUMN(name, logPlace) &StylusModelInputFeatures::name,
constexpr std::array<float StylusModelInputFeatures::*, kInputFeatureCount> kInputFeatureColumns = {
    STYLUS_INPUT_FEATURES(STYLUS_INPUT_FEATURE_COLUMN)};
#undef STYLUS_INPUT_FEATURE_COLUMN

// A row's values in column order.
inline std::array<float, kInputFeatureCount> featureValues(const StylusModelInputFeatures& row) {
    std::array<float, kInputFeatureCount> values{};
    for (std::size_t i = 0; i < kInputFeatureCount; ++i) {
        values[i] = row.*kInputFeatureColumns[i];
    }
    return values;
}

static_assert(sizeof(StylusModelInputFeatures) == kInputFeatureCount * sizeof(float),
              "an input row is its features and nothing else");

}  // namespace styluspipeline
