#include "HandwritingGenerator.h"

#include <algorithm>
#include <cmath>

namespace replay {

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double lineWidthMm = 130.0;
constexpr double lineHeightMm = 14.0;
constexpr double noiseMm = 0.015;  // digitiser jitter

double smoothstep(double x) {
    x = std::clamp(x, 0.0, 1.0);
    return x * x * (3.0 - 2.0 * x);
}

// Minimum-jerk progress 0..1: the bell-shaped speed profile of quick hand movements.
double minimumJerk(double u) {
    u = std::clamp(u, 0.0, 1.0);
    return u * u * u * (10.0 - 15.0 * u + 6.0 * u * u);
}

}  // namespace

double HandwritingGenerator::Random::uniform(double low, double high) {
    state += 0x9E3779B97F4A7C15ULL;
    uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    z ^= z >> 31;
    return low + (high - low) * static_cast<double>(z >> 11) * 0x1.0p-53;
}

double HandwritingGenerator::Random::normal() {
    const double u1 = uniform(1e-12, 1.0);
    const double u2 = uniform(0.0, 1.0);
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * pi * u2);
}

HandwritingGenerator::HandwritingGenerator(const GeneratorSettings& settings)
    : settings(settings), random(settings.seed) {}

void HandwritingGenerator::stroke(double duration, const std::function<Pen(double)>& shape, double pause) {
    const double rate = settings.sampleRateHz;
    const std::size_t count = std::max<std::size_t>(2, static_cast<std::size_t>(std::lround(duration * rate)));
    const double end = static_cast<double>(count - 1) / rate;
    const double basePressure = random.uniform(0.45, 0.65);
    const double pressurePhase = random.uniform(0.0, 2.0 * pi);
    for (std::size_t i = 0; i < count; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double clock = static_cast<double>(tick) / rate;  // seconds since the first sample
        const Pen pen = shape(t);
        // Pressure builds up over the first ~35 ms and falls over the last ~45 ms.
        const double ramp = (0.08 + 0.92 * smoothstep(t / 0.035)) * (0.08 + 0.92 * smoothstep((end - t) / 0.045));
        const double pressure = basePressure * ramp * (1.0 + 0.08 * std::sin(2.0 * pi * 0.9 * t + pressurePhase));
        const double tilt = 0.55 + 0.10 * std::sin(2.0 * pi * 0.07 * clock + 0.3) + 0.03 * std::sin(2.0 * pi * 0.9 * t);
        const double orientation =
            1.85 + 0.15 * std::sin(2.0 * pi * 0.05 * clock) + 0.04 * std::sin(2.0 * pi * 1.3 * t + 1.0);

        StylusTouchPoint point{};
        point.timestamp = static_cast<uint64_t>(std::llround(static_cast<double>(tick) * 1000.0 / rate));
        point.x_pos = static_cast<float>((pen.x + noiseMm * random.normal()) * settings.pixelsPerMm);
        point.y_pos = static_cast<float>((pen.y + noiseMm * random.normal()) * settings.pixelsPerMm);
        point.pressure = static_cast<float>(std::clamp(pressure, 0.0, 1.0));
        point.tilt = static_cast<float>(tilt);
        point.orientation = static_cast<float>(orientation);
        point.tag = i == 0 ? STYLUS_TAG_PEN_DOWN : (i + 1 == count ? STYLUS_TAG_PEN_UP : STYLUS_TAG_MOVE);
        samples.push_back(point);
        ++tick;
    }
    tick += static_cast<uint64_t>(std::lround(pause * rate));
}

// Cursive as two coupled oscillations (one cycle per letter) over a baseline moving right: the
// horizontal swing runs backwards at the top of each cycle, which draws the loops. The pen speeds
// up over the first and last ~60 ms instead of starting at full speed.
void HandwritingGenerator::cursiveWord(int letters) {
    const double frequency = random.uniform(3.8, 5.0);  // letters per second
    const double omega = 2.0 * pi * frequency;
    const double advance = random.uniform(2.5, 3.4) * frequency;  // mm/s along the baseline
    const double slant = random.uniform(0.15, 0.35);
    std::vector<double> heights;  // half the height of each letter
    std::vector<double> swings;   // loops where the swing outruns the baseline, arches where not
    for (int i = 0; i <= letters; ++i) {
        heights.push_back(random.chance(0.25) ? random.uniform(3.0, 3.8) : random.uniform(1.5, 2.1));
        swings.push_back(random.uniform(0.3, 1.4));
    }
    const double nominal = static_cast<double>(letters) / frequency;  // time of the letters at full speed
    const double rampTime = 0.06;
    const double duration = nominal + rampTime;  // the ramps together lose about one ramp of progress

    // Phase (nominal seconds) against real time, by integrating the speed ramp finely.
    const int steps = static_cast<int>(std::ceil(duration * settings.sampleRateHz)) * 8 + 8;
    std::vector<double> phase(static_cast<std::size_t>(steps) + 1, 0.0);
    const double dt = duration / steps;
    for (int i = 1; i <= steps; ++i) {
        const double t = (i - 0.5) * dt;
        phase[static_cast<std::size_t>(i)] =
            phase[static_cast<std::size_t>(i) - 1] + dt * smoothstep(t / rampTime) * smoothstep((duration - t) / rampTime);
    }
    const Pen origin = cursor;
    const auto shape = [&](double t) {
        const double position = std::clamp(t / dt, 0.0, static_cast<double>(steps));
        const std::size_t below = std::min(static_cast<std::size_t>(position), static_cast<std::size_t>(steps) - 1);
        const double theta = phase[below] + (position - below) * (phase[below + 1] - phase[below]);
        const double letter = std::min(theta * frequency, static_cast<double>(letters) - 1e-9);
        const std::size_t k = static_cast<std::size_t>(letter);
        const double blend = smoothstep(letter - k);
        const double height = heights[k] + blend * (heights[k + 1] - heights[k]);
        const double swing = swings[k] + blend * (swings[k + 1] - swings[k]);
        const double rise = height * (1.0 - std::cos(omega * theta));  // upwards, 0 at the baseline
        return Pen{origin.x + advance * theta + swing * std::sin(omega * theta) + slant * rise, origin.y - rise};
    };
    const Pen end = shape(duration);
    stroke(duration, shape, random.uniform(0.12, 0.3));
    cursor = end;
}

