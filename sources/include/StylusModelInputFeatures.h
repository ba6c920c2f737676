#pragma once

// One model input row: the normalised step from one sample to the next, in the model's column order.
struct StylusModelInputFeatures {
    float timestamp;    // time gap, host units
    float xpos;         // x displacement, millimetres
    float ypos;         // y displacement, millimetres
    float pressure;     // difference, or absolute pressure with raw pressure on
    float tilt;         // difference
    float orientation;  // difference
};
