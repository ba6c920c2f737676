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
    // guess. where is "inside", "past_end" or "before_start". Columns are only ever added at the end,
    // so that readers of the older columns keep working: the least-squares ones, the model's overshoot
    // (past_end only, see PredictionEvaluator.h), then per tuned peer (when replayed) its point, error
    // and overshoot, named after the peer's CSV prefix.
    static std::string headerWith(const std::vector<const peers::PredictorKind*>& predictors);
    static void writeHeader(std::ostream& out, const std::vector<const peers::PredictorKind*>& predictors = {});
    // results' guesses follow the predictors the header was written with.
    static void write(std::ostream& out, const std::string& recording, const std::vector<PointResult>& results);
};

}  // namespace replay
