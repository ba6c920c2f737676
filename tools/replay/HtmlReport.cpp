#include "HtmlReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <sstream>

#include "SummaryText.h"

namespace replay {

namespace {

// From near to far ahead; the last colour also serves every later horizon.
const char* const horizonColours[] = {"#2166ac", "#4dac26", "#e6ab02", "#f46d43", "#b2182b", "#762a83"};
const char* const modelColour = "#2b6cb0";
const char* const baselineColour = "#b0b0b0";

std::string fmt(double value, int decimals = 2) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

std::string escapeHtml(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '<': escaped += "&lt;"; break;
            case '>': escaped += "&gt;"; break;
            case '&': escaped += "&amp;"; break;
            case '"': escaped += "&quot;"; break;
            default: escaped += c;
        }
    }
    return escaped;
}

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
        out << "<line x1='" << frame.left << "' x2='" << frame.width - frame.right << "' y1='" << fmt(y)
            << "' y2='" << fmt(y) << "' stroke='#e5e5e5'/>"
            << "<text x='" << frame.left - 6 << "' y='" << fmt(y + 4) << "' text-anchor='end'>"
            << fmt(v, step < 1.0 ? (step < 0.1 ? 2 : 1) : 0) << "</text>\n";
    }
    out << "<text x='14' y='" << fmt(frame.top + frame.plotHeight() / 2) << "' transform='rotate(-90 14 "
        << fmt(frame.top + frame.plotHeight() / 2) << ")' text-anchor='middle'>" << escapeHtml(label)
        << "</text>\n";
}

void writeErrorChart(std::ostream& out, const ReplaySummary& summary) {
    std::vector<const HorizonSummary*> rows;
    double dataMax = 0.0;
    for (const HorizonSummary& h : summary.horizons) {
        if (h.model.count == 0 && h.constantVelocity.count == 0) {
            continue;
        }
        rows.push_back(&h);
        for (const double v : {h.model.p95, h.constantVelocity.p95, h.model.mean, h.constantVelocity.mean}) {
            if (std::isfinite(v)) {
                dataMax = std::max(dataMax, v);
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
    const double bar = std::min(40.0, group / 3.0);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const HorizonSummary& h = *rows[i];
        const double centre = frame.left + group * (static_cast<double>(i) + 0.5);
        const struct {
            const DistributionSummary& d;
            const char* colour;
            const char* name;
            double x;
        } bars[] = {{h.model, modelColour, "model", centre - bar - 2},
                    {h.constantVelocity, baselineColour, "constant velocity", centre + 2}};
        for (const auto& b : bars) {
            if (b.d.count == 0) {
                continue;
            }
            const double top = frame.y(b.d.mean);
            out << "<rect x='" << fmt(b.x) << "' y='" << fmt(top) << "' width='" << fmt(bar) << "' height='"
                << fmt(frame.y(0) - top) << "' fill='" << b.colour << "'><title>" << h.ms << " ms, " << b.name
                << ": mean " << fmt(b.d.mean, 3) << " mm, median " << fmt(b.d.median, 3) << " mm, p95 "
                << fmt(b.d.p95, 3) << " mm, " << b.d.count << " points</title></rect>\n";
            const double mid = b.x + bar / 2;
            out << "<line x1='" << fmt(mid) << "' x2='" << fmt(mid) << "' y1='" << fmt(top) << "' y2='"
                << fmt(frame.y(b.d.p95)) << "' stroke='#333'/>"
                << "<line x1='" << fmt(mid - bar / 4) << "' x2='" << fmt(mid + bar / 4) << "' y1='"
                << fmt(frame.y(b.d.p95)) << "' y2='" << fmt(frame.y(b.d.p95)) << "' stroke='#333'/>"
                << "<line x1='" << fmt(b.x) << "' x2='" << fmt(b.x + bar) << "' y1='" << fmt(frame.y(b.d.median))
                << "' y2='" << fmt(frame.y(b.d.median)) << "' stroke='#fff' stroke-dasharray='3 2'/>\n";
        }
        out << "<text x='" << fmt(centre) << "' y='" << fmt(frame.y(0) + 18) << "' text-anchor='middle'>" << h.ms
            << " ms</text>\n";
    }
    out << "<rect x='" << frame.left + 10 << "' y='" << frame.top << "' width='12' height='12' fill='" << modelColour
        << "'/><text x='" << frame.left + 27 << "' y='" << frame.top + 10 << "'>model</text>"
        << "<rect x='" << frame.left + 90 << "' y='" << frame.top << "' width='12' height='12' fill='"
        << baselineColour << "'/><text x='" << frame.left + 107 << "' y='" << frame.top + 10
        << "'>constant velocity</text>"
        << "<text x='" << frame.left + 250 << "' y='" << frame.top + 10
        << "' fill='#555'>bar: mean, dashes: median, whisker: 95th percentile</text>\n";
    out << "<text x='" << fmt(frame.left + frame.plotWidth() / 2) << "' y='" << frame.height - 6
        << "' text-anchor='middle'>prediction horizon</text>\n</svg>\n";
}

void writeHistogram(std::ostream& out, const ErrorStats& stats, const std::string& title) {
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
        out << "<rect x='" << fmt(frame.left + w * static_cast<double>(i)) << "' y='" << fmt(top) << "' width='"
            << fmt(std::max(0.5, w - 1)) << "' height='" << fmt(frame.y(0) - top) << "' fill='" << modelColour
            << "'><title>" << fmt(binWidth * static_cast<double>(i), 0) << "-"
            << fmt(binWidth * static_cast<double>(i + 1), 0) << " us: " << bins[i] << "</title></rect>\n";
    }
    const double xStep = niceStep(binWidth * static_cast<double>(binCount), 5);
    for (double v = 0.0; v <= binWidth * static_cast<double>(binCount) + xStep / 2; v += xStep) {
        const double x = frame.left + v / binWidth * w;
        out << "<text x='" << fmt(x) << "' y='" << fmt(frame.y(0) + 16) << "' text-anchor='middle'>" << fmt(v, 0)
            << "</text>\n";
    }
    out << "<text x='" << fmt(frame.left + frame.plotWidth() / 2) << "' y='" << frame.height - 6
        << "' text-anchor='middle'>microseconds (p50 " << fmt(stats.percentile(50.0), 0) << ", p99 "
        << fmt(stats.percentile(99.0), 0) << ", max " << fmt(stats.max(), 0) << ")</text>\n</svg>\n";
    if (overflow > 0) {
        out << "<p class='note'>" << overflow << " longer values are off the chart.</p>\n";
    }
    out << "</figure>\n";
}

}  // namespace

