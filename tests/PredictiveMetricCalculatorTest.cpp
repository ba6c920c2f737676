#include <sys/stat.h>

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "PredictiveMetricCalculator.h"
#include "TestSupport.h"

using styluspipeline::PredictiveMetricCalculator;
using testsupport::LogCapture;

namespace {

const double kPi = 3.141592653589793;

StylusTouchPoint pt(float x, float y) { return {0, x, y, 0, 0, 0, 0, {}}; }

PredictedStylusCoordinate coord(float x, float y) { return PredictedStylusCoordinate{0, x, y}; }

// A batch whose first and last samples matter to the pairing; the middle repeats the first.
std::vector<StylusTouchPoint> batch(StylusTouchPoint first, StylusTouchPoint last, size_t size = 4) {
    std::vector<StylusTouchPoint> points(size, first);
    points.back() = last;
    return points;
}

std::vector<PredictedStylusCoordinate> preds(PredictedStylusCoordinate last, size_t size = 5) {
    std::vector<PredictedStylusCoordinate> coords(size, coord(-1, -1));
    coords.back() = last;
    return coords;
}

// One inference in the model predictor's order: ground truth first, then the new predictions.
void infer(PredictiveMetricCalculator& calc, StylusTouchPoint first, StylusTouchPoint last,
           PredictedStylusCoordinate predicted, size_t predCount = 5) {
    calc.setGroundTruth(batch(first, last));
    calc.setPredictions(preds(predicted, predCount));
}

// Signed angle in degrees from direction a to direction b, computed independently of the class.
double signedAngle(double ax, double ay, double bx, double by) {
    double deg = (std::atan2(by, bx) - std::atan2(ay, ax)) * 180.0 / kPi;
    return deg > 180.0 ? deg - 360.0 : (deg <= -180.0 ? deg + 360.0 : deg);
}

class PredictiveMetricCalculatorTest : public ::testing::Test {
protected:
    // 0.1 mm per pixel by default; unit = 1 mm per pixel.
    std::unique_ptr<PredictiveMetricCalculator> make(unsigned target = 50000, unsigned interval = 0,
                                                     const std::string& file = "", bool unit = false) {
        return std::make_unique<PredictiveMetricCalculator>(unit ? 1.0f : 254.0f, unit ? 1.0f : 25.4f, target,
                                                            interval, file.empty() ? path : file);
    }
    std::string saved(PredictiveMetricCalculator& calc) {
        const std::string out = dir.file("saved.txt");
        calc.saveMetrics(out);
        return testsupport::readFile(out);
    }

