#include "PredictionEvaluator.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace replay {

PredictionEvaluator::PredictionEvaluator(double mmPerPixel) : mmPerPixel(mmPerPixel) {}

PointResult PredictionEvaluator::measure(const Recording& recording, const Batching& batching,
                                         std::size_t batchIndex, uint64_t baseTimestamp,
                                         const PredictedStylusCoordinate& predicted) const {
    const Batch& batch = batching.batches[batchIndex];
    const Stroke& stroke = batching.strokes[batch.stroke];
    const StylusTouchPoint* strokeSamples = recording.samples.data() + stroke.first;

    PointResult result;
    result.stroke = batch.stroke;
    result.batch = batchIndex;
    result.baseTimestamp = baseTimestamp;
    result.timestamp = predicted.timestamp;
    result.horizonMs = static_cast<int64_t>(predicted.timestamp - baseTimestamp);
    result.x = predicted.x;
    result.y = predicted.y;

    const TruthPoint truth = TruthInterpolator(strokeSamples, stroke.count).at(predicted.timestamp);
    result.where = truth.where;
    result.truthX = truth.x;
    result.truthY = truth.y;
    result.errorMm = std::hypot(result.x - truth.x, result.y - truth.y) * mmPerPixel;

    // Constant velocity from the batch's newest sample and the latest earlier one of its stroke.
    const std::size_t newest = batch.first + batch.count - 1;
    const StylusTouchPoint& p1 = recording.samples[newest];
    for (std::size_t i = newest; i > stroke.first; --i) {
        const StylusTouchPoint& p0 = recording.samples[i - 1];
        if (p0.timestamp < p1.timestamp) {
            const double scale = (static_cast<double>(predicted.timestamp) - static_cast<double>(p1.timestamp)) /
                                 static_cast<double>(p1.timestamp - p0.timestamp);
            result.hasBaseline = true;
            result.baselineX = p1.x_pos + (static_cast<double>(p1.x_pos) - p0.x_pos) * scale;
            result.baselineY = p1.y_pos + (static_cast<double>(p1.y_pos) - p0.y_pos) * scale;
            result.baselineErrorMm =
                std::hypot(result.baselineX - truth.x, result.baselineY - truth.y) * mmPerPixel;
            break;
        }
    }
    return result;
}

std::vector<PointResult> PredictionEvaluator::evaluate(const Recording& recording, const Batching& batching,
                                                       const std::vector<SendRecord>& sends,
                                                       const std::vector<CallbackRecord>& callbacks) {
    if (sends.size() != batching.batches.size()) {
        throw std::invalid_argument("one send record per batch is needed");
    }
    ReplayCounts& counts = sums.counts;
    ++counts.recordings;
    counts.strokes += batching.strokes.size();
    counts.samples += recording.samples.size();
    counts.batches += batching.batches.size();
    counts.refusedBatches += static_cast<std::size_t>(
        std::count_if(sends.begin(), sends.end(), [](const SendRecord& send) { return !send.accepted; }));

    std::vector<PointResult> results;
    std::size_t cursor = 0;  // first batch not yet matched
    for (const CallbackRecord& callback : callbacks) {
        std::size_t match = cursor;
        while (match < sends.size()) {
            const Batch& batch = batching.batches[match];
            if (sends[match].accepted &&
                recording.samples[batch.first + batch.count - 1].timestamp == callback.timestamp) {
                break;
            }
            ++match;
        }
        if (match == sends.size()) {
            ++counts.unmatchedCallbacks;
            continue;
        }
        cursor = match + 1;
        ++counts.predictedBatches;
        sums.modelLatencyUs.add(static_cast<double>(callback.modelLatencyUs));
        const auto sendToCallback = callback.receivedAt - sends[match].returnedAt;
        sums.sendToCallbackUs.add(
            std::max(0.0, std::chrono::duration<double, std::micro>(sendToCallback).count()));

        for (const PredictedStylusCoordinate& predicted : callback.coordinates) {
            PointResult result = measure(recording, batching, match, callback.timestamp, predicted);
            HorizonTotals& horizon = sums.horizons[result.horizonMs];
            ++counts.predictions;
            ++horizon.predictions;
            if (result.where == TruthPoint::Where::PastEnd) {
                ++counts.pastStrokeEnd;
                ++horizon.pastStrokeEnd;
            } else if (result.where == TruthPoint::Where::BeforeStart) {
                ++counts.beforeStrokeStart;
                ++horizon.beforeStrokeStart;
            } else {
                ++counts.measuredPredictions;
                horizon.model.add(result.errorMm);
                if (result.hasBaseline) {
                    horizon.constantVelocity.add(result.baselineErrorMm);
                }
            }
            results.push_back(result);
        }
    }
    return results;
}

}  // namespace replay
