#include "ReportPredictors.h"

#include <cmath>

namespace replay {

namespace {

bool finite(double x, double y) { return std::isfinite(x) && std::isfinite(y); }

// The tuned peers' figures and guesses, in the order of the peers table after the two baselines.
template <std::size_t Peer>
const DistributionSummary& peerFigures(const PointSetSummary& set) {
    static const DistributionSummary none{0, std::nan(""), std::nan(""), std::nan("")};
    return Peer < set.peers.size() ? set.peers[Peer] : none;
}

template <std::size_t Peer>
bool peerGuess(const PointResult& point, double& x, double& y) {
    constexpr std::size_t index = 2 + Peer;
    if (index >= point.guesses.size() || !point.guesses[index].has) {
        return false;
    }
    x = point.guesses[index].x;
    y = point.guesses[index].y;
    return finite(x, y);
}

std::vector<ReportPredictor> withTunedPeers(std::vector<ReportPredictor> rows) {
    rows.push_back({"kalmancv", "Kalman CV (tuned)", "KCV", "#2a9d5c", "triangle", peerFigures<0>, peerGuess<0>, true,
                    "kalman_constant_velocity"});
    rows.push_back({"kalmanca", "Kalman CA (tuned)", "KCA", "#b8336a", "star", peerFigures<1>, peerGuess<1>, true,
                    "kalman_constant_acceleration"});
    rows.push_back({"lslinear", "LS linear (tuned)", "LSL", "#7b52ab", "triangle", peerFigures<2>, peerGuess<2>, true,
                    "least_squares_linear"});
    rows.push_back({"lsquadratic", "LS quadratic (tuned)", "LSQ", "#a88400", "star", peerFigures<3>, peerGuess<3>, true,
                    "least_squares_quadratic"});
    return rows;
}

}  // namespace

const std::vector<ReportPredictor>& reportPredictors(bool withPeers) {
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
         },
         false, "least_squares_3"},
        {"cv", "constant velocity from the last 2", "CV", "#8a8a8a", "square",
         [](const PointSetSummary& s) -> const DistributionSummary& { return s.constantVelocity; },
         [](const PointResult& p, double& x, double& y) {
             x = p.baselineX;
             y = p.baselineY;
             return p.hasBaseline && finite(x, y);
         },
         false, "constant_velocity"},
    };
    static const std::vector<ReportPredictor> all = withTunedPeers(rows);
    return withPeers ? all : rows;
}

}  // namespace replay
