// A stroke as a smooth curve through its samples: cubic Hermite pieces whose tangents are the
// three-point derivative estimates (one-sided at the ends), so that resampling to another rate adds no
// straight segments a pen never draws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace peers {

struct StrokeSample {
    double t = 0.0;  // seconds
    double x = 0.0;  // mm
    double y = 0.0;
};

// How a host would report the stroke, beyond the rate: sensor noise, timestamp jitter, whole pixels.
struct SensorConditions {
    double noiseMm = 0.0;   // standard deviation of Gaussian noise added to x and y
    double jitterMs = 0.0;  // each sample's time off by up to this much (uniform) before rounding
    double pixelMm = 0.0;   // > 0: positions rounded to whole pixels of this size
    uint64_t seed = 0;      // the same seed, the same noise

    bool clean() const { return noiseMm == 0.0 && jitterMs == 0.0 && pixelMm == 0.0; }
};

class SmoothStroke {
public:
    // samples: one stroke, times strictly increasing; throws std::invalid_argument otherwise or when empty.
    explicit SmoothStroke(std::vector<StrokeSample> samples);

    double start() const { return samples.front().t; }
    double end() const { return samples.back().t; }
    // The curve at t, clamped to the stroke's ends.
    StrokeSample at(double t) const;

    // The curve sampled at rateHz from the stroke's start, each sample's time then rounded to whole
    // milliseconds as a host reports it (times that round alike keep the first).
    // Under conditions, the reported time is the exact one plus jitter, rounded (kept increasing by
    // leaving out samples whose time would not be), and the position gets the noise, then the rounding.
    std::vector<StrokeSample> resample(double rateHz, const SensorConditions& conditions = {}) const;

private:
    std::vector<StrokeSample> samples;
    std::vector<double> slopeX, slopeY;  // dx/dt, dy/dt at each sample
};

}  // namespace peers
