// Strokes for tests, benchmarks and the soak: a pen circling at 300 pixels around (800, 1200), its
// pressure, tilt and orientation following the angle so that every input feature moves.
#pragma once

#include <cmath>
#include <cstdint>

#include "StylusStrokePredictor.h"

namespace testkit {

// A move sample at the given angle in radians.
inline StylusTouchPoint circlingPen(uint64_t timestamp, float angle, float pressureSwing = 0.1f) {
    StylusTouchPoint point{};
    point.timestamp = timestamp;
    point.x_pos = 800.0f + 300.0f * std::cos(angle);
    point.y_pos = 1200.0f + 300.0f * std::sin(angle);
    point.pressure = 0.5f + pressureSwing * std::sin(3.0f * angle);
    point.tilt = 0.3f;
    point.orientation = 0.1f * std::cos(angle);
    point.tag = STYLUS_TAG_MOVE;
    return point;
}

}  // namespace testkit
