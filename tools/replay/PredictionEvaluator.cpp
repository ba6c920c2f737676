#include "PredictionEvaluator.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace replay {

namespace {

void addPoint(ReplayCounts& counts, HorizonMap& horizons, const PointResult& r) {
    HorizonTotals& horizon = horizons[r.horizonMs];
    const bool inside = r.where == TruthPoint::Where::Inside;
    if (r.dropped) {
        ++(inside ? counts.droppedInside : counts.droppedPastEnd);
        ++(inside ? horizon.droppedInside : horizon.droppedPastEnd);
    } else {
        ++counts.predictions;
        ++horizon.predictions;
        if (r.where == TruthPoint::Where::PastEnd) {
            ++counts.pastStrokeEnd;
            ++horizon.pastStrokeEnd;
        } else if (r.where == TruthPoint::Where::BeforeStart) {
            ++counts.beforeStrokeStart;
            ++horizon.beforeStrokeStart;
        } else {
            ++counts.measuredPredictions;
            horizon.model.add(r.errorMm);
            if (r.hasBaseline) {
                horizon.constantVelocity.add(r.baselineErrorMm);
            }
        }
    }
    if (!inside || !r.hasBaseline) {
        return;
    }
    for (PointSetTotals* set : {&horizon.common, &horizon.charged}) {
        if (r.dropped && set == &horizon.common) {
            continue;
        }
        set->model.add(r.errorMm);
        set->constantVelocity.add(r.baselineErrorMm);
        set->leastSquares.add(r.lsErrorMm);
    }
}

}  // namespace

PredictionEvaluator::PredictionEvaluator(double mmPerPixel, int predictionStepMs, int numPredictions)
    : mmPerPixel(mmPerPixel), predictionStepMs(predictionStepMs), numPredictions(numPredictions) {}

PointResult PredictionEvaluator::measure(const Recording& recording, const Batching& batching, std::size_t batchIndex,
                                         uint64_t baseTimestamp, uint64_t timestamp) const {
    const Batch& batch = batching.batches[batchIndex];
    const Stroke& stroke = batching.strokes[batch.stroke];
    const StylusTouchPoint* strokeSamples = recording.samples.data() + stroke.first;
    const std::size_t newest = batch.first + batch.count - 1;
    const StylusTouchPoint& p1 = recording.samples[newest];

    PointResult result;
    result.stroke = batch.stroke;
    result.batch = batchIndex;
    result.baseTimestamp = baseTimestamp;
    result.timestamp = timestamp;
    result.horizonMs = static_cast<int64_t>(timestamp - baseTimestamp);
    result.baseX = p1.x_pos;
    result.baseY = p1.y_pos;

    const TruthPoint truth = TruthInterpolator(strokeSamples, stroke.count).at(timestamp);
    result.where = truth.where;
    result.truthX = truth.x;
    result.truthY = truth.y;
    const auto errorMm = [&](double x, double y) { return std::hypot(x - truth.x, y - truth.y) * mmPerPixel; };
    const double ahead = static_cast<double>(timestamp) - static_cast<double>(p1.timestamp);

    // The stroke as the pipeline sees it: of samples sharing a timestamp only the last one, so walking
    // back, the first one met of each timestamp. Times are relative to the newest sample.
    double t[3] = {0.0, 0.0, 0.0}, x[3] = {p1.x_pos, 0.0, 0.0}, y[3] = {p1.y_pos, 0.0, 0.0};
    std::size_t n = 1;
    for (std::size_t i = newest; i > stroke.first && n < 3; --i) {
        const StylusTouchPoint& p = recording.samples[i - 1];
        const StylusTouchPoint& later = recording.samples[i];
        if (p.timestamp < later.timestamp && p.timestamp < p1.timestamp) {
            t[n] = static_cast<double>(p.timestamp) - static_cast<double>(p1.timestamp);
            x[n] = p.x_pos;
            y[n] = p.y_pos;
            ++n;
        }
    }

    // Constant velocity from the newest sample and the latest earlier one of its stroke.
    if (n >= 2) {
        const double scale = ahead / -t[1];
        result.hasBaseline = true;
        result.baselineX = x[0] + (x[0] - x[1]) * scale;
        result.baselineY = y[0] + (y[0] - y[1]) * scale;
        result.baselineErrorMm = errorMm(result.baselineX, result.baselineY);
    }

    // Least-squares slope of x(t) and y(t) over the last (up to) three samples, extrapolated from the
    // newest sample itself rather than from the fitted line.
    double meanT = 0.0, meanX = 0.0, meanY = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        meanT += t[i] / static_cast<double>(n);
        meanX += x[i] / static_cast<double>(n);
        meanY += y[i] / static_cast<double>(n);
    }
    double stt = 0.0, stx = 0.0, sty = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        stt += (t[i] - meanT) * (t[i] - meanT);
        stx += (t[i] - meanT) * (x[i] - meanX);
        sty += (t[i] - meanT) * (y[i] - meanY);
    }
    const double vx = stt > 0.0 ? stx / stt : 0.0;
    const double vy = stt > 0.0 ? sty / stt : 0.0;
    result.lsX = x[0] + vx * ahead;
    result.lsY = y[0] + vy * ahead;
    result.lsErrorMm = errorMm(result.lsX, result.lsY);
    return result;
}

