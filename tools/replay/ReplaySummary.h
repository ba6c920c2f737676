// The figures of a replay as they are printed, written to JSON and drawn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "PredictionEvaluator.h"
#include "ReplayConfig.h"

namespace replay {

struct DistributionSummary {
    std::size_t count = 0;
    double mean = 0.0;  // NaN when count is 0, likewise below
    double median = 0.0;
    double p95 = 0.0;
};

struct HorizonSummary {
    int64_t ms = 0;
    int index = 0;  // ms / prediction step, 0 when ms is not a positive multiple of it
    std::size_t predictions = 0;
    std::size_t pastStrokeEnd = 0;
    DistributionSummary model;
    DistributionSummary constantVelocity;
};

struct LatencySummary {
    std::size_t count = 0;
    double p50 = 0.0;  // microseconds, NaN when count is 0
    double p99 = 0.0;
};

struct LibraryMetrics {
    bool available = false;  // false when no library was run
    double distanceErrorMm = 0.0;
    double angleDevErrorDeg = 0.0;
    bool valid = false;
};

struct ReplaySummary {
    std::string configPath;
    std::vector<std::string> inputs;
    int batchSize = 0;
    bool realtime = false;
    std::string queueFullPolicy;
    int predictionStepMs = 0;
    int numPredictions = 0;
    double mmPerPixel = 0.0;

    ReplayCounts counts;
    std::vector<HorizonSummary> horizons;  // ascending ms; the configured horizons are always listed
    LibraryMetrics library;
    LatencySummary modelLatencyUs;
    LatencySummary sendToCallbackUs;

    static ReplaySummary make(const ReplayTotals& totals, const ReplayConfig& config);
};

}  // namespace replay
