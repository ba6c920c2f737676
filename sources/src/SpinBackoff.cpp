#include "SpinBackoff.h"

#include <algorithm>

namespace styluspipeline {

void SpinBackoff::noteSpin(std::chrono::nanoseconds handOff) {
    if (handOff < kSlowHandOff) {
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
