// The replay tools' own logic: cutting recordings into batches, the real pen position at a
// predicted time, the error figures, and the messages for bad input.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cmath>
#include <sstream>

#include "Batcher.h"
#include "CommandLine.h"
#include "ErrorStats.h"
#include "HandwritingGenerator.h"
#include "JsonSummary.h"
#include "PredictionEvaluator.h"
#include "RecordingReader.h"
#include "RecordingWriter.h"
#include "ReplayConfig.h"
#include "ReplayError.h"
#include "ReplaySummary.h"
#include "TestSupport.h"
#include "TruthInterpolator.h"

using namespace replay;

namespace {

constexpr int32_t D = STYLUS_TAG_PEN_DOWN;
constexpr int32_t U = STYLUS_TAG_PEN_UP;
constexpr int32_t M = STYLUS_TAG_MOVE;

StylusTouchPoint sample(uint64_t t, float x, float y, int32_t tag = M) {
    StylusTouchPoint p{};
    p.timestamp = t;
    p.x_pos = x;
    p.y_pos = y;
    p.tag = tag;
    return p;
}

std::vector<StylusTouchPoint> tagged(const std::vector<int32_t>& tags) {
    std::vector<StylusTouchPoint> samples;
    for (std::size_t i = 0; i < tags.size(); ++i) {
        samples.push_back(sample(4 * i, 0.0f, 0.0f, tags[i]));
    }
    return samples;
}

// Batches as (first, count, stroke) triples, strokes as (first, count) pairs.
std::vector<std::vector<std::size_t>> batchesOf(const Batching& batching) {
    std::vector<std::vector<std::size_t>> result;
    for (const Batch& b : batching.batches) {
        result.push_back({b.first, b.count, b.stroke});
    }
    return result;
}

std::vector<std::vector<std::size_t>> strokesOf(const Batching& batching) {
    std::vector<std::vector<std::size_t>> result;
    for (const Stroke& s : batching.strokes) {
        result.push_back({s.first, s.count});
    }
    return result;
}

using Rows = std::vector<std::vector<std::size_t>>;

std::string errorOf(const std::string& path) {
    try {
        RecordingReader::read(path);
    } catch (const ReplayError& error) {
        return error.what();
    }
    return "(no error)";
}

const std::string header = "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag\n";

}  // namespace

TEST(BatcherTest, CutsStrokesIntoBatchesOfFourAndEndsOneAtPenUp) {
    const Batching b = Batcher(4).cut(tagged({D, M, M, M, M, M, M, M, M, U}));
    EXPECT_EQ(batchesOf(b), (Rows{{0, 4, 0}, {4, 4, 0}, {8, 2, 0}}));
    EXPECT_EQ(strokesOf(b), (Rows{{0, 10}}));
}

TEST(BatcherTest, PenDownAlwaysOpensABatchAndPenUpAlwaysClosesOne) {
    // A three-sample stroke, a stroke whose pen-up falls on a batch end, one left open at the end.
    const Batching b = Batcher(4).cut(tagged({D, M, U, D, M, M, U, D, M, M, M, M}));
    EXPECT_EQ(batchesOf(b), (Rows{{0, 3, 0}, {3, 4, 1}, {7, 4, 2}, {11, 1, 2}}));
    EXPECT_EQ(strokesOf(b), (Rows{{0, 3}, {3, 4}, {7, 5}}));
}

TEST(BatcherTest, SamplesWithoutPenDownFormTheirOwnStroke) {
    // A recording that starts mid-stroke, a pen-down without a pen-up before it, moves after a pen-up.
    const Batching b = Batcher(4).cut(tagged({M, M, M, M, M, D, M, U, M, M}));
    EXPECT_EQ(batchesOf(b), (Rows{{0, 4, 0}, {4, 1, 0}, {5, 3, 1}, {8, 2, 2}}));
    EXPECT_EQ(strokesOf(b), (Rows{{0, 5}, {5, 3}, {8, 2}}));
}

