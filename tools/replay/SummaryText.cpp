#include "SummaryText.h"

#include <cmath>
#include <cstdio>
#include <sstream>
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

std::string horizonLabel(int64_t ms) {
    char text[32];
    std::snprintf(text, sizeof(text), "  %4lld ms", static_cast<long long>(ms));
    return text;
}

std::string figures(const PointSetSummary& set) {
    return number(set.model.mean, 9, 3) + number(set.model.p95, 9, 3) + number(set.leastSquares.mean, 9, 3) +
           number(set.leastSquares.p95, 9, 3) + number(set.constantVelocity.mean, 9, 3) +
           number(set.constantVelocity.p95, 9, 3);
}

// Predictor names as column heads: each centred over a mean and a p95 column.
std::string heads(const std::vector<std::string>& names) {
    std::string line;
    for (const std::string& name : names) {
        const std::string cut = name.substr(0, 17);
        const std::size_t pad = 18 - cut.size();
        line += std::string(pad - pad / 2, ' ') + cut + std::string(pad / 2, ' ');
    }
    return line;
}

DistributionSummary missing() {
    const double none = std::nan("");
    return {0, none, none, none};
}

std::string pair(const DistributionSummary& d) { return number(d.mean, 9, 3) + number(d.p95, 9, 3); }

std::string meanP95(std::size_t columns) {
    std::string line;
    for (std::size_t i = 0; i < columns; ++i) {
        line += "     mean      p95";
    }
    return line;
}

