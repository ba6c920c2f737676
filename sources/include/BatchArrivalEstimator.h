#pragma once

#include <array>
#include <chrono>
#include <cstddef>

namespace styluspipeline {

// Learns the pace at which the host sends batches while the pen is down, so that the inference
// thread can be awake when the next one is due. The pace is that of the touch hardware's reports,
// so it is kept across strokes; the gap over a pen-up or a pause is not a report interval and is
// not learnt. Allocates nothing; used from one thread.
class BatchArrivalEstimator {
public:
    using Clock = std::chrono::steady_clock;
    // An interval longer than this is a pause, not the pace of a moving pen.
    static constexpr Clock::duration kMaxStrokeGap = std::chrono::milliseconds(50);
    // Intervals kept; the estimate is their median, so one late or early batch does not move it.
    static constexpr size_t kKeptIntervals = 5;
    // Intervals needed before any estimate is trusted.
    static constexpr size_t kMinIntervals = 3;

    // A batch was taken at `at`; strokeEnded: it closed its stroke (its boundary sample is a pen-up).
    void noteArrival(Clock::time_point at, bool strokeEnded);

    // Whether a next batch is expected soon: the pace is known, the last batch did not end its stroke
    // and came no longer than kMaxStrokeGap before now.
    bool strokeActive(Clock::time_point now) const;

    // The last arrival plus the median of the kept intervals; the last arrival alone while the pace
    // is not known yet.
    Clock::time_point expectedNextArrival() const;

private:
    std::array<Clock::duration, kKeptIntervals> intervals{};
    size_t intervalCount = 0;  // valid entries, at most kKeptIntervals
    size_t nextSlot = 0;       // where the next interval goes
    Clock::time_point lastArrival{};
    bool haveArrival = false;
    bool ended = false;
};

}  // namespace styluspipeline