TEST(BatcherTest, BoundariesOnlyOpenOrCloseBatchesOfAnySizeOnTheSample) {
    const std::vector<StylusTouchPoint> samples = HandwritingGenerator(GeneratorSettings{}).generate();
    for (int size = 1; size <= 6; ++size) {
        SCOPED_TRACE("batch size " + std::to_string(size));
        const Batching b = Batcher(size).cut(samples);
        std::size_t next = 0;
        for (const Batch& batch : b.batches) {
            ASSERT_EQ(batch.first, next);
            ASSERT_GE(batch.count, 1u);
            ASSERT_LE(batch.count, static_cast<std::size_t>(size));
            const Stroke& stroke = b.strokes[batch.stroke];
            ASSERT_GE(batch.first, stroke.first);
            ASSERT_LE(batch.first + batch.count, stroke.first + stroke.count);
            for (std::size_t i = batch.first; i < batch.first + batch.count; ++i) {
                if (samples[i].tag == D) {
                    ASSERT_EQ(i, batch.first);
                }
                if (samples[i].tag == U) {
                    ASSERT_EQ(i, batch.first + batch.count - 1);
                }
            }
            next = batch.first + batch.count;
        }
        EXPECT_EQ(next, samples.size());
    }
    EXPECT_THROW(Batcher(0), std::invalid_argument);
}

TEST(TruthInterpolatorTest, InterpolatesInsideTheStrokeAndReportsOutside) {
    const std::vector<StylusTouchPoint> stroke = {sample(100, 0, 0, D), sample(110, 10, 0), sample(120, 10, 20, U)};
    const TruthInterpolator truth(stroke.data(), stroke.size());
    const struct {
        uint64_t t;
        double x, y;
    } inside[] = {{100, 0, 0}, {105, 5, 0}, {110, 10, 0}, {115, 10, 10}, {118, 10, 16}, {120, 10, 20}};
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

TEST(TruthInterpolatorTest, LaterSampleOfASharedTimestampCounts) {
    const std::vector<StylusTouchPoint> stroke = {sample(0, 0, 0), sample(10, 4, 4), sample(10, 10, 0),
                                                  sample(20, 20, 0)};
    const TruthInterpolator truth(stroke.data(), stroke.size());
    EXPECT_DOUBLE_EQ(truth.at(10).x, 10.0);
    EXPECT_DOUBLE_EQ(truth.at(10).y, 0.0);
    EXPECT_DOUBLE_EQ(truth.at(15).x, 15.0);
    EXPECT_DOUBLE_EQ(truth.at(5).x, 2.0);  // toward the first sample at 10, as the data gives it
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

class PredictionEvaluatorTest : public ::testing::Test {
protected:
    // x = 2t px along a line, y = t^2 / 10 px bending away, samples every 4 ms from 0 to 40.
    void SetUp() override {
        recording.path = "curve.csv";
        for (uint64_t t = 0; t <= 40; t += 4) {
            const float tf = static_cast<float>(t);
            recording.samples.push_back(sample(t, 2 * tf, tf * tf / 10, t == 0 ? D : (t == 40 ? U : M)));
        }
        batching = Batcher(4).cut(recording.samples);  // newest samples at 12, 28, 40 (pen-up)
        sends.assign(batching.batches.size(), SendRecord{true, start});
    }

    CallbackRecord callback(uint64_t base, std::vector<PredictedStylusCoordinate> coordinates,
                            int64_t modelLatencyUs = 50, int afterUs = 0) {
        CallbackRecord record;
        record.timestamp = base;
        record.coordinates = std::move(coordinates);
        record.modelLatencyUs = modelLatencyUs;
        record.receivedAt = start + std::chrono::microseconds(afterUs);
        return record;
    }

    static double truthY(double t) { return t * t / 10; }

    const SteadyTime start = std::chrono::steady_clock::now();
    Recording recording;
    Batching batching;
    std::vector<SendRecord> sends;
    PredictionEvaluator evaluator{0.5};  // 0.5 mm per pixel keeps the numbers readable
};

TEST_F(PredictionEvaluatorTest, MeasuresAgainstTheStrokeAndCountsPastEndApart) {
    const auto results = evaluator.evaluate(
        recording, batching, sends,
        {callback(28, {{32, 64 + 3, static_cast<float>(truthY(32)) + 4}, {36, 72, 130}, {44, 88, 190}}, 80, 250)});
    ASSERT_EQ(results.size(), 3u);
    EXPECT_EQ(results[0].batch, 1u);
    EXPECT_EQ(results[0].horizonMs, 4);
    EXPECT_NEAR(results[0].errorMm, 2.5, 1e-4);  // (3, 4) px
    // Constant velocity from t=24 and t=28: y 78.4 + 20.8 = 99.2 against 102.4; x exact.
    ASSERT_TRUE(results[0].hasBaseline);
    EXPECT_NEAR(results[0].baselineY, 99.2, 1e-4);
    EXPECT_NEAR(results[0].baselineErrorMm, 1.6, 1e-4);
    EXPECT_NEAR(results[1].truthY, 129.6, 1e-4);
    EXPECT_NEAR(results[1].errorMm, 0.2, 1e-4);
    EXPECT_EQ(results[2].where, TruthPoint::Where::PastEnd);

    const ReplayTotals& totals = evaluator.totals();
    EXPECT_EQ(totals.counts.predictedBatches, 1u);
    EXPECT_EQ(totals.counts.predictions, 3u);
    EXPECT_EQ(totals.counts.measuredPredictions, 2u);
    EXPECT_EQ(totals.counts.pastStrokeEnd, 1u);
    EXPECT_EQ(totals.counts.batches, 3u);
    EXPECT_EQ(totals.counts.strokes, 1u);
    EXPECT_EQ(totals.horizons.at(16).pastStrokeEnd, 1u);
    EXPECT_EQ(totals.horizons.at(16).model.count(), 0u);
    EXPECT_EQ(totals.horizons.at(4).model.count(), 1u);
    EXPECT_EQ(totals.horizons.at(4).constantVelocity.count(), 1u);
    EXPECT_DOUBLE_EQ(totals.sendToCallbackUs.median(), 250.0);
    EXPECT_DOUBLE_EQ(totals.modelLatencyUs.median(), 80.0);
}

TEST_F(PredictionEvaluatorTest, MatchesCallbacksToAcceptedBatchesInOrder) {
    sends[0].accepted = false;  // refused: a callback with its timestamp belongs to no batch
    const auto results = evaluator.evaluate(recording, batching, sends,
                                            {callback(12, {{16, 32, 0}}), callback(28, {{32, 64, 0}}),
                                             callback(28, {{32, 64, 0}}), callback(999, {})});
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].batch, 1u);
    EXPECT_EQ(evaluator.totals().counts.refusedBatches, 1u);
    EXPECT_EQ(evaluator.totals().counts.predictedBatches, 1u);
    EXPECT_EQ(evaluator.totals().counts.unmatchedCallbacks, 3u);
    EXPECT_THROW(evaluator.evaluate(recording, batching, {}, {}), std::invalid_argument);
}

