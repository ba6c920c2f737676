#include "HtmlReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <sstream>

#include "JsonSummary.h"
#include "SummaryText.h"

namespace replay {

namespace {

// From near to far ahead; more horizons than colours take them round again.
const char* const horizonColours[] = {"#2166ac", "#1b9e77", "#d4a017", "#e7298a", "#b2182b", "#762a83", "#666666"};
constexpr std::size_t horizonColourCount = sizeof(horizonColours) / sizeof(horizonColours[0]);
const char* const modelColour = "#2b6cb0";
const char* const leastSquaresColour = "#e08a1e";
const char* const constantVelocityColour = "#a8a8a8";

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


// Grouped bars per horizon: the mean of each predictor, whiskers to the 95th percentile. The legend
// is HTML below the chart, so that no label can run into another.
void writeErrorChart(std::ostream& out, const std::vector<HorizonSummary>& horizons, bool charged) {
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
            out << "<rect x='" << fmt(x) << "' y='" << fmt(top) << "' width='" << fmt(bar) << "' height='"
                << fmt(frame.y(0) - top) << "' fill='" << bars[b].colour << "'><title>+" << h.ms << " ms, "
                << bars[b].name << ": mean " << fmt(d.mean, 3) << " mm, median " << fmt(d.median, 3) << " mm, p95 "
                << fmt(d.p95, 3) << " mm, " << d.count << " points</title></rect>\n";
            const double mid = x + bar / 2;
            out << "<line x1='" << fmt(mid) << "' x2='" << fmt(mid) << "' y1='" << fmt(top) << "' y2='"
                << fmt(frame.y(d.p95)) << "' stroke='#333'/><line x1='" << fmt(mid - bar / 4) << "' x2='"
                << fmt(mid + bar / 4) << "' y1='" << fmt(frame.y(d.p95)) << "' y2='" << fmt(frame.y(d.p95))
                << "' stroke='#333'/>\n";
        }
        out << "<text x='" << fmt(centre) << "' y='" << fmt(frame.y(0) + 18) << "' text-anchor='middle'>+" << h.ms
            << " ms</text>\n";
    }
    out << "<text x='" << fmt(frame.left + frame.plotWidth() / 2) << "' y='" << frame.height - 6
        << "' text-anchor='middle'>prediction horizon</text>\n</svg>\n";
}

void writeChartLegend(std::ostream& out) {
    out << "<p class='legend'><span><i style='background:" << modelColour << "'></i>model</span><span><i style='background:"
        << leastSquaresColour << "'></i>least squares (3)</span><span><i style='background:"
        << constantVelocityColour << "'></i>constant velocity</span><span>bar: mean, whisker: 95th percentile</span></p>\n";
}

std::string cell(double value) { return std::isfinite(value) ? fmt(value, 3) : "-"; }

