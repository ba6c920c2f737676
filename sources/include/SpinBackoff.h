#pragma once

#include <chrono>
#include <cstdint>

namespace styluspipeline {

// Whether the inference thread may busy-wait for the next batch. A batch that, awaited by a spin,
// still waits long for the thread shows that the machine has no core to spare; there a spinner loses
// its core to the other threads' time slices (milliseconds) and the scheduler, having seen it run,
// is slow to give it back, where a thread that sleeps until the batch wakes it is run at once. After
// such a hand-off the thread sleeps for the next batches, twice as many after each further slow one,
// and starts afresh after a quick one. Used from one thread.
class SpinBackoff {
public:
    // Far above a spinner's hand-off (microseconds) and a sleeper's wake-up on an idle core (tens of
    // microseconds); well below a time slice.
    static constexpr std::chrono::nanoseconds kSlowHandOff = std::chrono::microseconds(200);
    static constexpr uint32_t kFirstPauseBatches = 64;  // about a second at pen rate
    static constexpr uint32_t kLongestPauseBatches = 64 * 64;

    bool spinAllowed() const { return pauseLeft == 0; }
    // After each batch awaited by a spin: how long it waited between being sent and being taken.
    void noteSpin(std::chrono::nanoseconds handOff);
    // For each batch taken without spinning because of a pause.
    void noteSkippedSpin();

private:
    uint32_t pauseLeft = 0;
    uint32_t nextPause = kFirstPauseBatches;
};

}  // namespace styluspipeline
