#include "SummaryText.h"

#include <cmath>
#include <cstdio>
#include <string>

namespace replay {

namespace {

// Fixed-width number, "-" where there is no value.
std::string number(double value, int width, int decimals) {
    char text[64];
    if (std::isnan(value)) {
        std::snprintf(text, sizeof(text), "%*s", width, "-");
    } else {
        std::snprintf(text, sizeof(text), "%*.*f", width, decimals, value);
    }
    return text;
}

std::string count(std::size_t value, int width) {
    char text[64];
    std::snprintf(text, sizeof(text), "%*zu", width, value);
    return text;
}

void countLine(std::ostream& out, const char* label, std::size_t value) {
    char text[128];
    std::snprintf(text, sizeof(text), "  %-22s%10zu\n", label, value);
    out << text;
}

}  // namespace

void SummaryText::print(std::ostream& out, const ReplaySummary& s) {
    const ReplayCounts& c = s.counts;
    out << "Replay of " << c.recordings << (c.recordings == 1 ? " recording" : " recordings") << " with "
        << s.configPath << "\n";
    out << "  queue policy " << s.queueFullPolicy << ", batches of up to " << s.batchSize << " samples, "
        << (s.realtime ? "at the recording's pace" : "as fast as the pipeline takes them") << ", "
        << s.numPredictions << " predictions every " << s.predictionStepMs << " ms, "
        << number(s.mmPerPixel, 0, 5) << " mm per pixel\n\n";

    out << "Counts\n";
    countLine(out, "recordings", c.recordings);
    countLine(out, "strokes", c.strokes);
    countLine(out, "samples", c.samples);
    countLine(out, "batches", c.batches);
    countLine(out, "refused batches", c.refusedBatches);
    countLine(out, "predicted batches", c.predictedBatches);
    countLine(out, "predictions", c.predictions);
    countLine(out, "  measured", c.measuredPredictions);
    countLine(out, "  past stroke end", c.pastStrokeEnd);
    if (c.beforeStrokeStart > 0) {
        countLine(out, "  before stroke start", c.beforeStrokeStart);
    }
    if (c.unmatchedCallbacks > 0) {
        countLine(out, "unmatched callbacks", c.unmatchedCallbacks);
    }

    out << "\nError by horizon, mm                 model                   constant velocity\n";
    out << "  horizon  measured  past end     mean   median      p95      mean   median      p95\n";
    for (const HorizonSummary& h : s.horizons) {
        char horizon[32];
        std::snprintf(horizon, sizeof(horizon), "  %4lld ms", static_cast<long long>(h.ms));
        out << horizon
            << count(h.model.count, 10) << count(h.pastStrokeEnd, 10) << number(h.model.mean, 9, 3)
            << number(h.model.median, 9, 3) << number(h.model.p95, 9, 3) << " "
            << number(h.constantVelocity.mean, 9, 3) << number(h.constantVelocity.median, 9, 3)
            << number(h.constantVelocity.p95, 9, 3) << "\n";
    }

    if (s.library.available) {
        out << "\nLibrary metrics (online)\n";
        out << "  distance error      " << number(s.library.distanceErrorMm, 10, 3) << " mm\n";
        out << "  angle deviation     " << number(s.library.angleDevErrorDeg, 10, 3) << " deg\n";
        out << "  valid               " << std::string(10 - (s.library.valid ? 4 : 5), ' ')
            << (s.library.valid ? "true" : "false") << "\n";
    }

    out << "\nLatency, us                p50       p99     count\n";
    out << "  model             " << number(s.modelLatencyUs.p50, 10, 0) << number(s.modelLatencyUs.p99, 10, 0)
        << count(s.modelLatencyUs.count, 10) << "\n";
    out << "  send to callback  " << number(s.sendToCallbackUs.p50, 10, 0)
        << number(s.sendToCallbackUs.p99, 10, 0) << count(s.sendToCallbackUs.count, 10) << "\n";
}

}  // namespace replay
