#include "JsonSummary.h"

#include <cmath>
#include <cstdio>

#include "JsonText.h"

namespace replay {

namespace {

std::string real(double value) { return jsonNumber(value, 6); }

std::string text(const std::string& value) { return jsonString(value); }

std::string distribution(const DistributionSummary& d) {
    return "{\"count\": " + std::to_string(d.count) + ", \"mean_mm\": " + real(d.mean) +
           ", \"median_mm\": " + real(d.median) + ", \"p95_mm\": " + real(d.p95) + "}";
}

using Kinds = std::vector<const peers::PredictorKind*>;

std::string pointSet(const PointSetSummary& p, const Kinds& tuned) {
    std::string text = "{\"count\": " + std::to_string(p.count) + ", \"recordings\": " + std::to_string(p.recordings) +
                       ",\n       \"model\": " + distribution(p.model) +
                       ",\n       \"constant_velocity\": " + distribution(p.constantVelocity) +
                       ",\n       \"least_squares_3\": " + distribution(p.leastSquares);
    for (std::size_t i = 0; i < tuned.size() && i < p.peers.size(); ++i) {
        text += ",\n       \"" + std::string(tuned[i]->key) + "\": " + distribution(p.peers[i]);
    }
    return text + "}";
}

std::string overshoot(const OvershootSummary& o, const Kinds& predictors) {
    std::string text = "{\"count\": " + std::to_string(o.count) + ",\n       \"model\": " + distribution(o.model);
    for (std::size_t i = 0; i < predictors.size() && i < o.predictors.size(); ++i) {
        text += ",\n       \"" + std::string(predictors[i]->key) + "\": " + distribution(o.predictors[i]);
    }
    return text + "}";
}

std::string counts(const ReplayCounts& c) {
    return "{\"recordings\": " + std::to_string(c.recordings) + ", \"strokes\": " + std::to_string(c.strokes) +
           ", \"samples\": " + std::to_string(c.samples) + ", \"batches\": " + std::to_string(c.batches) +
           ", \"refused_batches\": " + std::to_string(c.refusedBatches) +
           ", \"predicted_batches\": " + std::to_string(c.predictedBatches) +
           ", \"predictions\": " + std::to_string(c.predictions) +
           ", \"measured_predictions\": " + std::to_string(c.measuredPredictions) +
           ", \"past_stroke_end\": " + std::to_string(c.pastStrokeEnd) +
           ", \"before_stroke_start\": " + std::to_string(c.beforeStrokeStart) +
           ", \"unmatched_callbacks\": " + std::to_string(c.unmatchedCallbacks) +
           ", \"dropped_inside_stroke\": " + std::to_string(c.droppedInside) +
           ", \"dropped_past_end\": " + std::to_string(c.droppedPastEnd) +
           ", \"skipped_rows\": " + std::to_string(c.skippedRows) + "}";
}

void horizons(std::ostream& out, const std::vector<HorizonSummary>& rows, const std::string& indent,
              const ReplaySummary& s) {
    const Kinds tuned = s.tunedPredictors();
    out << "[";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const HorizonSummary& h = rows[i];
        out << (i > 0 ? ",\n" : "\n") << indent << "  {\"ms\": " << h.ms << ", \"index\": " << h.index
            << ", \"predictions\": " << h.predictions << ", \"past_stroke_end\": " << h.pastStrokeEnd
            << ", \"dropped_inside_stroke\": " << h.droppedInside << ", \"dropped_past_end\": " << h.droppedPastEnd
            << ",\n"
            << indent << "   \"model\": " << distribution(h.model) << ",\n"
            << indent << "   \"constant_velocity\": " << distribution(h.constantVelocity) << ",\n"
            << indent << "   \"predicted_by_all\": " << pointSet(h.common, tuned) << ",\n"
            << indent << "   \"drops_charged\": " << pointSet(h.charged, tuned) << ",\n"
            << indent << "   \"overshoot\": " << overshoot(h.overshoot, s.predictors) << "}";
    }
    out << (rows.empty() ? "]" : "\n" + indent + "]");
}

std::string latency(const LatencySummary& l) {
    return "{\"count\": " + std::to_string(l.count) + ", \"p50\": " + real(l.p50) + ", \"p99\": " + real(l.p99) + "}";
}

}  // namespace

