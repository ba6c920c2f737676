// Measures each prediction against where the pen really was, next to the guesses other predictors make
// from the same stroke history (two simple extrapolations, constant velocity and a least-squares
// velocity, and with a peers file the tuned peers), and gathers the figures of a whole replay, pooled
// and per recording.
//
// Overshoot: for a point due past its stroke's lift (the stroke's last sample), how far a predictor's
// point lands beyond the lift point along the stroke's final direction, in mm, 0 when it lands short;
// the final direction runs from the stroke's latest sample at least 0.2 mm from the lift point to the
// lift point (without such a sample, the distance from the lift point counts). A point the model
// dropped, or a predictor had no guess for, overshoots by 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Batcher.h"
#include "ErrorStats.h"
#include "HostRecords.h"
#include "PeerFile.h"
#include "PredictorTable.h"
#include "RecordingReader.h"
#include "StrokeFollower.h"
#include "TruthInterpolator.h"

namespace replay {

// Another predictor's guess for a point.
struct Guess {
    bool has = false;          // too few samples: no guess
    double x = 0.0, y = 0.0;   // pixels
    double errorMm = 0.0;      // meaningful Inside
    double overshootMm = 0.0;  // meaningful PastEnd; 0 without a guess
};

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
    double overshootMm = 0.0;  // the model's, meaningful PastEnd; 0 for a drop
    // One per predictor of the evaluator (PredictionEvaluator::predictors()), baselines first; the
    // baselines' guesses are also in the fields above.
    std::vector<Guess> guesses;
};

// The same points measured for the model and both baselines, and the tuned peers when replayed.
struct PointSetTotals {
    ErrorStats model;
    ErrorStats constantVelocity;
    ErrorStats leastSquares;
    std::vector<ErrorStats> peers;  // in the order of ReplayTotals::predictors' tuned ones
};

// Every point due past its stroke's lift, whether the model delivered or dropped it.
struct OvershootTotals {
    ErrorStats model;
    std::vector<ErrorStats> predictors;  // in the order of ReplayTotals::predictors
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
    OvershootTotals overshoot;       // millimetres
};

struct ReplayCounts {
    std::size_t recordings = 0;
    std::size_t strokes = 0;
    std::size_t samples = 0;
    std::size_t skippedRows = 0;  // rows of the file left out as unusable (not in samples)
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
    double rateHz = 0.0;      // samplingRate of the recording
    double peerRateHz = 0.0;  // the tuned rate whose peer parameters were used; 0 without peers
    ReplayCounts counts;
    HorizonMap horizons;
};

struct ReplayTotals {
    std::vector<const peers::PredictorKind*> predictors;  // besides the model, baselines first
    std::string peerFile;                                 // empty without tuned peers
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
    // With a peers file, the tuned peers join the baselines, with the parameters tuned for the rate
    // nearest each recording's own; the file must outlive the evaluator.
    PredictionEvaluator(double mmPerPixel, int predictionStepMs, int numPredictions,
                        const peers::PeerFile* peerFile = nullptr, const std::string& peerFilePath = "");

    // One recording's replay; sends holds one record per batch. Callbacks come in the order the
    // batches were sent, so each one belongs to the next accepted batch whose newest sample has the
    // callback's timestamp (batches the pipeline did not predict from are skipped over). Returns the
    // delivered and the dropped points, in callback order and by horizon within a callback.
    // Throws std::invalid_argument when sends and batches differ in number.
    std::vector<PointResult> evaluate(const Recording& recording, const Batching& batching,
                                      const std::vector<SendRecord>& sends,
                                      const std::vector<CallbackRecord>& callbacks);

    const ReplayTotals& totals() const { return sums; }
    const std::vector<const peers::PredictorKind*>& predictors() const { return sums.predictors; }

private:
    PointResult measure(const Recording& recording, const Batching& batching, const StrokeFollower& follower,
                        std::size_t batchIndex, uint64_t baseTimestamp, uint64_t timestamp) const;
    double overshootMm(const Recording& recording, const Stroke& stroke, double x, double y) const;

    double mmPerPixel;
    const peers::PeerFile* peerFile;
    int predictionStepMs;
    int numPredictions;
    ReplayTotals sums;
};

}  // namespace replay
