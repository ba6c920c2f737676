// The replay tools' own logic: cutting recordings into batches, the real pen position at a
// predicted time, the error figures, and the messages for bad input.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cmath>
#include <sstream>
#include <tuple>

#include "Batcher.h"
#include "CommandLine.h"
#include "ErrorStats.h"
#include "HandwritingGenerator.h"
#include "JsonSummary.h"
#include "MetricsFileState.h"
#include "PredictionCsv.h"
#include "PredictionEvaluator.h"
#include "RecordingFormat.h"
#include "RecordingReader.h"
#include "RecordingWriter.h"
#include "ReplayConfig.h"
#include "ReplayError.h"
#include "ReplaySummary.h"
#include "SummaryText.h"
#include "TestSupport.h"
#include "TruthInterpolator.h"

using namespace replay;

namespace {

constexpr int32_t D = STYLUS_TAG_PEN_DOWN;
constexpr int32_t U = STYLUS_TAG_PEN_UP;
constexpr int32_t M = STYLUS_TAG_MOVE;

StylusTouchPoint sample(uint64_t t, float x, float y, int32_t tag = M) { return {t, x, y, 0, 0, 0, tag, {}}; }

using Rows = std::vector<std::vector<std::size_t>>;

std::string errorOf(const std::string& path) {
    try {
        RecordingReader::read(path);
    } catch (const ReplayError& error) {
        return error.what();
    }
    return "(no error)";
}

const std::string header = recordingformat::kHeaderLine;

}  // namespace

// Batches as (first, count, stroke), strokes as (first, count).
TEST(BatcherTest, PenDownAlwaysOpensABatchAndPenUpAlwaysClosesOne) {
    const struct {
        std::vector<int32_t> tags;
        Rows batches;
        Rows strokes;
    } cases[] = {
        {{D, M, M, M, M, M, M, M, M, U}, {{0, 4, 0}, {4, 4, 0}, {8, 2, 0}}, {{0, 10}}},
        // A three-sample stroke, a stroke whose pen-up falls on a batch end, one left open at the end.
        {{D, M, U, D, M, M, U, D, M, M, M, M}, {{0, 3, 0}, {3, 4, 1}, {7, 4, 2}, {11, 1, 2}}, {{0, 3}, {3, 4}, {7, 5}}},
        // A recording that starts mid-stroke, a pen-down without a pen-up before it, moves after a pen-up.
        {{M, M, M, M, M, D, M, U, M, M}, {{0, 4, 0}, {4, 1, 0}, {5, 3, 1}, {8, 2, 2}}, {{0, 5}, {5, 3}, {8, 2}}},
    };
    for (const auto& c : cases) {
        std::vector<StylusTouchPoint> samples;
        for (std::size_t i = 0; i < c.tags.size(); ++i) {
            samples.push_back(sample(4 * i, 0.0f, 0.0f, c.tags[i]));
        }
        const Batching b = Batcher(4).cut(samples);
        Rows batches;
        Rows strokes;
        for (const Batch& batch : b.batches) {
            batches.push_back({batch.first, batch.count, batch.stroke});
        }
        for (const Stroke& stroke : b.strokes) {
            strokes.push_back({stroke.first, stroke.count});
        }
        EXPECT_EQ(batches, c.batches);
        EXPECT_EQ(strokes, c.strokes);
    }
    EXPECT_THROW(Batcher(0), std::invalid_argument);
}

TEST(TruthInterpolatorTest, InterpolatesInsideTheStrokeAndReportsOutside) {
    const std::vector<StylusTouchPoint> stroke = {sample(100, 0, 0, D), sample(110, 10, 0), sample(110, 10, 4),
                                                  sample(120, 10, 24, U)};
    const TruthInterpolator truth(stroke.data(), stroke.size());
    // Of two samples with one timestamp the later counts, except toward the earlier neighbour.
    const struct {
        uint64_t t;
        double x, y;
    } inside[] = {{100, 0, 0}, {105, 5, 0}, {110, 10, 4}, {115, 10, 14}, {118, 10, 20}, {120, 10, 24}};
    for (const auto& c : inside) {
        const TruthPoint p = truth.at(c.t);
        ASSERT_EQ(p.where, TruthPoint::Where::Inside) << c.t;
        EXPECT_DOUBLE_EQ(p.x, c.x) << c.t;
        EXPECT_DOUBLE_EQ(p.y, c.y) << c.t;
    }
    EXPECT_EQ(truth.at(121).where, TruthPoint::Where::PastEnd);
    EXPECT_EQ(truth.at(99).where, TruthPoint::Where::BeforeStart);
    EXPECT_EQ(TruthInterpolator(stroke.data(), 0).at(100).where, TruthPoint::Where::PastEnd);
}

