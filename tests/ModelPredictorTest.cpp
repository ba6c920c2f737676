#include "ModelPredictor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "TestSupport.h"

using styluspipeline::ModelPredictor;
using styluspipeline::ModelPredictorParams;
using styluspipeline::PredictedStylusTouchPointsCpp;
using Batch = std::map<unsigned long, StylusTouchPoint>;

namespace {

// 0.25 mm per pixel and power-of-two ranges keep every feature exact in float, so rows can be
// compared bit for bit with a double-precision computation.
ModelPredictorParams makeParams(const std::string& model, uint32_t historyLength, uint32_t minPoints) {
    ModelPredictorParams p;
    p.model_path = testkit::generatedModel(model);
    p.num_historcal_points = historyLength;
    p.min_num_historical_points = minPoints;
    p.pixel_per_inch = 128;
    p.mm_per_inch = 32.0f;
    p.feature_timestamp_min = 0.0f; p.feature_timestamp_max = 16.0f;
    p.feature_xpos_min = -8.0f; p.feature_xpos_max = 8.0f;
    p.feature_ypos_min = -8.0f; p.feature_ypos_max = 8.0f;
    p.feature_pressure_min = -1.0f; p.feature_pressure_max = 1.0f;
    p.feature_tilt_min = 0.0f; p.feature_tilt_max = 2.0f;
    p.feature_orientation_min = -4.0f; p.feature_orientation_max = 4.0f;
    return p;
}

// Sample i of a curved stroke; sample 3 has timestamp 1000.
StylusTouchPoint sample(int i) {
    StylusTouchPoint s{};
    s.timestamp = 991 + 3 * static_cast<uint64_t>(i);
    s.x_pos = 10.0f + 2.5f * i + 0.25f * i * i;
    s.y_pos = 50.0f - 1.75f * i;
    s.pressure = 0.25f + 0.125f * (i % 3);
    s.tilt = 0.5f + 0.25f * (i % 4);
    s.orientation = 1.0f - 0.5f * (i % 2);
    s.tag = STYLUS_TAG_MOVE;
    return s;
}

Batch samples(int first, int last) {
    Batch batch;
    for (int i = first; i <= last; ++i) {
        batch[sample(i).timestamp] = sample(i);
    }
    return batch;
}

using Row = std::array<float, styluspipeline::kInputFeatureCount>;

// The normalised row of sample current against sample previous, computed in double precision.
Row expectedRow(const ModelPredictorParams& p, int current, int previous, bool rawPressure = false) {
    const StylusTouchPoint c = sample(current);
    const StylusTouchPoint v = sample(previous);
    const double mmPerPixel = static_cast<double>(p.mm_per_inch) / p.pixel_per_inch;
    auto norm = [](double value, float min, float max) {
        return static_cast<float>((value - min) / (static_cast<double>(max) - min));
    };
    const double pressure = rawPressure ? c.pressure : static_cast<double>(c.pressure) - v.pressure;
    return {norm(static_cast<double>(c.timestamp - v.timestamp), p.feature_timestamp_min, p.feature_timestamp_max),
            norm((static_cast<double>(c.x_pos) - v.x_pos) * mmPerPixel, p.feature_xpos_min, p.feature_xpos_max),
            norm((static_cast<double>(c.y_pos) - v.y_pos) * mmPerPixel, p.feature_ypos_min, p.feature_ypos_max),
            norm(pressure, p.feature_pressure_min, p.feature_pressure_max),
            norm(static_cast<double>(c.tilt) - v.tilt, p.feature_tilt_min, p.feature_tilt_max),
            norm(static_cast<double>(c.orientation) - v.orientation, p.feature_orientation_min,
                 p.feature_orientation_max)};
}

// History rows first..last must equal expected(i).
template <typename Expected>
void expectRows(const ModelPredictor& predictor, uint32_t first, uint32_t last, Expected expected) {
    for (uint32_t i = first; i <= last; ++i) {
        const StylusModelInputFeatures& r = predictor.history()[i];
        EXPECT_EQ(styluspipeline::featureValues(r), expected(static_cast<int>(i)))
            << "history row " << i;
    }
}

Row zero(int) { return Row{}; }

// Errors of the curved test stroke, measured eight samples after each prediction, stay below 20 mm.
constexpr float kStrokeErrorBoundMm = 50.0f;

float logistic(float logit) {
    volatile float l = logit;  // evaluated at run time, with the same expf as the library
    return 1.0f / (1.0f + expf(-l));
}

class ModelPredictorTest : public ::testing::Test {
protected:
    std::unique_ptr<ModelPredictor> make(const ModelPredictorParams& p) {
        return std::make_unique<ModelPredictor>(p, dir.file("runningMetrics.txt"));
    }
    // A predictor that keeps all five points of each inference, so every third inference is measured,
    // after the first eight samples of the curved stroke.
    std::unique_ptr<ModelPredictor> measuredAfterTwoBatches(const char* model) {
        ModelPredictorParams p = makeParams(model, 10, 3);
        p.stroke_end_thres = 2.0f;
        p.target_event_count = 1000;
        auto predictor = make(p);
        EXPECT_TRUE(predictor->predictStylusTouchPoints(samples(0, 3), false, out));
        EXPECT_TRUE(predictor->predictStylusTouchPoints(samples(4, 7), false, out));
        return predictor;
    }
    // The rest of the curved stroke: every delivered point finite and on a screen, the stroke's own
    // errors far below what one wrapped step or absurd sample gave (some 1e14 mm).
    void finishStroke(ModelPredictor& predictor) {
        for (int first = 12; first < 40; first += 4) {
            ASSERT_TRUE(predictor.predictStylusTouchPoints(samples(first, first + 3), false, out));
            for (const auto& point : out.coordinates) {
                EXPECT_LE(std::fabs(point.x), ModelPredictor::kMaxPredictedCoordinatePx);
                EXPECT_LE(std::fabs(point.y), ModelPredictor::kMaxPredictedCoordinatePx);
            }
        }
        EXPECT_GT(predictor.getMetricsEventCount(), 0u);
        EXPECT_LT(predictor.getMetricsDistanceError(), kStrokeErrorBoundMm);
    }

