#include "ReportPredictors.h"

#include <cmath>

namespace replay {

namespace {

bool finite(double x, double y) { return std::isfinite(x) && std::isfinite(y); }

}  // namespace

const std::vector<ReportPredictor>& reportPredictors() {
    // Colours told apart by readers with a red-green deficiency, each darker than the drawing's
    // paper; keep them distinct from the black truth markers.
    static const std::vector<ReportPredictor> rows = {
        {"model", "model", "model", "#1f6fc5", "dot", [](const PointSetSummary& s) -> const DistributionSummary& {
             return s.model;
         },
         [](const PointResult& p, double& x, double& y) {
             x = p.x;
             y = p.y;
             return !p.dropped && finite(x, y);
         }},
        {"ls", "least squares over the last 3 samples", "LS3", "#e07b00", "diamond",
         [](const PointSetSummary& s) -> const DistributionSummary& { return s.leastSquares; },
         [](const PointResult& p, double& x, double& y) {
             x = p.lsX;
             y = p.lsY;
             return finite(x, y);
         }},
        {"cv", "constant velocity from the last 2", "CV", "#8a8a8a", "square",
         [](const PointSetSummary& s) -> const DistributionSummary& { return s.constantVelocity; },
         [](const PointResult& p, double& x, double& y) {
             x = p.baselineX;
             y = p.baselineY;
             return p.hasBaseline && finite(x, y);
         }},
    };
    return rows;
}

}  // namespace replay
