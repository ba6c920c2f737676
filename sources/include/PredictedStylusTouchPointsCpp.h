#pragma once

#include <cstdint>
#include <vector>

#include "StylusStrokePredictor.h"

namespace styluspipeline {

// The result of one inference.
struct PredictedStylusTouchPointsCpp {
    uint64_t timestamp = 0;  // newest input sample; predicted timestamps count from it
    std::vector<PredictedStylusCoordinate> coordinates;  // increasing time
    int64_t preprocessLatencyUs = 0;  // call start until the new rows are in the history
    int64_t modelLatencyUs = 0;       // from there to the end of the call (inference and decoding)
};

}  // namespace styluspipeline
