// Kalman filters on x and y independently: constant velocity (state position and velocity, white-noise
// acceleration) or constant acceleration (position, velocity, acceleration; white-noise jerk). The
// guess is the filtered state's polynomial extrapolated `ahead` seconds.
//   processNoise         spectral density of the driving noise: mm^2/s^3 (velocity model),
//                        mm^2/s^5 (acceleration model)
//   measurementNoiseMm   standard deviation of a sample's position, mm
// A stroke's first sample fixes the position; its velocity starts at 0 within 1000 mm/s and its
// acceleration at 0 within 100000 mm/s^2 (one standard deviation), wide enough to be learnt from the
// next samples.
#pragma once

#include <cstddef>

#include "KalmanAxis.h"
#include "StrokePredictor.h"

namespace peers {

template <std::size_t Order>
class KalmanFilter : public StrokePredictor {
public:
    KalmanFilter(double processNoise, double measurementNoiseMm)
        : processNoise(processNoise), measurementNoiseMm(measurementNoiseMm) {}

    void reset() override { started = false; }

    void add(double t, double x, double y) override {
        if (!started) {
            const typename KalmanAxis<Order>::Vector spread = spreads();
            xAxis.start(x, measurementNoiseMm, spread);
            yAxis.start(y, measurementNoiseMm, spread);
            started = true;
        } else {
            const double dt = t - newest;
            xAxis.step(dt, processNoise, x, measurementNoiseMm);
            yAxis.step(dt, processNoise, y, measurementNoiseMm);
        }
        newest = t;
    }

    bool predict(double ahead, double& x, double& y) const override {
        if (!started) {
            return false;
        }
        x = xAxis.extrapolate(ahead);
        y = yAxis.extrapolate(ahead);
        return true;
    }

private:
    static typename KalmanAxis<Order>::Vector spreads() {
        typename KalmanAxis<Order>::Vector spread{};
        const double initial[] = {0.0, 1000.0, 100000.0};
        for (std::size_t i = 0; i < Order && i < 3; ++i) {
            spread[i] = initial[i];
        }
        return spread;
    }

    double processNoise;
    double measurementNoiseMm;
    KalmanAxis<Order> xAxis, yAxis;
    bool started = false;
    double newest = 0.0;
};

using KalmanConstantVelocity = KalmanFilter<2>;
using KalmanConstantAcceleration = KalmanFilter<3>;

}  // namespace peers
