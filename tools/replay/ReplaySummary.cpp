#include "ReplaySummary.h"

#include <set>

namespace replay {

namespace {

DistributionSummary distribution(const ErrorStats& stats) {
    return {stats.count(), stats.mean(), stats.median(), stats.percentile(95.0)};
}

LatencySummary latency(const ErrorStats& stats) {
    return {stats.count(), stats.percentile(50.0), stats.percentile(99.0)};
}

}  // namespace

ReplaySummary ReplaySummary::make(const ReplayTotals& totals, const ReplayConfig& config) {
    ReplaySummary summary;
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
    const HorizonTotals none;
    for (const int64_t ms : horizons) {
        const auto found = totals.horizons.find(ms);
        const HorizonTotals& horizon = found != totals.horizons.end() ? found->second : none;
        HorizonSummary row;
        row.ms = ms;
        if (config.predictionStepMs > 0 && ms > 0 && ms % config.predictionStepMs == 0) {
            row.index = static_cast<int>(ms / config.predictionStepMs);
        }
        row.predictions = horizon.predictions;
        row.pastStrokeEnd = horizon.pastStrokeEnd;
        row.model = distribution(horizon.model);
        row.constantVelocity = distribution(horizon.constantVelocity);
        summary.horizons.push_back(row);
    }
    return summary;
}

}  // namespace replay
