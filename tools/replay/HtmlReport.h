// A self-contained HTML page to look at a replay: every stroke of every recording with each predicted
// point, its true position and every other predictor's guess (drawn by a small script from data
// embedded in the page), the tables per recording, the drops, the error by horizon and the latencies.
// No external files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "PredictionEvaluator.h"
#include "ReplaySummary.h"

namespace replay {

class HtmlReport {
public:
    HtmlReport(int predictionStepMs, int numPredictions);

    void add(const Recording& recording, const Batching& batching, const std::vector<PointResult>& results);

    void write(std::ostream& out, const ReplaySummary& summary, const ReplayTotals& totals) const;

    // Positions are stored in steps of this many pixels, as whole numbers.
    static constexpr double positionUnit = 0.1;

    // Every stroke is kept, each as three lists of whole numbers (PackedNumbers; base64 in the page)
    // that the page's script decodes only when the stroke is shown:
    //  times:   the samples' timestamps in ms, the first from the recording's first sample, then each
    //           from the one before;
    //  samples: x, y of each sample in position units, the first absolute, then each from the one before;
    //  batches: per batch that has points: the index of its newest sample (the prediction's base) from
    //           the previous batch's (the first from 0), the number of points, then per point a head,
    //           h = (predictorMask * 4 + where) * (numPredictions + 1) + k, followed by the true position
    //           when there is one (where 0 or 2), from the base, and by each predictor's guess whose bit
    //           is set in predictorMask (bit i: row i of reportPredictors(with the tuned peers when they
    //           ran)), from the true position or
    //           else from the base. k: the horizon, 1..numPredictions; where: 0 inside the stroke,
    //           1 past its end, 2 dropped by the model inside it, 3 dropped past its end.
    struct EncodedStroke {
        std::size_t sampleCount = 0;
        std::size_t batchCount = 0;
        std::string times;
        std::string samples;
        std::string batches;
    };
    static std::vector<EncodedStroke> encode(const Recording& recording, const Batching& batching,
                                             const std::vector<PointResult>& results, int predictionStepMs,
                                             int numPredictions);

private:
    struct DrawnRecording {
        std::string path;
        std::vector<EncodedStroke> strokes;
    };

    void writeData(std::ostream& out) const;

    int predictionStepMs;
    int numPredictions;
    bool withPeers = false;  // the replay ran the tuned peers: they are drawn and listed too
    std::vector<DrawnRecording> recordings;
};

}  // namespace replay