void JsonSummary::write(std::ostream& out, const ReplaySummary& s) {
    out << "{\n";
    out << "  \"tool\": \"stylus-replay\",\n";
    out << "  \"config\": " << text(s.configPath) << ",\n";
    out << "  \"inputs\": [";
    for (std::size_t i = 0; i < s.inputs.size(); ++i) {
        out << (i > 0 ? ", " : "") << text(s.inputs[i]);
    }
    out << "],\n";
    out << "  \"settings\": {\"batch_size\": " << s.batchSize << ", \"realtime\": " << (s.realtime ? "true" : "false")
        << ", \"queue_full_policy\": " << text(s.queueFullPolicy) << ", \"prediction_step_ms\": " << s.predictionStepMs
        << ", \"num_predictions\": " << s.numPredictions << ", \"mm_per_pixel\": " << real(s.mmPerPixel) << "},\n";
    out << "  \"predictors\": [";
    for (std::size_t i = 0; i < s.predictors.size(); ++i) {
        const peers::PredictorKind& kind = *s.predictors[i];
        out << (i > 0 ? ",\n    " : "\n    ") << "{\"key\": " << text(kind.key) << ", \"label\": " << text(kind.label)
            << ", \"tuned\": " << (kind.tuned ? "true" : "false") << "}";
    }
    out << "],\n";
    out << "  \"peers_file\": " << (s.peerFile.empty() ? "null" : text(s.peerFile)) << ",\n";
    out << "  \"counts\": " << counts(s.counts) << ",\n";
    out << "  \"horizons\": ";
    horizons(out, s.horizons, "  ", s);
    out << ",\n  \"macro_average\": {\"horizons\": ";
    horizons(out, s.macroAverage, "    ", s);
    out << "},\n  \"recordings\": [";
    for (std::size_t i = 0; i < s.recordings.size(); ++i) {
        const RecordingSummary& r = s.recordings[i];
        out << (i > 0 ? ",\n" : "\n") << "    {\"path\": " << text(r.path) << ", \"rate_hz\": " << real(r.rateHz)
            << ", \"peers_rate_hz\": " << (r.peerRateHz > 0.0 ? real(r.peerRateHz) : "null")
            << ",\n     \"counts\": " << counts(r.counts)
            << ",\n     \"horizons\": ";
        horizons(out, r.horizons, "     ", s);
        out << "}";
    }
    out << (s.recordings.empty() ? "],\n" : "\n  ],\n");
    out << "  \"library_metrics\": ";
    if (s.library.available) {
        out << "{\"distance_error_mm\": " << real(s.library.distanceErrorMm)
            << ", \"angle_dev_error_deg\": " << real(s.library.angleDevErrorDeg)
            << ", \"valid\": " << (s.library.valid ? "true" : "false")
            << ", \"measures\": " << text(LibraryMetrics::measures)
            << ", \"valid_means\": " << text(LibraryMetrics::validMeans(s.library.targetEventCount))
            << ", \"target_event_count\": " << s.library.targetEventCount
            << ", \"metrics_file\": {\"path\": " << text(s.library.file.path)
            << ", \"kept\": " << (s.library.file.kept ? "true" : "false")
            << ", \"reason\": " << (s.library.file.kept ? "null" : text(s.library.file.reason)) << "}},\n";
    } else {
        out << "null,\n";
    }
    out << "  \"library_log\": " << (s.libraryLogPath.empty() ? "null" : text(s.libraryLogPath)) << ",\n";
    out << "  \"latency_us\": {\"model\": " << latency(s.modelLatencyUs)
        << ", \"send_to_callback\": " << latency(s.sendToCallbackUs) << "}\n";
    out << "}\n";
}

}  // namespace replay
