#include "JsonSummary.h"

#include <cmath>
#include <cstdio>

namespace replay {

namespace {

std::string real(double value) {
    if (!std::isfinite(value)) {
        return "null";
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%.6g", value);
    return text;
}

std::string text(const std::string& value) { return "\"" + JsonSummary::escape(value) + "\""; }

std::string distribution(const DistributionSummary& d) {
    return "{\"count\": " + std::to_string(d.count) + ", \"mean_mm\": " + real(d.mean) +
           ", \"median_mm\": " + real(d.median) + ", \"p95_mm\": " + real(d.p95) + "}";
}

std::string latency(const LatencySummary& l) {
    return "{\"count\": " + std::to_string(l.count) + ", \"p50\": " + real(l.p50) + ", \"p99\": " + real(l.p99) +
           "}";
}

}  // namespace

std::string JsonSummary::escape(const std::string& value) {
    std::string escaped;
    for (const char c : value) {
        switch (c) {
            case '"': escaped += "\\\""; break;
            case '\\': escaped += "\\\\"; break;
            case '\n': escaped += "\\n"; break;
            case '\r': escaped += "\\r"; break;
            case '\t': escaped += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char code[8];
                    std::snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned>(c));
                    escaped += code;
                } else {
                    escaped += c;
                }
        }
    }
    return escaped;
}

void JsonSummary::write(std::ostream& out, const ReplaySummary& s) {
    const ReplayCounts& c = s.counts;
    out << "{\n";
    out << "  \"tool\": \"stylus-replay\",\n";
    out << "  \"config\": " << text(s.configPath) << ",\n";
    out << "  \"inputs\": [";
    for (std::size_t i = 0; i < s.inputs.size(); ++i) {
        out << (i > 0 ? ", " : "") << text(s.inputs[i]);
    }
    out << "],\n";
    out << "  \"settings\": {\"batch_size\": " << s.batchSize << ", \"realtime\": " << (s.realtime ? "true" : "false")
        << ", \"queue_full_policy\": " << text(s.queueFullPolicy) << ", \"prediction_step_ms\": "
        << s.predictionStepMs << ", \"num_predictions\": " << s.numPredictions
        << ", \"mm_per_pixel\": " << real(s.mmPerPixel) << "},\n";
    out << "  \"counts\": {\"recordings\": " << c.recordings << ", \"strokes\": " << c.strokes
        << ", \"samples\": " << c.samples << ", \"batches\": " << c.batches
        << ", \"refused_batches\": " << c.refusedBatches << ", \"predicted_batches\": " << c.predictedBatches
        << ", \"predictions\": " << c.predictions << ", \"measured_predictions\": " << c.measuredPredictions
        << ", \"past_stroke_end\": " << c.pastStrokeEnd << ", \"before_stroke_start\": " << c.beforeStrokeStart
        << ", \"unmatched_callbacks\": " << c.unmatchedCallbacks << "},\n";
    out << "  \"horizons\": [";
    for (std::size_t i = 0; i < s.horizons.size(); ++i) {
        const HorizonSummary& h = s.horizons[i];
        out << (i > 0 ? ",\n" : "\n") << "    {\"ms\": " << h.ms << ", \"index\": " << h.index
            << ", \"predictions\": " << h.predictions << ", \"past_stroke_end\": " << h.pastStrokeEnd
            << ",\n     \"model\": " << distribution(h.model)
            << ",\n     \"constant_velocity\": " << distribution(h.constantVelocity) << "}";
    }
    out << (s.horizons.empty() ? "],\n" : "\n  ],\n");
    out << "  \"library_metrics\": ";
    if (s.library.available) {
        out << "{\"distance_error_mm\": " << real(s.library.distanceErrorMm)
            << ", \"angle_dev_error_deg\": " << real(s.library.angleDevErrorDeg)
            << ", \"valid\": " << (s.library.valid ? "true" : "false") << "},\n";
    } else {
        out << "null,\n";
    }
    out << "  \"latency_us\": {\"model\": " << latency(s.modelLatencyUs)
        << ", \"send_to_callback\": " << latency(s.sendToCallbackUs) << "}\n";
    out << "}\n";
}

}  // namespace replay
