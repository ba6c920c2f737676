#include "BatchArrivalEstimator.h"

#include <algorithm>

namespace styluspipeline {

void BatchArrivalEstimator::noteArrival(Clock::time_point at, bool strokeEnded) {
    if (haveArrival && !ended) {
        const Clock::duration interval = at - lastArrival;
        if (interval > Clock::duration::zero() && interval <= kMaxStrokeGap) {
            intervals[nextSlot] = interval;
            nextSlot = (nextSlot + 1) % kKeptIntervals;
            intervalCount = std::min(intervalCount + 1, kKeptIntervals);
        }
    }
    lastArrival = at;
    haveArrival = true;
    ended = strokeEnded;
}

bool BatchArrivalEstimator::strokeActive(Clock::time_point now) const {
    return haveArrival && !ended && intervalCount >= kMinIntervals && now - lastArrival <= kMaxStrokeGap;
}

BatchArrivalEstimator::Clock::time_point BatchArrivalEstimator::expectedNextArrival() const {
    if (intervalCount == 0) {
        return lastArrival;
    }
    std::array<Clock::duration, kKeptIntervals> sorted = intervals;
    const auto end = sorted.begin() + static_cast<std::ptrdiff_t>(intervalCount);
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(intervalCount / 2);
    std::nth_element(sorted.begin(), middle, end);
    return lastArrival + *middle;
}

}  // namespace styluspipeline
