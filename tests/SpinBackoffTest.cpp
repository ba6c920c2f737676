#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "SpinBackoff.h"

namespace {

using styluspipeline::SpinBackoff;
using std::chrono::microseconds;

constexpr microseconds kQuick(5);
constexpr microseconds kSlow = std::chrono::duration_cast<microseconds>(SpinBackoff::kSlowHandOff);

// Skips spins until allowed again; the number of batches the pause lasted.
uint32_t pauseLength(SpinBackoff& backoff) {
    uint32_t skipped = 0;
    while (!backoff.spinAllowed() && skipped <= SpinBackoff::kLongestPauseBatches) {
        backoff.noteSkippedSpin();
        ++skipped;
    }
    return skipped;
}

TEST(SpinBackoffTest, SlowHandOffsPauseSpinningForDoublingBatchCounts) {
    const struct {
        const char* name;
        std::vector<microseconds> spins;  // hand-off of each spun batch, each followed by its pause
        std::vector<uint32_t> pauses;
    } cases[] = {
        {"quick hand-offs never pause", {kQuick, kQuick, kSlow - microseconds(1)}, {0, 0, 0}},
        {"one slow hand-off", {kSlow}, {SpinBackoff::kFirstPauseBatches}},
        {"repeated slow hand-offs double the pause",
         {kSlow, kSlow, kSlow},
         {SpinBackoff::kFirstPauseBatches, 2 * SpinBackoff::kFirstPauseBatches, 4 * SpinBackoff::kFirstPauseBatches}},
        {"a quick hand-off starts afresh",
         {kSlow, kSlow, kQuick, kSlow},
         {SpinBackoff::kFirstPauseBatches, 2 * SpinBackoff::kFirstPauseBatches, 0, SpinBackoff::kFirstPauseBatches}},
        {"the pause is bounded",
         std::vector<microseconds>(10, microseconds(5000)),
         {64, 128, 256, 512, 1024, 2048, 4096, 4096, 4096, 4096}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SpinBackoff backoff;
        EXPECT_TRUE(backoff.spinAllowed());
        std::vector<uint32_t> pauses;
        for (const microseconds gap : c.spins) {
            backoff.noteSpin(gap);
            pauses.push_back(pauseLength(backoff));
        }
        EXPECT_EQ(pauses, c.pauses);
    }
}

TEST(SpinBackoffTest, SkippingWithoutAPauseChangesNothing) {
    SpinBackoff backoff;
    backoff.noteSkippedSpin();
    EXPECT_TRUE(backoff.spinAllowed());
    backoff.noteSpin(kSlow);
    EXPECT_FALSE(backoff.spinAllowed());
}

}  // namespace
