// The simplest guess: the pen keeps the velocity of its last two samples.
#pragma once

#include "StrokePredictor.h"

namespace peers {

class ConstantVelocityBaseline : public StrokePredictor {
public:
    void reset() override { samples = 0; }
    void add(double t, double x, double y) override;
    bool predict(double ahead, double& x, double& y) const override;

private:
    int samples = 0;
    double t0 = 0.0, x0 = 0.0, y0 = 0.0;  // newest
    double t1 = 0.0, x1 = 0.0, y1 = 0.0;  // the one before
};

}  // namespace peers