TEST_F(PredictionEvaluatorTest, NoBaselineWithoutAnEarlierSampleAtAnotherTime) {
    Recording duplicated;
    duplicated.samples = {sample(0, 0, 0, D), sample(0, 1, 0), sample(8, 8, 0)};
    const Batching one = Batcher(4).cut(duplicated.samples);
    Recording single;
    single.samples = {sample(0, 0, 0, D), sample(4, 4, 0)};
    const Batching first = Batcher(1).cut(single.samples);
    const auto results = evaluator.evaluate(duplicated, one, {SendRecord{true, start}}, {callback(8, {{8, 8, 0}})});
    ASSERT_EQ(results.size(), 1u);
    EXPECT_TRUE(results[0].hasBaseline);  // from the later sample at 0 to the one at 8
    const auto none = evaluator.evaluate(single, first, {SendRecord{true, start}, SendRecord{true, start}},
                                         {callback(0, {{4, 4, 0}})});
    ASSERT_EQ(none.size(), 1u);
    EXPECT_FALSE(none[0].hasBaseline);
    EXPECT_EQ(evaluator.totals().horizons.at(4).model.count(), 1u);
    EXPECT_EQ(evaluator.totals().horizons.at(4).constantVelocity.count(), 0u);
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
    EXPECT_EQ(back.samples[0].timestamp, p.timestamp);
    EXPECT_EQ(back.samples[0].pressure, p.pressure);
    EXPECT_EQ(back.samples[1].x_pos, -0.25f);
    EXPECT_EQ(back.samples[1].tag, -1);

    // Windows line ends, blank lines, spaces around fields and equal timestamps are accepted.
    testsupport::writeFile(dir.file("b.csv"), "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag\r\n"
                                              "5, 1.5 ,2,0,0,0,0\r\n\r\n5,1e1,2,0,0,0,2\r\n");
    const Recording loose = RecordingReader::read(dir.file("b.csv"));
    ASSERT_EQ(loose.samples.size(), 2u);
    EXPECT_EQ(loose.samples[0].x_pos, 1.5f);
    EXPECT_EQ(loose.samples[1].x_pos, 10.0f);
}

