#include "ReplaySummary.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

namespace replay {

namespace {

DistributionSummary distribution(const ErrorStats& stats) {
    return {stats.count(), stats.mean(), stats.median(), stats.percentile(95.0)};
}

LatencySummary latency(const ErrorStats& stats) {
    return {stats.count(), stats.percentile(50.0), stats.percentile(99.0)};
}

// Statistics of the i-th predictor; none when it never had a point.
const ErrorStats& statsAt(const std::vector<ErrorStats>& stats, std::size_t i) {
    static const ErrorStats none;
    return i < stats.size() ? stats[i] : none;
}

PointSetSummary pointSet(const PointSetTotals& totals, std::size_t recordings, std::size_t peerCount) {
    PointSetSummary set;
    set.count = totals.model.count();
    set.recordings = set.count > 0 ? recordings : 0;
    set.model = distribution(totals.model);
    set.constantVelocity = distribution(totals.constantVelocity);
    set.leastSquares = distribution(totals.leastSquares);
    for (std::size_t i = 0; i < peerCount; ++i) {
        set.peers.push_back(distribution(statsAt(totals.peers, i)));
    }
    return set;
}

OvershootSummary overshoot(const OvershootTotals& totals, std::size_t predictorCount) {
    OvershootSummary summary;
    summary.count = totals.model.count();
    summary.model = distribution(totals.model);
    for (std::size_t i = 0; i < predictorCount; ++i) {
        summary.predictors.push_back(distribution(statsAt(totals.predictors, i)));
    }
    return summary;
}

std::vector<HorizonSummary> horizonRows(const HorizonMap& totals, const std::set<int64_t>& horizons,
                                        const ReplayConfig& config, std::size_t recordings,
                                        std::size_t predictorCount, std::size_t peerCount) {
    std::vector<HorizonSummary> rows;
    const HorizonTotals none;
    for (const int64_t ms : horizons) {
        const auto found = totals.find(ms);
        const HorizonTotals& horizon = found != totals.end() ? found->second : none;
        HorizonSummary row;
        row.ms = ms;
        if (config.predictionStepMs > 0 && ms > 0 && ms % config.predictionStepMs == 0) {
            row.index = static_cast<int>(ms / config.predictionStepMs);
        }
        row.predictions = horizon.predictions;
        row.pastStrokeEnd = horizon.pastStrokeEnd;
        row.droppedInside = horizon.droppedInside;
        row.droppedPastEnd = horizon.droppedPastEnd;
        row.model = distribution(horizon.model);
        row.constantVelocity = distribution(horizon.constantVelocity);
        row.common = pointSet(horizon.common, recordings, peerCount);
        row.charged = pointSet(horizon.charged, recordings, peerCount);
        row.overshoot = overshoot(horizon.overshoot, predictorCount);
        rows.push_back(row);
    }
    return rows;
}

// Running means of each figure over the recordings that have one.
struct Average {
    double sum = 0.0;
    std::size_t n = 0;
    void add(double value) {
        if (std::isfinite(value)) {
            sum += value;
            ++n;
        }
    }
    double value() const { return n > 0 ? sum / static_cast<double>(n) : std::numeric_limits<double>::quiet_NaN(); }
};

struct DistributionAverage {
    std::size_t count = 0;
    Average mean, median, p95;
    void add(const DistributionSummary& d) {
        count += d.count;
        if (d.count > 0) {
            mean.add(d.mean);
            median.add(d.median);
            p95.add(d.p95);
        }
    }
    DistributionSummary value() const { return {count, mean.value(), median.value(), p95.value()}; }
};

std::vector<DistributionSummary> values(const std::vector<DistributionAverage>& averages) {
    std::vector<DistributionSummary> out;
    for (const DistributionAverage& average : averages) {
        out.push_back(average.value());
    }
    return out;
}

void addAll(std::vector<DistributionAverage>& averages, const std::vector<DistributionSummary>& own) {
    averages.resize(std::max(averages.size(), own.size()));
    for (std::size_t i = 0; i < own.size(); ++i) {
        averages[i].add(own[i]);
    }
}

struct PointSetAverage {
    std::size_t count = 0, recordings = 0;
    DistributionAverage model, constantVelocity, leastSquares;
    std::vector<DistributionAverage> peers;
    void add(const PointSetSummary& set) {
        count += set.count;
        recordings += set.recordings;
        model.add(set.model);
        constantVelocity.add(set.constantVelocity);
        leastSquares.add(set.leastSquares);
        addAll(peers, set.peers);
    }
    PointSetSummary value() const {
        return {count, recordings, model.value(), constantVelocity.value(), leastSquares.value(), values(peers)};
    }
};

struct OvershootAverage {
    std::size_t count = 0;
    DistributionAverage model;
    std::vector<DistributionAverage> predictors;
    void add(const OvershootSummary& own) {
        count += own.count;
        model.add(own.model);
        addAll(predictors, own.predictors);
    }
    OvershootSummary value() const { return {count, model.value(), values(predictors)}; }
};

std::vector<HorizonSummary> averageOverRecordings(const std::vector<RecordingSummary>& recordings,
                                                  const std::vector<HorizonSummary>& pooled) {
    std::vector<HorizonSummary> rows;
    for (std::size_t h = 0; h < pooled.size(); ++h) {
        HorizonSummary row;
        row.ms = pooled[h].ms;
        row.index = pooled[h].index;
        DistributionAverage model, constantVelocity;
        PointSetAverage common, charged;
        OvershootAverage overshoot;
        for (const RecordingSummary& recording : recordings) {
            const HorizonSummary& own = recording.horizons[h];
            row.predictions += own.predictions;
            row.pastStrokeEnd += own.pastStrokeEnd;
            row.droppedInside += own.droppedInside;
            row.droppedPastEnd += own.droppedPastEnd;
            model.add(own.model);
            constantVelocity.add(own.constantVelocity);
            common.add(own.common);
            charged.add(own.charged);
            overshoot.add(own.overshoot);
        }
        row.model = model.value();
        row.constantVelocity = constantVelocity.value();
        row.common = common.value();
        row.charged = charged.value();
        row.overshoot = overshoot.value();
        rows.push_back(row);
    }
    return rows;
}

}  // namespace

const char* const LibraryMetrics::measures =
    "the newest predicted point of a batch against the first sample two batches later, as a running mean "
    "over the runs the library's metrics file kept";

std::string LibraryMetrics::validMeans(unsigned long long targetEventCount) {
    return "true once " + std::to_string(targetEventCount) +
           " points (PredictionModel.target_event_count) have been measured in all, over the runs the "
           "metrics file kept";
}

std::vector<const peers::PredictorKind*> ReplaySummary::tunedPredictors() const {
    std::vector<const peers::PredictorKind*> tuned;
    for (const peers::PredictorKind* kind : predictors) {
        if (kind->tuned) {
            tuned.push_back(kind);
        }
    }
    return tuned;
}

ReplaySummary ReplaySummary::make(const ReplayTotals& totals, const ReplayConfig& config) {
    ReplaySummary summary;
    summary.predictors = totals.predictors;
    summary.peerFile = totals.peerFile;
    const std::size_t predictorCount = summary.predictors.size();
    const std::size_t peerCount = summary.tunedPredictors().size();
    summary.configPath = config.path;
    summary.queueFullPolicy = config.queueFullPolicy;
    summary.predictionStepMs = config.predictionStepMs;
    summary.numPredictions = config.numPredictions;
    summary.mmPerPixel = config.mmPerPixel();
    summary.counts = totals.counts;
    summary.modelLatencyUs = latency(totals.modelLatencyUs);
    summary.sendToCallbackUs = latency(totals.sendToCallbackUs);

    std::set<int64_t> horizons;
    for (const auto& entry : totals.horizons) {
        horizons.insert(entry.first);
    }
    for (int k = 1; k <= config.numPredictions && config.predictionStepMs > 0; ++k) {
        horizons.insert(static_cast<int64_t>(k) * config.predictionStepMs);  // listed even when empty
    }
    for (const RecordingTotals& recording : totals.recordings) {
        RecordingSummary own;
        own.path = recording.path;
        own.rateHz = recording.rateHz;
        own.peerRateHz = recording.peerRateHz;
        own.counts = recording.counts;
        own.horizons = horizonRows(recording.horizons, horizons, config, 1, predictorCount, peerCount);
        summary.recordings.push_back(own);
    }
    // In the pooled rows, a set's recordings are those with a point in it at that horizon.
    summary.horizons = horizonRows(totals.horizons, horizons, config, 0, predictorCount, peerCount);
    const std::vector<HorizonSummary> macro = averageOverRecordings(summary.recordings, summary.horizons);
    for (std::size_t h = 0; h < macro.size(); ++h) {
        summary.horizons[h].common.recordings = macro[h].common.recordings;
        summary.horizons[h].charged.recordings = macro[h].charged.recordings;
    }
    summary.macroAverage = macro;
    return summary;
}

}  // namespace replay
