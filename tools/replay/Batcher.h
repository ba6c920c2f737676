// Cuts a recording into strokes and into the batches a touch panel would report.
#pragma once

#include <cstddef>
#include <vector>

#include "StylusStrokePredictor.h"

namespace replay {

// Index ranges into the recording's samples.
struct Stroke {
    std::size_t first = 0;
    std::size_t count = 0;
};

struct Batch {
    std::size_t first = 0;
    std::size_t count = 0;
    std::size_t stroke = 0;  // every batch lies inside one stroke
};

struct Batching {
    std::vector<Stroke> strokes;
    std::vector<Batch> batches;
};

class Batcher {
public:
    static constexpr int defaultBatchSize = 4;

    // Throws std::invalid_argument when maxBatchSize < 1.
    explicit Batcher(int maxBatchSize = defaultBatchSize);

    // A stroke runs from a pen-down (or the first sample, or the first sample after a pen-up) up to
    // and including its pen-up. Batches hold up to maxBatchSize consecutive samples of one stroke.
    Batching cut(const std::vector<StylusTouchPoint>& samples) const;

private:
    std::size_t maxBatchSize;
};

}  // namespace replay
