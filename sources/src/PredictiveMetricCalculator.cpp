#define VELMAR_LOG_SOURCE "src/PredictiveMetricCalculator"

#include "PredictiveMetricCalculator.h"

#include <algorithm>
#include <cmath>
#include <fstream>

#include "velmar/Log.h"

namespace styluspipeline {

namespace {

const char* const kTag = "StylusPredictor-PredErr";

// The model emits this many points per inference; a set of any other size cannot be compared.
constexpr size_t kValidPredictionCount = 5;
// Ground truth is only paired from batches of this many new samples.
constexpr size_t kGroundTruthBatchSize = 4;
// Three pending predictions mean predictions and ground truth fell out of step.
constexpr size_t kMaxPendingPredictions = 3;
// The vertex is the newest input of the inference two calls back.
constexpr size_t kMinGroundTruthForVertex = 3;
constexpr float kLargeDistanceErrorMm = 5.0f;
constexpr float kLargeAngleErrorDeg = 50.0f;

}  // namespace

PredictiveMetricCalculator::PredictiveMetricCalculator(float pixel_per_inch, float mm_per_inch,
                                                       unsigned int targetEventCount,
                                                       unsigned int saveMetricsInterval)
    : PredictiveMetricCalculator(pixel_per_inch, mm_per_inch, targetEventCount, saveMetricsInterval,
                                 kRunningMetricsPath) {}

PredictiveMetricCalculator::PredictiveMetricCalculator(float pixel_per_inch, float mm_per_inch,
                                                       unsigned int targetEventCount,
                                                       unsigned int saveMetricsInterval,
                                                       std::string metricsFilePath)
    : targetEventCount(targetEventCount),
      saveMetricsInterval(saveMetricsInterval),
      mmPerPixel(mm_per_inch / pixel_per_inch),
      metricsFilePath(std::move(metricsFilePath)) {
    VELMAR_LOG(velmar::Info, kTag, "PredictiveMetricCalculator constructor");
    loadMetrics(this->metricsFilePath);
}

PredictiveMetricCalculator::~PredictiveMetricCalculator() {
    VELMAR_LOG(velmar::Info, kTag, "PredictiveMetricCalculator destructor");
    saveMetrics(metricsFilePath);
}

void PredictiveMetricCalculator::setPredictions(const std::vector<PredictedStylusCoordinate>& predictions) {
    VELMAR_LOG(velmar::Verbose, kTag, "Setting Predictions");
    const bool valid = predictions.size() == kValidPredictionCount;
    VELMAR_LOG(velmar::Verbose, kTag, "Prediction is valid: " << valid);
    predictionQueue.emplace_back(predictions.empty() ? PredictedStylusCoordinate{} : predictions.back(), valid);
    if (predictionQueue.size() >= kMaxPendingPredictions) {
        VELMAR_LOG(velmar::Error, kTag, "Error in calculating metrics, prediction not used");
        strokeClear();
    }
}

void PredictiveMetricCalculator::setGroundTruth(const std::vector<StylusTouchPoint>& points) {
    VELMAR_LOG(velmar::Verbose, kTag, "Setting ground-truth with size: " << points.size());
    if (points.size() != kGroundTruthBatchSize) {
        VELMAR_LOG(velmar::Debug, kTag, "Error in setting GT, insufficient data");
        strokeClear();
        // Still the newest input, so it is the vertex of the next prediction.
        if (!points.empty()) {
            groundTruthQueue.push_back(points.back());
        }
        return;
    }
    groundTruthQueue.push_back(points.back());

    bool measure = true;
    PredictedStylusCoordinate prediction{};
    if (predictionQueue.size() > 1) {
        prediction = predictionQueue.front().first;
        measure = predictionQueue.front().second;
        predictionQueue.pop_front();
        if (!measure) {
            VELMAR_LOG(velmar::Debug, kTag, "Invalid prediction data, skip this data point");
        }
    } else {
        VELMAR_LOG(velmar::Debug, kTag, "No matching prediction data, skip calculating metircs");
        measure = false;
    }

    if (groundTruthQueue.size() < kMinGroundTruthForVertex) {
        VELMAR_LOG(velmar::Debug, kTag, "Missing vertex point, skip this data point");
        return;
    }
    const StylusTouchPoint vertex = groundTruthQueue.front();
    groundTruthQueue.pop_front();
    if (measure) {
        calculateMetrics(points.front(), prediction, vertex);
        lastVertex = vertex;
    }
}

void PredictiveMetricCalculator::strokeClear() {
    VELMAR_LOG(velmar::Verbose, kTag, "Clear called, resetting caches");
    // clear() keeps the queues' storage, so the next stroke does not allocate again.
    groundTruthQueue.clear();
    predictionQueue.clear();
}

void PredictiveMetricCalculator::calculateMetrics(const StylusTouchPoint& gt, const PredictedStylusCoordinate& pred,
                                                  const StylusTouchPoint& vertex) {
    const uint32_t n = get(eventCount);
    const float d = calculateDistanceError(pred.x, pred.y, gt.x_pos, gt.y_pos);
    const float a = calculateAngleError(pred.x - vertex.x_pos, pred.y - vertex.y_pos, gt.x_pos - vertex.x_pos,
                                        gt.y_pos - vertex.y_pos);
    // A NaN or infinite sample (or a prediction made from one) would stay in the running means for
    // good, and in the saved file; such a point is not measured.
    if (!std::isfinite(d) || !std::isfinite(a)) {
        VELMAR_LOG(velmar::Debug, kTag, "Non-finite error, skip this data point");
        return;
    }

    // Once n reaches the target the history keeps the weight T/(T+1): an exponential average.
    // n + 1 in 64 bits: a count restored at the 32-bit limit must not wrap to a division by zero.
    const uint64_t countAfter = static_cast<uint64_t>(n) + 1;
    const float next = static_cast<float>(countAfter);
    const float w = static_cast<float>(n) / next;
    set(distanceErrorMean, d / next + w * get(distanceErrorMean));
    set(angleDevMean, a / next + w * get(angleDevMean));
    set(angleDevMeanSquare, a * a / next + w * get(angleDevMeanSquare));

    float large = 0.0f;
    if (d > kLargeDistanceErrorMm && a > kLargeAngleErrorDeg) {
        large = 1.0f;
        VELMAR_LOG(velmar::Verbose, kTag, "Get a large error");
    }
    set(largeErrorRate, large / next + w * get(largeErrorRate));
    set(eventCount, static_cast<uint32_t>(std::min<uint64_t>(countAfter, targetEventCount)));

    if (saveMetricsInterval == 0) {
        ++saveCounter;
        return;
    }
    saveCounter = (saveCounter + 1) % saveMetricsInterval;
    if (saveCounter == 0) {
        saveMetrics(metricsFilePath);
    }
}

float PredictiveMetricCalculator::calculateDistanceError(float x1, float y1, float x2, float y2) {
    VELMAR_LOG(velmar::Verbose, kTag, "Calculate Distance Error");
    const float dx = x1 - x2;
    const float dy = y1 - y2;
    const float e = std::sqrt(dx * dx + dy * dy);
    VELMAR_LOG(velmar::Debug, kTag,
               "Error calculated for  the count " << get(eventCount) << " for x_gt: " << x1 << " y_gt: " << y1
                                                  << " x_pred: " << x2 << " y_pred: " << y2 << " is " << e);
    return e * mmPerPixel;
}

float PredictiveMetricCalculator::calculateAngleError(float vec1_x, float vec1_y, float vec2_x, float vec2_y) {
    VELMAR_LOG(velmar::Verbose, kTag, "Calculate Angle Error");
    float a = 0.0f;
    const bool zero1 = vec1_x == 0.0f && vec1_y == 0.0f;
    const bool zero2 = vec2_x == 0.0f && vec2_y == 0.0f;
    if (!zero1 && !zero2) {
        const float cross = vec1_x * vec2_y - vec1_y * vec2_x;
        const float dot = vec1_x * vec2_x + vec1_y * vec2_y;
        a = static_cast<float>(atan2f(cross, dot) * 180.0f / 3.141592653589793);
        if (std::isnan(a)) {
            a = 0.0f;
        }
    }
    VELMAR_LOG(velmar::Debug, kTag,
               "Angle Error calculated for the count " << get(eventCount) << " for vec1_x: " << vec1_x
                                                       << " vec1_y: " << vec1_y << " vec2_x: " << vec2_x
                                                       << " vec2_y: " << vec2_y << " is " << a);
    return a;
}

float PredictiveMetricCalculator::getDistanceErrorMean() const {
    VELMAR_LOG(velmar::Verbose, kTag, "Get Distance Error Value");
    return get(distanceErrorMean);
}

float PredictiveMetricCalculator::getAngleDevMean() const {
    VELMAR_LOG(velmar::Verbose, kTag, "Get Angle deviation mean");
    return get(angleDevMean);
}

float PredictiveMetricCalculator::getAngleDevStd() const {
    VELMAR_LOG(velmar::Verbose, kTag, "Get Angle deviation std");
    const float mean = get(angleDevMean);
    // No clamp: a difference that rounds below zero yields NaN, as callers expect.
    return std::sqrt(get(angleDevMeanSquare) - mean * mean);
}

bool PredictiveMetricCalculator::getMetricsAreValid() const {
    VELMAR_LOG(velmar::Verbose, kTag, "Get if the count is larger than target count");
    return get(eventCount) >= targetEventCount;
}

unsigned int PredictiveMetricCalculator::getEventCount() const {
    VELMAR_LOG(velmar::Verbose, kTag, "Get EventCount  Value");
    return get(eventCount);
}

void PredictiveMetricCalculator::clearStats() {
    set(distanceErrorMean, 0.0f);
    set(angleDevMean, 0.0f);
    set(angleDevMeanSquare, 0.0f);
    set(eventCount, 0u);
}

void PredictiveMetricCalculator::loadMetrics(const std::string& path) {
    std::ifstream in(path);
    if (!in.good()) {
        VELMAR_LOG(velmar::Error, kTag, "Error in reading file: " << path);
        return;
    }
    // Extraction stops at the first field that fails: earlier fields take the file's values, the
    // failing one what the extractor leaves, and later ones keep their current values.
    uint32_t count = get(eventCount);
    float distance = get(distanceErrorMean);
    float angleMean = get(angleDevMean);
    float angleMeanSquare = get(angleDevMeanSquare);
    float largeRate = get(largeErrorRate);
    char separator = 0;
    in >> count >> separator >> distance >> separator >> angleMean >> separator >> angleMeanSquare >> separator >>
        largeRate;
    set(eventCount, count);
    set(distanceErrorMean, distance);
    set(angleDevMean, angleMean);
    set(angleDevMeanSquare, angleMeanSquare);
    set(largeErrorRate, largeRate);
    VELMAR_LOG(velmar::Info, kTag,
               "Loaded metrics from " << path << ", " << count << ", " << distance << ", " << angleMean << ", "
                                      << angleMeanSquare << ", " << largeRate);
}

void PredictiveMetricCalculator::saveMetrics(const std::string& path) {
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    if (!out.is_open()) {
        VELMAR_LOG(velmar::Error, kTag, "Error in opening file : " << path);
        return;
    }
    const uint32_t count = get(eventCount);
    const float distance = get(distanceErrorMean);
    const float angleMean = get(angleDevMean);
    const float angleMeanSquare = get(angleDevMeanSquare);
    const float largeRate = get(largeErrorRate);
    out << count << ',' << distance << ',' << angleMean << ',' << angleMeanSquare << ',' << largeRate;
    VELMAR_LOG(velmar::Info, kTag,
               "Save metrics to " << path << ", " << count << "," << distance << "," << angleMean << ","
                                  << angleMeanSquare << "," << largeRate);
}

}  // namespace styluspipeline
