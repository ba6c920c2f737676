#include "ConstantVelocityBaseline.h"

namespace peers {

void ConstantVelocityBaseline::add(double t, double x, double y) {
    t1 = t0;
    x1 = x0;
    y1 = y0;
    t0 = t;
    x0 = x;
    y0 = y;
    ++samples;
}

bool ConstantVelocityBaseline::predict(double ahead, double& x, double& y) const {
    if (samples < 2) {
        return false;
    }
    const double scale = ahead / (t0 - t1);
    x = x0 + (x0 - x1) * scale;
    y = y0 + (y0 - y1) * scale;
    return true;
}

}  // namespace peers
