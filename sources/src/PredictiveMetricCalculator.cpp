#define VELMAR_LOG_SOURCE "src/PredictiveMetricCalculator"

#include "PredictiveMetricCalculator.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <locale>
#include <sstream>

#include "CacheTouch.h"
#include "SharedDirectoryFile.h"
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
// A metre: no prediction on a screen is that far off unless its input was absurd.
constexpr float kMaxDistanceErrorMm = 1000.0f;
constexpr float kMaxAngleDeg = 180.0f;
// Longer than any line this class writes.
constexpr size_t kMaxMetricsFileBytes = 256;
// Readable by every user, writable by the service alone.
constexpr mode_t kMetricsFileMode = 0644;

// The statistics as the file holds them, or the reason the file cannot be trusted.
struct MetricsFileContent {
    uint32_t count = 0;
    float distance = 0.0f;
    float angleMean = 0.0f;
    float angleMeanSquare = 0.0f;
    float largeRate = 0.0f;
    std::string problem;
};

// Between two fields: one character that cannot belong to a number, so that "5.1,2,3,0.4" (four
// fields) is not read as five.
bool isSeparator(int c) {
    return c != std::char_traits<char>::eof() && (std::ispunct(c) || std::isspace(c)) && c != '.' && c != '+' &&
           c != '-';
}

// Five fields, one separator between them, nothing but blanks after the last. The count is a plain
// decimal within 32 bits; each mean must be one the running statistics can reach, and the mean
// square cannot be below the squared mean (a negative variance).
MetricsFileContent parseMetrics(const std::string& text) {
    MetricsFileContent content;
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    uint64_t count = 0;
    if (!std::isdigit(static_cast<unsigned char>(in.peek())) || !(in >> count) ||
        count > std::numeric_limits<uint32_t>::max()) {
        content.problem = "event count is not an integer from 0 to " +
                          std::to_string(std::numeric_limits<uint32_t>::max());
        return content;
    }
    content.count = static_cast<uint32_t>(count);
    const struct {
        const char* name;
        float* field;
        double min;
        double max;
    } means[] = {
        {"distance error mean", &content.distance, 0.0, kMaxDistanceErrorMm},
        {"angle deviation mean", &content.angleMean, -kMaxAngleDeg, kMaxAngleDeg},
        {"angle deviation mean square", &content.angleMeanSquare, 0.0, kMaxAngleDeg * kMaxAngleDeg},
        {"large error rate", &content.largeRate, 0.0, 1.0},
    };
    for (const auto& mean : means) {
        if (!isSeparator(in.get())) {
            content.problem = std::string("no separator before the ") + mean.name;
            return content;
        }
        double value = 0.0;
        if (!(in >> value) || !(value >= mean.min && value <= mean.max)) {
            std::ostringstream problem;
            problem << mean.name << " is missing or not a number from " << mean.min << " to " << mean.max;
            content.problem = problem.str();
            return content;
        }
        *mean.field = static_cast<float>(value);
    }
    in >> std::ws;
    if (!in.eof()) {
        content.problem = "more than five fields";
        return content;
    }
    // Each field is written with six significant digits: allow for their rounding.
    const double squaredMean = static_cast<double>(content.angleMean) * content.angleMean;
    if (content.angleMeanSquare < squaredMean * (1.0 - 2e-5) - 1e-6) {
        content.problem = "angle deviation mean square is below the squared mean";
    }
    return content;
}

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
    // Left by a process killed between writing a save and renaming it.
    std::vector<std::string> leftAlone;
    const int stale = shareddirectory::removeStaleTemporaries(this->metricsFilePath, leftAlone);
    if (stale > 0) {
        VELMAR_LOG(velmar::Warning, kTag,
                   "Removed " << stale << " temporary files an interrupted save left beside " << this->metricsFilePath);
    }
    for (const std::string& name : leftAlone) {
        VELMAR_LOG(velmar::Warning, kTag,
                   "Left " << name << " beside " << this->metricsFilePath
                           << " as it is: named like a temporary file but not a regular file of this user");
    }
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