void HandwritingGenerator::dot(Pen at) {
    const double duration = random.uniform(0.03, 0.06);
    const double dx = random.uniform(0.1, 0.3), dy = random.uniform(0.1, 0.3);
    stroke(
        duration, [&](double t) { return Pen{at.x + dx * minimumJerk(t / duration), at.y + dy * minimumJerk(t / duration)}; },
        random.uniform(0.12, 0.3));
}

// A nearly straight, slightly bowed line at a bell-shaped speed (peak below 150 mm/s).
void HandwritingGenerator::bar(Pen from, double length) {
    const double angle = random.uniform(-0.17, 0.09);
    const double bow = random.uniform(0.3, 0.8);
    const double duration = length / random.uniform(40.0, 75.0);
    const double cx = std::cos(angle), cy = std::sin(angle);
    stroke(
        duration,
        [&](double t) {
            const double s = minimumJerk(t / duration);
            const double offset = bow * 4.0 * s * (1.0 - s);
            return Pen{from.x + length * s * cx + offset * cy, from.y + length * s * cy - offset * cx};
        },
        random.uniform(0.15, 0.35));
}

// A piece of Euler spiral (curvature growing linearly along the path), like an underline that
// curls up at its end.
void HandwritingGenerator::flourish(Pen from) {
    const double length = random.uniform(15.0, 30.0);
    const double startCurvature = random.uniform(-0.01, 0.0);                 // 1/mm
    const double turn = random.uniform(0.3, 0.7);                             // radians over the whole length
    const double curvatureGrowth = 2.0 * turn / (length * length);             // 1/mm^2
    const double duration = length / random.uniform(40.0, 70.0);
    const double heading = random.uniform(-0.1, 0.05);
    constexpr int pieces = 2000;
    std::vector<Pen> path(pieces + 1, from);
    const double ds = length / pieces;
    for (int i = 1; i <= pieces; ++i) {
        const double s = (i - 0.5) * ds;
        // Curving counter-clockwise on screen (y down): the end turns upwards.
        const double direction = heading - (startCurvature * s + 0.5 * curvatureGrowth * s * s);
        path[static_cast<std::size_t>(i)] = {path[static_cast<std::size_t>(i) - 1].x + ds * std::cos(direction),
                                             path[static_cast<std::size_t>(i) - 1].y + ds * std::sin(direction)};
    }
    stroke(
        duration,
        [&](double t) {
            const double position = minimumJerk(t / duration) * pieces;
            const std::size_t below = std::min(static_cast<std::size_t>(position), static_cast<std::size_t>(pieces) - 1);
            const double f = position - below;
            const Pen& a = path[below];
            const Pen& b = path[below + 1];
            return Pen{a.x + f * (b.x - a.x), a.y + f * (b.y - a.y)};
        },
        random.uniform(0.3, 0.6));
}

std::vector<StylusTouchPoint> HandwritingGenerator::generate() {
    samples.clear();
    tick = 0;
    cursor = {15.0, 20.0};
    for (int word = 0; word < settings.words; ++word) {
        const int letters = static_cast<int>(random.uniform(3.0, 8.0));
        const Pen start = cursor;
        cursiveWord(letters);
        const Pen end = cursor;
        if (random.chance(0.4)) {
            const double along = random.uniform(0.2, 0.8);
            dot({start.x + along * (end.x - start.x) + 1.0, start.y - random.uniform(5.0, 6.5)});
        }
        if (random.chance(0.3)) {
            const double along = random.uniform(0.1, 0.6);
            // Drawn in this order so that every compiler gives the same strokes (argument order is unspecified).
            const double length = random.uniform(6.0, 12.0);
            const double rise = random.uniform(4.0, 5.0);
            bar({start.x + along * (end.x - start.x), start.y - rise}, length);
        }
        if (word % 5 == 4) {
            flourish({start.x - 2.0, start.y + 2.5});
        }
        // Next word on the same line after a gap, or at the start of the next line.
        cursor = {end.x + random.uniform(4.0, 7.0), start.y};
        if (cursor.x > lineWidthMm) {
            cursor = {15.0 + random.uniform(0.0, 2.0), start.y + lineHeightMm};
        }
        tick += static_cast<uint64_t>(std::lround(random.uniform(0.1, 0.3) * settings.sampleRateHz));
    }
    return samples;
}

}  // namespace replay