    testsupport::TempDir dir;
    PredictedStylusTouchPointsCpp out;
};

// The constant models output displacements 0.1 (j + 1) mm and stroke-end logits -1, 2, -3, -4, -5.
TEST_F(ModelPredictorTest, DecodesDisplacementsTimestampsAndStrokeEndThreshold) {
    const float p1 = logistic(2.0f);
    const struct {
        const char* model;
        uint32_t history;
        float threshold;
        int32_t delta;
        int32_t predictions;
        std::vector<int> kept;
    } cases[] = {
        {"const_n10_p5.tflite", 10, 0.5f, 4, 5, {0, 2, 3, 4}},
        {"const_n10_p5.tflite", 10, p1, 4, 5, {0, 2, 3, 4}},                          // at the threshold: dropped
        {"const_n10_p5.tflite", 10, std::nextafter(p1, 1.0f), 4, 5, {0, 1, 2, 3, 4}},  // just above it: kept
        {"const_n10_p5.tflite", 10, 0.5f, -4, 5, {0, 2, 3, 4}},     // a negative step counts back in 64 bits
        {"nan_logit_n10_p5.tflite", 10, 2.0f, 4, 5, {0, 2, 3, 4}},  // NaN is never below the threshold
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.model) + " threshold " + std::to_string(c.threshold) + " delta " +
                     std::to_string(c.delta) + " predictions " + std::to_string(c.predictions));
        ModelPredictorParams p = makeParams(c.model, c.history, 3);
        p.stroke_end_thres = c.threshold;
        p.prediction_time_delta_ms = c.delta;
        p.num_predictions = c.predictions;
        auto predictor = make(p);
        ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(0, 3), true, out));
        EXPECT_EQ(out.timestamp, 1000u);
        ASSERT_EQ(out.coordinates.size(), c.kept.size());
        for (size_t n = 0; n < c.kept.size(); ++n) {
            const int i = c.kept[n];
            EXPECT_EQ(out.coordinates[n].timestamp, static_cast<uint64_t>(1000 + c.delta * (i + 1)));
            EXPECT_EQ(out.coordinates[n].x, sample(3).x_pos + static_cast<float>(0.1 * (2 * i + 1)) * 4.0f);
            EXPECT_EQ(out.coordinates[n].y, sample(3).y_pos + static_cast<float>(0.1 * (2 * i + 2)) * 4.0f);
        }
    }
    // Near the end of the 64-bit range predicted timestamps stop at its last value instead of wrapping.
    constexpr uint64_t kLatest = std::numeric_limits<uint64_t>::max();
    for (const uint64_t newest : {kLatest - 20, kLatest - 9, kLatest - 1, kLatest}) {
        SCOPED_TRACE(newest);
        ModelPredictorParams p = makeParams("const_n10_p5.tflite", 10, 3);
        p.stroke_end_thres = 2.0f;
        auto predictor = make(p);
        Batch late;
        for (int i = 0; i < 4; ++i) {
            StylusTouchPoint s = sample(i);
            s.timestamp = newest - 3 * static_cast<uint64_t>(3 - i);
            late[s.timestamp] = s;
        }
        ASSERT_TRUE(predictor->predictStylusTouchPoints(late, true, out));
        ASSERT_EQ(out.coordinates.size(), 5u);
        for (uint64_t n = 0; n < 5; ++n) {
            EXPECT_EQ(out.coordinates[n].timestamp, newest > kLatest - 4 * (n + 1) ? kLatest : newest + 4 * (n + 1));
        }
    }
    ModelPredictorParams missing = makeParams("const_n10_p5.tflite", 10, 3);
    missing.model_path = dir.file("missing.tflite");
    EXPECT_THROW(make(missing), std::runtime_error);
}