// Means per horizon for each predictor, the best of the three in bold; the p95 and the number of
// points in the tooltip.
void writeTable(std::ostream& out, const ReplaySummary& summary, bool charged) {
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
        const std::string base = name.substr(name.find_last_of('/') == std::string::npos ? 0 : name.find_last_of('/') + 1);
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

void writeDropTable(std::ostream& out, const ReplaySummary& summary) {
    out << "<table class='figures'>\n<tr><th>horizon</th><th>delivered</th><th>dropped inside a stroke</th>"
           "<th>delivered past the stroke's end</th><th>dropped past the stroke's end</th>"
           "<th>past-end points caught</th></tr>\n";
    for (const HorizonSummary& h : summary.horizons) {
        const std::size_t pastEnd = h.pastStrokeEnd + h.droppedPastEnd;
        out << "<tr><td>+" << h.ms << " ms</td><td>" << h.predictions << "</td><td>" << h.droppedInside << "</td><td>"
            << h.pastStrokeEnd << "</td><td>" << h.droppedPastEnd << "</td><td>"
            << (pastEnd > 0 ? fmt(100.0 * static_cast<double>(h.droppedPastEnd) / static_cast<double>(pastEnd), 1) +
                                  " %"
                            : "-")
            << "</td></tr>\n";
    }
    out << "</table>\n";
}

// JSON text that may sit inside a script element.
std::string scriptSafe(const std::string& text) {
    std::string safe;
    for (const char c : text) {
        if (c == '<') {
            safe += "\\u003c";
        } else {
            safe += c;
        }
    }
    return safe;
}

std::string jsonNumber(double value) { return std::isfinite(value) ? fmt(value, 1) : "null"; }

const char* const drawingScript = R"JS(
(function () {
  'use strict';
  const data = JSON.parse(document.getElementById('replay-data').textContent);
  const recordingSelect = document.getElementById('recording');
  const strokeInput = document.getElementById('stroke');
  const canvas = document.getElementById('drawing');
  const info = document.getElementById('stroke-info');
  const shown = {model: true, truth: true, cv: true, ls: true, horizons: data.horizons.map(() => true)};

  data.recordings.forEach((r, i) => {
    const option = document.createElement('option');
    option.value = String(i);
    option.textContent = r.name + ' (' + r.strokes.length + ' of ' + r.strokeCount + ' strokes drawn)';
    recordingSelect.appendChild(option);
  });
  const horizonBoxes = document.getElementById('horizon-legend');
  data.horizons.forEach((ms, k) => {
    const label = document.createElement('label');
    const box = document.createElement('input');
    box.type = 'checkbox';
    box.checked = true;
    box.addEventListener('change', () => { shown.horizons[k] = box.checked; render(); });
    const swatch = document.createElement('i');
    swatch.style.background = data.colours[k % data.colours.length];
    label.appendChild(box);
    label.appendChild(swatch);
    label.appendChild(document.createTextNode('+' + ms + ' ms'));
    horizonBoxes.appendChild(label);
  });
  ['model', 'truth', 'cv', 'ls'].forEach((key) => {
    const box = document.getElementById('show-' + key);
    box.addEventListener('change', () => { shown[key] = box.checked; render(); });
  });

  // A click zooms in twice around the clicked point; "whole stroke" shows it all again.
  const view = {zoom: 1, x: null, y: null, toData: null};
  canvas.addEventListener('click', (e) => {
    if (!view.toData) return;
    const rect = canvas.getBoundingClientRect();
    const p = view.toData(e.clientX - rect.left, e.clientY - rect.top);
    view.x = p[0];
    view.y = p[1];
    view.zoom = Math.min(view.zoom * 2, 256);
    render();
  });
  function resetView() { view.zoom = 1; view.x = null; view.y = null; }
  document.getElementById('whole').addEventListener('click', () => { resetView(); render(); });

  function recording() { return data.recordings[Number(recordingSelect.value)]; }
  function stroke() {
    const r = recording();
    const i = Math.min(Math.max(1, Math.round(Number(strokeInput.value) || 1)), Math.max(1, r.strokes.length));
    strokeInput.value = String(i);
    strokeInput.max = String(r.strokes.length);
    return r.strokes[i - 1];
  }

  function marker(ctx, shape, x, y, size, colour) {
    ctx.beginPath();
    if (shape === 'dot') {
      ctx.arc(x, y, size, 0, 2 * Math.PI);
      ctx.fillStyle = colour;
      ctx.fill();
      return;
    }
    ctx.strokeStyle = colour;
    ctx.lineWidth = 1.5;
    if (shape === 'ring') {
      ctx.arc(x, y, size, 0, 2 * Math.PI);
    } else if (shape === 'square') {
      ctx.rect(x - size, y - size, 2 * size, 2 * size);
    } else if (shape === 'diamond') {
      ctx.moveTo(x, y - size * 1.3); ctx.lineTo(x + size * 1.3, y); ctx.lineTo(x, y + size * 1.3);
      ctx.lineTo(x - size * 1.3, y); ctx.closePath();
    } else if (shape === 'cross') {
      ctx.moveTo(x - size, y - size); ctx.lineTo(x + size, y + size);
      ctx.moveTo(x + size, y - size); ctx.lineTo(x - size, y + size);
    }
    ctx.stroke();
  }

  function render() {
    const r = recording();
    const s = stroke();
    const ratio = window.devicePixelRatio || 1;
    const width = canvas.clientWidth || 960, height = canvas.clientHeight || 560;
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
    const ctx = canvas.getContext('2d');
    ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
    ctx.clearRect(0, 0, width, height);
    if (!s) {
      info.textContent = 'This recording has no stroke.';
      return 0;
    }
    // The view fits the stroke and the model's points; a baseline that shoots far off is cut.
    let minX = Infinity, minY = Infinity, maxX = -Infinity, maxY = -Infinity;
    const grow = (x, y) => {
      if (x === null || y === null) return;
      minX = Math.min(minX, x); maxX = Math.max(maxX, x); minY = Math.min(minY, y); maxY = Math.max(maxY, y);
    };
    for (let i = 0; i < s.xy.length; i += 2) grow(s.xy[i], s.xy[i + 1]);
    s.batches.forEach((b) => b[2].forEach((p) => grow(p[2], p[3])));
    const pad = 24;
    const scale = view.zoom * Math.min((width - 2 * pad) / Math.max(maxX - minX, 1), (height - 2 * pad) / Math.max(maxY - minY, 1));
    const centreX = view.x === null ? (minX + maxX) / 2 : view.x, centreY = view.y === null ? (minY + maxY) / 2 : view.y;
    const X = (x) => width / 2 + (x - centreX) * scale, Y = (y) => height / 2 + (y - centreY) * scale;
    view.toData = (px, py) => [centreX + (px - width / 2) / scale, centreY + (py - height / 2) / scale];

    ctx.strokeStyle = '#222';
    ctx.lineWidth = 1.5;
    ctx.beginPath();
    for (let i = 0; i < s.xy.length; i += 2) {
      if (i === 0) ctx.moveTo(X(s.xy[i]), Y(s.xy[i + 1])); else ctx.lineTo(X(s.xy[i]), Y(s.xy[i + 1]));
    }
    ctx.stroke();
    ctx.fillStyle = '#222';
    for (let i = 0; i < s.xy.length; i += 2) {
      ctx.fillRect(X(s.xy[i]) - 1, Y(s.xy[i + 1]) - 1, 2, 2);
    }

    let drawn = 0, delivered = 0, pastEnd = 0, droppedInside = 0, droppedPastEnd = 0;
    s.batches.forEach((b) => {
      const points = b[2].filter((p) => shown.horizons[p[0] - 1]);
      if (shown.model) {
        ctx.strokeStyle = 'rgba(224, 123, 0, 0.45)';
        ctx.lineWidth = 1;
        ctx.beginPath();
        ctx.moveTo(X(b[0]), Y(b[1]));
        points.forEach((p) => { if (p[2] !== null) ctx.lineTo(X(p[2]), Y(p[3])); });
        ctx.stroke();
      }
      points.forEach((p) => {
        const colour = data.colours[(p[0] - 1) % data.colours.length];
        const where = p[1];
        if (where === 0 || where === 1) delivered += 1;
        if (where === 1) pastEnd += 1;
        if (where === 2) droppedInside += 1;
        if (where === 3) droppedPastEnd += 1;
        if (p[4] !== null && p[2] !== null && shown.truth && shown.model) {
          ctx.strokeStyle = 'rgba(0, 0, 0, 0.35)';
          ctx.lineWidth = 1;
          ctx.beginPath(); ctx.moveTo(X(p[4]), Y(p[5])); ctx.lineTo(X(p[2]), Y(p[3])); ctx.stroke();
        }
        if (shown.cv && p[6] !== null) marker(ctx, 'square', X(p[6]), Y(p[7]), 3, colour);
        if (shown.ls && p[8] !== null) marker(ctx, 'diamond', X(p[8]), Y(p[9]), 3, colour);
        if (shown.truth && p[4] !== null) marker(ctx, where === 2 ? 'cross' : 'ring', X(p[4]), Y(p[5]), 4, where === 2 ? '#d00' : '#000');
        if (shown.model && p[2] !== null) marker(ctx, 'dot', X(p[2]), Y(p[3]), 3, colour);
        drawn += 1;
      });
    });
    info.textContent = r.name + ', stroke ' + strokeInput.value + ' of ' + r.strokes.length + ' drawn (' +
      r.strokeCount + ' in the recording): ' + s.xy.length / 2 + ' samples, ' + delivered +
      ' predicted points shown (' + pastEnd + ' past the end), ' + droppedInside + ' dropped inside the stroke, ' +
      droppedPastEnd + ' dropped past its end.';
    return drawn;
  }

  function step(by) {
    strokeInput.value = String(Number(strokeInput.value) + by);
    resetView();
    render();
  }
  document.getElementById('previous').addEventListener('click', () => step(-1));
  document.getElementById('next').addEventListener('click', () => step(1));
  strokeInput.addEventListener('change', () => { resetView(); render(); });
  recordingSelect.addEventListener('change', () => { strokeInput.value = '1'; resetView(); render(); });
  window.addEventListener('resize', render);
  const drawnPoints = render();
  document.body.setAttribute('data-rendered', String(drawnPoints));
})();
)JS";

}  // namespace