TEST(ErrorStatsTest, MeanMedianAndPercentilesOfKnownData) {
    ErrorStats stats;
    EXPECT_TRUE(std::isnan(stats.mean()));
    EXPECT_TRUE(std::isnan(stats.median()));
    for (int v = 100; v >= 1; --v) {  // added out of order on purpose
        stats.add(v);
    }
    EXPECT_EQ(stats.count(), 100u);
    EXPECT_DOUBLE_EQ(stats.mean(), 50.5);
    EXPECT_DOUBLE_EQ(stats.median(), 50.5);
    EXPECT_DOUBLE_EQ(stats.percentile(95.0), 95.05);
    EXPECT_DOUBLE_EQ(stats.percentile(99.0), 99.01);
    EXPECT_DOUBLE_EQ(stats.percentile(0.0), 1.0);
    EXPECT_DOUBLE_EQ(stats.percentile(100.0), 100.0);
    stats.add(1000.0);  // added after a query: the order is restored on the next one
    EXPECT_DOUBLE_EQ(stats.median(), 51.0);
    EXPECT_DOUBLE_EQ(stats.max(), 1000.0);
}

// x = 2t px along a line, y = t^2 / 10 px bending away, samples every 4 ms from 0 to 40; 0.5 mm per pixel.
TEST(PredictionEvaluatorTest, MeasuresAgainstTheStrokeAndMatchesCallbacksToAcceptedBatchesInOrder) {
    Recording recording;
    for (uint64_t t = 0; t <= 40; t += 4) {
        const float tf = static_cast<float>(t);
        recording.samples.push_back(sample(t, 2 * tf, tf * tf / 10, t == 0 ? D : (t == 40 ? U : M)));
    }
    const Batching batching = Batcher(4).cut(recording.samples);  // newest samples at 12, 28, 40 (pen-up)
    const SteadyTime start = std::chrono::steady_clock::now();
    std::vector<SendRecord> sends(batching.batches.size(), SendRecord{true, start});
    auto callback = [&](uint64_t base, std::vector<PredictedStylusCoordinate> coordinates, int64_t latencyUs = 50) {
        CallbackRecord record;
        record.timestamp = base;
        record.coordinates = std::move(coordinates);
        record.modelLatencyUs = latencyUs;
        record.receivedAt = start + std::chrono::microseconds(250);
        return record;
    };
    PredictionEvaluator evaluator(0.5, 4, 4);  // due at 32, 36, 40 and 44: the one at 40 was dropped
    const auto results = evaluator.evaluate(
        recording, batching, sends, {callback(28, {{32, 64 + 3, 102.4f + 4}, {36, 72, 130}, {44, 88, 190}}, 80)});
    ASSERT_EQ(results.size(), 4u);
    EXPECT_EQ(results[0].batch, 1u);
    EXPECT_EQ(results[0].horizonMs, 4);
    EXPECT_NEAR(results[0].errorMm, 2.5, 1e-4);  // (3, 4) px
    // Constant velocity from t=24 and t=28: y 78.4 + 20.8 = 99.2 against 102.4; x exact.
    ASSERT_TRUE(results[0].hasBaseline);
    EXPECT_NEAR(results[0].baselineY, 99.2, 1e-4);
    EXPECT_NEAR(results[0].baselineErrorMm, 1.6, 1e-4);
    EXPECT_NEAR(results[1].truthY, 129.6, 1e-4);
    EXPECT_NEAR(results[1].errorMm, 0.2, 1e-4);
    EXPECT_TRUE(results[2].dropped);
    EXPECT_EQ(results[3].where, TruthPoint::Where::PastEnd);
    const ReplayTotals& totals = evaluator.totals();
    EXPECT_EQ(std::make_tuple(totals.counts.batches, totals.counts.strokes, totals.counts.predictedBatches,
                              totals.counts.predictions, totals.counts.measuredPredictions, totals.counts.pastStrokeEnd),
              std::make_tuple(3u, 1u, 1u, 3u, 2u, 1u));
    EXPECT_EQ(std::make_tuple(totals.horizons.at(16).pastStrokeEnd, totals.horizons.at(16).model.count(),
                              totals.horizons.at(4).model.count(), totals.horizons.at(4).constantVelocity.count()),
              std::make_tuple(1u, 0u, 1u, 1u));
    EXPECT_DOUBLE_EQ(totals.sendToCallbackUs.median(), 250.0);
    EXPECT_DOUBLE_EQ(totals.modelLatencyUs.median(), 80.0);

    // A callback for a refused batch, a repeated one and an unknown one belong to no batch.
    sends[0].accepted = false;
    PredictionEvaluator second(0.5, 4, 1);
    const auto matched = second.evaluate(recording, batching, sends,
                                         {callback(12, {{16, 32, 0}}), callback(28, {{32, 64, 0}}),
                                          callback(28, {{32, 64, 0}}), callback(999, {})});
    ASSERT_EQ(matched.size(), 1u);
    EXPECT_EQ(matched[0].batch, 1u);
    const ReplayCounts& counts = second.totals().counts;
    EXPECT_EQ(std::make_tuple(counts.refusedBatches, counts.predictedBatches, counts.unmatchedCallbacks),
              std::make_tuple(1u, 1u, 3u));
    EXPECT_THROW(second.evaluate(recording, batching, {}, {}), std::invalid_argument);
}