// A model fed the oldest rows of a longer history, or read past its outputs, would predict silently
// wrong: a model that does not fit is refused, naming the model, the key, its value and the shapes.
TEST_F(ModelPredictorTest, ModelThatDoesNotFitTheConfigurationIsRefused) {
    const struct {
        const char* model;
        uint32_t history;
        int32_t predictions;
        std::string says;
    } cases[] = {
        {"const_n10_p5.tflite", 25, 5,
         "input tensor 0 has shape [1, 10, 6]; expected 150 float32 values in rows of 6, "
         "PredictionModel.num_historical_points = 25 rows of 6 features"},
        {"const_n10_p5.tflite", 4, 5,
         "input tensor 0 has shape [1, 10, 6]; expected 24 float32 values in rows of 6, "
         "PredictionModel.num_historical_points = 4 rows of 6 features"},
        {"rows_of_5_n12.tflite", 10, 5,
         "input tensor 0 has shape [1, 12, 5]; expected 60 float32 values in rows of 6, "
         "PredictionModel.num_historical_points = 10 rows of 6 features"},
        {"const_n10_p5.tflite", 10, 7,
         "output tensor 0 has shape [1, 10]; expected 14 float32 values, an x and y displacement for each of "
         "PredictionModel.num_predictions = 7"},
        {"const_n10_p5.tflite", 10, 4,
         "output tensor 0 has shape [1, 10]; expected 8 float32 values, an x and y displacement for each of "
         "PredictionModel.num_predictions = 4"},
        {"one_head_n10.tflite", 10, 5,
         "it has no output tensor 1; expected 5 floats, a stroke-end logit for each of "
         "PredictionModel.num_predictions = 5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.says);
        ModelPredictorParams p = makeParams(c.model, c.history, 3);
        p.num_predictions = c.predictions;
        testsupport::LogCapture log(velmar::Error);
        const std::string expected = "model " + p.model_path + " does not fit the configuration: " + c.says;
        EXPECT_EQ(testsupport::thrownText<std::runtime_error>([&] { make(p); }), expected);
        EXPECT_TRUE(log.contains(expected));
    }
}

TEST_F(ModelPredictorTest, FillsHistoryOnceStrokeIsLongEnoughThenAddsOneRowPerSample) {
    const ModelPredictorParams p = makeParams("const_n25_p5.tflite", 25, 5);
    auto predictor = make(p);
    EXPECT_FALSE(predictor->predictStylusTouchPoints(samples(0, 2), true, out));
    EXPECT_EQ(predictor->bufferOperatingState(), ModelPredictor::kBufferIsGettingFull);
    expectRows(*predictor, 0, 24, zero);

    // The first row pads the history; the stroke's rows follow in time order.
    ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(3, 5), false, out));
    EXPECT_EQ(predictor->bufferOperatingState(), ModelPredictor::kBufferFull);
    EXPECT_EQ(out.timestamp, sample(5).timestamp);
    expectRows(*predictor, 0, 19, [&](int) { return expectedRow(p, 1, 0); });
    expectRows(*predictor, 20, 24, [&](int i) { return expectedRow(p, i - 19, i - 20); });

    // One new sample: one row, the sample minus the newest sample seen so far.
    ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(6, 6), false, out));
    EXPECT_EQ(out.timestamp, sample(6).timestamp);
    expectRows(*predictor, 0, 18, [&](int) { return expectedRow(p, 1, 0); });
    expectRows(*predictor, 19, 24, [&](int i) { return expectedRow(p, i - 18, i - 19); });
}