HtmlReport::HtmlReport(int predictionStepMs, int numPredictions, std::size_t sampleBudget)
    : predictionStepMs(std::max(1, predictionStepMs)), numPredictions(std::max(1, numPredictions)),
      sampleBudget(sampleBudget) {}

void HtmlReport::add(const Recording& recording, const Batching& batching, const std::vector<PointResult>& results) {
    DrawnRecording drawn;
    drawn.path = recording.path;
    drawn.strokeCount = batching.strokes.size();
    std::size_t samples = 0;
    for (const Stroke& stroke : batching.strokes) {
        if (samples + stroke.count > sampleBudget && !drawn.strokes.empty()) {
            break;
        }
        DrawnStroke line;
        for (std::size_t i = stroke.first; i < stroke.first + stroke.count; ++i) {
            line.samples.push_back(recording.samples[i].x_pos);
            line.samples.push_back(recording.samples[i].y_pos);
        }
        drawn.strokes.push_back(std::move(line));
        samples += stroke.count;
    }
    // Rows per batch: [base x, base y, [[k, where, x, y, true x, true y, cv x, cv y, ls x, ls y], ...]],
    // where 0 inside, 1 past the end, 2 dropped inside, 3 dropped past the end.
    std::string* open = nullptr;
    for (std::size_t i = 0; i < results.size(); ++i) {
        const PointResult& r = results[i];
        if (r.stroke >= drawn.strokes.size()) {
            continue;
        }
        std::string& rows = drawn.strokes[r.stroke].predictions;
        if (i == 0 || results[i - 1].batch != r.batch || open != &rows) {
            if (open != nullptr) {
                *open += "]]";
            }
            rows += rows.empty() ? "[" : ",[";
            rows += jsonNumber(r.baseX) + "," + jsonNumber(r.baseY) + ",[";
            open = &rows;
        } else {
            rows += ",";
        }
        const bool inside = r.where == TruthPoint::Where::Inside;
        const int where = (r.dropped ? 2 : 0) + (inside ? 0 : 1);
        const int k = static_cast<int>(std::clamp<int64_t>(r.horizonMs / predictionStepMs, 1, numPredictions));
        rows += "[" + std::to_string(k) + "," + std::to_string(where) + "," +
                (r.dropped ? std::string("null,null") : jsonNumber(r.x) + "," + jsonNumber(r.y)) + "," +
                (inside ? jsonNumber(r.truthX) + "," + jsonNumber(r.truthY) : std::string("null,null")) + "," +
                (r.hasBaseline ? jsonNumber(r.baselineX) + "," + jsonNumber(r.baselineY) : std::string("null,null")) +
                "," + jsonNumber(r.lsX) + "," + jsonNumber(r.lsY) + "]";
    }
    if (open != nullptr) {
        *open += "]]";
    }
    recordings.push_back(std::move(drawn));
}

