// The inference thread warms the model up and prefetches a prediction's data while it waits for a
// batch. Neither may change what the predictor computes: two predictors fed the same strokes, one
// of them warmed and prefetched before every batch, must give identical results, histories and
// metrics, down to the saved metrics file.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ModelPredictor.h"
#include "TestSupport.h"

namespace {

using styluspipeline::ModelPredictor;
using styluspipeline::ModelPredictorParams;
using styluspipeline::PredictedStylusTouchPointsCpp;
using Batch = std::map<unsigned long, StylusTouchPoint>;

ModelPredictorParams makeParams(const std::string& model) {
    ModelPredictorParams p;
    p.model_path = testkit::generatedModel(model);
    p.num_historcal_points = 10;
    p.min_num_historical_points = 5;
    p.stroke_end_thres = 2.0f;  // no point dropped, so every prediction is measured
    p.feature_timestamp_min = 0.0f; p.feature_timestamp_max = 16.0f;
    p.feature_xpos_min = -8.0f; p.feature_xpos_max = 8.0f;
    p.feature_ypos_min = -8.0f; p.feature_ypos_max = 8.0f;
    p.feature_pressure_min = -1.0f; p.feature_pressure_max = 1.0f;
    p.feature_tilt_min = 0.0f; p.feature_tilt_max = 2.0f;
    p.feature_orientation_min = -4.0f; p.feature_orientation_max = 4.0f;
    return p;
}

constexpr int kNoRestart = 1 << 20;

// Batch b of 4 samples of a curving stroke; the stroke restarts (a boundary) at batch restartAt.
Batch batch(int b, int restartAt) {
    const int base = b < restartAt ? 0 : 100000;
    Batch out;
    for (int i = 4 * b; i < 4 * b + 4; ++i) {
        StylusTouchPoint s{};
        s.timestamp = static_cast<uint64_t>(1000 + base + 4 * i);
        s.x_pos = 20.0f + 3.0f * static_cast<float>(i) + 0.05f * static_cast<float>(i * i);
        s.y_pos = 400.0f - 2.0f * static_cast<float>(i) + 0.125f * static_cast<float>(i % 5);
        s.pressure = 0.25f + 0.125f * static_cast<float>(i % 3);
        s.tilt = 0.5f;
        s.orientation = 1.0f - 0.5f * static_cast<float>(i % 2);
        s.tag = STYLUS_TAG_MOVE;
        out[s.timestamp] = s;
    }
    return out;
}

TEST(ModelPredictorPrefetchTest, WarmUpAndPrefetchChangeNoPredictionHistoryOrMetric) {
    for (const char* model : {"ops_n10_p5.tflite", "copy_n10_p5.tflite"}) {
        SCOPED_TRACE(model);
        testsupport::TempDir dir;
        const ModelPredictorParams params = makeParams(model);
        constexpr int kBatches = 40;
        constexpr int kRestartAt = 25;
        {
            ModelPredictor plain(params, dir.file("plain.txt"));
            ModelPredictor warmed(params, dir.file("warmed.txt"));
            int predicted = 0;
            for (int b = 0; b < kBatches; ++b) {
                SCOPED_TRACE("batch " + std::to_string(b));
                warmed.warmUp();
                warmed.prefetchForNextBatch();
                warmed.prefetchForNextBatch();
                const Batch points = batch(b, kRestartAt);
                const bool boundary = b == kRestartAt;
                PredictedStylusTouchPointsCpp outPlain;
                PredictedStylusTouchPointsCpp outWarmed;
                const bool okPlain = plain.predictStylusTouchPoints(points, boundary, outPlain);
                ASSERT_EQ(okPlain, warmed.predictStylusTouchPoints(points, boundary, outWarmed));
                ASSERT_EQ(0, std::memcmp(plain.history().begin(), warmed.history().begin(),
                                         plain.history().size() * sizeof(*plain.history().begin())));
                if (!okPlain) {
                    continue;
                }
                ++predicted;
                EXPECT_EQ(outPlain.timestamp, outWarmed.timestamp);
                ASSERT_EQ(outPlain.coordinates.size(), outWarmed.coordinates.size());
                for (size_t i = 0; i < outPlain.coordinates.size(); ++i) {
                    EXPECT_EQ(outPlain.coordinates[i].timestamp, outWarmed.coordinates[i].timestamp);
                    EXPECT_EQ(outPlain.coordinates[i].x, outWarmed.coordinates[i].x);
                    EXPECT_EQ(outPlain.coordinates[i].y, outWarmed.coordinates[i].y);
                }
            }
            // Two strokes, each predicting once its history is long enough.
            EXPECT_EQ(predicted, kBatches - 2);
            EXPECT_GT(plain.getMetricsEventCount(), 20u);
            EXPECT_EQ(plain.getMetricsEventCount(), warmed.getMetricsEventCount());
            EXPECT_EQ(plain.getMetricsDistanceError(), warmed.getMetricsDistanceError());
            EXPECT_EQ(plain.getMetricsAngleDevError(), warmed.getMetricsAngleDevError());
            EXPECT_EQ(plain.getMetricsAreValid(), warmed.getMetricsAreValid());
        }
        // Saved when the predictors go.
        const std::string saved = testsupport::readFile(dir.file("plain.txt"));
        EXPECT_FALSE(saved.empty());
        EXPECT_EQ(saved, testsupport::readFile(dir.file("warmed.txt")));
    }
}

// The prefetch decodes the last outputs again; the points that decoding drops were reported by the
// prediction and must not be reported again at every prefetch.
TEST(ModelPredictorPrefetchTest, PrefetchReportsNothingEvenAfterDroppedPoints) {
    testsupport::TempDir dir;
    ModelPredictor predictor(makeParams("const_n10_p5.tflite"), dir.file("metrics.txt"));
    PredictedStylusTouchPointsCpp out;
    ASSERT_FALSE(predictor.predictStylusTouchPoints(batch(0, kNoRestart), false, out));
    ASSERT_TRUE(predictor.predictStylusTouchPoints(batch(1, kNoRestart), false, out));
    ASSERT_EQ(5u, out.coordinates.size());
    Batch absurd = batch(2, kNoRestart);
    absurd.rbegin()->second.x_pos = 2e6f;  // every predicted point lands beyond any screen

    testsupport::LogCapture capture(velmar::Verbose);
    ASSERT_TRUE(predictor.predictStylusTouchPoints(absurd, false, out));
    EXPECT_TRUE(out.coordinates.empty());
    EXPECT_EQ(5, capture.countPrefix("Predicted point out of range, dropped : "));
    capture.clear();
    predictor.warmUp();
    predictor.prefetchForNextBatch();
    predictor.prefetchForNextBatch();
    EXPECT_TRUE(capture.messages().empty()) << capture.messages().front();
}

}  // namespace
