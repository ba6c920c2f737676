// Deterministic handwriting-like pen input at a touch panel's rate: cursive words (loops from two
// coupled oscillations over a moving baseline), i-dots, t-bars and curved flourishes, with pauses
// between strokes, pressure that ramps at pen-down and pen-up, and slowly drifting tilt and
// orientation. The same settings always give the same samples.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "StylusStrokePredictor.h"

namespace replay {

struct GeneratorSettings {
    uint64_t seed = 1;
    int words = 12;
    double sampleRateHz = 240.0;
    double pixelsPerMm = 213.0 / 25.4;
};

class HandwritingGenerator {
public:
    explicit HandwritingGenerator(const GeneratorSettings& settings);

    // Timestamps in whole milliseconds of the panel's clock, starting at 0; every stroke has a
    // pen-down first and a pen-up last.
    std::vector<StylusTouchPoint> generate();

private:
    struct Pen {
        double x;  // millimetres, y down
        double y;
    };
    // Small deterministic generator (splitmix64), the same on every platform.
    class Random {
    public:
        explicit Random(uint64_t seed) : state(seed) {}
        double uniform(double low, double high);
        double normal();
        bool chance(double probability) { return uniform(0.0, 1.0) < probability; }

    private:
        uint64_t state;
    };

    // Samples shape(t), t in seconds from pen-down, for duration seconds, then pauses.
    void stroke(double duration, const std::function<Pen(double)>& shape, double pause);
    void cursiveWord(int letters);
    void dot(Pen at);
    void bar(Pen from, double length);
    void flourish(Pen from);

    GeneratorSettings settings;
    Random random;
    std::vector<StylusTouchPoint> samples;
    uint64_t tick = 0;  // panel clock, in samples
    Pen cursor{15.0, 20.0};
};

}  // namespace replay