void HtmlReport::writeData(std::ostream& out) const {
    out << "<script type='application/json' id='replay-data'>{\"horizons\": [";
    for (int k = 1; k <= numPredictions; ++k) {
        out << (k > 1 ? "," : "") << k * predictionStepMs;
    }
    out << "], \"colours\": [";
    for (std::size_t i = 0; i < horizonColourCount; ++i) {
        out << (i > 0 ? "," : "") << "\"" << horizonColours[i] << "\"";
    }
    out << "],\n\"recordings\": [";
    for (std::size_t r = 0; r < recordings.size(); ++r) {
        const DrawnRecording& recording = recordings[r];
        out << (r > 0 ? ",\n" : "\n") << "{\"name\": \"" << scriptSafe(JsonSummary::escape(recording.path))
            << "\", \"strokeCount\": " << recording.strokeCount << ", \"strokes\": [";
        for (std::size_t s = 0; s < recording.strokes.size(); ++s) {
            const DrawnStroke& stroke = recording.strokes[s];
            out << (s > 0 ? ",\n" : "\n") << "{\"xy\": [";
            for (std::size_t i = 0; i < stroke.samples.size(); ++i) {
                out << (i > 0 ? "," : "") << jsonNumber(stroke.samples[i]);
            }
            out << "], \"batches\": [" << stroke.predictions << "]}";
        }
        out << "]}";
    }
    out << "]}</script>\n";
}

