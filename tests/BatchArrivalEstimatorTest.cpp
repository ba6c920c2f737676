#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "BatchArrivalEstimator.h"

namespace {

using styluspipeline::BatchArrivalEstimator;
using Clock = BatchArrivalEstimator::Clock;
using std::chrono::microseconds;

const Clock::time_point kStart = Clock::time_point() + std::chrono::hours(1);

struct Arrival {
    int64_t atUs;  // after kStart
    bool strokeEnded;
};

BatchArrivalEstimator fed(const std::vector<Arrival>& arrivals) {
    BatchArrivalEstimator estimator;
    for (const Arrival& a : arrivals) {
        estimator.noteArrival(kStart + microseconds(a.atUs), a.strokeEnded);
    }
    return estimator;
}

TEST(BatchArrivalEstimatorTest, ExpectsTheNextBatchOneMedianIntervalAfterTheLast) {
    const struct {
        const char* name;
        std::vector<Arrival> arrivals;
        bool active;         // judged right after the last arrival
        int64_t expectedUs;  // after kStart
    } cases[] = {
        {"no batch yet", {}, false, 0},
        {"one batch", {{0, false}}, false, 0},
        {"two intervals are not enough", {{0, false}, {16667, false}, {33333, false}}, false, 33333 + 16667},
        {"steady pace", {{0, false}, {16667, false}, {33333, false}, {50000, false}}, true, 50000 + 16667},
        // Intervals 16000, 17000, 16500, 9000, 24000: the median ignores the late and the early batch.
        {"irregular gaps",
         {{0, false}, {16000, false}, {33000, false}, {49500, false}, {58500, false}, {82500, false}},
         true, 82500 + 16500},
        // Only the last five intervals count: 5000 five times after two of 16000.
        {"pace change",
         {{0, false}, {16000, false}, {32000, false}, {37000, false}, {42000, false}, {47000, false}, {52000, false},
          {57000, false}},
         true, 57000 + 5000},
        // Two batches at the same instant (a backlog) teach nothing.
        {"same instant", {{0, false}, {8000, false}, {8000, false}, {16000, false}, {24000, false}}, true,
         24000 + 8000},
        {"pen-up", {{0, false}, {8000, false}, {16000, false}, {24000, true}}, false, 24000 + 8000},
        // The gap over the pen-up is not learnt; the pace learnt before it holds for the next stroke.
        {"next stroke",
         {{0, false}, {8000, false}, {16000, false}, {24000, true}, {300000, false}, {308000, false}}, true,
         308000 + 8000},
        // A pause is not learnt either, and the stroke goes on at its pace afterwards.
        {"after a long pause",
         {{0, false}, {8000, false}, {16000, false}, {24000, false}, {1024000, false}}, true, 1024000 + 8000},
        {"gap at the limit is learnt",
         {{0, false}, {50000, false}, {100000, false}, {150000, false}}, true, 150000 + 50000},
        {"gap just above the limit is not",
         {{0, false}, {50001, false}, {100002, false}, {150003, false}, {158003, false}}, false, 158003 + 8000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const BatchArrivalEstimator estimator = fed(c.arrivals);
        const Clock::time_point last = c.arrivals.empty() ? kStart : kStart + microseconds(c.arrivals.back().atUs);
        EXPECT_EQ(estimator.strokeActive(last), c.active);
        if (!c.arrivals.empty()) {
            EXPECT_EQ(estimator.expectedNextArrival(), kStart + microseconds(c.expectedUs));
        }
    }
}

// A stroke stays active only while its last batch is recent: the thread must not spin for a pen that
// has stopped sending.
TEST(BatchArrivalEstimatorTest, StrokeTurnsInactiveOnceTheLastBatchIsTooOld) {
    const BatchArrivalEstimator estimator = fed({{0, false}, {8000, false}, {16000, false}, {24000, false}});
    const Clock::time_point last = kStart + microseconds(24000);
    EXPECT_TRUE(estimator.strokeActive(last + microseconds(8000)));
    EXPECT_TRUE(estimator.strokeActive(last + BatchArrivalEstimator::kMaxStrokeGap));
    EXPECT_FALSE(estimator.strokeActive(last + BatchArrivalEstimator::kMaxStrokeGap + microseconds(1)));
}

}  // namespace
