#include "ReportFigures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace replay {

namespace {

const char* const modelColour = "#2b6cb0";
const char* const leastSquaresColour = "#e08a1e";
const char* const constantVelocityColour = "#a8a8a8";

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

// Plot area inside an SVG of fixed size; maps data values to pixels.
struct Frame {
    double width = 640, height = 300, left = 60, right = 20, top = 20, bottom = 45;
    double yMax = 1.0;
    double plotWidth() const { return width - left - right; }
    double plotHeight() const { return height - top - bottom; }
    double y(double value) const { return top + plotHeight() * (1.0 - value / yMax); }
};

void writeYAxis(std::ostream& out, Frame& frame, double dataMax, const std::string& label) {
    const double step = niceStep(dataMax, 5);
    frame.yMax = step * std::max(1.0, std::ceil(dataMax / step));
    for (double v = 0.0; v <= frame.yMax + step / 2; v += step) {
        const double y = frame.y(v);
        out << "<line x1='" << frame.left << "' x2='" << frame.width - frame.right << "' y1='"
            << ReportFigures::number(y) << "' y2='" << ReportFigures::number(y) << "' stroke='#e5e5e5'/>"
            << "<text x='" << frame.left - 6 << "' y='" << ReportFigures::number(y + 4) << "' text-anchor='end'>"
            << ReportFigures::number(v, step < 1.0 ? (step < 0.1 ? 2 : 1) : 0) << "</text>\n";
    }
    out << "<text x='14' y='" << ReportFigures::number(frame.top + frame.plotHeight() / 2)
        << "' transform='rotate(-90 14 " << ReportFigures::number(frame.top + frame.plotHeight() / 2)
        << ")' text-anchor='middle'>" << ReportFigures::escapeHtml(label) << "</text>\n";
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

void ReportFigures::histogram(std::ostream& out, const ErrorStats& stats, const std::string& title) {
    out << "<figure><figcaption>" << escapeHtml(title) << "</figcaption>\n";
    const std::vector<double>& values = stats.sortedValues();
    if (values.empty()) {
        out << "<p>No data.</p></figure>\n";
        return;
    }
    // The range ends a little past the 99.5th percentile so that a few stalls do not flatten the rest.
    const double upper = std::max(1.0, stats.percentile(99.5) * 1.1);
    const double binWidth = niceStep(upper, 40);
    const std::size_t binCount = static_cast<std::size_t>(std::ceil(upper / binWidth));
    std::vector<std::size_t> bins(binCount, 0);
    std::size_t overflow = 0;
    for (const double v : values) {
        const double index = std::floor(std::max(0.0, v) / binWidth);
        if (index >= static_cast<double>(binCount)) {
            ++overflow;
        } else {
            ++bins[static_cast<std::size_t>(index)];
        }
    }
    const double highest = static_cast<double>(*std::max_element(bins.begin(), bins.end()));
    Frame frame;
    frame.width = 460;
    out << "<svg viewBox='0 0 " << frame.width << " " << frame.height << "' class='chart'>\n";
    writeYAxis(out, frame, highest, "batches");
    const double w = frame.plotWidth() / static_cast<double>(binCount);
    for (std::size_t i = 0; i < binCount; ++i) {
        if (bins[i] == 0) {
            continue;
        }
        const double top = frame.y(static_cast<double>(bins[i]));
        out << "<rect x='" << number(frame.left + w * static_cast<double>(i)) << "' y='" << number(top) << "' width='"
            << number(std::max(0.5, w - 1)) << "' height='" << number(frame.y(0) - top) << "' fill='" << modelColour
            << "'><title>" << number(binWidth * static_cast<double>(i), 0) << "-"
            << number(binWidth * static_cast<double>(i + 1), 0) << " us: " << bins[i] << "</title></rect>\n";
    }
    const double xStep = niceStep(binWidth * static_cast<double>(binCount), 5);
    for (double v = 0.0; v <= binWidth * static_cast<double>(binCount) + xStep / 2; v += xStep) {
        const double x = frame.left + v / binWidth * w;
        out << "<text x='" << number(x) << "' y='" << number(frame.y(0) + 16) << "' text-anchor='middle'>"
            << number(v, 0) << "</text>\n";
    }
    out << "<text x='" << number(frame.left + frame.plotWidth() / 2) << "' y='" << frame.height - 6
        << "' text-anchor='middle'>microseconds (p50 " << number(stats.percentile(50.0), 0) << ", p99 "
        << number(stats.percentile(99.0), 0) << ", max " << number(stats.max(), 0) << ")</text>\n</svg>\n";
    if (overflow > 0) {
        out << "<p class='note'>" << overflow << " longer values are off the chart.</p>\n";
    }
    out << "</figure>\n";
}

// Grouped bars per horizon: the mean of each predictor, whiskers to the 95th percentile. The legend
// is HTML below the chart, so that no label can run into another.
void ReportFigures::errorChart(std::ostream& out, const std::vector<HorizonSummary>& horizons, bool charged) {
    std::vector<const HorizonSummary*> rows;
    double dataMax = 0.0;
    for (const HorizonSummary& h : horizons) {
        const PointSetSummary& set = charged ? h.charged : h.common;
        if (set.count == 0) {
            continue;
        }
        rows.push_back(&h);
        for (const DistributionSummary* d : {&set.model, &set.leastSquares, &set.constantVelocity}) {
            for (const double v : {d->mean, d->p95}) {
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
    out << "<svg viewBox='0 0 " << frame.width << " " << frame.height << "' class='chart'>\n";
    writeYAxis(out, frame, dataMax, "error, mm");
    const double group = frame.plotWidth() / static_cast<double>(rows.size());
    const double bar = std::min(30.0, group / 4.0);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const HorizonSummary& h = *rows[i];
        const PointSetSummary& set = charged ? h.charged : h.common;
        const double centre = frame.left + group * (static_cast<double>(i) + 0.5);
        const struct {
            const DistributionSummary& d;
            const char* colour;
            const char* name;
        } bars[] = {{set.model, modelColour, "model"},
                    {set.leastSquares, leastSquaresColour, "least squares (3)"},
                    {set.constantVelocity, constantVelocityColour, "constant velocity"}};
        for (std::size_t b = 0; b < 3; ++b) {
            const DistributionSummary& d = bars[b].d;
            const double x = centre - 1.5 * bar - 2 + static_cast<double>(b) * (bar + 2);
            const double top = frame.y(d.mean);
            out << "<rect x='" << number(x) << "' y='" << number(top) << "' width='" << number(bar) << "' height='"
                << number(frame.y(0) - top) << "' fill='" << bars[b].colour << "'><title>+" << h.ms << " ms, "
                << bars[b].name << ": mean " << number(d.mean, 3) << " mm, median " << number(d.median, 3)
                << " mm, p95 " << number(d.p95, 3) << " mm, " << d.count << " points</title></rect>\n";
            const double mid = x + bar / 2;
            out << "<line x1='" << number(mid) << "' x2='" << number(mid) << "' y1='" << number(top) << "' y2='"
                << number(frame.y(d.p95)) << "' stroke='#333'/><line x1='" << number(mid - bar / 4) << "' x2='"
                << number(mid + bar / 4) << "' y1='" << number(frame.y(d.p95)) << "' y2='" << number(frame.y(d.p95))
                << "' stroke='#333'/>\n";
        }
        out << "<text x='" << number(centre) << "' y='" << number(frame.y(0) + 18) << "' text-anchor='middle'>+" << h.ms
            << " ms</text>\n";
    }
    out << "<text x='" << number(frame.left + frame.plotWidth() / 2) << "' y='" << frame.height - 6
        << "' text-anchor='middle'>prediction horizon</text>\n</svg>\n";
}

void ReportFigures::chartLegend(std::ostream& out) {
    out << "<p class='legend'><span><i style='background:" << modelColour
        << "'></i>model</span><span><i style='background:" << leastSquaresColour
        << "'></i>least squares (3)</span><span><i style='background:" << constantVelocityColour
        << "'></i>constant velocity</span><span>bar: mean, whisker: 95th percentile</span></p>\n";
}

// Means per horizon for each predictor, the best of the three in bold; the p95 and the number of
// points in the tooltip.
void ReportFigures::recordingTable(std::ostream& out, const ReplaySummary& summary, bool charged) {
    out << "<div class='scroll'><table class='figures'>\n<tr><th rowspan='2'>recording</th><th rowspan='2'>strokes</th>"
           "<th rowspan='2'>points at +"
        << (summary.horizons.empty() ? 0 : summary.horizons.back().ms)
        << " ms</th><th rowspan='2'>dropped inside / past end</th>";
    for (const HorizonSummary& h : summary.horizons) {
        out << "<th colspan='3'>+" << h.ms << " ms</th>";
    }
    out << "</tr>\n<tr>";
    for (std::size_t i = 0; i < summary.horizons.size(); ++i) {
        out << "<th>model</th><th>LS3</th><th>CV</th>";
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
            const DistributionSummary* cells[] = {&set.model, &set.leastSquares, &set.constantVelocity};
            double best = std::numeric_limits<double>::infinity();
            for (const DistributionSummary* d : cells) {
                if (std::isfinite(d->mean)) {
                    best = std::min(best, d->mean);
                }
            }
            for (const DistributionSummary* d : cells) {
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

}  // namespace replay
