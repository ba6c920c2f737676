#include "PredictorTable.h"

#include <cmath>

#include "ConstantVelocityBaseline.h"
#include "KalmanFilter.h"
#include "PolynomialFit.h"

namespace peers {

namespace {

int window(double value) { return static_cast<int>(std::lround(value)); }

}  // namespace

std::vector<double> PredictorKind::initialValues() const {
    std::vector<double> values;
    for (const Parameter& p : parameters) {
        values.push_back(p.initial);
    }
    return values;
}

const std::vector<PredictorKind>& predictorKinds() {
    static const std::vector<PredictorKind> kinds = {
        {"constant_velocity", "cv", "constant velocity", false, {},
         [](const std::vector<double>&) -> std::unique_ptr<StrokePredictor> {
             return std::make_unique<ConstantVelocityBaseline>();
         }},
        // The slope over the last three samples, extrapolated from the newest sample itself.
        {"least_squares_3", "ls", "least squares (3)", false, {},
         [](const std::vector<double>&) -> std::unique_ptr<StrokePredictor> {
             return std::make_unique<PolynomialFit>(1, 3, 1.0, PolynomialFit::Anchor::NewestSample);
         }},
        {"kalman_constant_velocity", "kalman_cv", "Kalman CV", true,
         {{"process_noise", 1e5, 1.0, 1e10, false, true}, {"measurement_noise_mm", 0.05, 1e-4, 5.0, false, true}},
         [](const std::vector<double>& v) -> std::unique_ptr<StrokePredictor> {
             return std::make_unique<KalmanConstantVelocity>(v[0], v[1]);
         }},
        {"kalman_constant_acceleration", "kalman_ca", "Kalman CA", true,
         {{"process_noise", 1e8, 1e2, 1e14, false, true}, {"measurement_noise_mm", 0.05, 1e-4, 5.0, false, true}},
         [](const std::vector<double>& v) -> std::unique_ptr<StrokePredictor> {
             return std::make_unique<KalmanConstantAcceleration>(v[0], v[1]);
         }},
        {"least_squares_linear", "ls_linear", "LS linear", true,
         {{"window", 4, 2, 40, true, false}, {"damping", 1.0, 0.0, 1.5, false, false}},
         [](const std::vector<double>& v) -> std::unique_ptr<StrokePredictor> {
             return std::make_unique<PolynomialFit>(1, window(v[0]), v[1]);
         }},
        {"least_squares_quadratic", "ls_quadratic", "LS quadratic", true,
         {{"window", 8, 3, 60, true, false}, {"damping", 1.0, 0.0, 1.5, false, false}},
         [](const std::vector<double>& v) -> std::unique_ptr<StrokePredictor> {
             return std::make_unique<PolynomialFit>(2, window(v[0]), v[1]);
         }},
    };
    return kinds;
}

}  // namespace peers