namespace {

// Replays one callback whose base is the sample at `base` and which delivers every due point exactly
// where the pen went (or (0, 0) past the stroke's end); the recording is one stroke, cut in batches of 1.
std::vector<PointResult> oneCallback(const std::vector<StylusTouchPoint>& stroke, uint64_t base, int stepMs,
                                     int count, double mmPerPixel = 1.0) {
    Recording recording;
    recording.samples = stroke;
    const Batching batching = Batcher(1).cut(recording.samples);
    const std::vector<SendRecord> sends(batching.batches.size(), SendRecord{true, {}});
    CallbackRecord callback;
    callback.timestamp = base;
    return PredictionEvaluator(mmPerPixel, stepMs, count).evaluate(recording, batching, sends, {callback});
}

}  // namespace

// Known answers of both baselines, least squares worked out by hand: slope = sum((t - mean t)(x - mean x))
// / sum((t - mean t)^2) over the last three samples, added to the newest sample times the horizon.
TEST(PredictionEvaluatorTest, BaselinesOnStrokesWithKnownAnswers) {
    const struct {
        const char* name;
        std::vector<StylusTouchPoint> stroke;
        uint64_t base;
        int horizonMs;
        bool hasCv;
        double cvX, cvY, lsX, lsY, truthX;
    } cases[] = {
        // x = 3t, y = -2t: both exact, whatever the spacing.
        {"constant velocity", {sample(0, 0, 0, D), sample(4, 12, -8), sample(8, 24, -16), sample(12, 36, -24),
                               sample(16, 48, -32)}, 8, 8, true, 48, -32, 48, -32, 48},
        {"uneven steps", {sample(0, 0, 0, D), sample(3, 9, -6), sample(10, 30, -20), sample(12, 36, -24),
                          sample(17, 51, -34)}, 12, 5, true, 51, -34, 51, -34, 51},
        // x = t^2 / 10 sampled at 0, 4, 8: CV slope 1.2, least-squares slope 25.6 / 32 = 0.8; truth 14.4 at 12.
        {"constant acceleration", {sample(0, 0, 5, D), sample(4, 1.6f, 5), sample(8, 6.4f, 5), sample(12, 14.4f, 5)},
         8, 4, true, 11.2, 5, 9.6, 5, 14.4},
        // Of samples sharing a timestamp the last counts: x 0, 4, 8 at 0, 4, 8 (the 100 at t = 4 is replaced).
        {"repeated timestamp", {sample(0, 0, 0, D), sample(4, 100, 0), sample(4, 4, 0), sample(8, 8, 0),
                                sample(12, 12, 0)}, 8, 4, true, 12, 0, 12, 0, 12},
        // Two samples: least squares is the constant velocity. One sample: no velocity, the pen stays.
        {"two samples", {sample(0, 0, 0, D), sample(4, 2, 1), sample(8, 4, 2)}, 4, 4, true, 4, 2, 4, 2, 4},
        {"one sample", {sample(0, 7, 9, D), sample(4, 8, 9)}, 0, 4, false, 0, 0, 7, 9, 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<PointResult> results = oneCallback(c.stroke, c.base, c.horizonMs, 1, 0.5);
        ASSERT_EQ(results.size(), 1u);
        const PointResult& r = results[0];
        ASSERT_EQ(r.where, TruthPoint::Where::Inside);
        EXPECT_TRUE(r.dropped);  // the callback delivered nothing
        EXPECT_NEAR(r.truthX, c.truthX, 1e-5);
        EXPECT_EQ(r.hasBaseline, c.hasCv);
        if (c.hasCv) {
            EXPECT_NEAR(r.baselineX, c.cvX, 1e-5);
            EXPECT_NEAR(r.baselineY, c.cvY, 1e-5);
            EXPECT_NEAR(r.baselineErrorMm, 0.5 * std::hypot(c.cvX - r.truthX, c.cvY - r.truthY), 1e-5);
        }
        EXPECT_NEAR(r.lsX, c.lsX, 1e-5);
        EXPECT_NEAR(r.lsY, c.lsY, 1e-5);
        EXPECT_NEAR(r.lsErrorMm, 0.5 * std::hypot(c.lsX - r.truthX, c.lsY - r.truthY), 1e-5);
    }
}

// A line x = t px (0.5 mm per pixel) sampled every 4 ms up to its pen-up at 40. Callbacks are due four
// points each, 4 ms apart; the model's points lie (3, 4) px off the pen, 2.5 mm.
TEST(PredictionEvaluatorTest, PointSetsDropsAndRecordingAveragesAreKeptApart) {
    Recording line;
    for (uint64_t t = 0; t <= 40; t += 4) {
        line.samples.push_back(sample(t, static_cast<float>(t), 0, t == 0 ? D : (t == 40 ? U : M)));
    }
    line.path = "dir/line.csv";
    const Batching batching = Batcher(4).cut(line.samples);  // newest samples at 12, 28, 40
    const std::vector<SendRecord> sends(batching.batches.size(), SendRecord{true, {}});
    const auto callback = [](uint64_t base, std::vector<uint64_t> delivered, float scale) {
        CallbackRecord record;
        record.timestamp = base;
        for (const uint64_t t : delivered) {
            record.coordinates.push_back({t, static_cast<float>(t) + 3 * scale, 4 * scale});
        }
        return record;
    };
    PredictionEvaluator evaluator(0.5, 4, 4);
    // At 28: 36 and 40 dropped inside the stroke, 44 delivered past its end. At 40 (the pen-up): all
    // four dropped past the end.
    const auto results = evaluator.evaluate(
        line, batching, sends,
        {callback(12, {16, 20, 24, 28}, 1), callback(28, {32, 44}, 1), callback(40, {}, 1)});
    ASSERT_EQ(results.size(), 12u);
    EXPECT_EQ(std::make_tuple(results[5].timestamp, results[5].dropped, results[5].errorMm),
              std::make_tuple(uint64_t{36}, true, 4.0));  // the pen shown at 28 while it is at 36: 8 px
    EXPECT_EQ(std::make_tuple(results[6].timestamp, results[6].dropped, results[6].errorMm),
              std::make_tuple(uint64_t{40}, true, 6.0));

    // A second recording of the same line, one callback whose points lie (6, 8) px off: 5 mm.
    Recording copy = line;
    copy.path = "other.csv";
    evaluator.evaluate(copy, batching, sends, {callback(12, {16, 20, 24, 28}, 2)});

    const auto& counts = evaluator.totals().counts;
    EXPECT_EQ(std::make_tuple(counts.predictions, counts.pastStrokeEnd, counts.droppedInside, counts.droppedPastEnd),
              std::make_tuple(std::size_t{10}, std::size_t{1}, std::size_t{2}, std::size_t{4}));
    ReplayConfig config;
    config.numPredictions = 4;
    const ReplaySummary summary = ReplaySummary::make(evaluator.totals(), config);
    ASSERT_EQ(summary.recordings.size(), 2u);
    ASSERT_EQ(summary.horizons.size(), 4u);
    // horizon, set, count, recordings, model mean (mm), both baselines exact on a line
    const struct {
        std::size_t horizon;
        bool charged;
        const std::vector<HorizonSummary>* rows;
        std::size_t count, recordings;
        double modelMean;
    } expected[] = {
        {0, false, &summary.recordings[0].horizons, 2, 1, 2.5},    // 16 and 32
        {1, false, &summary.recordings[0].horizons, 1, 1, 2.5},    // 36 dropped: not a common point
        {1, true, &summary.recordings[0].horizons, 2, 1, 3.25},    // ... but charged 4 mm
        {2, true, &summary.recordings[0].horizons, 2, 1, 4.25},    // 40 charged 6 mm
        {3, true, &summary.recordings[0].horizons, 1, 1, 2.5},     // 44 past the end: in no set
        {0, false, &summary.horizons, 3, 2, (2.5 + 2.5 + 5) / 3},  // pooled: each point weighs the same
        {0, false, &summary.macroAverage, 3, 2, (2.5 + 5) / 2},    // macro: each recording weighs the same
        {1, true, &summary.macroAverage, 3, 2, (3.25 + 5) / 2},
    };
    for (const auto& e : expected) {
        SCOPED_TRACE(::testing::Message() << "horizon " << e.horizon << (e.charged ? " charged" : " common"));
        const HorizonSummary& h = (*e.rows)[e.horizon];
        const PointSetSummary& set = e.charged ? h.charged : h.common;
        EXPECT_EQ(std::make_pair(set.count, set.recordings), std::make_pair(e.count, e.recordings));
        EXPECT_NEAR(set.model.mean, e.modelMean, 1e-5);
        EXPECT_NEAR(set.constantVelocity.p95, 0.0, 1e-5);
        EXPECT_NEAR(set.leastSquares.p95, 0.0, 1e-5);
    }
    const HorizonSummary& last = summary.recordings[0].horizons[3];
    EXPECT_EQ(std::make_tuple(last.predictions, last.pastStrokeEnd, last.droppedInside, last.droppedPastEnd),
              std::make_tuple(std::size_t{2}, std::size_t{1}, std::size_t{0}, std::size_t{1}));

    // Dropped points are no rows of the predictions file; the least-squares columns, then the model's
    // overshoot: 44 lands at x 47, 7 px past the lift at 40 along the line, 3.5 mm.
    std::ostringstream csv;
    PredictionCsv::writeHeader(csv);
    PredictionCsv::write(csv, line.path, std::vector<PointResult>(results.begin() + 4, results.begin() + 8));
    EXPECT_EQ(csv.str(),
              std::string(PredictionCsv::header) + "\n"
              "dir/line.csv,0,28,32,4,35.0000,4.0000,32.0000,0.0000,2.50000,32.0000,0.0000,0.00000,inside,"
              "32.0000,0.0000,0.00000,\n"
              "dir/line.csv,0,28,44,16,47.0000,4.0000,,,,44.0000,0.0000,,past_end,44.0000,0.0000,,3.50000\n");
    EXPECT_EQ(std::string(PredictionCsv::header).substr(std::string(PredictionCsv::header).rfind(",where")),
              ",where,ls_x,ls_y,ls_error_mm,overshoot_mm");
}

TEST(RecordingReaderTest, ReadsWhatTheRecorderWritesByteForByte) {
    testsupport::TempDir dir;
    StylusTouchPoint p = sample(1700000000123ULL, 512.25f, 300.0f, D);
    p.pressure = 0.453125f;
    p.tilt = 0.7853982f;
    p.orientation = 1.5707964f;
    EXPECT_EQ(RecordingWriter::row(p), "1700000000123,512.2500000,300.0000000,0.4531250,0.7853982,1.5707964,0\n");
    const std::vector<StylusTouchPoint> samples = {p, sample(1700000000127ULL, -0.25f, 1.0f, -1)};
    RecordingWriter::write(dir.file("a.csv"), samples);
    EXPECT_EQ(testsupport::readFile(dir.file("a.csv")).substr(0, header.size()), header);
    const Recording back = RecordingReader::read(dir.file("a.csv"));
    ASSERT_EQ(back.samples.size(), 2u);
    EXPECT_EQ(std::make_tuple(back.samples[0].timestamp, back.samples[0].pressure, back.samples[0].orientation,
                              back.samples[1].x_pos, back.samples[1].tag),
              std::make_tuple(p.timestamp, p.pressure, p.orientation, -0.25f, -1));

    // Windows line ends, blank lines, spaces around fields and equal timestamps are accepted.
    testsupport::writeFile(dir.file("b.csv"), std::string(recordingformat::kHeader) +
                                                  "\r\n5, 1.5 ,2,0,0,0,0\r\n\r\n5,1e1,2,0,0,0,2\r\n");
    const Recording loose = RecordingReader::read(dir.file("b.csv"));
    ASSERT_EQ(loose.samples.size(), 2u);
    EXPECT_EQ(std::make_pair(loose.samples[0].x_pos, loose.samples[1].x_pos), std::make_pair(1.5f, 10.0f));
}

// A file the tool cannot read at all is an error naming it; a row it cannot use is left out and
// reported with its file and line, and every other row is read.
TEST(RecordingReaderTest, BadInputNamesFileAndLine) {
    testsupport::TempDir dir;
    const std::string path = dir.file("bad.csv");
    EXPECT_EQ(errorOf(dir.file("missing.csv")),
              dir.file("missing.csv") + ": cannot open the recording (No such file or directory)");
    const std::string quoted = "\"" + header.substr(0, header.size() - 1) + "\"";
    const std::string wrong = "timestamp,x,y,pressure,tilt,orientation,tag";
    const std::pair<std::string, std::string> files[] = {
        {"", ":1: empty file, expected the header " + quoted},
        {wrong + "\n0,1,2,0,0,0,0\n", ":1: wrong header \"" + wrong + "\", expected " + quoted},
    };
    for (const auto& [content, message] : files) {
        testsupport::writeFile(path, content);
        EXPECT_EQ(errorOf(path), path + message);
    }
    const std::string good = "0,1,2,0,0,0,0\n";
    const std::string last = "9,1,2,0,0,0,2\n";
    const std::pair<std::string, std::string> rows[] = {
        {"4,1,2,0,0,0\n", ":3: malformed row \"4,1,2,0,0,0\": expected 7 fields, found 6"},
        {"4,1,2,0,0,0,2,\n", ":3: malformed row \"4,1,2,0,0,0,2,\": expected 7 fields, found 8"},
        {"\n4,1,abc,0,0,0,2\n", ":4: malformed row: y_pos \"abc\" is not a finite number"},
        {"1,1,2,0,0,nan,0\n", ":3: malformed row: orientation \"nan\" is not a finite number"},
        {"1,1,2,0,0,-inf,0\n", ":3: malformed row: orientation \"-inf\" is not a finite number"},
        {"-4,1,2,0,0,0,0\n", ":3: malformed row: timestamp \"-4\" is not a whole non-negative number of milliseconds"},
        {"1,1,2,0,0,0,2.5\n", ":3: malformed row: tag \"2.5\" is not an integer"},
        {"8,1,2,0,0,0,2\n\n5,1,2,0,0,0,2\n", ":5: timestamp 5 goes backwards (line 3 has 8)"},
    };
    for (const auto& [bad, message] : rows) {
        SCOPED_TRACE(bad);
        testsupport::writeFile(path, header + good + bad + last);
        const Recording recording = RecordingReader::read(path);
        EXPECT_EQ(recording.skippedRows, std::vector<std::string>{path + message});
        ASSERT_GE(recording.samples.size(), 2u);
        EXPECT_EQ(recording.samples.front().timestamp, 0u);
        EXPECT_EQ(recording.samples.back().timestamp, 9u);
    }
}

TEST(ReplayConfigTest, ReadsTheUnitsAndStepOrKeepsDefaults) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir.file("c.json"),
                           "{\"Pipeline\": {\"QueueFullPolicy\": \"Reject Newest\"}, \"PredictionModel\": "
                           "{\"pixel_per_inch\": 254, \"prediction_time_delta_ms\": 5, \"num_predictions\": 3, "
                           "\"target_event_count\": 120}}");
    const ReplayConfig config = ReplayConfig::load(dir.file("c.json"));
    EXPECT_DOUBLE_EQ(config.mmPerPixel(), 0.1);
    EXPECT_EQ(std::make_tuple(config.predictionStepMs, config.numPredictions, config.queueFullPolicy),
              std::make_tuple(5, 3, std::string("Reject Newest")));
    EXPECT_EQ(config.targetEventCount, 120u);
    testsupport::writeFile(dir.file("empty.json"), "{}");
    const ReplayConfig defaults = ReplayConfig::load(dir.file("empty.json"));
    EXPECT_DOUBLE_EQ(defaults.mmPerPixel(), 25.4 / 213.0);
    EXPECT_EQ(std::make_tuple(defaults.predictionStepMs, defaults.queueFullPolicy, defaults.targetEventCount),
              std::make_tuple(4, std::string("Block"), 50000ull));
    testsupport::writeFile(dir.file("broken.json"), "{\n\"PredictionModel\": {\n");
    try {
        ReplayConfig::load(dir.file("broken.json"));
        ADD_FAILURE() << "no error";
    } catch (const ReplayError& error) {
        EXPECT_EQ(std::string(error.what()).rfind(dir.file("broken.json") + ":3: ", 0), 0u) << error.what();
    }
    EXPECT_THROW(ReplayConfig::load(dir.file("none.json")), ReplayError);
}