HtmlReport::HtmlReport(int predictionStepMs, std::size_t sampleBudget)
    : predictionStepMs(std::max(1, predictionStepMs)), sampleBudget(sampleBudget) {}

void HtmlReport::add(const Recording& recording, const Batching& batching, const std::vector<PointResult>& results) {
    if (!drawnRecordings.empty()) {
        return;  // recordings share screen coordinates: one drawing would overlay them
    }
    std::size_t drawnStrokeCount = 0;
    for (const Stroke& stroke : batching.strokes) {
        if (drawnSamples + stroke.count > sampleBudget && drawnStrokeCount > 0) {
            break;
        }
        std::vector<Point> line;
        for (std::size_t i = stroke.first; i < stroke.first + stroke.count; ++i) {
            line.push_back({recording.samples[i].x_pos, recording.samples[i].y_pos});
        }
        strokes.push_back(std::move(line));
        drawnSamples += stroke.count;
        ++drawnStrokeCount;
    }
    if (drawnStrokeCount == 0) {
        return;
    }
    drawnRecordings.push_back(recording.path);
    for (std::size_t i = 0; i < results.size(); ++i) {
        const PointResult& r = results[i];
        if (r.stroke >= drawnStrokeCount) {
            continue;
        }
        if (i == 0 || results[i - 1].batch != r.batch) {
            const Batch& batch = batching.batches[r.batch];
            const StylusTouchPoint& base = recording.samples[batch.first + batch.count - 1];
            predictions.push_back({{base.x_pos, base.y_pos}, {}, {}, {}});
        }
        DrawnPrediction& drawn = predictions.back();
        drawn.points.push_back({r.x, r.y});
        drawn.horizonIndex.push_back(static_cast<int>(std::max<int64_t>(1, r.horizonMs / predictionStepMs)));
        drawn.inside.push_back(r.where == TruthPoint::Where::Inside);
    }
}

