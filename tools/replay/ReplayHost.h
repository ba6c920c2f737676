// The host side of the library: starts one pipeline, sends a recording's batches through the
// exported functions and collects what onPredictions delivers.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "Batcher.h"
#include "HostRecords.h"
#include "RecordingReader.h"
#include "ReplaySummary.h"
#include "StylusStrokePredictor.h"

namespace replay {

struct RecordingReplay {
    std::vector<SendRecord> sends;  // one per batch
    std::vector<CallbackRecord> callbacks;  // in arrival order
};

class ReplayHost {
public:
    // Throws ReplayError when the library does not start with this configuration. onPredictions
    // carries no context pointer, so only one host may exist at a time (ReplayError otherwise).
    explicit ReplayHost(const std::string& configPath);
    ~ReplayHost();
    ReplayHost(const ReplayHost&) = delete;
    ReplayHost& operator=(const ReplayHost&) = delete;

    // Sends every batch, in real time when asked (each batch when its newest sample was taken),
    // otherwise as fast as the pipeline accepts them. Returns once the pipeline has handled them
    // all; the stroke is then closed with a lone pen-up so that the next recording starts afresh.
    RecordingReplay replay(const Recording& recording, const Batching& batching, bool realtime,
                           const std::function<void(std::size_t batchesSent)>& progress);

    LibraryMetrics metrics() const;
    int numPredictedPoints() const;

private:
    void closeStrokeAndDrain(const StylusTouchPoint& last);

    StylusLibHandle* handle = nullptr;
};

}  // namespace replay