TEST(JsonSummaryTest, ListsEveryConfiguredHorizonWithBothMethods) {
    ReplayTotals totals;
    for (double v : {1.0, 2.0, 3.0}) {
        totals.horizons[4].model.add(v);
        totals.horizons[4].constantVelocity.add(2 * v);
    }
    totals.horizons[4].pastStrokeEnd = 1;
    ReplayConfig config;
    config.path = "dir/\"quoted\".json";
    config.numPredictions = 2;
    std::stringstream json;
    JsonSummary::write(json, ReplaySummary::make(totals, config));
    boost::property_tree::ptree tree;
    ASSERT_NO_THROW(boost::property_tree::read_json(json, tree)) << json.str();
    EXPECT_EQ(tree.get<std::string>("config"), "dir/\"quoted\".json");
    std::vector<boost::property_tree::ptree> horizons;
    for (const auto& entry : tree.get_child("horizons")) {
        horizons.push_back(entry.second);
    }
    ASSERT_EQ(horizons.size(), 2u);
    EXPECT_EQ(horizons[0].get<int>("ms"), 4);
    EXPECT_EQ(horizons[0].get<int>("past_stroke_end"), 1);
    EXPECT_DOUBLE_EQ(horizons[0].get<double>("model.mean_mm"), 2.0);
    EXPECT_DOUBLE_EQ(horizons[0].get<double>("model.p95_mm"), 2.9);
    EXPECT_DOUBLE_EQ(horizons[0].get<double>("constant_velocity.p95_mm"), 5.8);
    EXPECT_EQ(horizons[1].get<int>("ms"), 8);  // configured, nothing measured: no numbers
    EXPECT_EQ(horizons[1].get<std::string>("model.mean_mm"), "null");
    EXPECT_EQ(tree.get<std::string>("library_metrics"), "null");
}

