// The tuned peers' parameters, per sampling rate, as stylus-tune-peers writes them beside the model
// (stylus_predictor.peers.json) and stylus-replay reads them. Parameters are in seconds and mm.
#pragma once

#include <cstddef>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "SmoothStroke.h"

namespace peers {

struct TunedPeer {
    std::vector<double> values;  // in the order of the kind's parameters
    double errorMm = 0.0;         // the tuning objective with these values, NaN when unknown
    double initialErrorMm = 0.0;  // the same with the untuned values
};

struct TunedRate {
    double rateHz = 0.0;
    std::size_t strokes = 0;  // training strokes the objective ran over
    std::size_t points = 0;   // predicted points it averaged, all horizons
    std::map<std::string, TunedPeer> peers;  // by predictor key
};

struct PeerFile {
    static const char* const format;  // the "format" value written and required

    std::vector<std::string> training;  // recordings tuned on, as directory/file
    std::vector<int> horizonsMs;         // the objective's horizons
    double mmPerPixel = 0.0;             // of the training recordings
    SensorConditions conditions;         // what the resampled strokes were given
    std::vector<TunedRate> rates;        // ascending

    // Throws std::runtime_error naming the file when it cannot be read, has another format, or lacks a
    // tuned peer's parameter.
    static PeerFile load(const std::string& path);
    void write(std::ostream& out) const;

    // The parameters tuned for the rate nearest to rateHz, nearness measured in sample interval
    // (1 / rate), since that is what the filters see. Throws std::runtime_error when there is none.
    const TunedRate& nearest(double rateHz) const;
};

// Path of the peers file beside a predictor configuration: models/stylus_predictor.json ->
// models/stylus_predictor.peers.json.
std::string peerFileBeside(const std::string& configPath);

}  // namespace peers
