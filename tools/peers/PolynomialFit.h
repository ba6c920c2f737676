// Least squares over the newest samples of a stroke: x(t) and y(t) each fitted by a polynomial of
// degree 1 or 2 over a window of samples, then extrapolated. The guess is
//   anchor + damping * (fit(t_newest + ahead) - fit(t_newest)),
// the anchor being the fitted point at the newest sample's time (or the newest sample itself), so
// damping 1 follows the fitted curve and damping 0 stays at the anchor. With fewer samples than the
// degree needs, the degree drops (one sample: the pen stays where it is).
#pragma once

#include <cstddef>
#include <vector>

#include "StrokePredictor.h"

namespace peers {

class PolynomialFit : public StrokePredictor {
public:
    enum class Anchor { FittedPoint, NewestSample };

    // degree 1 or 2, window at least 1 sample; throws std::invalid_argument otherwise.
    PolynomialFit(int degree, int window, double damping, Anchor anchor = Anchor::FittedPoint);

    void reset() override;
    void add(double t, double x, double y) override;
    bool predict(double ahead, double& x, double& y) const override;

private:
    struct Sample {
        double t = 0.0, x = 0.0, y = 0.0;
    };
    // Coefficients in u = (t - t_newest) / span, span the window's time range (1 for one sample).
    void fit() const;
    const Sample& newest() const { return ring[(next + ring.size() - 1) % ring.size()]; }

    int degree;
    double damping;
    Anchor anchor;
    std::vector<Sample> ring;  // the window, oldest at next once full
    std::size_t next = 0;
    std::size_t count = 0;

    mutable bool fitted = false;
    mutable double span = 1.0;
    mutable double cx[3] = {0.0, 0.0, 0.0};
    mutable double cy[3] = {0.0, 0.0, 0.0};
};

}  // namespace peers
