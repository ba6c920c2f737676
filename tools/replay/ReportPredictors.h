// The predictors the replay report shows, one row each: how they are named, the one colour and
// marker that stand for them in every table, chart and drawing, and where their figures and guesses
// are. A new predictor appears everywhere in the report by adding its row.
#pragma once

#include <vector>

#include "PredictionEvaluator.h"
#include "ReplaySummary.h"

namespace replay {

struct ReportPredictor {
    const char* key;        // for the page's script and test hooks: letters only
    const char* name;       // in legends and tooltips
    const char* shortName;  // as a table column
    const char* colour;     // CSS colour, the same in charts and drawing
    const char* marker;     // drawing marker: dot, diamond, square, triangle, star
    const DistributionSummary& (*figures)(const PointSetSummary& set);
    // The predicted point, false when this predictor made none for the point.
    bool (*guess)(const PointResult& point, double& x, double& y);
    bool tunedPeer = false;  // shown only when the replay ran the tuned peers (--peers)
    // Its key in ReplaySummary::predictors, where its overshoot is; null for the model.
    const char* summaryKey = nullptr;
};

// In the order they are listed everywhere; the model first, the tuned peers last and only withPeers.
const std::vector<ReportPredictor>& reportPredictors(bool withPeers = false);

}  // namespace replay
