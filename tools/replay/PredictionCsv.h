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

    // Truth and error fields are empty for predictions outside their stroke, the constant-velocity
    // fields also when there was no guess. where is "inside", "past_end" or "before_start".
    static void writeHeader(std::ostream& out);
    static void write(std::ostream& out, const std::string& recording, const std::vector<PointResult>& results);
};

}  // namespace replay
