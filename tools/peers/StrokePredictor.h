// What every predictor the replay compares the model with does: it follows one stroke sample by
// sample and guesses where the pen will be a little later. Physical units throughout (seconds, mm),
// so that tuned parameters mean the same on any screen density.
#pragma once

namespace peers {

class StrokePredictor {
public:
    virtual ~StrokePredictor() = default;

    // Forgets the stroke: the next sample starts a new one.
    virtual void reset() = 0;
    // The stroke's next sample: t in seconds, strictly later than the previous sample's; x, y in mm.
    virtual void add(double t, double x, double y) = 0;
    // Where the pen is guessed to be `ahead` seconds after the newest sample; false when there is no
    // guess (too few samples).
    virtual bool predict(double ahead, double& x, double& y) const = 0;
};

}  // namespace peers
