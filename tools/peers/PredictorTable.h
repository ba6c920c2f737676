// Every predictor the replay sets beside the model, one row each: the two simple baselines and the
// tuned peers. Summaries, CSV columns, the report, the peers file and the tuning tool all walk this
// table, so a new predictor is one class and one row here.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "StrokePredictor.h"

namespace peers {

struct Parameter {
    const char* name;  // key in the peers file
    double initial;    // the untuned value, also where tuning starts
    double min, max;
    bool integer;   // whole numbers only
    bool logScale;  // searched by factors rather than by steps
};

struct PredictorKind {
    const char* key;        // JSON summary and peers file
    const char* csvPrefix;  // predictions CSV: <prefix>_x, <prefix>_y, <prefix>_error_mm
    const char* label;      // text summary and report
    bool tuned;             // a tuned peer (replayed with --peers), else a simple baseline
    std::vector<Parameter> parameters;
    std::unique_ptr<StrokePredictor> (*make)(const std::vector<double>& values);  // values in parameter order

    std::vector<double> initialValues() const;
};

// Baselines first (constant velocity, then least squares over 3 samples), then the tuned peers.
const std::vector<PredictorKind>& predictorKinds();

}  // namespace peers
