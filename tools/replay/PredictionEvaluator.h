// Measures each prediction against where the pen really was, next to two simple extrapolations made
// from the same stroke history (constant velocity and a least-squares velocity), and gathers the
// figures of a whole replay, pooled and per recording.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Batcher.h"
#include "ErrorStats.h"
#include "HostRecords.h"
#include "RecordingReader.h"
#include "TruthInterpolator.h"

namespace replay {

// One point a callback was due to carry: base timestamp + k prediction steps, k = 1..N.
struct PointResult {
    std::size_t stroke = 0;
    std::size_t batch = 0;
    uint64_t baseTimestamp = 0;
    uint64_t timestamp = 0;
    int64_t horizonMs = 0;
    bool dropped = false;  // the model left this point out (stroke-end head); x and y are then unset
    double x = 0.0;        // predicted, pixels
    double y = 0.0;
    double baseX = 0.0, baseY = 0.0;  // the newest sample the prediction was made from
    TruthPoint::Where where = TruthPoint::Where::PastEnd;
    double truthX = 0.0, truthY = 0.0, errorMm = 0.0;  // meaningful only Inside; a drop: distance to base
    bool hasBaseline = false;  // no earlier sample in the stroke, or the same timestamp: no guess
    double baselineX = 0.0, baselineY = 0.0, baselineErrorMm = 0.0;  // meaningful with a baseline, Inside
    double lsX = 0.0, lsY = 0.0, lsErrorMm = 0.0;  // least squares over the last 3 samples; error Inside
};

// The same points measured for the model and both baselines.
struct PointSetTotals {
    ErrorStats model;
    ErrorStats constantVelocity;
    ErrorStats leastSquares;
};

struct HorizonTotals {
    std::size_t predictions = 0;  // delivered by the model
    std::size_t pastStrokeEnd = 0;
    std::size_t beforeStrokeStart = 0;
    std::size_t droppedInside = 0;   // left out although the stroke went on
    std::size_t droppedPastEnd = 0;  // left out, rightly: the stroke had ended
    ErrorStats model;                // millimetres, predictions Inside their stroke
    ErrorStats constantVelocity;     // millimetres, same base points and horizons
    PointSetTotals common;           // Inside, delivered by the model and guessed by both baselines
    PointSetTotals charged;          // common plus the drops Inside, charged as "no prediction"
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
    std::size_t droppedInside = 0;
    std::size_t droppedPastEnd = 0;
};

using HorizonMap = std::map<int64_t, HorizonTotals>;  // by prediction time minus base timestamp, ms

struct RecordingTotals {
    std::string path;
    ReplayCounts counts;
    HorizonMap horizons;
};

struct ReplayTotals {
    ReplayCounts counts;
    HorizonMap horizons;
    std::vector<RecordingTotals> recordings;  // in replay order
    ErrorStats modelLatencyUs;
    ErrorStats sendToCallbackUs;  // from sendInputTouchPoints returning to onPredictions
};

class PredictionEvaluator {
public:
    // A callback is due numPredictions points, one every predictionStepMs after its base timestamp;
    // those it lacks were dropped by the model.
    PredictionEvaluator(double mmPerPixel, int predictionStepMs, int numPredictions);

    // One recording's replay; sends holds one record per batch. Callbacks come in the order the
    // batches were sent, so each one belongs to the next accepted batch whose newest sample has the
    // callback's timestamp (batches the pipeline did not predict from are skipped over). Returns the
    // delivered and the dropped points, in callback order and by horizon within a callback.
    // Throws std::invalid_argument when sends and batches differ in number.
    std::vector<PointResult> evaluate(const Recording& recording, const Batching& batching,
                                      const std::vector<SendRecord>& sends,
                                      const std::vector<CallbackRecord>& callbacks);

    const ReplayTotals& totals() const { return sums; }

private:
    PointResult measure(const Recording& recording, const Batching& batching, std::size_t batchIndex,
                        uint64_t baseTimestamp, uint64_t timestamp) const;

    double mmPerPixel;
    int predictionStepMs;
    int numPredictions;
    ReplayTotals sums;
};

}  // namespace replay
