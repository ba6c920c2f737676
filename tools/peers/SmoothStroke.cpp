#include "SmoothStroke.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace peers {

SmoothStroke::SmoothStroke(std::vector<StrokeSample> given) : samples(std::move(given)) {
    if (samples.empty()) {
        throw std::invalid_argument("a stroke needs at least one sample");
    }
    for (std::size_t i = 1; i < samples.size(); ++i) {
        if (!(samples[i].t > samples[i - 1].t)) {
            throw std::invalid_argument("stroke sample times must increase");
        }
    }
    const std::size_t n = samples.size();
    slopeX.assign(n, 0.0);
    slopeY.assign(n, 0.0);
    if (n < 2) {
        return;
    }
    const auto chord = [&](std::size_t i, double StrokeSample::*axis) {
        return (samples[i + 1].*axis - samples[i].*axis) / (samples[i + 1].t - samples[i].t);
    };
    for (std::size_t i = 0; i < n; ++i) {
        if (i == 0) {
            slopeX[i] = chord(0, &StrokeSample::x);
            slopeY[i] = chord(0, &StrokeSample::y);
        } else if (i == n - 1) {
            slopeX[i] = chord(n - 2, &StrokeSample::x);
            slopeY[i] = chord(n - 2, &StrokeSample::y);
        } else {
            // Each side's chord weighted by the other side's interval: exact for a parabola.
            const double before = samples[i].t - samples[i - 1].t;
            const double after = samples[i + 1].t - samples[i].t;
            slopeX[i] = (chord(i - 1, &StrokeSample::x) * after + chord(i, &StrokeSample::x) * before) / (before + after);
            slopeY[i] = (chord(i - 1, &StrokeSample::y) * after + chord(i, &StrokeSample::y) * before) / (before + after);
        }
    }
}

StrokeSample SmoothStroke::at(double t) const {
    if (t <= samples.front().t || samples.size() == 1) {
        return {t, samples.front().x, samples.front().y};
    }
    if (t >= samples.back().t) {
        return {t, samples.back().x, samples.back().y};
    }
    const auto after = std::upper_bound(samples.begin(), samples.end(), t,
                                        [](double value, const StrokeSample& s) { return value < s.t; });
    const std::size_t i = static_cast<std::size_t>(after - samples.begin()) - 1;
    const StrokeSample& a = samples[i];
    const StrokeSample& b = samples[i + 1];
    const double h = b.t - a.t;
    const double s = (t - a.t) / h;
    const double h00 = (1 + 2 * s) * (1 - s) * (1 - s), h10 = s * (1 - s) * (1 - s);
    const double h01 = s * s * (3 - 2 * s), h11 = s * s * (s - 1);
    return {t, h00 * a.x + h10 * h * slopeX[i] + h01 * b.x + h11 * h * slopeX[i + 1],
            h00 * a.y + h10 * h * slopeY[i] + h01 * b.y + h11 * h * slopeY[i + 1]};
}

std::vector<StrokeSample> SmoothStroke::resample(double rateHz, const SensorConditions& conditions) const {
    // splitmix64: small, and the same sequence on every platform.
    uint64_t state = conditions.seed;
    const auto next = [&state]() {
        uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    };
    const auto uniform = [&next]() { return (static_cast<double>(next() >> 11) + 0.5) / 9007199254740992.0; };
    const auto gaussian = [&uniform]() {
        return std::sqrt(-2.0 * std::log(uniform())) * std::cos(6.283185307179586 * uniform());
    };
    std::vector<StrokeSample> out;
    for (long k = 0;; ++k) {
        const double exact = start() + static_cast<double>(k) / rateHz;
        if (exact > end() + 1e-9) {
            break;
        }
        // The pen is where it was at the exact time; the host reports the time in whole ms.
        StrokeSample s = at(exact);
        double reported = exact * 1000.0;
        if (!conditions.clean()) {
            reported += conditions.jitterMs * (2.0 * uniform() - 1.0);
            s.x += conditions.noiseMm * gaussian();
            s.y += conditions.noiseMm * gaussian();
            if (conditions.pixelMm > 0.0) {
                s.x = std::round(s.x / conditions.pixelMm) * conditions.pixelMm;
                s.y = std::round(s.y / conditions.pixelMm) * conditions.pixelMm;
            }
        }
        s.t = std::round(reported) / 1000.0;
        if (out.empty() || s.t > out.back().t) {
            out.push_back(s);
        }
    }
    return out;
}

}  // namespace peers