// Whether the library's metrics file can be kept, and what "valid" means, reach both summaries.
TEST(LibraryMetricsTest, MetricsFileStateAndValidMeaningReachTextAndJson) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir.file("plain"), "");
    const MetricsFileState writable = MetricsFileState::check(dir.file("runningMetrics.txt"));
    EXPECT_EQ(std::make_tuple(writable.kept, writable.reason), std::make_tuple(true, std::string()));
    const std::vector<std::pair<std::string, std::string>> refused = {
        {dir.file("gone/runningMetrics.txt"), dir.file("gone") + ": No such file or directory"},
        {dir.file("plain/runningMetrics.txt"), dir.file("plain") + ": Not a directory"}};
    for (const auto& [path, reason] : refused) {
        const MetricsFileState state = MetricsFileState::check(path);
        EXPECT_EQ(std::make_tuple(state.path, state.kept, state.reason), std::make_tuple(path, false, reason));
    }

    // Both summaries say it; the text's lines are wrapped, so it is compared with blanks collapsed.
    const auto collapsed = [](const std::string& text) {
        std::istringstream words(text);
        std::string out;
        for (std::string word; words >> word;) {
            out += (out.empty() ? "" : " ") + word;
        }
        return out;
    };
    ReplaySummary summary = ReplaySummary::make(ReplayTotals{}, ReplayConfig{});
    summary.library.available = true;
    summary.library.targetEventCount = 120;
    for (const MetricsFileState& state : {writable, MetricsFileState::check(refused[0].first)}) {
        summary.library.file = state;
        std::ostringstream text;
        SummaryText::print(text, summary);
        const std::string expected = state.kept ? "metrics file kept in " + state.path
                                                : "metrics file cannot be kept here (" + state.reason +
                                                      "): the figures cover this run only";
        EXPECT_NE(collapsed(text.str()).find(expected), std::string::npos) << text.str();
        EXPECT_NE(collapsed(text.str()).find("valid means true once 120 points (PredictionModel.target_event_count) "
                                             "have been measured in all"),
                  std::string::npos);

        std::stringstream json;
        JsonSummary::write(json, summary);
        boost::property_tree::ptree tree;
        ASSERT_NO_THROW(boost::property_tree::read_json(json, tree)) << json.str();
        EXPECT_EQ(tree.get<std::string>("library_metrics.metrics_file.path"), state.path);
        EXPECT_EQ(tree.get<bool>("library_metrics.metrics_file.kept"), state.kept);
        EXPECT_EQ(tree.get<std::string>("library_metrics.metrics_file.reason"), state.kept ? "null" : state.reason);
        EXPECT_EQ(tree.get<unsigned>("library_metrics.target_event_count"), 120u);
        EXPECT_EQ(tree.get<std::string>("library_metrics.valid_means"), LibraryMetrics::validMeans(120));
    }
}

