// What the host keeps of each batch it sends and of each prediction callback it receives.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "StylusStrokePredictor.h"

namespace replay {

using SteadyTime = std::chrono::steady_clock::time_point;

struct SendRecord {
    bool accepted = false;  // sendInputTouchPoints returned 0
    SteadyTime returnedAt;
};

struct CallbackRecord {
    uint64_t timestamp = 0;  // newest input sample the prediction is based on
    std::vector<PredictedStylusCoordinate> coordinates;  // copied: the library frees its array
    int64_t preprocessLatencyUs = 0;
    int64_t modelLatencyUs = 0;
    SteadyTime receivedAt;
};

}  // namespace replay
