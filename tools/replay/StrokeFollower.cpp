#include "StrokeFollower.h"

#include <algorithm>

namespace replay {

StrokeFollower::StrokeFollower(const Recording& recording, const Batching& batching, double mmPerPixel,
                               std::vector<std::unique_ptr<peers::StrokePredictor>> predictors)
    : recording(recording), batching(batching), mmPerPixel(mmPerPixel), predictors(std::move(predictors)) {}

void StrokeFollower::follow(std::size_t batchIndex) {
    const Batch& batch = batching.batches[batchIndex];
    const std::size_t newest = batch.first + batch.count - 1;
    if (batch.stroke != stroke || newest + 1 < next) {
        stroke = batch.stroke;
        next = batching.strokes[stroke].first;
        fed.clear();
        for (const auto& predictor : predictors) {
            predictor->reset();
        }
    }
    for (; next <= newest; ++next) {
        feed(next);
    }
}

void StrokeFollower::feed(std::size_t sampleIndex) {
    const std::vector<StylusTouchPoint>& samples = recording.samples;
    const uint64_t origin = samples[batching.strokes[stroke].first].timestamp;
    const auto give = [&](std::size_t i) {
        const StylusTouchPoint& p = samples[i];
        for (const auto& predictor : predictors) {
            predictor->add(static_cast<double>(p.timestamp - origin) / 1000.0, p.x_pos * mmPerPixel,
                           p.y_pos * mmPerPixel);
        }
    };
    if (!fed.empty() && samples[fed.back()].timestamp == samples[sampleIndex].timestamp) {
        // The later sample replaces the earlier one: the stroke is fed again without it.
        fed.back() = sampleIndex;
        for (const auto& predictor : predictors) {
            predictor->reset();
        }
        for (const std::size_t i : fed) {
            give(i);
        }
        return;
    }
    fed.push_back(sampleIndex);
    give(sampleIndex);
}

bool StrokeFollower::predict(std::size_t i, double aheadMs, double& x, double& y) const {
    double xMm = 0.0, yMm = 0.0;
    if (!predictors[i]->predict(aheadMs / 1000.0, xMm, yMm)) {
        return false;
    }
    x = xMm / mmPerPixel;
    y = yMm / mmPerPixel;
    return true;
}

double samplingRate(const Recording& recording, const Batching& batching) {
    std::vector<double> steps;
    for (const Stroke& stroke : batching.strokes) {
        for (std::size_t i = stroke.first + 1; i < stroke.first + stroke.count; ++i) {
            const uint64_t step = recording.samples[i].timestamp - recording.samples[i - 1].timestamp;
            if (step > 0) {
                steps.push_back(static_cast<double>(step));
            }
        }
    }
    if (steps.empty()) {
        return 0.0;
    }
    std::vector<double> sorted = steps;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2), sorted.end());
    const double median = sorted[sorted.size() / 2];
    double total = 0.0;
    std::size_t count = 0;
    for (const double step : steps) {
        if (step <= 3.0 * median) {
            total += step;
            ++count;
        }
    }
    return 1000.0 * static_cast<double>(count) / total;
}

}  // namespace replay