TEST(RecordingReaderTest, BadInputNamesFileAndLine) {
    testsupport::TempDir dir;
    const std::string path = dir.file("bad.csv");
    EXPECT_EQ(errorOf(dir.file("missing.csv")),
              dir.file("missing.csv") + ": cannot open the recording (No such file or directory)");

    testsupport::writeFile(path, "");
    EXPECT_EQ(errorOf(path), path + ":1: empty file, expected the header \"" + header.substr(0, header.size() - 1) + "\"");

    testsupport::writeFile(path, "timestamp,x,y,pressure,tilt,orientation,tag\n0,1,2,0,0,0,0\n");
    EXPECT_EQ(errorOf(path), path + ":1: wrong header \"timestamp,x,y,pressure,tilt,orientation,tag\", expected \"" +
                                 header.substr(0, header.size() - 1) + "\"");

    const struct {
        std::string rows;
        std::string message;
    } cases[] = {
        {"0,1,2,0,0,0,0\n4,1,2,0,0,0\n", ":3: malformed row \"4,1,2,0,0,0\": expected 7 fields, found 6"},
        {"0,1,2,0,0,0,0\n4,1,2,0,0,0,2,\n", ":3: malformed row \"4,1,2,0,0,0,2,\": expected 7 fields, found 8"},
        {"0,1,2,0,0,0,0\n\n4,1,abc,0,0,0,2\n", ":4: malformed row: y_pos \"abc\" is not a finite number"},
        {"0,1,2,0,0,nan,0\n", ":2: malformed row: orientation \"nan\" is not a finite number"},
        {"-4,1,2,0,0,0,0\n",
         ":2: malformed row: timestamp \"-4\" is not a whole non-negative number of milliseconds"},
        {"0,1,2,0,0,0,2.5\n", ":2: malformed row: tag \"2.5\" is not an integer"},
        {"0,1,2,0,0,0,0\n8,1,2,0,0,0,2\n\n5,1,2,0,0,0,2\n", ":5: timestamp 5 goes backwards (line 3 has 8)"},
    };
    for (const auto& c : cases) {
        testsupport::writeFile(path, header + c.rows);
        EXPECT_EQ(errorOf(path), path + c.message);
    }
}

TEST(ReplayConfigTest, ReadsTheUnitsAndStepOrKeepsDefaults) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir.file("c.json"),
                           "{\"Pipeline\": {\"QueueFullPolicy\": \"Reject Newest\"}, \"PredictionModel\": "
                           "{\"pixel_per_inch\": 254, \"prediction_time_delta_ms\": 5, \"num_predictions\": 3}}");
    const ReplayConfig config = ReplayConfig::load(dir.file("c.json"));
    EXPECT_DOUBLE_EQ(config.mmPerPixel(), 0.1);
    EXPECT_EQ(config.predictionStepMs, 5);
    EXPECT_EQ(config.numPredictions, 3);
    EXPECT_EQ(config.queueFullPolicy, "Reject Newest");

    testsupport::writeFile(dir.file("empty.json"), "{}");
    const ReplayConfig defaults = ReplayConfig::load(dir.file("empty.json"));
    EXPECT_DOUBLE_EQ(defaults.mmPerPixel(), 25.4 / 213.0);
    EXPECT_EQ(defaults.predictionStepMs, 4);
    EXPECT_EQ(defaults.queueFullPolicy, "Block");

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
    totals.counts.recordings = 1;
    for (double v : {1.0, 2.0, 3.0}) {
        totals.horizons[4].model.add(v);
        totals.horizons[4].constantVelocity.add(2 * v);
    }
    totals.horizons[4].predictions = 4;
    totals.horizons[4].pastStrokeEnd = 1;
    ReplayConfig config;
    config.path = "dir/\"quoted\".json";
    config.numPredictions = 2;
    ReplaySummary summary = ReplaySummary::make(totals, config);
    summary.inputs = {"a.csv"};

    std::stringstream json;
    JsonSummary::write(json, summary);
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
    EXPECT_DOUBLE_EQ(horizons[0].get<double>("model.median_mm"), 2.0);
    EXPECT_DOUBLE_EQ(horizons[0].get<double>("model.p95_mm"), 2.9);
    EXPECT_DOUBLE_EQ(horizons[0].get<double>("constant_velocity.p95_mm"), 5.8);
    EXPECT_EQ(horizons[1].get<int>("ms"), 8);  // configured, nothing measured: no numbers
    EXPECT_EQ(horizons[1].get<int>("model.count"), 0);
    EXPECT_EQ(horizons[1].get<std::string>("model.mean_mm"), "null");
    EXPECT_EQ(tree.get<std::string>("library_metrics"), "null");
}