// Whatever the batch length, the history holds the rows the same samples give one at a time, with
// the configured pressure feature: long batches only skip the rows that would be shifted out at once.
TEST_F(ModelPredictorTest, BatchesOfAnyLengthBuildTheSameRowsAsSingleSamples) {
    const struct {
        uint32_t minPoints;
        bool rawPressure;
        std::vector<int> lastOfBatch;  // newest sample of each batch of the stroke
    } cases[] = {
        {1, true, {1, 5, 11, 16}},   // 2 then 4 (the history), 6 and 5 samples
        {1, false, {1, 5, 11, 16}},
        {3, true, {9, 10, 30}},      // a first batch of 10 samples, then 1 and 20
        {3, false, {5, 6, 30}},
        {1, true, {1, 2, 3}},        // short batches only: the stroke's first step pads the history
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.minPoints) + (c.rawPressure ? " raw" : " differenced") + " pressure");
        ModelPredictorParams p = makeParams("small_n4_p5.tflite", 4, c.minPoints);
        p.use_raw_pressure = c.rawPressure;
        auto predictor = make(p);
        int first = 0;
        for (const int last : c.lastOfBatch) {
            ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(first, last), first == 0, out));
            EXPECT_EQ(out.timestamp, sample(last).timestamp);
            // Row i is sample (last - 3 + i) against the one before, or the stroke's first step when
            // the stroke is still shorter than the history.
            expectRows(*predictor, 0, 3, [&](int i) {
                const int current = std::max(last - 3 + i, 1);
                return expectedRow(p, current, current - 1, c.rawPressure);
            });
            first = last + 1;
        }
    }
}

TEST_F(ModelPredictorTest, StrokeBoundaryResetsStrokeState) {
    const ModelPredictorParams p = makeParams("small_n4_p5.tflite", 4, 1);
    auto predictor = make(p);
    ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(0, 1), true, out));
    ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(2, 2), false, out));
    out.timestamp = 77;
    EXPECT_FALSE(predictor->predictStylusTouchPoints({}, true, out));
    EXPECT_EQ(out.timestamp, 77u);
    EXPECT_EQ(predictor->bufferOperatingState(), ModelPredictor::kBufferIsGettingFull);
    expectRows(*predictor, 0, 3, zero);

    // Too short a stroke re-inserts the row staged by the last call; the fill overwrites it.
    EXPECT_FALSE(predictor->predictStylusTouchPoints(samples(3, 3), false, out));
    expectRows(*predictor, 0, 2, zero);
    expectRows(*predictor, 3, 3, [&](int) { return expectedRow(p, 2, 1); });
    ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(4, 4), false, out));
    expectRows(*predictor, 0, 3, [&](int) { return expectedRow(p, 4, 3); });
}

// The copy model outputs the newest history row's displacement; unit ranges make that the last step
// in millimetres, so each prediction is the last sample plus the last step in pixels.
TEST_F(ModelPredictorTest, ModelReceivesTheHistorysNewestRow) {
    ModelPredictorParams p = makeParams("copy_n10_p5.tflite", 10, 3);
    p.feature_xpos_min = p.feature_ypos_min = 0.0f;
    p.feature_xpos_max = p.feature_ypos_max = 1.0f;
    auto predictor = make(p);
    for (const auto& [first, newest] : {std::make_pair(0, 3), std::make_pair(4, 4), std::make_pair(5, 7)}) {
        ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(first, newest), false, out));
        const StylusTouchPoint last = sample(newest);
        const StylusTouchPoint previous = sample(newest - 1);
        ASSERT_EQ(out.coordinates.size(), 5u);
        for (const auto& c : out.coordinates) {
            EXPECT_EQ(c.x, last.x_pos + (last.x_pos - previous.x_pos));
            EXPECT_EQ(c.y, last.y_pos + (last.y_pos - previous.y_pos));
        }
    }
}

