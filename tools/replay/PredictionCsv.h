// Every prediction of a replay, one CSV row each, for analysis elsewhere.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "PredictionEvaluator.h"

namespace replay {

class PredictionCsv {
public:
    static const char* const header;

    // One row per point the model delivered; its drops are not rows. Truth and error fields are empty
    // for predictions outside their stroke, the constant-velocity fields also when there was no
    // guess. where is "inside", "past_end" or "before_start". The least-squares columns come last
    // so that readers of the older columns keep working.
    static void writeHeader(std::ostream& out);
    static void write(std::ostream& out, const std::string& recording, const std::vector<PointResult>& results);
};

}  // namespace replay