void PredictiveMetricCalculator::prefetchForNextBatch() const {
    touchForRead(this, sizeof(*this));
    touchForRead(groundTruthQueue.storage(), groundTruthQueue.storageCapacity() * sizeof(StylusTouchPoint));
    touchForRead(predictionQueue.storage(),
                 predictionQueue.storageCapacity() * sizeof(std::pair<PredictedStylusCoordinate, bool>));
    const float results[] = {atan2f(lastVertex.y_pos, lastVertex.x_pos),
                             std::sqrt(lastVertex.x_pos * lastVertex.x_pos + lastVertex.y_pos * lastVertex.y_pos)};
    touchForRead(results, sizeof(results));
}

void PredictiveMetricCalculator::calculateMetrics(const StylusTouchPoint& gt, const PredictedStylusCoordinate& pred,
                                                  const StylusTouchPoint& vertex) {
    const uint32_t n = get(eventCount);
    const float d = calculateDistanceError(pred.x, pred.y, gt.x_pos, gt.y_pos);
    const float a = calculateAngleError(pred.x - vertex.x_pos, pred.y - vertex.y_pos, gt.x_pos - vertex.x_pos,
                                        gt.y_pos - vertex.y_pos);
    // A NaN, infinite or absurd sample (or a prediction made from one) would stay in the running
    // means for good, and in the saved file; such a point is not measured.
    if (!(d <= kMaxDistanceErrorMm) || !std::isfinite(a)) {
        VELMAR_LOG(velmar::Debug, kTag, "Error not finite or above " << kMaxDistanceErrorMm << " mm, skip this data point");
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
    std::string text;
    std::string reason;
    bool notFound = false;
    if (!shareddirectory::readSmall(path, kMaxMetricsFileBytes, text, reason, notFound) && notFound) {
        VELMAR_LOG(velmar::Error, kTag, "Error in reading file: " << path);
        return;
    }
    MetricsFileContent content;
    if (reason.empty()) {
        content = parseMetrics(text);
    } else {
        content.problem = reason;
    }
    if (!content.problem.empty()) {
        // A torn, foreign or poisoned file would steer every later mean; measuring again is safer.
        VELMAR_LOG(velmar::Error, kTag, "Metrics file " << path << " not used (" << content.problem
                                                         << "), starting fresh");
        set(eventCount, 0u);
        set(distanceErrorMean, 0.0f);
        set(angleDevMean, 0.0f);
        set(angleDevMeanSquare, 0.0f);
        set(largeErrorRate, 0.0f);
        return;
    }
    set(eventCount, content.count);
    set(distanceErrorMean, content.distance);
    set(angleDevMean, content.angleMean);
    set(angleDevMeanSquare, content.angleMeanSquare);
    set(largeErrorRate, content.largeRate);
    VELMAR_LOG(velmar::Info, kTag,
               "Loaded metrics from " << path << ", " << content.count << ", " << content.distance << ", "
                                      << content.angleMean << ", " << content.angleMeanSquare << ", "
                                      << content.largeRate);
}

// Written beside the file under a name nobody can guess and renamed over it, so that a reader
// (another process starting) sees either the old statistics or the new ones, never a truncated file,
// and a link planted under either name is replaced, never written through.
void PredictiveMetricCalculator::saveMetrics(const std::string& path) {
    const uint32_t count = get(eventCount);
    const float distance = get(distanceErrorMean);
    const float angleMean = get(angleDevMean);
    const float angleMeanSquare = get(angleDevMeanSquare);
    const float largeRate = get(largeErrorRate);
    std::ostringstream line;
    line.imbue(std::locale::classic());
    line << count << ',' << distance << ',' << angleMean << ',' << angleMeanSquare << ',' << largeRate;
    const std::string text = line.str();

    std::string reason;
    bool created = false;
    if (!shareddirectory::replace(path, text, kMetricsFileMode, reason, created)) {
        if (!created) {
            VELMAR_LOG(velmar::Error, kTag, "Error in opening file : " << path);
        } else {
            VELMAR_LOG(velmar::Error, kTag, "Error in writing file : " << path << " (" << reason << ")");
        }
        return;
    }
    VELMAR_LOG(velmar::Info, kTag,
               "Save metrics to " << path << ", " << count << "," << distance << "," << angleMean << ","
                                  << angleMeanSquare << "," << largeRate);
}

}  // namespace styluspipeline
