// Tunes the peers' parameters for one sampling rate: the training strokes are resampled smoothly to
// that rate, every resampled sample is a base point, and each peer's parameters are searched to
// minimise the mean over the horizons of its mean distance (mm) to where the smooth stroke really is.
#pragma once

#include <cstddef>
#include <ostream>
#include <vector>

#include "PeerFile.h"
#include "PredictorTable.h"
#include "SmoothStroke.h"

namespace peers {

class PeerTuner {
public:
    // Of the strokes, every k-th is used at a rate, k the smallest keeping the resampled samples at or
    // below maxSamples, so that fast rates do not take much longer than slow ones.
    // The truth a guess is measured against is the smooth stroke itself, at the reported time plus
    // the horizon, whatever noise the conditions add to the samples the peers see.
    PeerTuner(std::vector<SmoothStroke> strokes, std::vector<int> horizonsMs, std::size_t maxSamples,
              SensorConditions conditions = {});

    // Every tuned peer at rateHz, starting from the better of its untuned values and (when given) the
    // values tuned for a neighbouring rate. One progress line per peer when progress is not null.
    TunedRate tune(double rateHz, const TunedRate* neighbour, std::ostream* progress) const;

    // The objective for one predictor with the given values at rateHz; points, when not null, gets the
    // number of predicted points averaged over all horizons.
    double objective(double rateHz, const PredictorKind& kind, const std::vector<double>& values,
                     std::size_t* points = nullptr) const;

private:
    struct Prepared {
        std::vector<std::vector<StrokeSample>> strokes;  // resampled
        std::vector<std::vector<double>> truth;          // per stroke: x, y per sample and horizon; NaN past the end
        std::size_t samples = 0;
    };
    Prepared prepare(double rateHz) const;
    double evaluate(const Prepared& data, const PredictorKind& kind, const std::vector<double>& values,
                    std::size_t* points) const;
    std::vector<double> search(const Prepared& data, const PredictorKind& kind, std::vector<double> start,
                               double& error) const;

    std::vector<SmoothStroke> strokes;
    std::vector<int> horizonsMs;
    std::size_t maxSamples;
    SensorConditions conditions;
};

}  // namespace peers
