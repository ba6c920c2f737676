#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "StylusStrokePredictor.h"

namespace soak {

// Kinds of batch a sender produces; good strokes dominate, every kind of bad input is mixed in.
enum class BatchKind {
    Good,
    NonFinite,       // NaN or infinite values in some fields
    Backwards,       // timestamps before the sender's previous ones, in shuffled order
    Duplicates,      // repeated timestamps inside the batch
    Empty,           // a null array with a zero or negative count
    PenStorm,        // many pen-down and pen-up samples
    Large,           // hundreds to thousands of samples
    Single,          // one sample
    Glitch,          // a good batch with one sample kGlitchPx off the stroke
    Count
};

const char* kindName(BatchKind kind);

// How far a glitch sample lies off the stroke, and the area every sample lies in: the circling
// pen's circle, widened by that distance.
constexpr float kGlitchPx = 500.0f;
constexpr float kSampleAreaMinX = 800.0f - 300.0f - kGlitchPx;
constexpr float kSampleAreaMaxX = 800.0f + 300.0f + kGlitchPx;
constexpr float kSampleAreaMinY = 1200.0f - 300.0f - kGlitchPx;
constexpr float kSampleAreaMaxY = 1200.0f + 300.0f + kGlitchPx;

struct Batch {
    BatchKind kind = BatchKind::Good;
    std::vector<StylusTouchPoint> points;
    int count = 0;  // what is passed as numPoints; differs from points.size() only for negative counts
};

// Deterministic stream of mixed batches for one sender: each sender draws a stroke of its own, so
// concurrent senders interleave unrelated timelines at the pipeline.
class BatchMix {
public:
    explicit BatchMix(uint32_t seed);

    // Fills batch with the next batch (its storage is reused).
    void next(Batch& batch);

    // Samples the pipeline hands to the recorder for this batch once accepted: every one sent.
    static uint64_t recorderSamples(const Batch& batch);

private:
    StylusTouchPoint move();
    void good(Batch& batch);

    std::mt19937 random;
    std::discrete_distribution<int> pick;
    uint64_t clock = 1000;
    float angle = 0.0f;
    int batchesInStroke = 0;
};

}  // namespace soak
