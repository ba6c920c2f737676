#define VELMAR_LOG_SOURCE "src/ModelPredictor"

#include "ModelPredictor.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "CacheTouch.h"
#include "velmar/Log.h"

namespace styluspipeline {

namespace {

// Runs before the logTag member exists.
const char* const kTag = "StylusPredictor-model";
constexpr uint64_t kFeatureCount = sizeof(StylusModelInputFeatures) / sizeof(float);

// Room above one history's worth of rows, so ordinary batches never grow the staging vector.
constexpr size_t kStagingMargin = 16;
// Samples per batch the ground-truth vector holds without growing.
constexpr size_t kGroundTruthReserve = 64;

uint32_t elementCount(const std::vector<uint32_t>& shape) {
    uint32_t n = 1;
    for (uint32_t dim : shape) {
        n *= dim;
    }
    return n;
}

std::string shapeText(const std::vector<uint32_t>& shape) {
    std::string text = "[";
    for (size_t i = 0; i < shape.size(); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(shape[i]);
    }
    return text + "]";
}

uint64_t elementCount64(const std::vector<uint32_t>& shape) {
    uint64_t n = 1;
    for (uint32_t dim : shape) {
        n *= dim;
    }
    return n;
}

// The model must take exactly the history the configuration describes and give exactly the points
// it asks for: a model fed the oldest rows, or read past its outputs, predicts silently wrong.
// Checked before the history is allocated, so an absurd length fails here and allocates nothing.
uint32_t historyLengthFittingModel(const talcflow::TALCModelRunner& runner, const ModelPredictorParams& p) {
    const auto refuse = [&](const std::string& what) {
        const std::string message = "model " + p.model_path + " does not fit the configuration: " + what;
        VELMAR_LOG(velmar::Error, kTag, message);
        throw std::runtime_error(message);
    };
    const uint64_t rows = p.num_historcal_points;
    const int64_t predictions = p.num_predictions;
    const struct {
        bool input;
        int index;
        uint64_t expected;
        std::string meaning;
    } tensors[] = {
        {true, 0, rows * kFeatureCount,
         "PredictionModel.num_historical_points = " + std::to_string(rows) + " rows of " +
             std::to_string(kFeatureCount) + " features"},
        {false, 0, static_cast<uint64_t>(std::max<int64_t>(2 * predictions, 0)),
         "an x and y displacement for each of PredictionModel.num_predictions = " + std::to_string(predictions)},
        {false, 1, static_cast<uint64_t>(std::max<int64_t>(predictions, 0)),
         "a stroke-end logit for each of PredictionModel.num_predictions = " + std::to_string(predictions)},
    };
    for (const auto& t : tensors) {
        const std::string name = std::string(t.input ? "input" : "output") + " tensor " + std::to_string(t.index);
        talcflow::TALCTensorDetails details;
        try {
            details = t.input ? runner.getInputTensorDetails(t.index) : runner.getOutputTensorDetails(t.index);
        } catch (const std::out_of_range&) {
            refuse("it has no " + name + "; expected " + std::to_string(t.expected) + " floats, " + t.meaning);
        }
        const bool rowsOfFeatures = !t.input || (!details.shape.empty() &&
                                                 details.shape.back() == kFeatureCount);
        if (details.type != talcflow::TALCTensorType::Float32 || !rowsOfFeatures ||
            elementCount64(details.shape) != t.expected) {
            refuse(name + " has shape " + shapeText(details.shape) +
                   (details.type == talcflow::TALCTensorType::Float32 ? "" : " and is not float32") + "; expected " +
                   std::to_string(t.expected) + " float32 values" + (t.input ? " in rows of 6" : "") + ", " +
                   t.meaning);
        }
    }
    return p.num_historcal_points;
}

// base moved by step ms, held at 0 and at the largest timestamp instead of wrapping round.
uint64_t timestampAhead(uint64_t base, int64_t step) {
    constexpr uint64_t kLatest = std::numeric_limits<uint64_t>::max();
    if (step >= 0) {
        const uint64_t ahead = static_cast<uint64_t>(step);
        return base > kLatest - ahead ? kLatest : base + ahead;
    }
    const uint64_t back = static_cast<uint64_t>(-(step + 1)) + 1;
    return base < back ? 0 : base - back;
}

int64_t microsecondsBetween(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(to - from).count() / 1000;
}

}  // namespace

ModelPredictor::ModelPredictor(const ModelPredictorParams& p)
    : ModelPredictor(p, PredictiveMetricCalculator::kRunningMetricsPath) {}

ModelPredictor::ModelPredictor(const ModelPredictorParams& p, const std::string& metricsFilePath)
    : params(p),
      modelRunner(params.model_path, talcflow::TALCModelRunner::engineFromName(params.inference_engine)),
      featureHistory(historyLengthFittingModel(modelRunner, params)),
      metricCalculator(static_cast<float>(params.pixel_per_inch), params.mm_per_inch, params.target_event_count,
                       params.save_metrics_interval, metricsFilePath) {
    inputElementCount = elementCount(modelRunner.getInputTensorDetails(0).shape);
    output0ElementCount = elementCount(modelRunner.getOutputTensorDetails(0).shape);
    output0Data = std::make_unique<float[]>(output0ElementCount);
    output1ElementCount = elementCount(modelRunner.getOutputTensorDetails(1).shape);
    output1Data = std::make_unique<float[]>(output1ElementCount);

    if (params.use_raw_pressure) {
        diffFunction = &StylusTouchPoint::diffExceptPressure;
    } else {
        diffFunction = &StylusTouchPoint::diff;
    }

    stagingFeatures.reserve(static_cast<size_t>(params.num_historcal_points) + kStagingMargin);
    groundTruth.reserve(kGroundTruthReserve);
    predictions.reserve(static_cast<size_t>(std::max(params.num_predictions, 0)));
    prefetchPredictions.reserve(predictions.capacity());

    VELMAR_LOG(velmar::Info, logTag, "Model Predictor constructor");
}

ModelPredictor::~ModelPredictor() {
    VELMAR_LOG(velmar::Info, logTag, "Model Predictor destructor");
}

void ModelPredictor::normalize(StylusModelInputFeatures& features, const StylusTouchPoint& d) const {
    const ModelPredictorParams& p = params;
    const float scale = p.mm_per_inch / static_cast<float>(p.pixel_per_inch);
    features.timestamp = (static_cast<float>(d.timestamp) - p.feature_timestamp_min) /
                         (p.feature_timestamp_max - p.feature_timestamp_min);
    features.xpos = (d.x_pos * scale - p.feature_xpos_min) / (p.feature_xpos_max - p.feature_xpos_min);
    features.ypos = (d.y_pos * scale - p.feature_ypos_min) / (p.feature_ypos_max - p.feature_ypos_min);
    features.pressure = (d.pressure - p.feature_pressure_min) / (p.feature_pressure_max - p.feature_pressure_min);
    features.tilt = (d.tilt - p.feature_tilt_min) / (p.feature_tilt_max - p.feature_tilt_min);
    features.orientation = (d.orientation - p.feature_orientation_min) /
                           (p.feature_orientation_max - p.feature_orientation_min);
}

void ModelPredictor::appendRow(const StylusTouchPoint& d) {
    StylusModelInputFeatures row;
    normalize(row, d);
    stagingFeatures.push_back(row);
}

void ModelPredictor::resetStroke() {
    clearStroke();
    VELMAR_LOG_EVERY_N(60, velmar::Info, logTag, "Stroke boundary detected");
}

void ModelPredictor::clearStroke() {
    featureHistory.clear();
    lastTimestamp = 0;
    lastPoint = StylusTouchPoint{};
    strokeHistory.clear();
    groundTruth.clear();
    metricCalculator.strokeClear();
    bufferState = kBufferIsGettingFull;
}

// The stroke has just become long enough: rebuild the whole history from it, padding the oldest
// end with copies of the first step.
void ModelPredictor::fillFromStrokeHistory() {
    stagingFeatures.clear();
    const auto first = strokeHistory.begin();
    StylusModelInputFeatures firstStep;
    normalize(firstStep, diffFunction(std::next(first)->second, &first->second));
    const int32_t padding =
        static_cast<int32_t>(params.num_historcal_points) - static_cast<int32_t>(strokeHistory.size()) + 1;
    for (int32_t i = 0; i < padding; ++i) {
        stagingFeatures.push_back(firstStep);
    }
    stageSteps(first->second, std::next(first), strokeHistory.end(), strokeHistory.size() - 1);
    const auto newest = std::prev(strokeHistory.end());
    lastTimestamp = newest->first;
    lastPoint = newest->second;
    bufferState = kBufferFull;
}

void ModelPredictor::stageBatch(const std::map<unsigned long, StylusTouchPoint>& points) {
    stagingFeatures.clear();
    stageSteps(lastPoint, points.begin(), points.end(), points.size());
    const auto newest = std::prev(points.end());
    lastTimestamp = newest->first;
    lastPoint = newest->second;
}

// Stages one row per sample of [first, end) (count of them), each against the sample before it,
// the first against before. Rows that would be shifted out of the history at once are skipped
// without being built, so a batch of any length yields exactly the history its samples would give
// one at a time, and the staging vector never grows past the history.
void ModelPredictor::stageSteps(const StylusTouchPoint& before,
                                std::map<unsigned long, StylusTouchPoint>::const_iterator first,
                                std::map<unsigned long, StylusTouchPoint>::const_iterator end, size_t count) {
    const StylusTouchPoint* previous = &before;
    for (size_t skipped = count - std::min<size_t>(count, params.num_historcal_points); skipped > 0; --skipped) {
        previous = &first->second;
        ++first;
    }
    for (; first != end; ++first) {
        appendRow(diffFunction(first->second, previous));
        previous = &first->second;
    }
}

void ModelPredictor::decodePredictions(std::vector<PredictedStylusCoordinate>& predictions, bool logDrops) const {
    // Never read past what the model actually produces, whatever the configuration asks for.
    const int64_t available = std::min<int64_t>(output0ElementCount / 2, output1ElementCount);
    const int64_t count = std::min<int64_t>(params.num_predictions, available);
    const float pixelsPerMm = static_cast<float>(params.pixel_per_inch) / params.mm_per_inch;
    const float reachPerMsPx = params.max_pen_speed_mm_per_s / 1000.0f * pixelsPerMm;
    const int64_t delta = params.prediction_time_delta_ms;
    for (int64_t i = 0; i < count; ++i) {
        const int64_t horizonMs = delta * (i + 1);
        const uint64_t timestamp = timestampAhead(lastTimestamp, horizonMs);
        float dx = output0Data[2 * i] * pixelsPerMm;
        float dy = output0Data[2 * i + 1] * pixelsPerMm;
        const float probability = 1.0f / (1.0f + expf(-output1Data[i]));
        // Written so that a NaN probability is dropped too.
        if (!(probability < params.stroke_end_thres)) {
            continue;
        }
        // An outlier sample makes the model answer with a leap no pen makes: keep the direction,
        // shorten the step to what the fastest pen covers in this horizon.
        const float reach = reachPerMsPx * static_cast<float>(std::llabs(horizonMs));
        const float distance = std::hypot(dx, dy);
        if (distance > reach) {
            if (logDrops) {
                VELMAR_LOG(velmar::Debug, logTag,
                           "Predicted step of " << distance << " px beyond the pen's reach of " << reach
                                                << " px, shortened");
            }
            dx *= reach / distance;  // an infinite step becomes NaN and is dropped below
            dy *= reach / distance;
        }
        const float x = lastPoint.x_pos + dx;
        const float y = lastPoint.y_pos + dy;
        // A NaN or absurd input sample, or a model gone wild, yields points no screen has.
        if (!(std::fabs(x) <= kMaxPredictedCoordinatePx && std::fabs(y) <= kMaxPredictedCoordinatePx)) {
            if (logDrops) {
                VELMAR_LOG(velmar::Debug, logTag, "Predicted point out of range, dropped : " << x << ", " << y);
            }
            continue;
        }
        predictions.push_back({timestamp, x, y});
    }
}

bool ModelPredictor::predictStylusTouchPoints(const std::map<unsigned long, StylusTouchPoint>& points,
                                              bool strokeBoundary, PredictedStylusTouchPointsCpp& out) {
    if (strokeBoundary) {
        resetStroke();
    }
    if (points.empty()) {
        return false;
    }
    const auto t0 = std::chrono::steady_clock::now();
    // A step back in time would wrap the unsigned time gap into an absurd feature: the samples
    // cannot continue this stroke, so they start a new one. A repeated timestamp is a zero step.
    const bool strokeHasSamples = bufferState == kBufferFull || !strokeHistory.empty();
    const uint64_t newest = bufferState == kBufferFull ? lastTimestamp
                                                       : (strokeHistory.empty() ? 0 : strokeHistory.rbegin()->first);
    if (strokeHasSamples && points.begin()->first < newest) {
        VELMAR_LOG_EVERY_N(60, velmar::Warning, logTag,
                           "Samples go back in time (" << points.begin()->first << " after " << newest
                                                       << "), starting a new stroke");
        clearStroke();
    }

    if (bufferState == kBufferIsGettingFull) {
        strokeHistory.insert(points.begin(), points.end());
        // At least two samples are needed for a first step, whatever the configured minimum.
        if (strokeHistory.size() >= static_cast<size_t>(params.min_num_historical_points) + 1 &&
            strokeHistory.size() >= 2) {
            fillFromStrokeHistory();
        }
        // Too short a stroke leaves the staging rows of an earlier call; inserting them again is
        // harmless since the history is rewritten whole once the stroke is long enough.
        VELMAR_LOG(velmar::Verbose, logTag, "BufferIsGettingFull State");
    } else if (bufferState == kBufferFull) {
        stageBatch(points);
        VELMAR_LOG(velmar::Verbose, logTag, "BufferFull State");
    } else {
        throw std::runtime_error("Unexpected Buffer operating state");
    }

    featureHistory.insert(stagingFeatures.data(), static_cast<int>(stagingFeatures.size()));
    const auto t1 = std::chrono::steady_clock::now();
    if (bufferState != kBufferFull) {
        return false;
    }

    for (const auto& entry : points) {
        groundTruth.push_back(entry.second);
    }
    metricCalculator.setGroundTruth(groundTruth);
    groundTruth.clear();

    // A model whose input is larger than the history would read past it; the runtime then refuses
    // the short buffer instead.
    const size_t historyBytes = static_cast<size_t>(featureHistory.size()) * sizeof(StylusModelInputFeatures);
    const size_t inputBytes = std::min(static_cast<size_t>(inputElementCount) * sizeof(float), historyBytes);
    modelRunner.SetInputTensorData(0, talcflow::TALCTensorType::Float32, featureHistory.begin(), inputBytes);
    if (modelRunner.runInference() != talcflow::TALCModelRunner::kSuccess) {
        VELMAR_LOG(velmar::Error, logTag, "Error in model inference");
    }
    modelRunner.GetOutputTensorData(0, talcflow::TALCTensorType::Float32, output0Data.get(),
                                    static_cast<size_t>(output0ElementCount) * sizeof(float));
    modelRunner.GetOutputTensorData(1, talcflow::TALCTensorType::Float32, output1Data.get(),
                                    static_cast<size_t>(output1ElementCount) * sizeof(float));

    predictions.clear();
    decodePredictions(predictions, true);
    metricCalculator.setPredictions(predictions);

    out.timestamp = lastTimestamp;
    // Copied rather than moved, so that both vectors keep their capacity and no call allocates.
    out.coordinates.assign(predictions.begin(), predictions.end());
    const auto t2 = std::chrono::steady_clock::now();
    out.preprocessLatencyUs = microsecondsBetween(t0, t1);
    out.modelLatencyUs = microsecondsBetween(t1, t2);
    return true;
}

void ModelPredictor::warmUp() {
    // A failure here is the next prediction's to report.
    static_cast<void>(modelRunner.runInference());
}

void ModelPredictor::prefetchForNextBatch() const {
    touchForRead(this, sizeof(*this));
    touchForRead(featureHistory.begin(), featureHistory.size() * sizeof(StylusModelInputFeatures));
    touchForRead(stagingFeatures.data(), stagingFeatures.capacity() * sizeof(StylusModelInputFeatures));
    touchForRead(groundTruth.data(), groundTruth.capacity() * sizeof(StylusTouchPoint));
    touchForRead(predictions.data(), predictions.capacity() * sizeof(PredictedStylusCoordinate));
    touchForRead(output0Data.get(), static_cast<size_t>(output0ElementCount) * sizeof(float));
    touchForRead(output1Data.get(), static_cast<size_t>(output1ElementCount) * sizeof(float));
    prefetchPredictions.clear();
    // A copy of the last decoding: its dropped points were reported then.
    decodePredictions(prefetchPredictions, false);
    StylusModelInputFeatures row;
    normalize(row, diffFunction(lastPoint, &lastPoint));
    touchForRead(&row, sizeof(row));
    metricCalculator.prefetchForNextBatch();
}

}  // namespace styluspipeline
