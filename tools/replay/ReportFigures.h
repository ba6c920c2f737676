// The static parts of the replay report: SVG charts and HTML tables, written from the summary.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "ErrorStats.h"
#include "ReplaySummary.h"

namespace replay {

class ReportFigures {
public:
    // Grouped bars per horizon, mean with a whisker to the 95th percentile, for every predictor;
    // charged: the set with the model's drops charged, else where every predictor predicts.
    static void errorChart(std::ostream& out, const std::vector<HorizonSummary>& horizons, bool charged);
    // Below the charts, in HTML, so that no label can run into another.
    static void chartLegend(std::ostream& out, bool withPeers = false);
    // One row per recording, then the macro average and the pooled figures; means per horizon.
    static void recordingTable(std::ostream& out, const ReplaySummary& summary, bool charged);
    static void dropTable(std::ostream& out, const ReplaySummary& summary);
    // Per horizon, each predictor's mean overshoot past the lift (p95 on hover).
    static void overshootTable(std::ostream& out, const ReplaySummary& summary);
    static void histogram(std::ostream& out, const ErrorStats& stats, const std::string& title);

    // A histogram's bins: counts[i] holds the values in [edges[i], edges[i + 1]), the last bin also
    // its upper edge; values below the first edge count in the first bin.
    struct Bins {
        bool logarithmic = false;
        std::vector<double> edges;
        std::vector<std::size_t> counts;
    };
    static Bins latencyBins(const std::vector<double>& sortedValues);

    static std::string number(double value, int decimals = 2);
    static std::string escapeHtml(const std::string& text);
};

}  // namespace replay