// Timestamps are unsigned: a step back would wrap into a time gap of some 1.8e19 ms. Such samples
// start a new stroke instead; a repeated timestamp stays a zero step of the same stroke.
TEST_F(ModelPredictorTest, SamplesGoingBackInTimeStartANewStrokeNeverAWrappedStep) {
    const float gapFeature = 3.0f / 16.0f;  // the stroke's 3 ms spacing, normalised
    const struct {
        const char* name;
        int64_t offset;  // first new sample relative to the newest sample seen
        bool restarts;
    } cases[] = {
        {"one millisecond back", -1, true},
        {"far back", -900, true},
        {"repeated timestamp", 0, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto predictor = measuredAfterTwoBatches("const_n10_p5.tflite");
        Batch back;
        for (int i = 0; i < 4; ++i) {
            StylusTouchPoint s = sample(8 + i);
            s.timestamp = static_cast<uint64_t>(static_cast<int64_t>(sample(7).timestamp) + c.offset + 3 * i);
            back[s.timestamp] = s;
        }
        // Four samples are enough to fill a new stroke at once (three steps needed).
        ASSERT_TRUE(predictor->predictStylusTouchPoints(back, false, out));
        EXPECT_EQ(out.timestamp, back.rbegin()->first);
        for (uint32_t row = 0; row < 10; ++row) {
            const float gap = predictor->history()[row].timestamp;
            const bool zeroStep = !c.restarts && row == 6;  // the repeated timestamp's row
            EXPECT_EQ(gap, zeroStep ? 0.0f : gapFeature) << "row " << row;
        }
        finishStroke(*predictor);
    }
}

TEST_F(ModelPredictorTest, StepsBackInTimeAreLoggedOncePerSixty) {
    auto predictor = make(makeParams("const_n10_p5.tflite", 10, 3));
    testsupport::LogCapture log(velmar::Warning);
    for (uint64_t k = 0; k < 60; ++k) {
        StylusTouchPoint s = sample(0);
        s.timestamp = 1000 + 10 * k + 5;
        predictor->predictStylusTouchPoints({{s.timestamp, s}}, false, out);
        s.timestamp -= 1;
        predictor->predictStylusTouchPoints({{s.timestamp, s}}, false, out);
    }
    EXPECT_EQ(log.countPrefix("Samples go back in time ("), 1);
    EXPECT_EQ(log.countPrefix("Samples go back in time (") + log.count("Stroke boundary detected"),
              static_cast<int>(log.lines().size()));
}

// NaN, infinite or absurd samples must not reach the host as predicted points, nor the metrics.
TEST_F(ModelPredictorTest, PredictedPointsAreFiniteAndWithinBoundsOrNotDelivered) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    for (const char* model : {"const_n10_p5.tflite", "copy_n10_p5.tflite"}) {
        for (const float bad : {nan, inf, -inf, 1e30f, -3e38f, 2e6f}) {
            SCOPED_TRACE(std::string(model) + " " + std::to_string(bad));
            auto predictor = measuredAfterTwoBatches(model);
            Batch absurd = samples(8, 11);
            absurd.rbegin()->second.x_pos = bad;
            testsupport::LogCapture log(velmar::Verbose);
            ASSERT_TRUE(predictor->predictStylusTouchPoints(absurd, false, out));
            EXPECT_TRUE(out.coordinates.empty());
            // The drops are reported once: the prefetch decodes the same outputs again, silently.
            // (A non-finite sample may make the model's outputs NaN on some engines, and a point
            // whose stroke-end probability is NaN is dropped without a range check.)
            if (std::isfinite(bad)) {
                EXPECT_EQ(log.countPrefix("Predicted point out of range, dropped : "), 5);
            }
            const size_t reported = log.lines().size();
            predictor->warmUp();
            predictor->prefetchForNextBatch();
            predictor->prefetchForNextBatch();
            EXPECT_EQ(log.lines().size(), reported);
            finishStroke(*predictor);
        }
    }
}

