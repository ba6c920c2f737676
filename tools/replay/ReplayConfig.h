// The few settings of the predictor configuration the host needs to judge the predictions. The
// library's own reader is internal to it, so the tool reads the same file itself.
#pragma once

#include <string>

namespace replay {

struct ReplayConfig {
    std::string path;
    double pixelPerInch = 213.0;
    double mmPerInch = 25.4;
    int predictionStepMs = 4;
    int numPredictions = 5;
    std::string queueFullPolicy = "Block";  // anything else makes the library refuse when full
    unsigned long long targetEventCount = 50000;  // measured points until the library's metrics are valid

    double mmPerPixel() const { return mmPerInch / pixelPerInch; }

    // JSON unless the extension says .ini, .xml or .info, like the library. Missing keys keep the
    // defaults above. Throws ReplayError naming the file when it cannot be read or a value is bad.
    static ReplayConfig load(const std::string& path);
};

}  // namespace replay
