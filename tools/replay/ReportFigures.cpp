#include "ReportFigures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "ReportPredictors.h"

namespace replay {

namespace {

// A round step for about `parts` axis divisions of range.
double niceStep(double range, int parts) {
    if (!(range > 0.0)) {
        return 1.0;
    }
    const double raw = range / parts;
    const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        if (raw <= factor * magnitude) {
            return factor * magnitude;
        }
    }
    return 10.0 * magnitude;
}

// Text of 12 px sans-serif is at most this wide per character; margins are sized from it so that no
// label leaves the SVG's viewBox.
constexpr double charWidth = 7.5;

// Plot area inside an SVG of fixed size; maps data values to pixels.
struct Frame {
    double width = 640, height = 300, left = 60, right = 24, top = 20, bottom = 45;
    double yMax = 1.0;
    double plotWidth() const { return width - left - right; }
    double plotHeight() const { return height - top - bottom; }
    double y(double value) const { return top + plotHeight() * (1.0 - value / yMax); }
};

// Sets the frame's left margin to fit the tick labels, then draws grid, ticks and the axis title.
void writeYAxis(std::ostream& out, Frame& frame, double dataMax, const std::string& label) {
    const double step = niceStep(dataMax, 5);
    frame.yMax = step * std::max(1.0, std::ceil(dataMax / step));
    const int decimals = step < 1.0 ? (step < 0.1 ? 2 : 1) : 0;
    std::size_t widest = 1;
    for (double v = 0.0; v <= frame.yMax + step / 2; v += step) {
        widest = std::max(widest, ReportFigures::number(v, decimals).size());
    }
    const double titleX = 16;
    frame.left = titleX + 10 + charWidth * static_cast<double>(widest);
    for (double v = 0.0; v <= frame.yMax + step / 2; v += step) {
        const double y = frame.y(v);
        out << "<line x1='" << frame.left << "' x2='" << frame.width - frame.right << "' y1='"
            << ReportFigures::number(y) << "' y2='" << ReportFigures::number(y) << "' stroke='#e5e5e5'/>"
            << "<text x='" << frame.left - 5 << "' y='" << ReportFigures::number(y + 4) << "' text-anchor='end'>"
            << ReportFigures::number(v, decimals) << "</text>\n";
    }
    const std::string middle = ReportFigures::number(frame.top + frame.plotHeight() / 2);
    out << "<text x='" << titleX << "' y='" << middle << "' transform='rotate(-90 " << titleX << " " << middle
        << ")' text-anchor='middle'>" << ReportFigures::escapeHtml(label) << "</text>\n";
}

// An x-axis tick label, moved inwards where it would run over the SVG's edge, and low enough that a
// tick at the plot's left edge clears the y axis's "0".
void writeXTick(std::ostream& out, const Frame& frame, double x, const std::string& text) {
    const double half = charWidth * static_cast<double>(text.size()) / 2;
    const double at = std::clamp(x, half + 1, frame.width - half - 1);
    out << "<line x1='" << ReportFigures::number(x) << "' x2='" << ReportFigures::number(x) << "' y1='"
        << ReportFigures::number(frame.y(0)) << "' y2='" << ReportFigures::number(frame.y(0) + 4)
        << "' stroke='#888'/><text x='" << ReportFigures::number(at) << "' y='"
        << ReportFigures::number(frame.y(0) + 21) << "' text-anchor='middle'>" << text << "</text>\n";
}

// 1500 -> "1.5k": tick labels of a log axis spanning decades.
std::string shortNumber(double value) {
    const struct {
        double scale;
        const char* suffix;
    } units[] = {{1e6, "M"}, {1e3, "k"}, {1.0, ""}};
    for (const auto& unit : units) {
        if (value >= unit.scale || unit.scale == 1.0) {
            const double scaled = value / unit.scale;
            const bool whole = std::fabs(scaled - std::round(scaled)) < 1e-9;
            return ReportFigures::number(scaled, whole ? 0 : (scaled < 1.0 ? 2 : 1)) + unit.suffix;
        }
    }
    return ReportFigures::number(value, 0);
}

std::string cell(double value) { return std::isfinite(value) ? ReportFigures::number(value, 3) : "-"; }

}  // namespace

