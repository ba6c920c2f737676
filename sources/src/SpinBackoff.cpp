#include "SpinBackoff.h"

#include <algorithm>

namespace styluspipeline {

void SpinBackoff::noteSpin(std::chrono::nanoseconds longestGap) {
    if (longestGap < kLostCoreGap) {
        nextPause = kFirstPauseBatches;
        return;
    }
    pauseLeft = nextPause;
    nextPause = std::min(nextPause * 2, kLongestPauseBatches);
}

void SpinBackoff::noteSkippedSpin() {
    if (pauseLeft > 0) {
        --pauseLeft;
    }
}

}  // namespace styluspipeline
