#include "PredictionEvaluator.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace replay {

namespace {

// The tuned peers' guesses follow the baselines' in PointResult::guesses.
constexpr std::size_t baselineCount = 2;

void addPoint(ReplayCounts& counts, HorizonMap& horizons, const PointResult& r) {
    HorizonTotals& horizon = horizons[r.horizonMs];
    const bool inside = r.where == TruthPoint::Where::Inside;
    if (r.where == TruthPoint::Where::PastEnd) {
        OvershootTotals& overshoot = horizon.overshoot;
        overshoot.model.add(r.dropped ? 0.0 : r.overshootMm);
        overshoot.predictors.resize(r.guesses.size());
        for (std::size_t i = 0; i < r.guesses.size(); ++i) {
            overshoot.predictors[i].add(r.guesses[i].has ? r.guesses[i].overshootMm : 0.0);
        }
    }
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
        const std::size_t peerCount = r.guesses.size() > baselineCount ? r.guesses.size() - baselineCount : 0;
        set->peers.resize(peerCount);
        for (std::size_t i = 0; i < peerCount; ++i) {
            // Every peer guesses from one sample on, so it has a guess wherever constant velocity has.
            set->peers[i].add(r.guesses[baselineCount + i].errorMm);
        }
    }
}

}  // namespace

PredictionEvaluator::PredictionEvaluator(double mmPerPixel, int predictionStepMs, int numPredictions,
                                         const peers::PeerFile* peerFile, const std::string& peerFilePath)
    : mmPerPixel(mmPerPixel), peerFile(peerFile), predictionStepMs(predictionStepMs), numPredictions(numPredictions) {
    for (const peers::PredictorKind& kind : peers::predictorKinds()) {
        if (!kind.tuned || peerFile != nullptr) {
            sums.predictors.push_back(&kind);
        }
    }
    if (peerFile != nullptr) {
        sums.peerFile = peerFilePath;
    }
}

PointResult PredictionEvaluator::measure(const Recording& recording, const Batching& batching,
                                         const StrokeFollower& follower, std::size_t batchIndex,
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
    const double ahead = static_cast<double>(timestamp) - static_cast<double>(p1.timestamp);

    result.guesses.resize(follower.size());
    for (std::size_t i = 0; i < follower.size(); ++i) {
        Guess& guess = result.guesses[i];
        guess.has = follower.predict(i, ahead, guess.x, guess.y);
        if (guess.has) {
            guess.errorMm = std::hypot(guess.x - truth.x, guess.y - truth.y) * mmPerPixel;
            if (truth.where == TruthPoint::Where::PastEnd) {
                guess.overshootMm = overshootMm(recording, stroke, guess.x, guess.y);
            }
        }
    }
    const Guess& constantVelocity = result.guesses[0];
    result.hasBaseline = constantVelocity.has;
    if (constantVelocity.has) {
        result.baselineX = constantVelocity.x;
        result.baselineY = constantVelocity.y;
        result.baselineErrorMm = constantVelocity.errorMm;
    }
    const Guess& leastSquares = result.guesses[1];
    result.lsX = leastSquares.x;
    result.lsY = leastSquares.y;
    result.lsErrorMm = leastSquares.errorMm;
    return result;
}

double PredictionEvaluator::overshootMm(const Recording& recording, const Stroke& stroke, double x, double y) const {
    const std::size_t last = stroke.first + stroke.count - 1;
    const StylusTouchPoint& lift = recording.samples[last];
    const double minimum = 0.2 / mmPerPixel;
    for (std::size_t i = last; i > stroke.first; --i) {
        const StylusTouchPoint& earlier = recording.samples[i - 1];
        const double dx = lift.x_pos - earlier.x_pos, dy = lift.y_pos - earlier.y_pos;
        const double length = std::hypot(dx, dy);
        if (length >= minimum) {
            return std::max(0.0, ((x - lift.x_pos) * dx + (y - lift.y_pos) * dy) / length) * mmPerPixel;
        }
    }
    return std::hypot(x - lift.x_pos, y - lift.y_pos) * mmPerPixel;
}

std::vector<PointResult> PredictionEvaluator::evaluate(const Recording& recording, const Batching& batching,
                                                       const std::vector<SendRecord>& sends,
                                                       const std::vector<CallbackRecord>& callbacks) {
    if (sends.size() != batching.batches.size()) {
        throw std::invalid_argument("one send record per batch is needed");
    }
    RecordingTotals own;
    own.path = recording.path;
    own.rateHz = samplingRate(recording, batching);
    std::vector<std::unique_ptr<peers::StrokePredictor>> predictors;
    const peers::TunedRate* tuned = peerFile != nullptr ? &peerFile->nearest(own.rateHz > 0.0 ? own.rateHz : 1.0) : nullptr;
    if (tuned != nullptr) {
        own.peerRateHz = tuned->rateHz;
    }
    for (const peers::PredictorKind* kind : sums.predictors) {
        predictors.push_back(kind->make(kind->tuned ? tuned->peers.at(kind->key).values : kind->initialValues()));
    }
    StrokeFollower follower(recording, batching, mmPerPixel, std::move(predictors));
    ReplayCounts& counts = own.counts;
    counts.recordings = 1;
    counts.strokes = batching.strokes.size();
    counts.samples = recording.samples.size();
    counts.skippedRows = recording.skippedRows.size();
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
        follower.follow(match);
        sums.modelLatencyUs.add(static_cast<double>(callback.modelLatencyUs));
        const auto sendToCallback = callback.receivedAt - sends[match].returnedAt;
        sums.sendToCallbackUs.add(std::max(0.0, std::chrono::duration<double, std::micro>(sendToCallback).count()));

        const std::size_t first = results.size();
        for (const PredictedStylusCoordinate& predicted : callback.coordinates) {
            PointResult result = measure(recording, batching, follower, match, callback.timestamp, predicted.timestamp);
            result.x = predicted.x;
            result.y = predicted.y;
            result.errorMm = std::hypot(result.x - result.truthX, result.y - result.truthY) * mmPerPixel;
            if (result.where == TruthPoint::Where::PastEnd) {
                result.overshootMm = overshootMm(recording, batching.strokes[result.stroke], result.x, result.y);
            }
            results.push_back(result);
        }
        for (int k = 1; k <= numPredictions && predictionStepMs > 0; ++k) {
            const uint64_t due =
                callback.timestamp + static_cast<uint64_t>(k) * static_cast<uint64_t>(predictionStepMs);
            const bool delivered = std::any_of(results.begin() + static_cast<std::ptrdiff_t>(first), results.end(),
                                               [due](const PointResult& r) { return r.timestamp == due; });
            if (!delivered) {
                PointResult result = measure(recording, batching, follower, match, callback.timestamp, due);
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
    total.skippedRows += counts.skippedRows;
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