    testsupport::TempDir dir;
    const std::string path = dir.file("runningMetrics.txt");
};

TEST_F(PredictiveMetricCalculatorTest, MeasuresThirdInferenceAfterClearAboutTheVertexOfTheFirst) {
    auto calc = make();
    LogCapture log;
    const StylusTouchPoint vertex = pt(100, 100);
    infer(*calc, pt(90, 90), vertex, coord(130, 140));
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"Setting ground-truth with size: 4",
                                                        "No matching prediction data, skip calculating metircs",
                                                        "Missing vertex point, skip this data point",
                                                        "Setting Predictions", "Prediction is valid: true"}));
    EXPECT_EQ(log.priorityOf("No matching prediction data, skip calculating metircs"), velmar::Debug);
    EXPECT_EQ(log.priorityOf("Prediction is valid: true"), velmar::Verbose);
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.tag, "StylusPredictor-PredErr");
    }
    infer(*calc, pt(101, 101), pt(110, 110), coord(0, 0));
    EXPECT_EQ(log.count("Missing vertex point, skip this data point"), 2);
    EXPECT_EQ(calc->getEventCount(), 0u);

    log.clear();
    calc->setGroundTruth(batch(pt(124, 148), pt(120, 120)));
    EXPECT_EQ(log.count("Missing vertex point, skip this data point"), 0);
    EXPECT_TRUE(log.contains("Error calculated for  the count 0 for x_gt: 130 y_gt: 140 x_pred: 124 y_pred: 148 is 10"));
    EXPECT_EQ(log.countPrefix("Angle Error calculated for the count 0 for vec1_x: 30 vec1_y: 40 vec2_x: 24 "
                              "vec2_y: 48 is 10.30"), 1);
    EXPECT_EQ(calc->getEventCount(), 1u);
    EXPECT_NEAR(calc->getDistanceErrorMean(), std::hypot(130.0 - 124.0, 140.0 - 148.0) * 25.4 / 254.0, 1e-5);
    EXPECT_NEAR(calc->getAngleDevMean(), signedAngle(30, 40, 24, 48), 1e-4);
    EXPECT_EQ(calc->getLastVertex().y_pos, vertex.y_pos);

    // A stroke boundary keeps the statistics and the vertex but restarts the pairing.
    calc->strokeClear();
    infer(*calc, pt(0, 0), pt(1, 1), coord(5, 5));
    infer(*calc, pt(2, 2), pt(3, 3), coord(5, 5));
    EXPECT_EQ(calc->getEventCount(), 1u);
    EXPECT_EQ(calc->getLastVertex().y_pos, vertex.y_pos);
    calc->setGroundTruth(batch(pt(4, 4), pt(5, 5)));
    EXPECT_EQ(calc->getEventCount(), 2u);
}

TEST_F(PredictiveMetricCalculatorTest, InvalidPredictionSetsAreSkippedButConsumeTheirVertex) {
    auto calc = make();
    LogCapture log;
    infer(*calc, pt(0, 0), pt(10, 0), coord(50, 50), 4);
    infer(*calc, pt(11, 0), pt(20, 0), coord(50, 50), 6);
    infer(*calc, pt(21, 0), pt(30, 0), coord(40, 10));
    infer(*calc, pt(31, 0), pt(40, 0), coord(0, 0));
    EXPECT_EQ(log.count("Prediction is valid: false"), 2);
    EXPECT_EQ(log.count("Invalid prediction data, skip this data point"), 2);
    EXPECT_EQ(log.priorityOf("Invalid prediction data, skip this data point"), velmar::Debug);
    EXPECT_EQ(calc->getEventCount(), 0u);
    // The prediction of the third inference is measured about that inference's last sample.
    calc->setGroundTruth(batch(pt(50, 10), pt(50, 0)));
    EXPECT_EQ(calc->getEventCount(), 1u);
    EXPECT_EQ(calc->getLastVertex().x_pos, 30.0f);
    EXPECT_NEAR(calc->getAngleDevMean(), signedAngle(40 - 30, 10, 50 - 30, 10), 1e-4);
}

// Ground truth of another size than four, or a third pending prediction, clears the pairing; a
// wrong-size batch still leaves its last point as the next vertex.
TEST_F(PredictiveMetricCalculatorTest, OutOfStepInputRestartsThePairing) {
    for (size_t size : {3u, 5u}) {
        SCOPED_TRACE(size);
        auto calc = make(50000, 0, dir.file("m" + std::to_string(size)));
        LogCapture log;
        infer(*calc, pt(0, 0), pt(1, 1), coord(5, 5));
        infer(*calc, pt(2, 2), pt(3, 3), coord(5, 5));
        calc->setGroundTruth(batch(pt(4, 4), pt(60, 0), size));
        EXPECT_EQ(log.count("Setting ground-truth with size: " + std::to_string(size)), 1);
        EXPECT_EQ(log.priorityOf("Error in setting GT, insufficient data"), velmar::Debug);
        EXPECT_EQ(log.count("Clear called, resetting caches"), 1);
        calc->setPredictions(preds(coord(80, 20)));
        infer(*calc, pt(61, 0), pt(62, 0), coord(0, 0));
        EXPECT_EQ(calc->getEventCount(), 0u);
        calc->setGroundTruth(batch(pt(90, 0), pt(91, 0)));
        EXPECT_EQ(calc->getEventCount(), 1u);
        EXPECT_EQ(calc->getLastVertex().x_pos, 60.0f);
    }
    auto calc = make();
    LogCapture log;
    calc->setGroundTruth(batch(pt(0, 0), pt(1, 1)));
    calc->setPredictions(preds(coord(2, 2)));
    calc->setPredictions(preds(coord(2, 2)));
    EXPECT_EQ(log.count("Clear called, resetting caches"), 0);
    calc->setPredictions(preds(coord(2, 2)));
    EXPECT_EQ(log.priorityOf("Error in calculating metrics, prediction not used"), velmar::Error);
    EXPECT_EQ(log.count("Clear called, resetting caches"), 1);
    // Both queues were emptied: two more inferences before the first measurement.
    infer(*calc, pt(3, 3), pt(4, 4), coord(5, 5));
    infer(*calc, pt(6, 6), pt(7, 7), coord(8, 8));
    EXPECT_EQ(calc->getEventCount(), 0u);
    calc->setGroundTruth(batch(pt(9, 9), pt(10, 10)));
    EXPECT_EQ(calc->getEventCount(), 1u);
}

