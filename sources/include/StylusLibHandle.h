// What the exported functions' opaque handle holds, for in-process users (tests, the soak) that
// reach the pipeline behind a handle. Not part of the public header.
#pragma once

#include "StylusStrokePredictorImpl.h"

struct StylusLibHandle {
    styluspipeline::StylusStrokePredictorImpl* impl;
};