// The file name, cut from the front to fit a column.
std::string shortName(const std::string& path, std::size_t width) {
    std::string name = path.substr(path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/') + 1);
    if (name.size() > width) {
        name = ".." + name.substr(name.size() - (width - 2));
    }
    return name + std::string(width - name.size(), ' ');
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
    if (c.skippedRows > 0) {
        countLine(out, "  rows skipped", c.skippedRows);
    }
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

    out << "  dropped by the model\n";
    countLine(out, "  inside a stroke", c.droppedInside);
    countLine(out, "  past stroke end", c.droppedPastEnd);

    const char* const predictors = "                       model      least squares (3)  constant velocity\n";
    out << "\nError by horizon, mm, where every predictor predicts (the model's own points)\n" << predictors;
    out << "  horizon    points     mean      p95     mean      p95     mean      p95\n";
    for (const HorizonSummary& h : s.horizons) {
        out << horizonLabel(h.ms) << count(h.common.count, 10) << figures(h.common) << "\n";
    }
    out << "\nError by horizon, mm, with the model's drops inside a stroke charged as \"no prediction\"\n"
           "(the pen shown where it last was)\n"
        << predictors;
    out << "  horizon    points     mean      p95     mean      p95     mean      p95   dropped\n";
    for (const HorizonSummary& h : s.horizons) {
        out << horizonLabel(h.ms) << count(h.charged.count, 10) << figures(h.charged) << count(h.droppedInside, 10)
            << "\n";
    }

    const std::vector<const peers::PredictorKind*> tuned = s.tunedPredictors();
    if (!tuned.empty()) {
        std::vector<std::string> names = {"model"};
        for (const peers::PredictorKind* kind : tuned) {
            names.push_back(kind->label);
        }
        out << "\nTuned peers by horizon, mm, the same points with the model's drops charged; parameters tuned for\n"
               "each recording's rate ("
            << s.peerFile << ")\n"
            << std::string(20, ' ') << heads(names) << "\n";
        out << "  horizon    points" << meanP95(names.size()) << "\n";
        for (const HorizonSummary& h : s.horizons) {
            out << horizonLabel(h.ms) << count(h.charged.count, 10) << pair(h.charged.model);
            for (std::size_t i = 0; i < tuned.size(); ++i) {
                out << (i < h.charged.peers.size() ? pair(h.charged.peers[i]) : pair(missing()));
            }
            out << "\n";
        }
    }

    std::vector<std::string> everyone = {"model"};
    for (const peers::PredictorKind* kind : s.predictors) {
        everyone.push_back(kind->label);
    }
    out << "\nOvershoot past the lift, mm: how far points due after the stroke's last sample land beyond it\n"
           "along the stroke's final direction (a dropped point counts 0)\n"
        << std::string(20, ' ') << heads(everyone) << "\n";
    out << "  horizon    points" << meanP95(everyone.size()) << "\n";
    for (const HorizonSummary& h : s.horizons) {
        out << horizonLabel(h.ms) << count(h.overshoot.count, 10) << pair(h.overshoot.model);
        for (std::size_t i = 0; i < s.predictors.size(); ++i) {
            out << (i < h.overshoot.predictors.size() ? pair(h.overshoot.predictors[i]) : pair(missing()));
        }
        out << "\n";
    }

    out << "\nPoints dropped by the model   inside a stroke   past stroke end (of all due there)\n";
    for (const HorizonSummary& h : s.horizons) {
        const std::size_t pastEnd = h.droppedPastEnd + h.pastStrokeEnd;
        out << horizonLabel(h.ms) << std::string(20, ' ') << count(h.droppedInside, 10)
            << count(h.droppedPastEnd, 18) << " of " << count(pastEnd, 0) << "\n";
    }

    if (!s.horizons.empty()) {
        const std::size_t last = s.horizons.size() - 1;
        out << "\nPer recording at +" << s.horizons[last].ms << " ms, mm, drops charged\n"
            << std::string(21, ' ') << predictors;
        out << "  recording                       points     mean      p95     mean      p95     mean      p95"
               "   dropped\n";
        const auto row = [&](const std::string& name, const HorizonSummary& h) {
            out << "  " << shortName(name, 28) << count(h.charged.count, 10) << figures(h.charged)
                << count(h.droppedInside, 10) << "\n";
        };
        for (const RecordingSummary& r : s.recordings) {
            row(r.path, r.horizons[last]);
        }
        if (!s.macroAverage.empty()) {
            row("macro average", s.macroAverage[last]);
        }
        row("pooled", s.horizons[last]);
        out << "  (macro average: each recording weighs the same)\n";
        if (!tuned.empty()) {
            out << "\nPer recording at +" << s.horizons[last].ms << " ms, tuned peers, mean mm, drops charged\n";
            out << "  recording                       rate Hz  tuned at     model";
            for (const peers::PredictorKind* kind : tuned) {
                char head[32];
                std::snprintf(head, sizeof(head), "%13s", std::string(kind->label).substr(0, 12).c_str());
                out << head;
            }
            out << "\n";
            for (const RecordingSummary& r : s.recordings) {
                const HorizonSummary& h = r.horizons[last];
                out << "  " << shortName(r.path, 28) << number(r.rateHz, 10, 0) << number(r.peerRateHz, 10, 0)
                    << number(h.charged.model.mean, 10, 3);
                for (std::size_t i = 0; i < tuned.size(); ++i) {
                    out << number(i < h.charged.peers.size() ? h.charged.peers[i].mean : std::nan(""), 13, 3);
                }
                out << "\n";
            }
        }
    }

    if (s.library.available) {
        out << "\nLibrary metrics (online; not comparable with the tables above)\n";
        // Word-wrapped beside its label: these say what the figures are.
        const auto wrapped = [&out](const std::string& label, const std::string& text) {
            const std::string indent(22, ' ');
            std::string line = ("  " + label + indent).substr(0, indent.size());
            bool empty = true;
            std::istringstream words(text);
            for (std::string word; words >> word;) {
                if (!empty && line.size() + 1 + word.size() > 100) {
                    out << line << "\n";
                    line = indent;
                    empty = true;
                }
                line += (empty ? "" : " ") + word;
                empty = false;
            }
            out << line << "\n";
        };
        wrapped("measures", LibraryMetrics::measures);
        out << "  distance error      " << number(s.library.distanceErrorMm, 10, 3) << " mm\n";
        out << "  angle deviation     " << number(s.library.angleDevErrorDeg, 10, 3) << " deg\n";
        out << "  valid               " << std::string(10 - (s.library.valid ? 4 : 5), ' ')
            << (s.library.valid ? "true" : "false") << "\n";
        wrapped("valid means", LibraryMetrics::validMeans(s.library.targetEventCount));
        const MetricsFileState& file = s.library.file;
        wrapped("metrics file", file.kept ? "kept in " + file.path
                                          : "cannot be kept here (" + file.reason + "): the figures cover this run only");
    }

    out << "\nLatency, us                p50       p99     count\n";
    out << "  model             " << number(s.modelLatencyUs.p50, 10, 0) << number(s.modelLatencyUs.p99, 10, 0)
        << count(s.modelLatencyUs.count, 10) << "\n";
    out << "  send to callback  " << number(s.sendToCallbackUs.p50, 10, 0)
        << number(s.sendToCallbackUs.p99, 10, 0) << count(s.sendToCallbackUs.count, 10) << "\n";
    if (!s.libraryLogPath.empty()) {
        out << "\nLibrary log: " << s.libraryLogPath << "\n";
    }
}

}  // namespace replay