TEST_F(PredictiveMetricCalculatorTest, LargeErrorNeedsDistanceAndSignedAngleStrictlyAbove) {
    {
        auto probe = make(10, 0, dir.file("probe"), true);
        ASSERT_EQ(probe->calculateDistanceError(3, 0, 0, 4), 5.0f);
        ASSERT_EQ(probe->calculateAngleError(1, 0, 2013, 2399), 50.0f);
        ASSERT_NEAR(probe->calculateAngleError(1, 0, -1000, -1732), -120.0f, 0.01f);
        EXPECT_EQ(probe->calculateAngleError(0, 0, 3, 4), 0.0f);
        EXPECT_EQ(probe->calculateAngleError(3, 4, 3, 4), 0.0f);
    }
    const struct {
        StylusTouchPoint gt;
        PredictedStylusCoordinate pred;
        const char* largeErrorRate;
    } cases[] = {
        // The vertex is the origin throughout.
        {pt(0, 4), coord(3, 0), "0"},          // d = 5 exactly, a = 90
        {pt(2013, 2399), coord(1, 0), "0"},    // d > 5, a = 50 exactly
        {pt(-1000, -1732), coord(1, 0), "0"},  // d > 5, a = -120
        {pt(0, 4.5f), coord(3, 0), "1"},       // d > 5, a = 90
        {pt(73, 87), coord(1, 0), "1"},        // d > 5, a just above 50
    };
    for (const auto& c : cases) {
        const int index = static_cast<int>(&c - cases);
        SCOPED_TRACE(index);
        auto calc = make(10, 0, dir.file("case" + std::to_string(index)), true);
        LogCapture log;
        calc->calculateMetrics(c.gt, c.pred, pt(0, 0));
        const std::string line = saved(*calc);
        EXPECT_EQ(line.substr(line.rfind(',') + 1), c.largeErrorRate);
        EXPECT_EQ(log.count("Get a large error"), c.largeErrorRate[0] == '1' ? 1 : 0);
    }
}