std::string ReportFigures::number(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

std::string ReportFigures::escapeHtml(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '&':
                escaped += "&amp;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

// Bins from the data: a tenth of a decade each when the values span more than a decade (latencies
// do: a few slow batches lie far from the rest), else about 30 equal bins over the values' range.
// Every value falls in a bin.
ReportFigures::Bins ReportFigures::latencyBins(const std::vector<double>& sortedValues) {
    Bins bins;
    if (sortedValues.empty()) {
        return bins;
    }
    const double low = std::max(1.0, sortedValues.front());
    const double high = std::max(low, sortedValues.back());
    bins.logarithmic = high / low > 10.0;
    if (bins.logarithmic) {
        constexpr double perDecade = 10.0;
        const double first = std::floor(std::log10(low) * perDecade);
        const double last = std::ceil(std::log10(high) * perDecade + 1e-9);
        for (double i = first; i <= last; ++i) {
            bins.edges.push_back(std::pow(10.0, i / perDecade));
        }
    } else {
        const double step = niceStep(std::max(high - low, 1.0), 30);
        for (double edge = std::floor(low / step) * step; bins.edges.size() < 2 || bins.edges.back() <= high;
             edge += step) {
            bins.edges.push_back(edge);
        }
    }
    bins.counts.assign(bins.edges.size() - 1, 0);
    for (const double v : sortedValues) {
        const auto above = std::upper_bound(bins.edges.begin(), bins.edges.end(), v);
        const std::size_t index = above == bins.edges.begin() ? 0 : static_cast<std::size_t>(above - bins.edges.begin()) - 1;
        ++bins.counts[std::min(index, bins.counts.size() - 1)];
    }
    return bins;
}

void ReportFigures::histogram(std::ostream& out, const ErrorStats& stats, const std::string& title) {
    out << "<figure><figcaption>" << escapeHtml(title) << "</figcaption>\n";
    const Bins bins = latencyBins(stats.sortedValues());
    if (bins.counts.empty()) {
        out << "<p>No data.</p></figure>\n";
        return;
    }
    const double highest = static_cast<double>(*std::max_element(bins.counts.begin(), bins.counts.end()));
    Frame frame;
    frame.width = 460;
    out << "<svg viewBox='0 0 " << frame.width << " " << frame.height << "' class='chart histogram'>\n";
    writeYAxis(out, frame, highest, "batches");
    const auto position = [&](double v) { return bins.logarithmic ? std::log10(std::max(v, 1e-9)) : v; };
    const double from = position(bins.edges.front()), to = position(bins.edges.back());
    const auto x = [&](double v) { return frame.left + frame.plotWidth() * (position(v) - from) / (to - from); };
    const char* colour = reportPredictors().front().colour;
    for (std::size_t i = 0; i < bins.counts.size(); ++i) {
        if (bins.counts[i] == 0) {
            continue;
        }
        const double left = x(bins.edges[i]), right = x(bins.edges[i + 1]);
        // A few slow batches stay visible next to thousands of others.
        const double top = std::min(frame.y(static_cast<double>(bins.counts[i])), frame.y(0) - 1.5);
        out << "<rect x='" << number(left) << "' y='" << number(top) << "' width='"
            << number(std::max(0.5, right - left - 1)) << "' height='" << number(frame.y(0) - top) << "' fill='"
            << colour << "'><title>" << number(bins.edges[i], 0) << "-" << number(bins.edges[i + 1], 0)
            << " us: " << bins.counts[i] << "</title></rect>\n";
    }
    if (bins.logarithmic) {
        for (double decade = std::pow(10.0, std::floor(from)); decade <= bins.edges.back(); decade *= 10.0) {
            for (const double factor : {1.0, 2.0, 5.0}) {
                const double v = decade * factor;
                if (v >= bins.edges.front() && v <= bins.edges.back()) {
                    writeXTick(out, frame, x(v), shortNumber(v));
                }
            }
        }
    } else {
        const double step = niceStep(bins.edges.back() - bins.edges.front(), 5);
        for (double v = std::ceil(bins.edges.front() / step) * step; v <= bins.edges.back() + step / 100; v += step) {
            writeXTick(out, frame, x(v), shortNumber(v));
        }
    }
    out << "<text x='" << number(frame.width / 2) << "' y='" << frame.height - 6
        << "' text-anchor='middle'>microseconds" << (bins.logarithmic ? ", log scale" : "") << " (p50 "
        << number(stats.percentile(50.0), 0) << ", p99 " << number(stats.percentile(99.0), 0) << ", max "
        << number(stats.max(), 0) << ")</text>\n</svg>\n</figure>\n";
}

// Grouped bars per horizon: the mean of each predictor, whiskers to the 95th percentile. The legend
// is HTML below the chart, so that no label can run into another.
void ReportFigures::errorChart(std::ostream& out, const std::vector<HorizonSummary>& horizons, bool charged) {
    const bool withPeers = std::any_of(horizons.begin(), horizons.end(),
                                       [](const HorizonSummary& h) { return !h.common.peers.empty(); });
    const std::vector<ReportPredictor>& predictors = reportPredictors(withPeers);
    std::vector<const HorizonSummary*> rows;
    double dataMax = 0.0;
    for (const HorizonSummary& h : horizons) {
        const PointSetSummary& set = charged ? h.charged : h.common;
        if (set.count == 0) {
            continue;
        }
        rows.push_back(&h);
        for (const ReportPredictor& p : predictors) {
            for (const double v : {p.figures(set).mean, p.figures(set).p95}) {
                if (std::isfinite(v)) {
                    dataMax = std::max(dataMax, v);
                }
            }
        }
    }
    if (rows.empty()) {
        out << "<p>No prediction could be measured.</p>\n";
        return;
    }
    Frame frame;
    out << "<svg viewBox='0 0 " << frame.width << " " << frame.height << "' class='chart error-chart'>\n";
    writeYAxis(out, frame, dataMax, "error, mm");
    const double group = frame.plotWidth() / static_cast<double>(rows.size());
    const double n = static_cast<double>(predictors.size());
    const double gap = 2;
    const double bar = std::min(30.0, (group * 0.8 - gap * (n - 1)) / n);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const HorizonSummary& h = *rows[i];
        const PointSetSummary& set = charged ? h.charged : h.common;
        const double centre = frame.left + group * (static_cast<double>(i) + 0.5);
        for (std::size_t b = 0; b < predictors.size(); ++b) {
            const DistributionSummary& d = predictors[b].figures(set);
            if (!std::isfinite(d.mean)) {
                continue;
            }
            const double x = centre - (n * bar + (n - 1) * gap) / 2 + static_cast<double>(b) * (bar + gap);
            const double top = frame.y(d.mean);
            out << "<rect data-predictor='" << predictors[b].key << "' x='" << number(x) << "' y='" << number(top)
                << "' width='" << number(bar) << "' height='" << number(frame.y(0) - top) << "' fill='"
                << predictors[b].colour << "'><title>+" << h.ms << " ms, " << predictors[b].name << ": mean "
                << number(d.mean, 3) << " mm, median " << number(d.median, 3) << " mm, p95 " << number(d.p95, 3)
                << " mm, " << d.count << " points</title></rect>\n";
            if (std::isfinite(d.p95)) {
                const double mid = x + bar / 2;
                out << "<line x1='" << number(mid) << "' x2='" << number(mid) << "' y1='" << number(top) << "' y2='"
                    << number(frame.y(d.p95)) << "' stroke='#333'/><line x1='" << number(mid - bar / 4) << "' x2='"
                    << number(mid + bar / 4) << "' y1='" << number(frame.y(d.p95)) << "' y2='"
                    << number(frame.y(d.p95)) << "' stroke='#333'/>\n";
            }
        }
        out << "<text x='" << number(centre) << "' y='" << number(frame.y(0) + 17) << "' text-anchor='middle'>+"
            << h.ms << " ms</text>\n";
    }
    out << "<text x='" << number(frame.left + frame.plotWidth() / 2) << "' y='" << frame.height - 6
        << "' text-anchor='middle'>prediction horizon</text>\n</svg>\n";
}

void ReportFigures::chartLegend(std::ostream& out, bool withPeers) {
    out << "<p class='legend'>";
    for (const ReportPredictor& p : reportPredictors(withPeers)) {
        out << "<span><i data-predictor='" << p.key << "' style='background:" << p.colour << "'></i>"
            << escapeHtml(p.name) << "</span>";
    }
    out << "<span>bar: mean, whisker: 95th percentile</span></p>\n";
}

// Means per horizon for each predictor, the best in bold; the p95 and the number of
// points in the tooltip.
void ReportFigures::recordingTable(std::ostream& out, const ReplaySummary& summary, bool charged) {
    const std::vector<ReportPredictor>& predictors = reportPredictors(!summary.peerFile.empty());
    out << "<div class='scroll'><table class='figures'>\n<tr><th rowspan='2'>recording</th><th rowspan='2'>strokes</th>"
           "<th rowspan='2'>points at +"
        << (summary.horizons.empty() ? 0 : summary.horizons.back().ms)
        << " ms</th><th rowspan='2'>dropped inside / past end</th>";
    for (const HorizonSummary& h : summary.horizons) {
        out << "<th colspan='" << predictors.size() << "'>+" << h.ms << " ms</th>";
    }
    out << "</tr>\n<tr>";
    for (std::size_t i = 0; i < summary.horizons.size(); ++i) {
        for (const ReportPredictor& p : predictors) {
            out << "<th style='color:" << p.colour << "'>" << escapeHtml(p.shortName) << "</th>";
        }
    }
    out << "</tr>\n";
    const auto row = [&](const std::string& name, const std::string& strokes, const ReplayCounts& counts,
                         const std::vector<HorizonSummary>& horizons, const char* rowClass) {
        const std::string base =
            name.substr(name.find_last_of('/') == std::string::npos ? 0 : name.find_last_of('/') + 1);
        const PointSetSummary* lastSet = nullptr;
        if (!horizons.empty()) {
            lastSet = charged ? &horizons.back().charged : &horizons.back().common;
        }
        out << "<tr class='" << rowClass << "'><td title='" << escapeHtml(name) << "'>" << escapeHtml(base)
            << "</td><td>" << strokes << "</td><td>" << (lastSet != nullptr ? lastSet->count : 0) << "</td><td>"
            << counts.droppedInside << " / " << counts.droppedPastEnd << "</td>";
        for (const HorizonSummary& h : horizons) {
            const PointSetSummary& set = charged ? h.charged : h.common;
            double best = std::numeric_limits<double>::infinity();
            for (const ReportPredictor& p : predictors) {
                if (std::isfinite(p.figures(set).mean)) {
                    best = std::min(best, p.figures(set).mean);
                }
            }
            for (const ReportPredictor& p : predictors) {
                const DistributionSummary* d = &p.figures(set);
                out << "<td title='p95 " << cell(d->p95) << " mm, " << set.count << " points'"
                    << (std::isfinite(d->mean) && d->mean == best ? " class='best'" : "") << ">" << cell(d->mean)
                    << "</td>";
            }
        }
        out << "</tr>\n";
    };
    for (const RecordingSummary& r : summary.recordings) {
        row(r.path, std::to_string(r.counts.strokes), r.counts, r.horizons, "");
    }
    row("macro average", "", summary.counts, summary.macroAverage, "total");
    row("pooled", std::to_string(summary.counts.strokes), summary.counts, summary.horizons, "total");
    out << "</table></div>\n";
}

void ReportFigures::dropTable(std::ostream& out, const ReplaySummary& summary) {
    out << "<table class='figures'>\n<tr><th>horizon</th><th>delivered</th><th>dropped inside a stroke</th>"
           "<th>delivered past the stroke's end</th><th>dropped past the stroke's end</th>"
           "<th>past-end points caught</th></tr>\n";
    for (const HorizonSummary& h : summary.horizons) {
        const std::size_t pastEnd = h.pastStrokeEnd + h.droppedPastEnd;
        out << "<tr><td>+" << h.ms << " ms</td><td>" << h.predictions << "</td><td>" << h.droppedInside << "</td><td>"
            << h.pastStrokeEnd << "</td><td>" << h.droppedPastEnd << "</td><td>"
            << (pastEnd > 0
                    ? number(100.0 * static_cast<double>(h.droppedPastEnd) / static_cast<double>(pastEnd), 1) + " %"
                    : "-")
            << "</td></tr>\n";
    }
    out << "</table>\n";
}

void ReportFigures::overshootTable(std::ostream& out, const ReplaySummary& summary) {
    const std::vector<ReportPredictor>& predictors = reportPredictors(!summary.peerFile.empty());
    out << "<div class='scroll'><table class='figures overshoot'>\n<tr><th>horizon</th><th>points past the lift</th>";
    for (const ReportPredictor& p : predictors) {
        out << "<th style='color:" << p.colour << "'>" << escapeHtml(p.shortName) << "</th>";
    }
    out << "</tr>\n";
    static const DistributionSummary none{0, std::nan(""), std::nan(""), std::nan("")};
    for (const HorizonSummary& h : summary.horizons) {
        out << "<tr><td>+" << h.ms << " ms</td><td>" << h.overshoot.count << "</td>";
        for (const ReportPredictor& p : predictors) {
            const DistributionSummary* d = &none;
            if (p.summaryKey == nullptr) {
                d = &h.overshoot.model;
            } else {
                for (std::size_t i = 0; i < summary.predictors.size() && i < h.overshoot.predictors.size(); ++i) {
                    if (std::string(summary.predictors[i]->key) == p.summaryKey) {
                        d = &h.overshoot.predictors[i];
                    }
                }
            }
            out << "<td title='p95 " << cell(d->p95) << " mm'>" << cell(d->mean) << "</td>";
        }
        out << "</tr>\n";
    }
    out << "</table></div>\n";
}

}  // namespace replay
