// A self-contained HTML page to look at a replay: the strokes with their predicted points, the error
// by horizon next to the constant-velocity guess, and the latency distributions. No scripts, no
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
    // Only the first strokes of the first recording are drawn, up to about this many samples, to
    // keep the page light.
    explicit HtmlReport(int predictionStepMs, std::size_t sampleBudget = 5000);

    // Keeps strokes of the first recording with samples (and their predictions) while the budget
    // lasts; later recordings only count in the charts.
    void add(const Recording& recording, const Batching& batching, const std::vector<PointResult>& results);

    void write(std::ostream& out, const ReplaySummary& summary, const ReplayTotals& totals) const;

private:
    struct Point {
        double x;
        double y;
    };
    struct DrawnPrediction {
        Point base;
        std::vector<Point> points;
        std::vector<int> horizonIndex;  // 1 for one prediction step ahead
        std::vector<bool> inside;
    };

    void writeDrawing(std::ostream& out) const;

    int predictionStepMs;
    std::size_t sampleBudget;
    std::size_t drawnSamples = 0;
    std::vector<std::string> drawnRecordings;
    std::vector<std::vector<Point>> strokes;
    std::vector<DrawnPrediction> predictions;
};

}  // namespace replay