TEST_F(PredictiveMetricCalculatorTest, WeightOfHistoryIsCappedAtTargetCount) {
    auto calc = make(120, 0, path, true);
    const StylusTouchPoint vertex = pt(-1, 0);
    for (int i = 1; i <= 130; ++i) {
        calc->calculateMetrics(pt(1, 0), coord(0, 0), vertex);
        EXPECT_EQ(calc->getMetricsAreValid(), i >= 120) << i;
    }
    EXPECT_EQ(calc->getEventCount(), 120u);
    EXPECT_NEAR(calc->getDistanceErrorMean(), 1.0, 1e-5);
    // 122/121 + 120/121 * 1: the history keeps the weight T/(T+1).
    calc->calculateMetrics(pt(122, 0), coord(0, 0), vertex);
    EXPECT_NEAR(calc->getDistanceErrorMean(), 2.0, 1e-4);
    EXPECT_EQ(calc->getEventCount(), 120u);

    auto latest = make(0, 0, dir.file("zero"), true);
    EXPECT_TRUE(latest->getMetricsAreValid());
    latest->calculateMetrics(pt(3, 4), coord(0, 0), pt(-2, 1));
    latest->calculateMetrics(pt(8, 5), coord(2, -3), pt(1, -3));
    EXPECT_EQ(latest->getEventCount(), 0u);
    EXPECT_EQ(latest->getDistanceErrorMean(), 10.0f);
    EXPECT_EQ(latest->getAngleDevMean(), latest->calculateAngleError(1, 0, 7, 8));
    EXPECT_EQ(latest->getAngleDevStd(), 0.0f);
}

TEST_F(PredictiveMetricCalculatorTest, SavesEveryIntervalMeasuredPointsAndOnDestruction) {
    auto calc = make(1000, 2, path, true);
    calc->calculateMetrics(pt(1, 0), coord(0, 0), pt(-1, 0));
    EXPECT_FALSE(boost::filesystem::exists(path));
    calc->calculateMetrics(pt(1, 0), coord(0, 0), pt(-1, 0));
    EXPECT_EQ(testsupport::readFile(path), "2,1,0,0,0");
    calc->calculateMetrics(pt(3, 0), coord(0, 0), pt(-1, 0));
    EXPECT_EQ(testsupport::readFile(path), "2,1,0,0,0");
    calc->calculateMetrics(pt(3, 0), coord(0, 0), pt(-1, 0));
    EXPECT_EQ(testsupport::readFile(path), "4,2,0,0,0");

    const std::string never = dir.file("never");
    auto unsaved = make(1000, 0, never, true);
    for (int i = 0; i < 5; ++i) {
        unsaved->calculateMetrics(pt(1, 0), coord(0, 0), pt(-1, 0));
    }
    EXPECT_FALSE(boost::filesystem::exists(never));
    LogCapture log;
    unsaved.reset();
    EXPECT_EQ(testsupport::readFile(never), "5,1,0,0,0");
    const testsupport::CapturedLine first = log.lines().at(0);
    EXPECT_EQ(std::make_tuple(first.message, first.function, first.priority),
              std::make_tuple(std::string("PredictiveMetricCalculator destructor"),
                              std::string("~PredictiveMetricCalculator"), velmar::Info));
}

TEST_F(PredictiveMetricCalculatorTest, FileRoundTripKeepsExactBytesAndLogsValues) {
    testsupport::writeFile(path, "120,1.23457,-0.5,210.7,0.025");
    LogCapture log;
    auto calc = make();
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"PredictiveMetricCalculator constructor",
                                                        "Loaded metrics from " + path +
                                                            ", 120, 1.23457, -0.5, 210.7, 0.025"}));
    EXPECT_EQ(log.lines().at(1).priority, velmar::Info);

    log.clear();
    EXPECT_EQ(calc->getEventCount(), 120u);
    EXPECT_EQ(calc->getDistanceErrorMean(), 1.23457f);
    EXPECT_EQ(calc->getAngleDevMean(), -0.5f);
    EXPECT_NEAR(calc->getAngleDevStd(), std::sqrt(210.7 - 0.25), 1e-4);
    EXPECT_FALSE(calc->getMetricsAreValid());
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"Get EventCount  Value", "Get Distance Error Value",
                                                        "Get Angle deviation mean", "Get Angle deviation std",
                                                        "Get if the count is larger than target count"}));
    EXPECT_EQ(saved(*calc), "120,1.23457,-0.5,210.7,0.025");
    EXPECT_TRUE(log.contains("Save metrics to " + dir.file("saved.txt") + ", 120,1.23457,-0.5,210.7,0.025"));
}