void HtmlReport::write(std::ostream& out, const ReplaySummary& summary, const ReplayTotals& totals) const {
    out << "<!DOCTYPE html>\n<html lang='en'>\n<head>\n<meta charset='utf-8'>\n<title>stylus-replay report</title>\n"
           "<style>\nbody{font-family:sans-serif;margin:24px;color:#222;max-width:1200px}\n"
           "svg{font-size:12px}\nsvg.chart{width:100%;max-width:640px}\n"
           "canvas#drawing{width:100%;height:560px;border:1px solid #ddd;background:#fffdf7;display:block}\n"
           "figure{display:inline-block;width:460px;margin:0 12px 0 0;vertical-align:top}\n"
           "figcaption{font-weight:bold}\n.note{color:#555;font-size:13px}\n"
           ".controls{display:flex;flex-wrap:wrap;gap:8px 18px;align-items:center;margin:8px 0}\n"
           ".legend{display:flex;flex-wrap:wrap;gap:6px 16px;font-size:13px;margin:6px 0}\n"
           ".legend i{display:inline-block;width:12px;height:12px;margin:0 4px 0 2px;vertical-align:-1px}\n"
           ".legend svg{vertical-align:-2px;margin-right:3px}\n"
           "table.figures{border-collapse:collapse;font-size:12px;margin:8px 0 16px}\n"
           "table.figures td,table.figures th{border:1px solid #ddd;padding:2px 6px;text-align:right}\n"
           "table.figures td:first-child{text-align:left;white-space:nowrap}\n.scroll{overflow-x:auto}\n"
           "table.figures tr.total td{background:#f3f3f3}\ntd.best{font-weight:bold}\n"
           "pre{background:#f6f6f6;padding:12px;overflow-x:auto}\n</style>\n"
           "<script>window.addEventListener('error', function (e) {"
           " document.documentElement.setAttribute('data-script-error', String(e.message)); });</script>\n"
           "</head>\n<body>\n";
    out << "<h1>Stylus replay</h1>\n<p class='note'>" << summary.counts.recordings << " recordings, "
        << summary.counts.strokes << " strokes, " << summary.counts.samples << " samples; batches of up to "
        << summary.batchSize << " samples; " << escapeHtml(summary.configPath) << ".</p>\n";

    out << "<h2>Strokes and predictions</h2>\n<div class='controls'><label>Recording <select id='recording'>"
           "</select></label><span><button id='previous' type='button'>&#8592;</button> stroke "
           "<input id='stroke' type='number' min='1' value='1' style='width:5em'> "
           "<button id='next' type='button'>&#8594;</button> <button id='whole' type='button'>whole stroke</button></span>"
           "<label><input id='show-model' type='checkbox' checked>model</label>"
           "<label><input id='show-truth' type='checkbox' checked>true position</label>"
           "<label><input id='show-ls' type='checkbox' checked>least squares (3)</label>"
           "<label><input id='show-cv' type='checkbox' checked>constant velocity</label></div>\n";
    out << "<div class='legend' id='horizon-legend'><span>horizons:</span></div>\n"
           "<div class='legend'>"
           "<span><svg width='12' height='12'><circle cx='6' cy='6' r='4' fill='#555'/></svg>model</span>"
           "<span><svg width='12' height='12'><circle cx='6' cy='6' r='4.5' fill='none' stroke='#000' "
           "stroke-width='1.5'/></svg>true position (line to the model's point)</span>"
           "<span><svg width='12' height='12'><path d='M6 1 L11 6 L6 11 L1 6 Z' fill='none' stroke='#555' "
           "stroke-width='1.5'/></svg>least squares (3)</span>"
           "<span><svg width='12' height='12'><rect x='2' y='2' width='8' height='8' fill='none' stroke='#555' "
           "stroke-width='1.5'/></svg>constant velocity</span>"
           "<span><svg width='12' height='12'><path d='M2 2 L10 10 M10 2 L2 10' stroke='#d00' stroke-width='1.5'/>"
           "</svg>true position of a point the model dropped inside the stroke</span>"
           "<span>colour: horizon; orange line: from the batch's newest sample through its predictions</span></div>\n";
    out << "<canvas id='drawing'></canvas>\n<p class='note' id='stroke-info'></p>\n";
    out << "<p class='note'>Of each recording the first strokes are drawn, up to about " << sampleBudget
        << " samples; every figure below counts all of them. Arrow buttons or the number choose the stroke; a click "
           "on the drawing zooms in around that point.</p>\n";

    out << "<h2>Per recording</h2>\n<p class='note'>Mean error in mm (95th percentile on hover), best of the three "
           "in bold. LS3: least-squares velocity over the last 3 samples; CV: constant velocity from the last 2. "
           "Macro average: each recording weighs the same.</p>\n";
    out << "<h3>With the model's drops inside a stroke charged as \"no prediction\" (the pen shown where it last "
           "was)</h3>\n";
    writeTable(out, summary, true);
    out << "<h3>Where every predictor predicts (the model's own points)</h3>\n";
    writeTable(out, summary, false);

    out << "<h2>Points the model dropped (stroke-end head)</h2>\n";
    writeDropTable(out, summary);

    out << "<h2>Error by prediction horizon, pooled</h2>\n<figure style='width:560px'><figcaption>Drops charged as "
           "\"no prediction\"</figcaption>\n";
    writeErrorChart(out, summary.horizons, true);
    out << "</figure><figure style='width:560px'><figcaption>Where every predictor predicts</figcaption>\n";
    writeErrorChart(out, summary.horizons, false);
    out << "</figure>\n";
    writeChartLegend(out);

    out << "<h2>Latency</h2>\n";
    writeHistogram(out, totals.modelLatencyUs, "Model latency (modelLatencyUs)");
    writeHistogram(out, totals.sendToCallbackUs, "From sendInputTouchPoints returning to onPredictions");
    std::ostringstream text;
    SummaryText::print(text, summary);
    out << "<h2>Summary</h2>\n<pre>" << escapeHtml(text.str()) << "</pre>\n";
    writeData(out);
    out << "<script>" << drawingScript << "</script>\n</body>\n</html>\n";
}

}  // namespace replay
