/*
 * Stylus stroke predictor: the host feeds every batch of stylus samples and receives where the pen
 * will be a few milliseconds ahead, through a callback on the library's inference thread.
 *
 * Usable from C and C++. All functions but InitStylusLib take the handle InitStylusLib returned and
 * that has not yet been given to DeInitStylusLib; only DeInitStylusLib accepts NULL. DeInitStylusLib
 * must not race any other call on the same handle.
 */
#ifndef STYLUS_STROKE_PREDICTOR_H
#define STYLUS_STROKE_PREDICTOR_H

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>
#else
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#endif

#define STYLUS_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Pen event kinds carried in StylusTouchPoint.tag; any other value is an ordinary move sample. */
#define STYLUS_TAG_PEN_DOWN 0
#define STYLUS_TAG_PEN_UP 1
#define STYLUS_TAG_MOVE 2

/* One stylus sample; the host's input array is a packed array of these (40 bytes each). */
typedef struct StylusTouchPoint {
    uint64_t timestamp; /* milliseconds */
    float x_pos;        /* pixels */
    float y_pos;        /* pixels */
    float pressure;
    float tilt;
    float orientation;
    int32_t tag;        /* 0 pen down, 1 pen up, anything else a move */
    uint8_t reserved[8]; /* carried along unchanged, never interpreted */

#ifdef __cplusplus
    /* this minus other, field by field; timestamps wrap when other is later. tag and reserved
     * of the result are left unset. */
    StylusTouchPoint diff(const StylusTouchPoint* other) const {
        StylusTouchPoint d{};
        d.timestamp = timestamp - other->timestamp;
        d.x_pos = x_pos - other->x_pos;
        d.y_pos = y_pos - other->y_pos;
        d.pressure = pressure - other->pressure;
        d.tilt = tilt - other->tilt;
        d.orientation = orientation - other->orientation;
        return d;
    }
    /* As diff, but pressure keeps this sample's absolute value. */
    StylusTouchPoint diffExceptPressure(const StylusTouchPoint* other) const {
        StylusTouchPoint d = diff(other);
        d.pressure = pressure;
        return d;
    }
#endif
} StylusTouchPoint;

/* One predicted position. */
typedef struct PredictedStylusCoordinate {
    uint64_t timestamp; /* milliseconds, base timestamp + k * prediction step */
    float x;            /* pixels */
    float y;            /* pixels */
} PredictedStylusCoordinate;

/* The predictions of one batch, as handed to onPredictions. The coordinate array belongs to the
 * library and is valid only during the callback: copy what you keep. */
typedef struct PredictedStylusTouchPoints {
    uint64_t timestamp; /* newest input sample the prediction is based on */
    PredictedStylusCoordinate* coordinates;
    int32_t numCoordinates;
    int64_t preprocessLatencyUs;
    int64_t modelLatencyUs;
} PredictedStylusTouchPoints;

/* The callbacks run on the library's inference thread, which waits for them to return. They must not
 * call DeInitStylusLib (it would wait for the very thread it runs on), and under the Block queue policy
 * they must not call sendInputTouchPoints (the queue may be full, and only this thread empties it).
 * They must not throw: an exception leaving a callback ends the host process. */
typedef void (*StylusPredictionCallback)(const PredictedStylusTouchPoints* predictions);
typedef void (*StylusInputPointsCallback)(const StylusTouchPoint* points, int numPoints);

typedef struct StylusPredictionParams {
    const char* configFilePath;             /* the model file lies beside it */
    StylusPredictionCallback onPredictions; /* required; called on the inference thread */
    StylusInputPointsCallback onInputPoints; /* optional, may be NULL; called after onPredictions */
} StylusPredictionParams;

typedef struct StylusLibHandle StylusLibHandle;

/* Builds the pipeline. params, its configFilePath and its onPredictions must not be NULL.
 *
 * Before any thread starts, every configuration value is checked for its type and range (counts
 * positive and bounded, min_num_historical_points at most num_historical_points, positive
 * prediction_time_delta_ms, mm_per_inch and pixel_per_inch, every feature_*_min below its max,
 * recorder sizes positive, diskFillPercentTh 0 to 100), and the model's tensors against the
 * configuration: float32 input of num_historical_points rows of 6 features, output 0 of
 * 2 x num_predictions values, output 1 of num_predictions values. A configuration or model that
 * fails, or cannot be read, is refused with a C++ exception whose text names the file, the key, the
 * value and what was expected; the same text is logged at error priority. An exception cannot
 * pass through C: a C host that is given a bad configuration ends (std::terminate). A C host that
 * must survive one calls this function through a C++ wrapper that catches. */
STYLUS_EXPORT StylusLibHandle* InitStylusLib(const StylusPredictionParams* params);

/* Drains a queued batch, stops the threads and frees the handle. NULL is ignored. */
STYLUS_EXPORT void DeInitStylusLib(StylusLibHandle* handle);

/* Queues one batch: 0 when queued, -1 when refused. Only the samples after the batch's last
 * pen-down or pen-up sample are predicted from. points must hold numPoints samples when
 * numPoints > 0; with numPoints <= 0 an empty batch is queued. A NULL points is refused (-1) whatever
 * numPoints is, and nothing is read. Samples older than the newest sample of the current stroke
 * start a new stroke (a repeated timestamp does not). Predicted points are finite and within
 * 1,000,000 pixels of the origin; others are not delivered. */
STYLUS_EXPORT int sendInputTouchPoints(StylusLibHandle* handle, const StylusTouchPoint* points, int numPoints);

/* 1 when no batch is queued and the last one has been handled, else 0 (also before the first).
 * Not atomic with the inference thread: just after that thread has taken a batch from the queue, and
 * before it marks the batch as in work, this can still return 1 for the previous batch. */
STYLUS_EXPORT int areAllInputPointsProcessed(StylusLibHandle* handle);

/* The configured number of predictions per batch (not a count of points produced). */
STYLUS_EXPORT int numPredictedPoints(StylusLibHandle* handle);

/* Switches recording on (any nonzero value) or off at run time: 0 on success, -1 when refused. */
STYLUS_EXPORT int controlDataWriting(StylusLibHandle* handle, int enable);

/* Running mean distance error of the predictions, millimetres. */
STYLUS_EXPORT float getMetricsDistanceError(StylusLibHandle* handle);
/* Standard deviation of the signed angle error of the predictions, degrees. */
STYLUS_EXPORT float getMetricsAngleDevError(StylusLibHandle* handle);
/* Whether the metrics have folded in their target number of measured points. */
STYLUS_EXPORT bool getMetricsAreValid(StylusLibHandle* handle);

#ifdef __cplusplus
}
#endif

#endif /* STYLUS_STROKE_PREDICTOR_H */
