// The shipped model on whole strokes: how the host cuts a stroke into batches must not change what
// is predicted, and one outlier sample must not throw predictions farther than a pen can travel.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "CirclingPen.h"
#include "ModelPredictor.h"
#include "PredictorParams.h"
#include "TestSupport.h"

namespace {

using styluspipeline::ModelPredictor;
using styluspipeline::ModelPredictorParams;
using Batch = std::map<unsigned long, StylusTouchPoint>;
using Predictions = std::vector<PredictedStylusCoordinate>;
// Each prediction of a stroke under the timestamp of the newest sample it was made after.
using StrokePredictions = std::map<uint64_t, Predictions>;

constexpr int kStrokeLength = 160;
constexpr uint64_t kSamplePeriodMs = 4;

// A pen circling at some 180 mm/s, sampled at 250 Hz, every feature moving.
std::vector<StylusTouchPoint> circlingStroke() {
    std::vector<StylusTouchPoint> stroke;
    for (int i = 0; i < kStrokeLength; ++i) {
        stroke.push_back(testkit::circlingPen(5000 + kSamplePeriodMs * static_cast<uint64_t>(i), 0.02f * i, 0.3f));
    }
    return stroke;
}

bool samePoints(const Predictions& a, const Predictions& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].timestamp != b[i].timestamp || a[i].x != b[i].x || a[i].y != b[i].y) {
            return false;
        }
    }
    return true;
}

class ShippedModelStrokeTest : public ::testing::Test {
protected:
    void TearDown() override { velmar::Log::m_GlobalPriority.store(savedPriority); }

    ModelPredictorParams shippedParams(bool rawPressure) {
        testsupport::LogCapture quiet(velmar::Error);
        ModelPredictorParams p = styluspipeline::PredictorParams(STYLUS_SHIPPED_CONFIG).modelParams;
        p.use_raw_pressure = rawPressure;
        return p;
    }

    // Sends the stroke in batches of batchSize samples, the first one with the stroke boundary.
    StrokePredictions predict(const ModelPredictorParams& p, const std::vector<StylusTouchPoint>& stroke,
                              size_t batchSize, size_t* batchesWithout = nullptr) {
        ModelPredictor predictor(p, dir.file("runningMetrics.txt"));
        StrokePredictions predictions;
        for (size_t first = 0; first < stroke.size(); first += batchSize) {
            Batch batch;
            for (size_t i = first; i < std::min(first + batchSize, stroke.size()); ++i) {
                batch[stroke[i].timestamp] = stroke[i];
            }
            styluspipeline::PredictedStylusTouchPointsCpp out;
            if (predictor.predictStylusTouchPoints(batch, first == 0, out)) {
                EXPECT_EQ(out.timestamp, batch.rbegin()->first);
                predictions[out.timestamp] = out.coordinates;
            } else if (batchesWithout != nullptr) {
                ++*batchesWithout;
            }
        }
        return predictions;
    }

    testsupport::TempDir dir;
    int32_t savedPriority = velmar::Log::m_GlobalPriority.load();
};

// Sample by sample is the reference; every longer cut, shorter than the history, as long plus one,
// and longer, predicts from its first batch on and gives bit-identical points after the same sample.
TEST_F(ShippedModelStrokeTest, BatchCutsDoNotChangePredictions) {
    const std::vector<StylusTouchPoint> stroke = circlingStroke();
    for (const bool rawPressure : {true, false}) {
        const ModelPredictorParams p = shippedParams(rawPressure);
        ASSERT_EQ(p.num_historcal_points, 16u) << "the cuts below are chosen around the shipped history";
        const StrokePredictions reference = predict(p, stroke, 1);
        ASSERT_EQ(reference.size(), kStrokeLength - p.min_num_historical_points);
        for (const size_t batchSize : {4, 17, 20, 40}) {
            SCOPED_TRACE(std::string(rawPressure ? "raw" : "differenced") + " pressure, batches of " +
                         std::to_string(batchSize));
            size_t batchesWithout = 0;
            const StrokePredictions cut = predict(p, stroke, batchSize, &batchesWithout);
            EXPECT_EQ(batchesWithout, 0u);
            for (const auto& [newest, points] : cut) {
                ASSERT_EQ(reference.count(newest), 1u) << newest;
                EXPECT_TRUE(samePoints(points, reference.at(newest))) << "after the sample at " << newest;
            }
        }
    }
    // The pressure setting reaches the model on every path: the two settings predict differently.
    EXPECT_FALSE(samePoints(predict(shippedParams(true), stroke, 20).rbegin()->second,
                            predict(shippedParams(false), stroke, 20).rbegin()->second));
}

// A sample 500 px off the stroke: no point lies beyond the pen's reach of the newest sample, some are
// shortened to it, and once the outlier has left the history the predictions are the clean stroke's.
TEST_F(ShippedModelStrokeTest, OutlierSampleIsHeldToThePensReachAndForgotten) {
    const std::vector<StylusTouchPoint> clean = circlingStroke();
    const ModelPredictorParams p = shippedParams(true);
    const float pixelsPerMm = static_cast<float>(p.pixel_per_inch) / p.mm_per_inch;
    const struct {
        size_t batchSize;
        float offsetX, offsetY;
    } cases[] = {{1, 500.0f, 0.0f}, {4, 0.0f, -500.0f}, {20, 354.0f, 354.0f}};
    for (const auto& c : cases) {
        SCOPED_TRACE("batches of " + std::to_string(c.batchSize));
        std::vector<StylusTouchPoint> glitched = clean;
        const size_t outlier = 99;  // the newest sample of a batch, whichever the cut
        glitched[outlier].x_pos += c.offsetX;
        glitched[outlier].y_pos += c.offsetY;
        std::map<uint64_t, StylusTouchPoint> byTime;
        for (const auto& s : glitched) {
            byTime[s.timestamp] = s;
        }
        testsupport::LogCapture log(velmar::Debug);
        const StrokePredictions predictions = predict(p, glitched, c.batchSize);
        const StrokePredictions reference = predict(p, clean, c.batchSize);
        ASSERT_FALSE(predictions.empty());
        for (const auto& [newest, points] : predictions) {
            const StylusTouchPoint& last = byTime.at(newest);
            for (const auto& point : points) {
                const float reachPx = p.max_pen_speed_mm_per_s * static_cast<float>(point.timestamp - newest) /
                                      1000.0f * pixelsPerMm;
                EXPECT_LE(std::hypot(point.x - last.x_pos, point.y - last.y_pos), reachPx * 1.0001f)
                    << "predicted at " << point.timestamp << " after the sample at " << newest;
            }
            if (newest > glitched[outlier + p.num_historcal_points].timestamp) {
                EXPECT_TRUE(samePoints(points, reference.at(newest))) << "after the sample at " << newest;
            }
        }
        EXPECT_GE(log.countPrefix("Predicted step of "), 1);
    }
}

}  // namespace
