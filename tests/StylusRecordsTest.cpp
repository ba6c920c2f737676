#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <tuple>

#include "StylusStrokePredictor.h"

// The host hands over packed arrays of these, so the layout is part of the exported interface.
static_assert(sizeof(StylusTouchPoint) == 40 && alignof(StylusTouchPoint) == 8, "StylusTouchPoint size");
static_assert(offsetof(StylusTouchPoint, timestamp) == 0 && offsetof(StylusTouchPoint, x_pos) == 8 &&
                  offsetof(StylusTouchPoint, y_pos) == 12 && offsetof(StylusTouchPoint, pressure) == 16 &&
                  offsetof(StylusTouchPoint, tilt) == 20 && offsetof(StylusTouchPoint, orientation) == 24 &&
                  offsetof(StylusTouchPoint, tag) == 28 && offsetof(StylusTouchPoint, reserved) == 32,
              "StylusTouchPoint offsets");
static_assert(sizeof(PredictedStylusCoordinate) == 16 && offsetof(PredictedStylusCoordinate, x) == 8 &&
                  offsetof(PredictedStylusCoordinate, y) == 12,
              "PredictedStylusCoordinate layout");

namespace {

StylusTouchPoint point(uint64_t timestamp, float x, float y, float pressure, float tilt, float orientation) {
    StylusTouchPoint p{};
    p.timestamp = timestamp;
    p.x_pos = x;
    p.y_pos = y;
    p.pressure = pressure;
    p.tilt = tilt;
    p.orientation = orientation;
    return p;
}

auto fields(const StylusTouchPoint& p) {
    return std::make_tuple(p.timestamp, p.x_pos, p.y_pos, p.pressure, p.tilt, p.orientation);
}

TEST(StylusTouchPointTest, DiffSubtractsFieldByFieldAndWrapsTheTimestamp) {
    const StylusTouchPoint later = point(1000, 10.0f, 20.0f, 0.5f, 30.0f, 40.0f);
    const StylusTouchPoint earlier = point(990, 7.0f, 25.0f, 0.25f, 10.0f, 50.0f);
    EXPECT_EQ(fields(later.diff(&earlier)), std::make_tuple(uint64_t{10}, 3.0f, -5.0f, 0.25f, 20.0f, -10.0f));
    // The pressure stays this sample's absolute value.
    EXPECT_EQ(fields(later.diffExceptPressure(&earlier)),
              std::make_tuple(uint64_t{10}, 3.0f, -5.0f, 0.5f, 20.0f, -10.0f));
    EXPECT_EQ(earlier.diff(&later).timestamp, std::numeric_limits<uint64_t>::max() - 9u);
    EXPECT_EQ(earlier.diffExceptPressure(&later).timestamp, std::numeric_limits<uint64_t>::max() - 9u);
}

}  // namespace