TEST_F(PredictiveMetricCalculatorTest, AnySeparatorAndTheLargestCountAreAccepted) {
    const std::pair<std::string, std::string> files[] = {
        {"5;1;2;4;0.25", "5,1,2,4,0.25"},
        {"5 1 2 4 0.25\n", "5,1,2,4,0.25"},
        {"4294967295,1,-180,32400,1", "4294967295,1,-180,32400,1"},
        {"0,1000,180,32400,0", "0,1000,180,32400,0"},
        // The mean square may sit below the squared mean by the rounding of six digits.
        {"5,1,3,8.99999,0", "5,1,3,8.99999,0"},
    };
    for (const auto& [content, restored] : files) {
        SCOPED_TRACE(content);
        testsupport::writeFile(path, content);
        auto calc = make(1000, 0, path, true);
        EXPECT_EQ(saved(*calc), restored);
    }
    // The largest count weighs the next point 1/2^32, then drops to the target.
    testsupport::writeFile(path, "4294967295,1,0,0,0");
    auto calc = make(1000, 0, path, true);
    calc->calculateMetrics(pt(3, 4), coord(0, 0), pt(-1, 0));
    EXPECT_NEAR(calc->getDistanceErrorMean(), 1.0f, 1e-6);
    EXPECT_EQ(calc->getEventCount(), 1000u);
}

// A torn, foreign, inconsistent or poisoned file would steer the means for good: it is not used,
// whether read at construction or later, and the statistics start from zero.
TEST_F(PredictiveMetricCalculatorTest, BadMetricsFileStartsFreshAndLogsWhy) {
    const struct {
        std::vector<std::string> contents;
        const char* reason;
    } files[] = {
        {{"-1,1,0,0,0", "4294967296,1,0,0,0", "+5,1,0,0,0", "", "abc"},
         "event count is not an integer from 0 to 4294967295"},
        {{"5,1e39,0,0,0", "5,-1,0,0,0", "5,nan,0,0,0", "5,inf,0,0,0", "5,1001,0,0,0", "5,,1,0,0,0"},
         "distance error mean is missing or not a number from 0 to 1000"},
        {{"5,1,-181,0,0"}, "angle deviation mean is missing or not a number from -180 to 180"},
        {{"5,1,2,-3,0"}, "angle deviation mean square is missing or not a number from 0 to 32400"},
        {{"5,1,2,4,1.5", "5,1,2,4,"}, "large error rate is missing or not a number from 0 to 1"},
        // Four fields, however their characters could be split into five.
        {{"5.1,2,4,0.4", "5e1,2,4,0.4", "5-1,2,4,0.4"}, "no separator before the distance error mean"},
        {{"5,1"}, "no separator before the angle deviation mean"},
        {{"5,1,2,4"}, "no separator before the large error rate"},
        {{"5,1,2,4,4e-1,6", "5,1,2,4,0.4x"}, "more than five fields"},
        {{"5,1,3,8.9,0.4", "5,1,-10,99,0"}, "angle deviation mean square is below the squared mean"},
        {{std::string(300, '1')}, "longer than 256 bytes"},
    };
    for (const auto& [contents, reason] : files) {
        for (const std::string& content : contents) {
            SCOPED_TRACE(content);
            testsupport::writeFile(path, content);
            LogCapture log;
            auto fresh = make(1000, 0, path, true);
            EXPECT_EQ(saved(*fresh), "0,0,0,0,0");
            const std::string why = "Metrics file " + path + " not used (" + reason + "), starting fresh";
            EXPECT_EQ(log.priorityOf(why), velmar::Error);
            EXPECT_EQ(log.countPrefix("Loaded metrics from "), 0);

            testsupport::writeFile(dir.file("good"), "7,2.5,1,2,0.5");
            fresh->loadMetrics(dir.file("good"));
            ASSERT_EQ(saved(*fresh), "7,2.5,1,2,0.5");
            fresh->loadMetrics(path);
            EXPECT_EQ(saved(*fresh), "0,0,0,0,0");
        }
    }
}

