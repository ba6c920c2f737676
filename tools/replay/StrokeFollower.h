// Runs the replay's predictors other than the model along a recording's strokes, so that each can
// guess from exactly the samples a batch's prediction was made from. Pixels and milliseconds outside,
// mm and seconds inside.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Batcher.h"
#include "RecordingReader.h"
#include "StrokePredictor.h"

namespace replay {

class StrokeFollower {
public:
    // The recording and its batching must outlive the follower.
    StrokeFollower(const Recording& recording, const Batching& batching, double mmPerPixel,
                   std::vector<std::unique_ptr<peers::StrokePredictor>> predictors);

    // Feeds every predictor the stroke of the batch up to the batch's newest sample. Batches are
    // normally followed in order; going back restarts the stroke. Of samples sharing a timestamp only
    // the last counts, as in the pipeline's input map.
    void follow(std::size_t batchIndex);

    std::size_t size() const { return predictors.size(); }
    // Predictor i's guess for aheadMs after the newest sample fed, in pixels; false without a guess.
    bool predict(std::size_t i, double aheadMs, double& x, double& y) const;

private:
    void feed(std::size_t sampleIndex);

    const Recording& recording;
    const Batching& batching;
    double mmPerPixel;
    std::vector<std::unique_ptr<peers::StrokePredictor>> predictors;
    std::size_t stroke = SIZE_MAX;  // being followed
    std::size_t next = 0;           // first sample not yet fed
    std::vector<std::size_t> fed;   // samples given to the predictors, one per timestamp
};

// Samples per second of a recording: steps between consecutive samples of a stroke, those longer than
// three times the median step left out (pauses, a resting pen logged only when it moves). 0 when the
// recording has no step.
double samplingRate(const Recording& recording, const Batching& batching);

}  // namespace replay
