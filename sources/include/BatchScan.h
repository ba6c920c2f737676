// Which samples of a batch the predictor sees, shared by the exported input function and the
// feature dump, so that the features the training code is checked against come from the same scan.
#pragma once

#include <cstddef>

#include "StylusPointMessage.h"

namespace styluspipeline {

// Scans from the end: the last pen-down or pen-up sample marks the stroke boundary, and only the
// move samples after it are kept (the latest sample wins for a repeated timestamp).
inline void scanBatch(const StylusTouchPoint* points, std::size_t count, StylusPointMessage& message) {
    message.hasStrokeBoundary = false;
    message.strokeBoundaryPoint = StylusTouchPoint{};
    message.points.clear();
    for (std::size_t index = count; index-- > 0;) {
        const StylusTouchPoint& point = points[index];
        if (point.tag == STYLUS_TAG_PEN_DOWN || point.tag == STYLUS_TAG_PEN_UP) {
            message.hasStrokeBoundary = true;
            message.strokeBoundaryPoint = point;
            return;
        }
        message.points.emplace(point.timestamp, point);
    }
}

}  // namespace styluspipeline
