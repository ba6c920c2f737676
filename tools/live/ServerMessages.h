// The JSON texts the server sends to a page.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "StylusStrokePredictor.h"

namespace live {

struct SessionInfo {
    std::string name;            // the recording directory's own name
    std::string recordingDir;    // where the library records this session
    int numPredictions = 0;
    int stepMs = 0;
    double pixelPerInch = 0.0;   // of the model's pixels
};

struct PredictionRecord {
    uint64_t base = 0;  // newest sample the prediction starts from
    std::vector<PredictedStylusCoordinate> points;
    int64_t modelLatencyUs = 0;
};

struct FinishedSession {
    std::string name;
    std::string recordingDir;
    std::string reportUrl;  // empty when no report was made
    std::string command;    // how to make the report by hand
    std::string problem;    // why there is no report, when there is none
};

class ServerMessages {
public:
    static std::string ready(const SessionInfo& info);
    // dropped: the configured count minus the points delivered (the stroke-end head's cut).
    static std::string predictions(const PredictionRecord& record, int numPredictions);
    static std::string refused(uint64_t seq);
    static std::string recording(bool on, bool accepted, const std::string& recordingDir);
    static std::string finished(const FinishedSession& session);
    static std::string error(const std::string& message);
};

}  // namespace live
