#include "ServerMessages.h"

#include <cstdio>

#include "JsonText.h"

namespace live {

namespace {

std::string quoted(const std::string& text) { return jsonString(text); }

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f", value);
    return text;
}

}  // namespace

std::string ServerMessages::ready(const SessionInfo& info) {
    return "{\"type\":\"ready\",\"session\":" + quoted(info.name) + ",\"recording_dir\":" + quoted(info.recordingDir) +
           ",\"num_predictions\":" + std::to_string(info.numPredictions) + ",\"step_ms\":" +
           std::to_string(info.stepMs) + ",\"pixel_per_inch\":" + number(info.pixelPerInch) + "}";
}

std::string ServerMessages::predictions(const PredictionRecord& record, int numPredictions) {
    std::string text = "{\"type\":\"predictions\",\"base\":" + std::to_string(record.base) + ",\"points\":[";
    for (std::size_t i = 0; i < record.points.size(); ++i) {
        const PredictedStylusCoordinate& c = record.points[i];
        text += (i == 0 ? "[" : ",[") + std::to_string(c.timestamp) + "," + number(c.x) + "," + number(c.y) + "]";
    }
    const int dropped = numPredictions - static_cast<int>(record.points.size());
    text += "],\"dropped\":" + std::to_string(dropped > 0 ? dropped : 0) +
            ",\"model_us\":" + std::to_string(record.modelLatencyUs) + "}";
    return text;
}

std::string ServerMessages::refused(uint64_t seq) {
    return "{\"type\":\"refused\",\"seq\":" + std::to_string(seq) + "}";
}

std::string ServerMessages::recording(bool on, bool accepted, const std::string& recordingDir) {
    return std::string("{\"type\":\"recording\",\"on\":") + (on ? "true" : "false") +
           ",\"accepted\":" + (accepted ? "true" : "false") + ",\"recording_dir\":" + quoted(recordingDir) + "}";
}

std::string ServerMessages::finished(const FinishedSession& session) {
    return "{\"type\":\"finished\",\"session\":" + quoted(session.name) + ",\"recording_dir\":" +
           quoted(session.recordingDir) + ",\"report\":" + (session.reportUrl.empty() ? "null" : quoted(session.reportUrl)) +
           ",\"command\":" + quoted(session.command) + ",\"problem\":" +
           (session.problem.empty() ? "null" : quoted(session.problem)) + "}";
}

std::string ServerMessages::error(const std::string& message) {
    return "{\"type\":\"error\",\"message\":" + quoted(message) + "}";
}

}  // namespace live