TEST(CommandLineTest, ParsesOptionsAndRejectsBadOnes) {
    const ReplayOptions options =
        CommandLine::parse({"--config", "c.json", "--batch-size=8", "--realtime", "--json", "s.json", "a.csv", "b"});
    EXPECT_EQ(options.configPath, "c.json");
    EXPECT_EQ(options.batchSize, 8);
    EXPECT_TRUE(options.realtime);
    EXPECT_EQ(options.jsonPath, "s.json");
    EXPECT_EQ(options.inputs, (std::vector<std::string>{"a.csv", "b"}));
    const std::vector<std::vector<std::string>> bad = {
        {"a.csv", "--batch-size", "0"}, {"a.csv", "--batch-size", "4x"}, {"a.csv", "--json"}, {"--frobnicate", "a.csv"},
        {"--realtime=1", "a.csv"},      {}};
    for (const auto& args : bad) {
        EXPECT_THROW(CommandLine::parse(args), ReplayError) << ::testing::PrintToString(args);
    }
    EXPECT_TRUE(CommandLine::parse({"--help"}).help);
}

TEST(CommandLineTest, DirectoriesStandForTheirRecordings) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir.file("b.dat"), header);
    testsupport::writeFile(dir.file("a.csv"), header);
    testsupport::writeFile(dir.file("notes.txt"), "");
    EXPECT_EQ(CommandLine::expandInputs({dir.path()}), (std::vector<std::string>{dir.file("a.csv"), dir.file("b.dat")}));
    EXPECT_THROW(CommandLine::expandInputs({dir.file("gone.csv")}), ReplayError);
    testsupport::TempDir empty;
    EXPECT_THROW(CommandLine::expandInputs({empty.path()}), ReplayError);
}

TEST(HandwritingGeneratorTest, DeterministicStrokesAtTwoHundredFortyHertz) {
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

    const Batching b = Batcher(4).cut(samples);
    ASSERT_GT(b.strokes.size(), 10u);
    const double mmPerPixel = 25.4 / 213.0;
    double fastest = 0.0;
    for (const Stroke& stroke : b.strokes) {
        ASSERT_GE(stroke.count, 2u);
        EXPECT_EQ(samples[stroke.first].tag, D);
        EXPECT_EQ(samples[stroke.first + stroke.count - 1].tag, U);
        for (std::size_t i = stroke.first + 1; i < stroke.first + stroke.count; ++i) {
            const uint64_t step = samples[i].timestamp - samples[i - 1].timestamp;
            ASSERT_TRUE(step == 4 || step == 5) << "step " << step << " at " << samples[i].timestamp;
            const double distance =
                std::hypot(samples[i].x_pos - samples[i - 1].x_pos, samples[i].y_pos - samples[i - 1].y_pos);
            fastest = std::max(fastest, distance * mmPerPixel / (static_cast<double>(step) / 1000.0));
            ASSERT_GE(samples[i].pressure, 0.0f);
            ASSERT_LE(samples[i].pressure, 1.0f);
        }
    }
    EXPECT_GT(fastest, 60.0);
    EXPECT_LT(fastest, 160.0);  // mm/s
}
