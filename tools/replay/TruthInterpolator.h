// Where the pen really was at a given time inside one stroke.
#pragma once

#include <cstddef>
#include <cstdint>

#include "StylusStrokePredictor.h"

namespace replay {

struct TruthPoint {
    enum class Where { Inside, BeforeStart, PastEnd };
    Where where = Where::PastEnd;
    double x = 0.0;  // pixels, valid only Inside
    double y = 0.0;
};

class TruthInterpolator {
public:
    // samples: one stroke, timestamps never decreasing; the range must outlive this object.
    TruthInterpolator(const StylusTouchPoint* samples, std::size_t count);

    // Linear interpolation between the samples around t. Among samples sharing a timestamp the
    // last one counts, as in the pipeline's input map. An empty stroke has nothing Inside.
    TruthPoint at(uint64_t t) const;

private:
    const StylusTouchPoint* samples;
    std::size_t count;
};

}  // namespace replay
