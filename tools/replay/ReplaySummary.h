// The figures of a replay as they are printed, written to JSON and drawn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MetricsFileState.h"
#include "PredictionEvaluator.h"
#include "ReplayConfig.h"

namespace replay {

struct DistributionSummary {
    std::size_t count = 0;
    double mean = 0.0;  // NaN when count is 0, likewise below
    double median = 0.0;
    double p95 = 0.0;
};

// One set of points measured for the model and both baselines, and the tuned peers when replayed.
struct PointSetSummary {
    std::size_t count = 0;       // points
    std::size_t recordings = 0;  // recordings with at least one point in the set
    DistributionSummary model;
    DistributionSummary constantVelocity;
    DistributionSummary leastSquares;
    std::vector<DistributionSummary> peers;  // ReplaySummary::tunedPredictors() order
};

// How far points due past their stroke's lift land beyond it (see PredictionEvaluator.h), mm.
struct OvershootSummary {
    std::size_t count = 0;  // points due past the lift, delivered or dropped by the model
    DistributionSummary model;
    std::vector<DistributionSummary> predictors;  // ReplaySummary::predictors order
};

struct HorizonSummary {
    int64_t ms = 0;
    int index = 0;  // ms / prediction step, 0 when ms is not a positive multiple of it
    std::size_t predictions = 0;
    std::size_t pastStrokeEnd = 0;
    std::size_t droppedInside = 0;
    std::size_t droppedPastEnd = 0;
    DistributionSummary model;
    DistributionSummary constantVelocity;
    PointSetSummary common;   // where every predictor predicts
    PointSetSummary charged;  // plus the model's drops inside a stroke, charged as "no prediction"
    OvershootSummary overshoot;
};

struct RecordingSummary {
    std::string path;
    double rateHz = 0.0;      // samples per second, see samplingRate
    double peerRateHz = 0.0;  // the tuned rate the peers' parameters came from; 0 without peers
    ReplayCounts counts;
    std::vector<HorizonSummary> horizons;  // the same horizons as the pooled ones
};

struct LatencySummary {
    std::size_t count = 0;
    double p50 = 0.0;  // microseconds, NaN when count is 0
    double p99 = 0.0;
};

struct LibraryMetrics {
    // What the library's online distance error is: not a figure of any one horizon above.
    static const char* const measures;
    // What getMetricsAreValid answers, for a target of that many measured points.
    static std::string validMeans(unsigned long long targetEventCount);

    bool available = false;  // false when no library was run
    double distanceErrorMm = 0.0;
    double angleDevErrorDeg = 0.0;
    bool valid = false;
    unsigned long long targetEventCount = 0;  // PredictionModel.target_event_count
    MetricsFileState file;
};

struct ReplaySummary {
    std::vector<const peers::PredictorKind*> predictors;  // besides the model, baselines first
    std::string peerFile;                                 // empty without tuned peers
    std::vector<const peers::PredictorKind*> tunedPredictors() const;

    std::string configPath;
    std::vector<std::string> inputs;
    int batchSize = 0;
    bool realtime = false;
    std::string queueFullPolicy;
    int predictionStepMs = 0;
    int numPredictions = 0;
    double mmPerPixel = 0.0;

    ReplayCounts counts;
    std::vector<HorizonSummary> horizons;  // pooled; ascending ms; the configured horizons are always listed
    std::vector<RecordingSummary> recordings;
    // Each recording weighs the same: every figure is the mean of the recordings' own figures, over
    // the recordings with a point in the set; counts are summed.
    std::vector<HorizonSummary> macroAverage;
    LibraryMetrics library;
    LatencySummary modelLatencyUs;
    LatencySummary sendToCallbackUs;
    std::string libraryLogPath;  // empty: the library's log went to the terminal

    static ReplaySummary make(const ReplayTotals& totals, const ReplayConfig& config);
};

}  // namespace replay
