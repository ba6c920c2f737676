#include "PolynomialFit.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace peers {

namespace {

// Solves the (n x n) normal equations a c = b for both right-hand sides by Gaussian elimination with
// partial pivoting. False when the system is (nearly) singular.
bool solve(int n, double a[3][3], double bx[3], double by[3], double cx[3], double cy[3]) {
    for (int col = 0; col < n; ++col) {
        int pivot = col;
        for (int row = col + 1; row < n; ++row) {
            if (std::fabs(a[row][col]) > std::fabs(a[pivot][col])) {
                pivot = row;
            }
        }
        if (std::fabs(a[pivot][col]) < 1e-10) {
            return false;
        }
        std::swap(a[col], a[pivot]);
        std::swap(bx[col], bx[pivot]);
        std::swap(by[col], by[pivot]);
        for (int row = col + 1; row < n; ++row) {
            const double f = a[row][col] / a[col][col];
            for (int k = col; k < n; ++k) {
                a[row][k] -= f * a[col][k];
            }
            bx[row] -= f * bx[col];
            by[row] -= f * by[col];
        }
    }
    for (int row = n - 1; row >= 0; --row) {
        double sx = bx[row], sy = by[row];
        for (int k = row + 1; k < n; ++k) {
            sx -= a[row][k] * cx[k];
            sy -= a[row][k] * cy[k];
        }
        cx[row] = sx / a[row][row];
        cy[row] = sy / a[row][row];
    }
    return true;
}

double value(const double c[3], double u) { return c[0] + u * (c[1] + u * c[2]); }

}  // namespace

PolynomialFit::PolynomialFit(int degree, int window, double damping, Anchor anchor)
    : degree(degree), damping(damping), anchor(anchor) {
    if (degree < 1 || degree > 2 || window < 1) {
        throw std::invalid_argument("a polynomial fit needs degree 1 or 2 and a window of at least one sample");
    }
    ring.resize(static_cast<std::size_t>(window));
}

void PolynomialFit::reset() {
    next = 0;
    count = 0;
    fitted = false;
}

void PolynomialFit::add(double t, double x, double y) {
    ring[next] = {t, x, y};
    next = (next + 1) % ring.size();
    count = std::min(count + 1, ring.size());
    fitted = false;
}

void PolynomialFit::fit() const {
    fitted = true;
    const Sample& last = newest();
    const std::size_t oldestIndex = (next + ring.size() - count) % ring.size();
    span = count > 1 ? last.t - ring[oldestIndex].t : 1.0;
    for (int order = std::min<int>(degree, static_cast<int>(count) - 1); order >= 0; --order) {
        const int n = order + 1;
        double a[3][3] = {}, bx[3] = {}, by[3] = {};
        for (std::size_t i = 0; i < count; ++i) {
            const Sample& s = ring[(oldestIndex + i) % ring.size()];
            const double u = (s.t - last.t) / span;
            const double powers[5] = {1.0, u, u * u, u * u * u, u * u * u * u};
            for (int j = 0; j < n; ++j) {
                for (int k = 0; k < n; ++k) {
                    a[j][k] += powers[j + k];
                }
                bx[j] += powers[j] * s.x;
                by[j] += powers[j] * s.y;
            }
        }
        std::fill(cx, cx + 3, 0.0);
        std::fill(cy, cy + 3, 0.0);
        if (solve(n, a, bx, by, cx, cy)) {
            return;
        }
    }
}

bool PolynomialFit::predict(double ahead, double& x, double& y) const {
    if (count == 0) {
        return false;
    }
    if (!fitted) {
        fit();
    }
    const double u = ahead / span;
    const Sample& last = newest();
    const double anchorX = anchor == Anchor::FittedPoint ? cx[0] : last.x;
    const double anchorY = anchor == Anchor::FittedPoint ? cy[0] : last.y;
    x = anchorX + damping * (value(cx, u) - cx[0]);
    y = anchorY + damping * (value(cy, u) - cy[0]);
    return true;
}

}  // namespace peers