// A second process starting while this one saves must read the old statistics or the new ones,
// never a truncated file: the new file is written beside the old one and renamed over it.
TEST_F(PredictiveMetricCalculatorTest, SaveReplacesTheFileWholeByRename) {
    testsupport::writeFile(path, "3,1,0,0,0");
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    auto calc = make(1000, 0, path, true);
    calc->calculateMetrics(pt(3, 4), coord(0, 0), pt(-1, 0));
    calc->saveMetrics(path);
    struct stat after {};
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino) << "rewritten in place";
    EXPECT_EQ(testsupport::readFile(path), "4,2,11.25,506.25,0");
    EXPECT_EQ(testsupport::filesIn(dir.path()), std::vector<std::string>{path}) << "a temporary file was left";

    // When the rename fails, the temporary file goes and the error is logged with its reason.
    const std::string blocked = dir.file("blocked");
    boost::filesystem::create_directories(blocked + "/inside");
    LogCapture log;
    calc->saveMetrics(blocked);
    EXPECT_EQ(log.priorityOf("Error in writing file : " + blocked + " (cannot rename the temporary file: Is a directory)"),
              velmar::Error);
    EXPECT_EQ(testsupport::filesIn(dir.path()), (std::vector<std::string>{blocked, path}));
}

TEST_F(PredictiveMetricCalculatorTest, NonFiniteAndAbsurdErrorsAreNotFoldedIn) {
    auto calc = make(1000, 1, path, true);
    calc->calculateMetrics(pt(3, 4), coord(0, 0), pt(-1, 0));
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    LogCapture log(velmar::Debug);
    calc->calculateMetrics(pt(nan, 4), coord(0, 0), pt(-1, 0));
    calc->calculateMetrics(pt(3, 4), coord(inf, 0), pt(-1, 0));
    calc->calculateMetrics(pt(3e38f, 0), coord(-3e38f, 0), pt(0, 1));  // the distance overflows
    calc->calculateMetrics(pt(1e30f, 0), coord(0, 0), pt(-1, 0));      // finite, but no screen is that wide
    calc->calculateMetrics(pt(1000.5f, 0), coord(0, 0), pt(-1, 0));    // just above a metre
    EXPECT_EQ(log.count("Error not finite or above 1000 mm, skip this data point"), 5);
    EXPECT_EQ(calc->getEventCount(), 1u);
    EXPECT_EQ(calc->getDistanceErrorMean(), 5.0f);
    EXPECT_EQ(testsupport::readFile(path), "1,5,45,2025,0") << "skipped points are not saved either";
    calc->calculateMetrics(pt(1000, 0), coord(0, 0), pt(-1, 0));  // a metre is still measured
    EXPECT_EQ(calc->getEventCount(), 2u);
    EXPECT_FLOAT_EQ(calc->getDistanceErrorMean(), 502.5f);
}

TEST_F(PredictiveMetricCalculatorTest, MissingFileLoadsZerosAndAnUnwritableOneLogsEachSave) {
    const std::string bad = dir.file("absent/runningMetrics.txt");
    LogCapture log;
    auto calc = make(50000, 0, bad);
    EXPECT_EQ(log.priorityOf("Error in reading file: " + bad), velmar::Error);
    EXPECT_EQ(log.countPrefix("Loaded metrics from "), 0);
    EXPECT_EQ(saved(*calc), "0,0,0,0,0");
    calc->saveMetrics(bad);
    calc->saveMetrics(bad);
    EXPECT_EQ(log.count("Error in opening file : " + bad), 2);
    EXPECT_EQ(log.priorityOf("Error in opening file : " + bad), velmar::Error);
    calc.reset();
    EXPECT_EQ(log.count("Error in opening file : " + bad), 3);
    EXPECT_EQ(log.countPrefix("Save metrics to "), 1);  // only the one to saved.txt
}

}  // namespace
