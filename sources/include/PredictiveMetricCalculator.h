#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ReusableQueue.h"
#include "StylusStrokePredictor.h"

namespace styluspipeline {

// Measures on the device how far predictions land from where the pen really went: each prediction is
// paired with the ground truth that arrives two inferences later, and the distance and signed angle
// errors are folded into running statistics that are persisted across restarts.
//
// Fed only from the inference thread. The queries run on host threads without a lock; the statistics
// are relaxed atomics so such a read is well defined, though it may mix two updates.
class PredictiveMetricCalculator {
public:
    static constexpr const char* kRunningMetricsPath = "/data/system/inkcastd/runningMetrics.txt";

    PredictiveMetricCalculator(float pixel_per_inch, float mm_per_inch, unsigned int targetEventCount,
                               unsigned int saveMetricsInterval);
    // As above, but the statistics are loaded from and saved to metricsFilePath.
    PredictiveMetricCalculator(float pixel_per_inch, float mm_per_inch, unsigned int targetEventCount,
                               unsigned int saveMetricsInterval, std::string metricsFilePath);
    ~PredictiveMetricCalculator();
    PredictiveMetricCalculator(const PredictiveMetricCalculator&) = delete;
    PredictiveMetricCalculator& operator=(const PredictiveMetricCalculator&) = delete;

    void setPredictions(const std::vector<PredictedStylusCoordinate>& predictions);
    void setGroundTruth(const std::vector<StylusTouchPoint>& points);
    // Forgets the pending pairing state; statistics and the last vertex stay.
    void strokeClear();
    // Reads what the next setGroundTruth and setPredictions will use and runs the error math's
    // library code on copies, changing nothing.
    void prefetchForNextBatch() const;

    // A point whose distance error is not finite or above 1000 mm is not folded in.
    void calculateMetrics(const StylusTouchPoint& gt, const PredictedStylusCoordinate& pred,
                          const StylusTouchPoint& vertex);
    // Millimetres between the two points.
    float calculateDistanceError(float x1, float y1, float x2, float y2);
    // Signed degrees from vec1 to vec2; 0 when either vector is zero.
    float calculateAngleError(float vec1_x, float vec1_y, float vec2_x, float vec2_y);

    float getDistanceErrorMean() const;
    float getAngleDevMean() const;
    float getAngleDevStd() const;
    bool getMetricsAreValid() const;
    unsigned int getEventCount() const;
    const StylusTouchPoint& getLastVertex() const { return lastVertex; }
    // Leaves largeErrorRate and saveCounter untouched on purpose.
    void clearStats();

    // A missing file changes nothing. A file that is not five fields of reachable statistics (count
    // a plain decimal within 32 bits; means finite, distance 0 to 1000 mm, angle within +-180
    // degrees, rate 0 to 1) is not used: the statistics start from zero and the reason is logged.
    void loadMetrics(const std::string& path);
    // Writes "<path>.tmp.<pid>.<n>" beside the file, flushes it to disk and renames it over path.
    void saveMetrics(const std::string& path);

private:
    template <typename T>
    static T get(const std::atomic<T>& field) { return field.load(std::memory_order_relaxed); }
    template <typename T>
    static void set(std::atomic<T>& field, T value) { field.store(value, std::memory_order_relaxed); }

    std::atomic<float> distanceErrorMean{0.0f};
    std::atomic<float> angleDevMean{0.0f};
    std::atomic<float> angleDevMeanSquare{0.0f};
    std::atomic<float> largeErrorRate{0.0f};
    std::atomic<uint32_t> eventCount{0};
    const uint32_t targetEventCount;
    uint32_t saveCounter = 0;
    const uint32_t saveMetricsInterval;
    const float mmPerPixel;
    // Both hold at most three entries; their storage is reused so that no batch allocates.
    ReusableQueue<StylusTouchPoint> groundTruthQueue;
    ReusableQueue<std::pair<PredictedStylusCoordinate, bool>> predictionQueue;
    StylusTouchPoint lastVertex{};
    const std::string metricsFilePath;
};

}  // namespace styluspipeline