void HtmlReport::writeDrawing(std::ostream& out) const {
    if (strokes.empty()) {
        out << "<p>No stroke to draw.</p>\n";
        return;
    }
    double minX = std::numeric_limits<double>::max(), minY = minX;
    double maxX = std::numeric_limits<double>::lowest(), maxY = maxX;
    for (const auto& stroke : strokes) {
        for (const Point& p : stroke) {
            minX = std::min(minX, p.x);
            maxX = std::max(maxX, p.x);
            minY = std::min(minY, p.y);
            maxY = std::max(maxY, p.y);
        }
    }
    const double margin = std::max(10.0, 0.03 * std::max(maxX - minX, maxY - minY));
    minX -= margin;
    minY -= margin;
    const double width = maxX - minX + margin, height = maxY - minY + margin;
    const double dot = std::max(width, height) / 1000.0;
    out << "<svg viewBox='" << fmt(minX) << " " << fmt(minY) << " " << fmt(width) << " " << fmt(height)
        << "' class='drawing'>\n<g fill='none' stroke='#222' stroke-width='1.4' stroke-linejoin='round' "
           "vector-effect='non-scaling-stroke'>\n";
    for (const auto& stroke : strokes) {
        out << "<polyline vector-effect='non-scaling-stroke' points='";
        for (const Point& p : stroke) {
            out << fmt(p.x, 1) << "," << fmt(p.y, 1) << " ";
        }
        out << "'/>\n";
    }
    out << "</g>\n<g fill='none' stroke='#e07b00' stroke-opacity='0.5' stroke-width='0.7'>\n";
    for (const DrawnPrediction& d : predictions) {
        out << "<polyline vector-effect='non-scaling-stroke' points='" << fmt(d.base.x, 1) << "," << fmt(d.base.y, 1);
        for (const Point& p : d.points) {
            out << " " << fmt(p.x, 1) << "," << fmt(p.y, 1);
        }
        out << "'/>\n";
    }
    out << "</g>\n";
    // One group per colour keeps the page small: a dot is then only its position.
    constexpr std::size_t colourCount = sizeof(horizonColours) / sizeof(horizonColours[0]);
    for (std::size_t colour = 0; colour < colourCount; ++colour) {
        for (const bool inside : {true, false}) {
            out << "<g " << (inside ? "fill='" : "fill='none' stroke-width='0.3' stroke='") << horizonColours[colour]
                << "'>\n";
            for (const DrawnPrediction& d : predictions) {
                for (std::size_t i = 0; i < d.points.size(); ++i) {
                    const std::size_t k = static_cast<std::size_t>(d.horizonIndex[i] - 1);
                    if (std::min(k, colourCount - 1) == colour && d.inside[i] == inside) {
                        out << "<circle cx='" << fmt(d.points[i].x, 1) << "' cy='" << fmt(d.points[i].y, 1)
                            << "' r='" << fmt(dot, 2) << "'/>";
                    }
                }
            }
            out << "\n</g>\n";
        }
    }
    out << "</svg>\n<p class='note'>";
    for (std::size_t i = 0; i < colourCount; ++i) {
        out << "<span style='color:" << horizonColours[i] << "'>&#9679;</span> "
            << static_cast<int>(i + 1) * predictionStepMs << (i + 1 == colourCount ? "+" : "") << " ms ";
    }
    out << "ahead; hollow dots lie past the stroke's end; orange lines "
           "join each batch's newest sample to its predictions.</p>\n";
}

void HtmlReport::write(std::ostream& out, const ReplaySummary& summary, const ReplayTotals& totals) const {
    out << "<!DOCTYPE html>\n<html lang='en'>\n<head>\n<meta charset='utf-8'>\n<title>stylus-replay report</title>\n"
           "<style>\nbody{font-family:sans-serif;margin:24px;color:#222;max-width:1100px}\n"
           "svg{font-size:12px}\nsvg.drawing{width:100%;border:1px solid #ddd;background:#fffdf7}\n"
           "svg.chart{width:100%;max-width:640px}\nfigure{display:inline-block;width:460px;margin:0 12px 0 0;"
           "vertical-align:top}\nfigcaption{font-weight:bold}\n.note{color:#555;font-size:13px}\n"
           "pre{background:#f6f6f6;padding:12px;overflow-x:auto}\n</style>\n</head>\n<body>\n";
    out << "<h1>Stylus replay</h1>\n";
    out << "<h2>Strokes and predictions</h2>\n<p class='note'>";
    for (std::size_t i = 0; i < drawnRecordings.size(); ++i) {
        out << (i > 0 ? ", " : "") << escapeHtml(drawnRecordings[i]);
    }
    out << ": " << strokes.size() << " strokes, " << drawnSamples << " samples drawn (screen pixels).</p>\n";
    writeDrawing(out);
    out << "<h2>Error by prediction horizon</h2>\n";
    writeErrorChart(out, summary);
    out << "<h2>Latency</h2>\n";
    writeHistogram(out, totals.modelLatencyUs, "Model latency (modelLatencyUs)");
    writeHistogram(out, totals.sendToCallbackUs, "From sendInputTouchPoints returning to onPredictions");
    std::ostringstream text;
    SummaryText::print(text, summary);
    out << "<h2>Summary</h2>\n<pre>" << escapeHtml(text.str()) << "</pre>\n</body>\n</html>\n";
}

}  // namespace replay
