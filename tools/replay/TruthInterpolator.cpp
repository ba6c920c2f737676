#include "TruthInterpolator.h"

#include <algorithm>

namespace replay {

TruthInterpolator::TruthInterpolator(const StylusTouchPoint* samples, std::size_t count)
    : samples(samples), count(count) {}

TruthPoint TruthInterpolator::at(uint64_t t) const {
    TruthPoint truth;
    if (count == 0 || t > samples[count - 1].timestamp) {
        truth.where = TruthPoint::Where::PastEnd;
        return truth;
    }
    if (t < samples[0].timestamp) {
        truth.where = TruthPoint::Where::BeforeStart;
        return truth;
    }
    const StylusTouchPoint* end = samples + count;
    // First sample later than t; the one before it is the last sample at or before t.
    const StylusTouchPoint* next = std::upper_bound(
        samples, end, t, [](uint64_t value, const StylusTouchPoint& sample) { return value < sample.timestamp; });
    const StylusTouchPoint* previous = next - 1;
    truth.where = TruthPoint::Where::Inside;
    if (previous->timestamp == t || next == end) {
        truth.x = previous->x_pos;
        truth.y = previous->y_pos;
        return truth;
    }
    const double fraction = static_cast<double>(t - previous->timestamp) /
                            static_cast<double>(next->timestamp - previous->timestamp);
    truth.x = previous->x_pos + fraction * (static_cast<double>(next->x_pos) - previous->x_pos);
    truth.y = previous->y_pos + fraction * (static_cast<double>(next->y_pos) - previous->y_pos);
    return truth;
}

}  // namespace replay
