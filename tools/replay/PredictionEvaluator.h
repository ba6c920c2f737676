// Measures each prediction against where the pen really was, next to a constant-velocity guess
// made from the same batch, and gathers the figures of a whole replay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "Batcher.h"
#include "ErrorStats.h"
#include "HostRecords.h"
#include "RecordingReader.h"
#include "TruthInterpolator.h"

namespace replay {

struct PointResult {
    std::size_t stroke = 0;
    std::size_t batch = 0;
    uint64_t baseTimestamp = 0;
    uint64_t timestamp = 0;
    int64_t horizonMs = 0;
    double x = 0.0;  // predicted, pixels
    double y = 0.0;
    TruthPoint::Where where = TruthPoint::Where::PastEnd;
    double truthX = 0.0, truthY = 0.0, errorMm = 0.0;  // meaningful only Inside
    bool hasBaseline = false;  // no earlier sample in the stroke, or the same timestamp: no guess
    double baselineX = 0.0, baselineY = 0.0, baselineErrorMm = 0.0;  // meaningful with a baseline, Inside
};

struct HorizonTotals {
    std::size_t predictions = 0;
    std::size_t pastStrokeEnd = 0;
    std::size_t beforeStrokeStart = 0;
    ErrorStats model;             // millimetres, predictions Inside their stroke
    ErrorStats constantVelocity;  // millimetres, same base points and horizons
};

struct ReplayCounts {
    std::size_t recordings = 0;
    std::size_t strokes = 0;
    std::size_t samples = 0;
    std::size_t batches = 0;
    std::size_t refusedBatches = 0;
    std::size_t predictedBatches = 0;  // callbacks matched to a batch
    std::size_t predictions = 0;       // predicted points
    std::size_t measuredPredictions = 0;
    std::size_t pastStrokeEnd = 0;
    std::size_t beforeStrokeStart = 0;
    std::size_t unmatchedCallbacks = 0;  // timestamp of no accepted batch: not measured
};

struct ReplayTotals {
    ReplayCounts counts;
    std::map<int64_t, HorizonTotals> horizons;  // by prediction time minus base timestamp, ms
    ErrorStats modelLatencyUs;
    ErrorStats sendToCallbackUs;  // from sendInputTouchPoints returning to onPredictions
};

class PredictionEvaluator {
public:
    explicit PredictionEvaluator(double mmPerPixel);

    // One recording's replay; sends holds one record per batch. Callbacks come in the order the
    // batches were sent, so each one belongs to the next accepted batch whose newest sample has the
    // callback's timestamp (batches the pipeline did not predict from are skipped over).
    // Throws std::invalid_argument when sends and batches differ in number.
    std::vector<PointResult> evaluate(const Recording& recording, const Batching& batching,
                                      const std::vector<SendRecord>& sends,
                                      const std::vector<CallbackRecord>& callbacks);

    const ReplayTotals& totals() const { return sums; }

private:
    PointResult measure(const Recording& recording, const Batching& batching, std::size_t batchIndex,
                        uint64_t baseTimestamp, const PredictedStylusCoordinate& predicted) const;

    double mmPerPixel;
    ReplayTotals sums;
};

}  // namespace replay
