#pragma once

#include <cstdint>
#include <string>

#include "StylusModelInputFeatures.h"

namespace styluspipeline {

// The model predictor's share of the configuration. Start values here are overwritten by the
// configuration reader, whose defaults may differ (see PredictorParams).
struct ModelPredictorParams {
    std::string model_path;                  // full path of the .tflite model
    float stroke_end_thres = 0.5f;           // stroke-end probability at or above which a point is dropped
    int32_t num_predictions = 5;             // future points per inference
    int32_t reserved = 4;                    // set by no key, read by no code
    int32_t prediction_time_delta_ms = 4;    // step between predicted points
    uint32_t pixel_per_inch = 213;           // screen density
    uint32_t num_historcal_points = 10;      // rows of model input history
    uint32_t min_num_historical_points = 10; // samples needed after a stroke boundary (plus one)
    float mm_per_inch = 25.4f;
    // Min/max normalisation ranges, feature_<name>_max and feature_<name>_min for every input feature;
    // a pair left at 1.0/1.0 divides by zero.
#define STYLUS_INPUT_FEATURE_RANGE(name, logPlace) \
    float feature_##name##_max = 1.0f;             \
    float feature_##name##_min = 1.0f;
    STYLUS_INPUT_FEATURES(STYLUS_INPUT_FEATURE_RANGE)
#undef STYLUS_INPUT_FEATURE_RANGE
    int32_t predictionErrorMeasurementWindow = 120;  // logged only
    bool use_raw_pressure = false;           // pressure feature is the absolute value, not a difference
    uint32_t target_event_count = 50000;     // metric weight cap
    uint32_t save_metrics_interval = 5000;   // measured points between metric saves
    std::string inference_engine = "auto";   // auto, xnnpack or armnn (see talcflow::TALCEngine)
    // Fastest a pen is taken to move: no predicted point lies farther from the newest sample than
    // this speed covers in the point's horizon.
    float max_pen_speed_mm_per_s = 1000.0f;
};

}  // namespace styluspipeline
