// A self-contained HTML page to look at a replay: every recording's first strokes with each predicted
// point, its true position and both baselines' guesses (drawn by a small script from data embedded
// in the page), the tables per recording, the drops, the error by horizon and the latencies. No
// external files.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "PredictionEvaluator.h"
#include "ReplaySummary.h"

namespace replay {

class HtmlReport {
public:
    // Of each recording, strokes are drawn from its first while about sampleBudget samples last (at
    // least one stroke), to keep the page light.
    HtmlReport(int predictionStepMs, int numPredictions, std::size_t sampleBudget = 3000);

    void add(const Recording& recording, const Batching& batching, const std::vector<PointResult>& results);

    void write(std::ostream& out, const ReplaySummary& summary, const ReplayTotals& totals) const;

private:
    struct DrawnStroke {
        std::vector<float> samples;  // x, y, ...
        std::string predictions;     // JSON rows, see writeData
    };
    struct DrawnRecording {
        std::string path;
        std::size_t strokeCount = 0;
        std::vector<DrawnStroke> strokes;
    };

    void writeData(std::ostream& out) const;

    int predictionStepMs;
    int numPredictions;
    std::size_t sampleBudget;
    std::vector<DrawnRecording> recordings;
};

}  // namespace replay
