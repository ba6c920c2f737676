#pragma once

#include <chrono>
#include <cstdint>

namespace styluspipeline {

// Whether the inference thread may busy-wait for the next batch. A thread that loses its core while
// it spins shows that the machine has no core to spare; there a spinner waits for the other threads'
// time slices (milliseconds) where a sleeper woken by the batch would have been run at once. After
// such a spin the thread sleeps for the next batches, twice as many after each further interrupted
// spin, and starts afresh after an uninterrupted one. Used from one thread.
class SpinBackoff {
public:
    // Far above the few microseconds between two looks at the clock, and a producer's turn on the
    // core after a yield; well below a time slice.
    static constexpr std::chrono::nanoseconds kLostCoreGap = std::chrono::microseconds(200);
    static constexpr uint32_t kFirstPauseBatches = 64;  // about a second at pen rate
    static constexpr uint32_t kLongestPauseBatches = 64 * 64;

    bool spinAllowed() const { return pauseLeft == 0; }
    // After each spin, with the longest gap the spinner saw between two looks at the clock.
    void noteSpin(std::chrono::nanoseconds longestGap);
    // For each batch taken without spinning because of a pause.
    void noteSkippedSpin();

private:
    uint32_t pauseLeft = 0;
    uint32_t nextPause = kFirstPauseBatches;
};

}  // namespace styluspipeline
