#include "Batcher.h"

#include <stdexcept>

namespace replay {

Batcher::Batcher(int maxBatchSize) : maxBatchSize(static_cast<std::size_t>(maxBatchSize)) {
    if (maxBatchSize < 1) {
        throw std::invalid_argument("the batch size must be at least 1");
    }
}

// The pipeline scans a batch from its end and keeps only the samples after the last pen-down or
// pen-up in it. So a pen-down must open a batch (anything before it in the same batch would be
// lost), and a pen-up must close one: it is then the batch's last sample, the batch carries only
// the boundary, and the predictor resets for the next stroke.
Batching Batcher::cut(const std::vector<StylusTouchPoint>& samples) const {
    Batching result;
    Batch batch;
    Stroke stroke;
    const auto closeBatch = [&]() {
        if (batch.count > 0) {
            batch.stroke = result.strokes.size();
            result.batches.push_back(batch);
            batch = Batch{};
        }
    };
    const auto closeStroke = [&]() {
        closeBatch();
        if (stroke.count > 0) {
            result.strokes.push_back(stroke);
            stroke = Stroke{};
        }
    };

    for (std::size_t i = 0; i < samples.size(); ++i) {
        const int32_t tag = samples[i].tag;
        if (tag == STYLUS_TAG_PEN_DOWN) {
            closeStroke();
        }
        if (stroke.count == 0) {
            stroke.first = i;
        }
        ++stroke.count;
        if (batch.count == 0) {
            batch.first = i;
        }
        ++batch.count;
        if (tag == STYLUS_TAG_PEN_UP) {
            closeStroke();
        } else if (batch.count == maxBatchSize) {
            closeBatch();
        }
    }
    closeStroke();
    return result;
}

}  // namespace replay
