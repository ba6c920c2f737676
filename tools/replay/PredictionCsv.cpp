#include "PredictionCsv.h"

#include <cinttypes>
#include <cstdio>

namespace replay {

const char* const PredictionCsv::header =
    "recording,stroke,base_timestamp,timestamp,horizon_ms,x_pos,y_pos,truth_x,truth_y,error_mm,cv_x,cv_y,"
    "cv_error_mm,where,ls_x,ls_y,ls_error_mm,overshoot_mm";

namespace {

std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\n") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return quoted + "\"";
}

const char* whereName(TruthPoint::Where where) {
    switch (where) {
        case TruthPoint::Where::Inside:
            return "inside";
        case TruthPoint::Where::BeforeStart:
            return "before_start";
        case TruthPoint::Where::PastEnd:
            break;
    }
    return "past_end";
}

}  // namespace

std::string PredictionCsv::headerWith(const std::vector<const peers::PredictorKind*>& predictors) {
    std::string line = header;
    for (const peers::PredictorKind* kind : predictors) {
        if (kind->tuned) {
            const std::string p = kind->csvPrefix;
            line += "," + p + "_x," + p + "_y," + p + "_error_mm," + p + "_overshoot_mm";
        }
    }
    return line;
}

void PredictionCsv::writeHeader(std::ostream& out, const std::vector<const peers::PredictorKind*>& predictors) {
    out << headerWith(predictors) << '\n';
}

void PredictionCsv::write(std::ostream& out, const std::string& recording, const std::vector<PointResult>& results) {
    const std::string name = csvField(recording);
    char text[512];
    for (const PointResult& r : results) {
        if (r.dropped) {
            continue;
        }
        const bool inside = r.where == TruthPoint::Where::Inside;
        int n = std::snprintf(text, sizeof(text), ",%zu,%" PRIu64 ",%" PRIu64 ",%" PRId64 ",%.4f,%.4f,", r.stroke,
                              r.baseTimestamp, r.timestamp, r.horizonMs, r.x, r.y);
        out << name << std::string(text, static_cast<std::size_t>(n));
        if (inside) {
            n = std::snprintf(text, sizeof(text), "%.4f,%.4f,%.5f,", r.truthX, r.truthY, r.errorMm);
        } else {
            n = std::snprintf(text, sizeof(text), ",,,");
        }
        out << std::string(text, static_cast<std::size_t>(n));
        if (r.hasBaseline) {
            n = std::snprintf(text, sizeof(text), "%.4f,%.4f,", r.baselineX, r.baselineY);
            out << std::string(text, static_cast<std::size_t>(n));
            if (inside) {
                n = std::snprintf(text, sizeof(text), "%.5f", r.baselineErrorMm);
                out << std::string(text, static_cast<std::size_t>(n));
            }
        } else {
            out << ",,";
        }
        out << ',' << whereName(r.where);
        const bool pastEnd = r.where == TruthPoint::Where::PastEnd;
        n = inside ? std::snprintf(text, sizeof(text), ",%.4f,%.4f,%.5f,", r.lsX, r.lsY, r.lsErrorMm)
                   : std::snprintf(text, sizeof(text), ",%.4f,%.4f,,", r.lsX, r.lsY);
        out << std::string(text, static_cast<std::size_t>(n));
        if (pastEnd) {
            n = std::snprintf(text, sizeof(text), "%.5f", r.overshootMm);
            out << std::string(text, static_cast<std::size_t>(n));
        }
        // The tuned peers follow the two baselines.
        for (std::size_t i = 2; i < r.guesses.size(); ++i) {
            const Guess& g = r.guesses[i];
            if (!g.has) {
                out << ",,,,";
                continue;
            }
            n = std::snprintf(text, sizeof(text), ",%.4f,%.4f,", g.x, g.y);
            out << std::string(text, static_cast<std::size_t>(n));
            if (inside) {
                n = std::snprintf(text, sizeof(text), "%.5f", g.errorMm);
                out << std::string(text, static_cast<std::size_t>(n));
            }
            out << ',';
            if (pastEnd) {
                n = std::snprintf(text, sizeof(text), "%.5f", g.overshootMm);
                out << std::string(text, static_cast<std::size_t>(n));
            }
        }
        out << '\n';
    }
}

}  // namespace replay