// The inference thread warms the model up and prefetches a prediction's data while it waits for a
// batch: a predictor warmed and prefetched before every batch gives the same predictions, history
// and metrics as one that is not, down to the saved metrics file.
TEST_F(ModelPredictorTest, WarmUpAndPrefetchChangeNoPredictionHistoryOrMetric) {
    for (const char* model : {"ops_n10_p5.tflite", "copy_n10_p5.tflite"}) {
        SCOPED_TRACE(model);
        ModelPredictorParams p = makeParams(model, 10, 5);
        p.stroke_end_thres = 2.0f;  // no point dropped, so every prediction is measured
        {
            ModelPredictor plain(p, dir.file("plain.txt"));
            ModelPredictor warmed(p, dir.file("warmed.txt"));
            int predicted = 0;
            for (int b = 0; b < 40; ++b) {
                SCOPED_TRACE("batch " + std::to_string(b));
                warmed.warmUp();
                warmed.prefetchForNextBatch();
                warmed.prefetchForNextBatch();
                const bool boundary = b == 25;  // a second stroke
                PredictedStylusTouchPointsCpp outWarmed;
                const bool predictedPlain = plain.predictStylusTouchPoints(samples(4 * b, 4 * b + 3), boundary, out);
                ASSERT_EQ(predictedPlain, warmed.predictStylusTouchPoints(samples(4 * b, 4 * b + 3), boundary, outWarmed));
                ASSERT_EQ(0, std::memcmp(plain.history().begin(), warmed.history().begin(),
                                         plain.history().size() * sizeof(*plain.history().begin())));
                if (predictedPlain) {
                    ++predicted;
                    EXPECT_EQ(out.timestamp, outWarmed.timestamp);
                    ASSERT_EQ(out.coordinates.size(), outWarmed.coordinates.size());
                    for (size_t i = 0; i < out.coordinates.size(); ++i) {
                        EXPECT_EQ(std::make_tuple(out.coordinates[i].timestamp, out.coordinates[i].x, out.coordinates[i].y),
                                  std::make_tuple(outWarmed.coordinates[i].timestamp, outWarmed.coordinates[i].x,
                                                  outWarmed.coordinates[i].y));
                    }
                }
            }
            EXPECT_EQ(predicted, 38);  // each stroke predicts once its history is long enough
            EXPECT_GT(plain.getMetricsEventCount(), 20u);
            EXPECT_EQ(std::make_tuple(plain.getMetricsEventCount(), plain.getMetricsDistanceError(),
                                      plain.getMetricsAngleDevError(), plain.getMetricsAreValid()),
                      std::make_tuple(warmed.getMetricsEventCount(), warmed.getMetricsDistanceError(),
                                      warmed.getMetricsAngleDevError(), warmed.getMetricsAreValid()));
        }
        const std::string saved = testsupport::readFile(dir.file("plain.txt"));
        EXPECT_FALSE(saved.empty());
        EXPECT_EQ(saved, testsupport::readFile(dir.file("warmed.txt")));
    }
}

TEST_F(ModelPredictorTest, FeedsMetricsAndLogsUnderItsTag) {
    testsupport::LogCapture logs;
    ModelPredictorParams p = makeParams("const_n10_p5.tflite", 10, 3);
    p.stroke_end_thres = 2.0f;  // five points per inference make a measurable prediction
    p.target_event_count = 1;
    auto predictor = make(p);
    // The prediction of the first inference meets the ground truth of the third.
    for (int first : {0, 4, 8}) {
        EXPECT_EQ(predictor->getMetricsEventCount(), 0u);
        ASSERT_TRUE(predictor->predictStylusTouchPoints(samples(first, first + 3), false, out));
    }
    EXPECT_EQ(predictor->getMetricsEventCount(), 1u);
    EXPECT_TRUE(predictor->getMetricsAreValid());
    EXPECT_GT(predictor->getMetricsDistanceError(), 0.0f);
    for (int i = 0; i < 120; ++i) {
        EXPECT_FALSE(predictor->predictStylusTouchPoints({}, true, out));
    }
    predictor.reset();
    EXPECT_EQ(testsupport::readFile(dir.file("runningMetrics.txt")).substr(0, 2), "1,");
    std::vector<std::string> own;  // priority and message
    for (const auto& line : logs.lines()) {
        if (line.tag == "StylusPredictor-model") {
            own.push_back(std::to_string(line.priority) + " " + line.message);
        }
    }
    // 120 stroke boundaries pass the every-60 gate twice.
    EXPECT_EQ(own, (std::vector<std::string>{"2 Model Predictor constructor", "0 BufferIsGettingFull State",
                                             "0 BufferFull State", "0 BufferFull State", "2 Stroke boundary detected",
                                             "2 Stroke boundary detected", "2 Model Predictor destructor"}));
}

}  // namespace
