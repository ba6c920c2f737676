#include "HtmlReport.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "JsonText.h"
#include "PackedNumbers.h"
#include "ReportFigures.h"
#include "ReportPredictors.h"
#include "ReportScript.h"
#include "SummaryText.h"

namespace replay {

namespace {

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

int64_t quantised(double pixels) { return std::llround(pixels / HtmlReport::positionUnit); }

void append(std::string& list, int64_t value) { PackedNumbers::append(list, value); }

// The tuned peers run for every recording of a replay or for none.
bool ranPeers(const std::vector<PointResult>& results) {
    return std::any_of(results.begin(), results.end(), [](const PointResult& r) { return r.guesses.size() > 2; });
}

}  // namespace

HtmlReport::HtmlReport(int predictionStepMs, int numPredictions)
    : predictionStepMs(std::max(1, predictionStepMs)), numPredictions(std::max(1, numPredictions)) {}

std::vector<HtmlReport::EncodedStroke> HtmlReport::encode(const Recording& recording, const Batching& batching,
                                                          const std::vector<PointResult>& results,
                                                          int predictionStepMs, int numPredictions) {
    predictionStepMs = std::max(1, predictionStepMs);
    numPredictions = std::max(1, numPredictions);
    std::vector<EncodedStroke> strokes(batching.strokes.size());
    const int64_t origin = recording.samples.empty() ? 0 : static_cast<int64_t>(recording.samples.front().timestamp);
    for (std::size_t s = 0; s < strokes.size(); ++s) {
        const Stroke& stroke = batching.strokes[s];
        EncodedStroke& encoded = strokes[s];
        encoded.sampleCount = stroke.count;
        int64_t t = origin, x = 0, y = 0;
        for (std::size_t i = stroke.first; i < stroke.first + stroke.count; ++i) {
            const StylusTouchPoint& sample = recording.samples[i];
            const int64_t sampleT = static_cast<int64_t>(sample.timestamp);
            const int64_t sampleX = quantised(sample.x_pos), sampleY = quantised(sample.y_pos);
            append(encoded.times, sampleT - t);
            append(encoded.samples, sampleX - x);
            append(encoded.samples, sampleY - y);
            t = sampleT;
            x = sampleX;
            y = sampleY;
        }
    }

    const std::vector<ReportPredictor>& predictors = reportPredictors(ranPeers(results));
    std::vector<int64_t> previousBase(strokes.size(), 0);
    std::vector<int64_t> guesses;
    for (std::size_t i = 0; i < results.size();) {
        const PointResult& first = results[i];
        std::size_t end = i;
        while (end < results.size() && results[end].batch == first.batch) {
            ++end;
        }
        if (first.batch >= batching.batches.size() || batching.batches[first.batch].stroke >= strokes.size()) {
            i = end;
            continue;
        }
        const Batch& batch = batching.batches[first.batch];
        const Stroke& stroke = batching.strokes[batch.stroke];
        EncodedStroke& encoded = strokes[batch.stroke];
        const std::size_t newest = batch.first + batch.count - 1;
        const int64_t base = static_cast<int64_t>(newest - stroke.first);
        append(encoded.batches, base - previousBase[batch.stroke]);
        append(encoded.batches, static_cast<int64_t>(end - i));
        previousBase[batch.stroke] = base;
        ++encoded.batchCount;
        const int64_t baseX = quantised(recording.samples[newest].x_pos);
        const int64_t baseY = quantised(recording.samples[newest].y_pos);
        for (std::size_t j = i; j < end; ++j) {
            const PointResult& r = results[j];
            const bool inside = r.where == TruthPoint::Where::Inside;
            const int where = (r.dropped ? 2 : 0) + (inside ? 0 : 1);
            const int64_t k = std::clamp<int64_t>(r.horizonMs / predictionStepMs, 1, numPredictions);
            int64_t mask = 0;
            guesses.clear();
            for (std::size_t p = 0; p < predictors.size(); ++p) {
                double gx = 0.0, gy = 0.0;
                if (predictors[p].guess(r, gx, gy)) {
                    mask |= int64_t{1} << p;
                    guesses.push_back(quantised(gx));
                    guesses.push_back(quantised(gy));
                }
            }
            append(encoded.batches, (mask * 4 + where) * (numPredictions + 1) + k);
            int64_t fromX = baseX, fromY = baseY;
            if (inside) {
                const int64_t truthX = quantised(r.truthX), truthY = quantised(r.truthY);
                append(encoded.batches, truthX - baseX);
                append(encoded.batches, truthY - baseY);
                fromX = truthX;
                fromY = truthY;
            }
            for (std::size_t g = 0; g < guesses.size(); g += 2) {
                append(encoded.batches, guesses[g] - fromX);
                append(encoded.batches, guesses[g + 1] - fromY);
            }
        }
        i = end;
    }
    return strokes;
}

void HtmlReport::add(const Recording& recording, const Batching& batching, const std::vector<PointResult>& results) {
    recordings.push_back({recording.path, encode(recording, batching, results, predictionStepMs, numPredictions)});
    withPeers = withPeers || ranPeers(results);
}

void HtmlReport::writeData(std::ostream& out) const {
    out << "<script type='application/json' id='replay-data'>{\"unit\": " << positionUnit << ", \"horizons\": [";
    for (int k = 1; k <= numPredictions; ++k) {
        out << (k > 1 ? "," : "") << k * predictionStepMs;
    }
    out << "],\n\"predictors\": [";
    const std::vector<ReportPredictor>& predictors = reportPredictors(withPeers);
    for (std::size_t p = 0; p < predictors.size(); ++p) {
        out << (p > 0 ? ",\n" : "\n") << "{\"key\": \"" << predictors[p].key << "\", \"name\": \""
            << scriptSafe(jsonEscape(predictors[p].name)) << "\", \"colour\": \"" << predictors[p].colour
            << "\", \"marker\": \"" << predictors[p].marker << "\"}";
    }
    out << "],\n\"recordings\": [";
    for (std::size_t r = 0; r < recordings.size(); ++r) {
        const DrawnRecording& recording = recordings[r];
        out << (r > 0 ? ",\n" : "\n") << "{\"name\": \"" << scriptSafe(jsonEscape(recording.path))
            << "\", \"strokes\": [";
        for (std::size_t s = 0; s < recording.strokes.size(); ++s) {
            const EncodedStroke& stroke = recording.strokes[s];
            out << (s > 0 ? ",\n" : "\n") << "[" << stroke.sampleCount << "," << stroke.batchCount << ",\""
                << PackedNumbers::base64(stroke.times) << "\",\"" << PackedNumbers::base64(stroke.samples) << "\",\""
                << PackedNumbers::base64(stroke.batches) << "\"]";
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

    // The predictor and horizon switches and their legend are built by the script from the page's data,
    // so that every predictor's colour comes from the one table.
    out << "<h2>Strokes and predictions</h2>\n<div class='controls'><label>Recording <select id='recording'>"
           "</select></label><span>Stroke <button id='first' type='button' title='first stroke'>&#8676;</button>"
           "<button id='previous' type='button' title='previous stroke'>&#8592;</button> "
           "<input id='stroke' type='number' min='1' value='1' style='width:5.5em'> of <span id='stroke-count'>"
           "</span> <button id='next' type='button' title='next stroke'>&#8594;</button>"
           "<button id='last' type='button' title='last stroke'>&#8677;</button></span>"
           "<input id='stroke-slider' type='range' min='1' value='1' style='width:220px' title='stroke'></div>\n"
           "<div class='controls'><label>Batches shown <select id='window-size'><option value='5'>5</option>"
           "<option value='10' selected>10</option><option value='20'>20</option><option value='40'>40</option>"
           "<option value='80'>80</option><option value='0'>all</option></select></label><label>every "
           "<select id='every'><option value='0' selected>a horizon apart</option><option value='1'>batch</option>"
           "<option value='2'>2nd</option><option value='4'>4th</option><option value='8'>8th</option></select>"
           "</label>"
           "<span><button id='window-back' type='button'>&#9664;</button> from batch <input id='window-start' "
           "type='range' min='0' value='0' style='width:220px'> <button id='window-on' type='button'>&#9654;"
           "</button></span><span>Zoom <button id='zoom-out' type='button'>&#8722;</button>"
           "<button id='zoom-in' type='button'>+</button> <button id='fit' type='button'>fit</button></span></div>\n";
    out << "<div class='legend' id='predictor-legend'></div>\n<div class='legend' id='horizon-legend'>"
           "<span>horizons (marker size grows with the horizon):</span></div>\n"
           "<div class='legend'><span><svg width='12' height='12'><circle cx='6' cy='6' r='4.5' fill='none' "
           "stroke='#000' stroke-width='1.5'/></svg>true position, with a line to the model's point</span>"
           "<span><svg width='12' height='12'><path d='M2 2 L10 10 M10 2 L2 10' stroke='#000' stroke-width='1.5'/>"
           "</svg>true position of a point the model dropped inside the stroke</span>"
           "<span>each predictor's line runs from the batch's newest sample through its predictions; "
           "the stroke outside the batches shown is pale</span></div>\n";
    out << "<canvas id='drawing'></canvas>\n<p class='note' id='stroke-info'></p>\n";
    out << "<p class='note'>Every stroke of every recording can be drawn, a few batches at a time: by default "
           "batches at least the longest horizon apart, so that their predictions do not lie over each other; the "
           "slider moves the batches shown along the stroke and the view fits them. A click on the drawing zooms in "
           "around that point, a shift-click zooms out.</p>\n";

    out << "<h2>Per recording</h2>\n<p class='note'>Mean error in mm (95th percentile on hover), best in bold.";
    for (const ReportPredictor& p : reportPredictors()) {
        if (std::string(p.shortName) != p.name) {
            out << " " << ReportFigures::escapeHtml(p.shortName) << ": " << ReportFigures::escapeHtml(p.name) << ".";
        }
    }
    out << " Macro average: each recording weighs the same.</p>\n";
    out << "<h3>With the model's drops inside a stroke charged as \"no prediction\" (the pen shown where it last "
           "was)</h3>\n";
    ReportFigures::recordingTable(out, summary, true);
    out << "<h3>Where every predictor predicts (the model's own points)</h3>\n";
    ReportFigures::recordingTable(out, summary, false);

    out << "<h2>Points the model dropped (stroke-end head)</h2>\n";
    ReportFigures::dropTable(out, summary);

    out << "<h2>Overshoot past the lift, pooled</h2>\n<p>Mean mm (95th percentile on hover) by which points due "
           "after their stroke's last sample land beyond it along the stroke's final direction; a point short of "
           "it, dropped or without a guess counts 0.</p>\n";
    ReportFigures::overshootTable(out, summary);

    out << "<h2>Error by prediction horizon, pooled</h2>\n<figure style='width:560px'><figcaption>Drops charged as "
           "\"no prediction\"</figcaption>\n";
    ReportFigures::errorChart(out, summary.horizons, true);
    out << "</figure><figure style='width:560px'><figcaption>Where every predictor predicts</figcaption>\n";
    ReportFigures::errorChart(out, summary.horizons, false);
    out << "</figure>\n";
    ReportFigures::chartLegend(out, !summary.peerFile.empty());

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
