#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <limits>

#include "StylusStrokePredictor.h"

// The host hands over packed arrays of these, so the layout is part of the exported interface.
static_assert(sizeof(StylusTouchPoint) == 40, "StylusTouchPoint must be 40 bytes");
static_assert(alignof(StylusTouchPoint) == 8, "StylusTouchPoint must be 8-byte aligned");
static_assert(offsetof(StylusTouchPoint, timestamp) == 0, "timestamp offset");
static_assert(offsetof(StylusTouchPoint, x_pos) == 8, "x_pos offset");
static_assert(offsetof(StylusTouchPoint, y_pos) == 12, "y_pos offset");
static_assert(offsetof(StylusTouchPoint, pressure) == 16, "pressure offset");
static_assert(offsetof(StylusTouchPoint, tilt) == 20, "tilt offset");
static_assert(offsetof(StylusTouchPoint, orientation) == 24, "orientation offset");
static_assert(offsetof(StylusTouchPoint, tag) == 28, "tag offset");
static_assert(offsetof(StylusTouchPoint, reserved) == 32, "trailing bytes offset");
static_assert(sizeof(StylusTouchPoint::reserved) == 8, "trailing bytes size");
static_assert(sizeof(StylusTouchPoint[7]) == 7 * 40, "an array of n points is 40n bytes");

static_assert(sizeof(PredictedStylusCoordinate) == 16, "PredictedStylusCoordinate must be 16 bytes");
static_assert(offsetof(PredictedStylusCoordinate, timestamp) == 0, "timestamp offset");
static_assert(offsetof(PredictedStylusCoordinate, x) == 8, "x offset");
static_assert(offsetof(PredictedStylusCoordinate, y) == 12, "y offset");

namespace {

StylusTouchPoint point(uint64_t timestamp, float x, float y, float pressure, float tilt, float orientation) {
    StylusTouchPoint p{};
    p.timestamp = timestamp;
    p.x_pos = x;
    p.y_pos = y;
    p.pressure = pressure;
    p.tilt = tilt;
    p.orientation = orientation;
    p.tag = STYLUS_TAG_MOVE;
    return p;
}

TEST(StylusTouchPointTest, HostArrayElementsAreFortyBytesApart) {
    StylusTouchPoint points[5]{};
    const auto* base = reinterpret_cast<const unsigned char*>(&points[0]);
    for (int n = 0; n <= 5; ++n) {
        EXPECT_EQ(reinterpret_cast<const unsigned char*>(points + n) - base, 40 * n);
    }
}

TEST(StylusTouchPointTest, DiffSubtractsOtherFromThisFieldByField) {
    const StylusTouchPoint later = point(1000, 10.0f, 20.0f, 0.5f, 30.0f, 40.0f);
    const StylusTouchPoint earlier = point(990, 7.0f, 25.0f, 0.25f, 10.0f, 50.0f);

    const StylusTouchPoint d = later.diff(&earlier);
    EXPECT_EQ(d.timestamp, 10u);
    EXPECT_EQ(d.x_pos, 3.0f);
    EXPECT_EQ(d.y_pos, -5.0f);
    EXPECT_EQ(d.pressure, 0.25f);
    EXPECT_EQ(d.tilt, 20.0f);
    EXPECT_EQ(d.orientation, -10.0f);

    const StylusTouchPoint e = later.diffExceptPressure(&earlier);
    EXPECT_EQ(e.timestamp, 10u);
    EXPECT_EQ(e.x_pos, 3.0f);
    EXPECT_EQ(e.y_pos, -5.0f);
    EXPECT_EQ(e.pressure, 0.5f);
    EXPECT_EQ(e.tilt, 20.0f);
    EXPECT_EQ(e.orientation, -10.0f);
}

TEST(StylusTouchPointTest, DiffWithItselfIsZeroExceptPressureWhenKept) {
    const StylusTouchPoint p = point(123456, 812.5f, 1034.25f, 0.75f, 0.5f, -1.25f);

    const StylusTouchPoint d = p.diff(&p);
    EXPECT_EQ(d.timestamp, 0u);
    EXPECT_EQ(d.x_pos, 0.0f);
    EXPECT_EQ(d.y_pos, 0.0f);
    EXPECT_EQ(d.pressure, 0.0f);
    EXPECT_EQ(d.tilt, 0.0f);
    EXPECT_EQ(d.orientation, 0.0f);

    const StylusTouchPoint e = p.diffExceptPressure(&p);
    EXPECT_EQ(e.timestamp, 0u);
    EXPECT_EQ(e.x_pos, 0.0f);
    EXPECT_EQ(e.y_pos, 0.0f);
    EXPECT_EQ(e.pressure, 0.75f);
    EXPECT_EQ(e.tilt, 0.0f);
    EXPECT_EQ(e.orientation, 0.0f);
}

TEST(StylusTouchPointTest, DiffAgainstLaterPointWrapsTimestamp) {
    const StylusTouchPoint earlier = point(100, 0, 0, 0, 0, 0);
    const StylusTouchPoint later = point(150, 0, 0, 0, 0, 0);
    EXPECT_EQ(earlier.diff(&later).timestamp, std::numeric_limits<uint64_t>::max() - 49u);
    EXPECT_EQ(earlier.diffExceptPressure(&later).timestamp, std::numeric_limits<uint64_t>::max() - 49u);
}

}  // namespace
