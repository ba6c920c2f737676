#include "HtmlReport.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "JsonSummary.h"
#include "ReportFigures.h"
#include "ReportScript.h"
#include "SummaryText.h"

namespace replay {

namespace {

// From near to far ahead; more horizons than colours take them round again.
const char* const horizonColours[] = {"#2166ac", "#1b9e77", "#d4a017", "#e7298a", "#b2182b", "#762a83", "#666666"};
constexpr std::size_t horizonColourCount = sizeof(horizonColours) / sizeof(horizonColours[0]);

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

std::string jsonNumber(double value) { return std::isfinite(value) ? ReportFigures::number(value, 1) : "null"; }

}  // namespace

HtmlReport::HtmlReport(int predictionStepMs, int numPredictions, std::size_t sampleBudget)
    : predictionStepMs(std::max(1, predictionStepMs)),
      numPredictions(std::max(1, numPredictions)),
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
        << summary.batchSize << " samples; " << ReportFigures::escapeHtml(summary.configPath) << ".</p>\n";

    out << "<h2>Strokes and predictions</h2>\n<div class='controls'><label>Recording <select id='recording'>"
           "</select></label><span><button id='previous' type='button'>&#8592;</button> stroke "
           "<input id='stroke' type='number' min='1' value='1' style='width:5em'> "
           "<button id='next' type='button'>&#8594;</button> <button id='whole' type='button'>whole "
           "stroke</button></span>"
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
    ReportFigures::recordingTable(out, summary, true);
    out << "<h3>Where every predictor predicts (the model's own points)</h3>\n";
    ReportFigures::recordingTable(out, summary, false);

    out << "<h2>Points the model dropped (stroke-end head)</h2>\n";
    ReportFigures::dropTable(out, summary);

    out << "<h2>Error by prediction horizon, pooled</h2>\n<figure style='width:560px'><figcaption>Drops charged as "
           "\"no prediction\"</figcaption>\n";
    ReportFigures::errorChart(out, summary.horizons, true);
    out << "</figure><figure style='width:560px'><figcaption>Where every predictor predicts</figcaption>\n";
    ReportFigures::errorChart(out, summary.horizons, false);
    out << "</figure>\n";
    ReportFigures::chartLegend(out);

    out << "<h2>Latency</h2>\n";
    ReportFigures::histogram(out, totals.modelLatencyUs, "Model latency (modelLatencyUs)");
    ReportFigures::histogram(out, totals.sendToCallbackUs, "From sendInputTouchPoints returning to onPredictions");
    std::ostringstream text;
    SummaryText::print(text, summary);
    out << "<h2>Summary</h2>\n<pre>" << ReportFigures::escapeHtml(text.str()) << "</pre>\n";
    writeData(out);
    out << "<script>" << reportDrawingScript << "</script>\n</body>\n</html>\n";
}

}  // namespace replay
