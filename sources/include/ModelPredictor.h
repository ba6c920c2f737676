#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CircularBuffer.h"
#include "ModelPredictorParams.h"
#include "PredictedStylusTouchPointsCpp.h"
#include "PredictiveMetricCalculator.h"
#include "StylusModelInputFeatures.h"
#include "StylusStrokePredictor.h"
#include "talcflow/TALCModelRunner.h"

namespace styluspipeline {

// Turns batches of stylus samples into predicted future pen positions: builds normalised step rows,
// keeps the model's input history full, runs the model and decodes its outputs. Used from one
// thread only (the pipeline's inference thread); the metric getters may be called from any thread.
class ModelPredictor {
public:
    // Buffer operating states.
    static constexpr uint32_t kBufferIsGettingFull = 0;
    static constexpr uint32_t kBufferFull = 1;
    // Far beyond any screen: a predicted coordinate of larger magnitude is not delivered.
    static constexpr float kMaxPredictedCoordinatePx = 1.0e6f;

    // Loads the model; a model that cannot be loaded, or whose tensors do not match the history
    // length and number of predictions of params (float32, rows of 6 features, 2 x num_predictions
    // displacements, num_predictions logits), throws std::runtime_error out of here.
    explicit ModelPredictor(const ModelPredictorParams& params);
    // As above, with the accuracy statistics kept in metricsFilePath instead of the device file.
    ModelPredictor(const ModelPredictorParams& params, const std::string& metricsFilePath);
    ~ModelPredictor();
    ModelPredictor(const ModelPredictor&) = delete;
    ModelPredictor& operator=(const ModelPredictor&) = delete;

    // Adds the new samples (keyed by timestamp) to the history and, once the history is full,
    // predicts. True when out was written. strokeBoundary resets all stroke state first; so do
    // samples older than the stroke's newest one. A batch of any length leaves the same history as
    // the same samples sent one by one. A predicted point lies no farther from the newest sample
    // than max_pen_speed_mm_per_s covers in its horizon (farther ones are pulled back onto that
    // reach), and is finite and within kMaxPredictedCoordinatePx of the origin (others are dropped
    // like stroke-end points). Predicted timestamps saturate at the ends of the 64-bit range.
    bool predictStylusTouchPoints(const std::map<unsigned long, StylusTouchPoint>& points, bool strokeBoundary,
                                  PredictedStylusTouchPointsCpp& out);

    // Runs the model once more on the input it holds, only to bring its weights and code back into
    // the caches before a batch is due. Changes nothing a prediction depends on: a prediction writes
    // the whole input before running and reads the outputs only after.
    void warmUp();

    // Reads what a prediction touches besides the model (history, staging rows, outputs, decoding,
    // the metrics' queues) and runs the decoding and feature code on copies, so that a batch after a
    // long pause does not wait for those cache and address-translation misses. Changes nothing.
    void prefetchForNextBatch() const;

    // Fills one model input row from a sample difference d.
    void normalize(StylusModelInputFeatures& features, const StylusTouchPoint& d) const;

    float getMetricsDistanceError() const { return metricCalculator.getDistanceErrorMean(); }
    float getMetricsAngleDevError() const { return metricCalculator.getAngleDevStd(); }
    bool getMetricsAreValid() const { return metricCalculator.getMetricsAreValid(); }
    unsigned int getMetricsEventCount() const { return metricCalculator.getEventCount(); }

    // For tests and tools.
    const CircularBuffer<StylusModelInputFeatures>& history() const { return featureHistory; }
    uint32_t bufferOperatingState() const { return bufferState; }

private:
    void resetStroke();
    void clearStroke();
    void fillFromStrokeHistory();
    void stageBatch(const std::map<unsigned long, StylusTouchPoint>& points);
    void stageSteps(const StylusTouchPoint& before, std::map<unsigned long, StylusTouchPoint>::const_iterator first,
                    std::map<unsigned long, StylusTouchPoint>::const_iterator end, size_t count);
    void appendRow(const StylusTouchPoint& d);
    // logDrops: report points dropped for being out of range.
    void decodePredictions(std::vector<PredictedStylusCoordinate>& predictions, bool logDrops) const;

    std::function<StylusTouchPoint(const StylusTouchPoint&, const StylusTouchPoint*)> diffFunction;
    ModelPredictorParams params;
    talcflow::TALCModelRunner modelRunner;
    CircularBuffer<StylusModelInputFeatures> featureHistory;
    std::vector<StylusModelInputFeatures> stagingFeatures;
    uint64_t lastTimestamp = 0;
    StylusTouchPoint lastPoint{};
    std::string logTag = "StylusPredictor-model";
    uint32_t inputElementCount = 0;
    uint32_t output0ElementCount = 0;
    uint32_t output1ElementCount = 0;
    std::unique_ptr<float[]> output0Data;
    std::unique_ptr<float[]> output1Data;
    uint32_t bufferState = kBufferIsGettingFull;
    std::map<unsigned long, StylusTouchPoint> strokeHistory;
    std::vector<StylusTouchPoint> groundTruth;
    std::vector<PredictedStylusCoordinate> predictions;  // of the current call, capacity kept
    // Where prefetchForNextBatch decodes to; its capacity is reserved, so decoding never allocates.
    mutable std::vector<PredictedStylusCoordinate> prefetchPredictions;
    PredictiveMetricCalculator metricCalculator;
};

}  // namespace styluspipeline
