#pragma once

#include <map>
#include <vector>

#include "StylusStrokePredictor.h"

// One batch on its way from a host thread to the inference thread.
struct StylusPointMessage {
    bool hasStrokeBoundary = false;
    StylusTouchPoint strokeBoundaryPoint{};             // the batch's last pen-down or pen-up sample
    std::map<unsigned long, StylusTouchPoint> points;  // later move samples, by timestamp
    std::vector<StylusTouchPoint> sent;                 // the whole batch as sent, when it is recorded
};