std::vector<PointResult> PredictionEvaluator::evaluate(const Recording& recording, const Batching& batching,
                                                       const std::vector<SendRecord>& sends,
                                                       const std::vector<CallbackRecord>& callbacks) {
    if (sends.size() != batching.batches.size()) {
        throw std::invalid_argument("one send record per batch is needed");
    }
    RecordingTotals own;
    own.path = recording.path;
    ReplayCounts& counts = own.counts;
    counts.recordings = 1;
    counts.strokes = batching.strokes.size();
    counts.samples = recording.samples.size();
    counts.batches = batching.batches.size();
    counts.refusedBatches = static_cast<std::size_t>(
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
        sums.sendToCallbackUs.add(std::max(0.0, std::chrono::duration<double, std::micro>(sendToCallback).count()));

        const std::size_t first = results.size();
        for (const PredictedStylusCoordinate& predicted : callback.coordinates) {
            PointResult result = measure(recording, batching, match, callback.timestamp, predicted.timestamp);
            result.x = predicted.x;
            result.y = predicted.y;
            result.errorMm = std::hypot(result.x - result.truthX, result.y - result.truthY) * mmPerPixel;
            results.push_back(result);
        }
        for (int k = 1; k <= numPredictions && predictionStepMs > 0; ++k) {
            const uint64_t due =
                callback.timestamp + static_cast<uint64_t>(k) * static_cast<uint64_t>(predictionStepMs);
            const bool delivered = std::any_of(results.begin() + static_cast<std::ptrdiff_t>(first), results.end(),
                                               [due](const PointResult& r) { return r.timestamp == due; });
            if (!delivered) {
                PointResult result = measure(recording, batching, match, callback.timestamp, due);
                result.dropped = true;
                // Charged as "no prediction": the pen is shown where it last was.
                result.errorMm = std::hypot(result.baseX - result.truthX, result.baseY - result.truthY) * mmPerPixel;
                results.push_back(result);
            }
        }
        std::stable_sort(results.begin() + static_cast<std::ptrdiff_t>(first), results.end(),
                         [](const PointResult& a, const PointResult& b) { return a.timestamp < b.timestamp; });
        for (std::size_t i = first; i < results.size(); ++i) {
            addPoint(counts, own.horizons, results[i]);
            ReplayCounts summedBelow;  // the pooled counts are the recordings' counts added up
            addPoint(summedBelow, sums.horizons, results[i]);
        }
    }

    ReplayCounts& total = sums.counts;
    total.recordings += counts.recordings;
    total.strokes += counts.strokes;
    total.samples += counts.samples;
    total.batches += counts.batches;
    total.refusedBatches += counts.refusedBatches;
    total.predictedBatches += counts.predictedBatches;
    total.predictions += counts.predictions;
    total.measuredPredictions += counts.measuredPredictions;
    total.pastStrokeEnd += counts.pastStrokeEnd;
    total.beforeStrokeStart += counts.beforeStrokeStart;
    total.unmatchedCallbacks += counts.unmatchedCallbacks;
    total.droppedInside += counts.droppedInside;
    total.droppedPastEnd += counts.droppedPastEnd;
    sums.recordings.push_back(std::move(own));
    return results;
}

}  // namespace replay