TEST(CommandLineTest, ParsesOptionsRejectsBadOnesAndExpandsDirectories) {
    const ReplayOptions options =
        CommandLine::parse({"--config", "c.json", "--batch-size=8", "--realtime", "--json", "s.json", "a.csv", "b"});
    EXPECT_EQ(options.configPath, "c.json");
    EXPECT_EQ(options.batchSize, 8);
    EXPECT_TRUE(options.realtime);
    EXPECT_EQ(options.jsonPath, "s.json");
    EXPECT_EQ(options.inputs, (std::vector<std::string>{"a.csv", "b"}));
    EXPECT_EQ(std::make_tuple(options.logPath, options.verbose), std::make_tuple(std::string(), false));
    EXPECT_EQ(CommandLine::parse({"--log=run.log", "a.csv"}).logPath, "run.log");
    EXPECT_TRUE(CommandLine::parse({"--verbose", "a.csv"}).verbose);
    const ReplayOptions withPeers = CommandLine::parse({"--peers", "--peers-file=p.json", "a.csv"});
    EXPECT_EQ(std::make_tuple(withPeers.peers, withPeers.peersPath), std::make_tuple(true, std::string("p.json")));
    EXPECT_EQ(std::make_tuple(options.peers, options.peersPath), std::make_tuple(false, std::string()));
    const std::vector<std::vector<std::string>> bad = {
        {"--peers-file", "p.json", "a.csv"},  // without --peers
        {"--peers", "--peers-file=", "a.csv"}, {"--peers=yes", "a.csv"},
        {"a.csv", "--batch-size", "0"}, {"a.csv", "--batch-size", "4x"}, {"a.csv", "--json"}, {"--frobnicate", "a.csv"},
        {"--realtime=1", "a.csv"},      {},
        {"--log", "x.log", "--verbose", "a.csv"},  // the log goes to one place
        {"--log=", "a.csv"}};
    for (const auto& args : bad) {
        EXPECT_THROW(CommandLine::parse(args), ReplayError) << ::testing::PrintToString(args);
    }
    EXPECT_TRUE(CommandLine::parse({"--help"}).help);
    EXPECT_EQ(CommandLine::parse({"--check-config", "device.json"}).checkConfigPath, "device.json");  // no recording
    EXPECT_THROW(CommandLine::parse({"--check-config"}), ReplayError);

    // Directories stand for the recordings in them.
    testsupport::TempDir dir;
    testsupport::writeFile(dir.file("b.dat"), header);
    testsupport::writeFile(dir.file("a.csv"), header);
    testsupport::writeFile(dir.file("notes.txt"), "");
    EXPECT_EQ(CommandLine::expandInputs({dir.path()}), (std::vector<std::string>{dir.file("a.csv"), dir.file("b.dat")}));
    EXPECT_THROW(CommandLine::expandInputs({dir.file("gone.csv")}), ReplayError);
    testsupport::TempDir empty;
    EXPECT_THROW(CommandLine::expandInputs({empty.path()}), ReplayError);
}

TEST(HandwritingGeneratorTest, DeterministicForASeedAndWritesTheShippedSample) {
    const std::vector<StylusTouchPoint> samples = HandwritingGenerator(GeneratorSettings{}).generate();
    std::ostringstream first, second, other;
    RecordingWriter::write(first, samples);
    RecordingWriter::write(second, HandwritingGenerator(GeneratorSettings{}).generate());
    GeneratorSettings seeded;
    seeded.seed = 2;
    RecordingWriter::write(other, HandwritingGenerator(seeded).generate());
    EXPECT_EQ(first.str(), second.str());
    EXPECT_NE(first.str(), other.str());
#ifdef STYLUS_REPLAY_SAMPLE
    // The shipped sample is what the generator writes with its defaults.
    EXPECT_EQ(testsupport::readFile(STYLUS_REPLAY_SAMPLE), first.str());
#endif
}
