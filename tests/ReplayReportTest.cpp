// The replay report's data: strokes stored compactly enough for every one to be kept, decoded by the
// page's script; histogram bins chosen from the values; one colour per predictor.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <set>
#include <string>

#include "Batcher.h"
#include "HtmlReport.h"
#include "PackedNumbers.h"
#include "ReportFigures.h"
#include "ReportPredictors.h"

using namespace replay;

namespace {

StylusTouchPoint sample(uint64_t t, float x, float y, int32_t tag) { return {t, x, y, 0, 0, 0, tag, {}}; }

PointResult point(std::size_t batch, int64_t horizonMs, TruthPoint::Where where, bool dropped) {
    PointResult r;
    r.batch = batch;
    r.horizonMs = horizonMs;
    r.where = where;
    r.dropped = dropped;
    r.lsX = r.lsY = std::numeric_limits<double>::quiet_NaN();
    return r;
}

}  // namespace

// Two strokes cut in batches of up to 2 (newest samples 1, 2 and 4), positions in 0.1 px steps. Heads:
// (predictorMask * 4 + where) * (numPredictions + 1) + k, with the mask bits model 1, LS 2, CV 4.
TEST(HtmlReportTest, EncodesEveryStrokeAsDeltasWithEachPredictorsGuessWhereThereIsOne) {
    ASSERT_EQ(std::string(reportPredictors()[0].key) + reportPredictors()[1].key + reportPredictors()[2].key,
              "modellscv");
    Recording recording;
    recording.samples = {sample(10, 1.0f, 0.0f, STYLUS_TAG_PEN_DOWN), sample(14, 2.5f, 0.5f, STYLUS_TAG_MOVE),
                         sample(18, 3.04f, -0.25f, STYLUS_TAG_PEN_UP), sample(30, 10.0f, 5.0f, STYLUS_TAG_PEN_DOWN),
                         sample(34, 10.2f, 5.0f, STYLUS_TAG_PEN_UP)};
    const Batching batching = Batcher(2).cut(recording.samples);
    ASSERT_EQ(batching.batches.size(), 3u);

    std::vector<PointResult> results;
    PointResult r = point(0, 4, TruthPoint::Where::Inside, false);  // every predictor, base (25, 5)
    std::tie(r.truthX, r.truthY, r.x, r.y, r.lsX, r.lsY) = std::make_tuple(2.8, 0.4, 2.9, 0.5, 3.0, 0.3);
    std::tie(r.hasBaseline, r.baselineX, r.baselineY) = std::make_tuple(true, 2.7, 0.6);
    results.push_back(r);
    r = point(0, 8, TruthPoint::Where::Inside, true);  // dropped inside, no CV: truth and LS
    std::tie(r.truthX, r.truthY, r.lsX, r.lsY) = std::make_tuple(3.04, -0.25, 3.3, 0.1);
    results.push_back(r);
    r = point(1, 4, TruthPoint::Where::PastEnd, false);  // no LS: model and CV from the base (30, -3)
    std::tie(r.x, r.y, r.hasBaseline, r.baselineX, r.baselineY) = std::make_tuple(3.5, -0.5, true, 3.2, -1.0);
    results.push_back(r);
    r = point(2, 8, TruthPoint::Where::BeforeStart, true);  // dropped outside, LS only, base (102, 50)
    std::tie(r.lsX, r.lsY) = std::make_tuple(10.4, 5.0);
    results.push_back(r);

    const auto strokes = HtmlReport::encode(recording, batching, results, 4, 2);
    ASSERT_EQ(strokes.size(), 2u);
    using Numbers = std::vector<int64_t>;
    const struct {
        std::size_t samples, batches;
        Numbers times, positions, points;
    } expected[] = {
        {3, 2, {0, 4, 4}, {10, 0, 15, 5, 5, -8}, {1, 2, 85, 3, -1, 1, 1, 2, -1, -1, 2, 32, 5, -8, 3, 4, 1, 1, 64, 5, -2, 2, -7}},
        {2, 1, {20, 4}, {100, 50, 2, 0}, {1, 1, 35, 2, 0}},
    };
    for (std::size_t s = 0; s < strokes.size(); ++s) {
        SCOPED_TRACE(s);
        EXPECT_EQ(strokes[s].sampleCount, expected[s].samples);
        EXPECT_EQ(strokes[s].batchCount, expected[s].batches);
        EXPECT_EQ(PackedNumbers::unpack(strokes[s].times), expected[s].times);
        EXPECT_EQ(PackedNumbers::unpack(strokes[s].samples), expected[s].positions);
        EXPECT_EQ(PackedNumbers::unpack(strokes[s].batches), expected[s].points);
    }

    // A stroke without a prediction is still kept; results of an unknown batch are left out.
    const auto empty = HtmlReport::encode(recording, batching, {point(7, 4, TruthPoint::Where::Inside, true)}, 4, 2);
    ASSERT_EQ(empty.size(), 2u);
    EXPECT_EQ(std::make_tuple(empty[0].batchCount, empty[0].batches, PackedNumbers::unpack(empty[1].samples)),
              std::make_tuple(std::size_t{0}, std::string(), Numbers{100, 50, 2, 0}));
}

TEST(HtmlReportTest, EveryPredictorHasItsOwnKeyColourAndMarker) {
    std::set<std::string> keys, colours;
    const std::set<std::string> markers = {"dot", "diamond", "square", "triangle", "star"};
    EXPECT_EQ(reportPredictors(true).size(), reportPredictors().size() + 4);  // the tuned peers
    for (const ReportPredictor& p : reportPredictors(true)) {
        const std::string key = p.key;
        EXPECT_TRUE(!key.empty() && std::all_of(key.begin(), key.end(), [](char c) { return std::isalpha(c); })) << key;
        EXPECT_TRUE(keys.insert(key).second) << key;
        EXPECT_TRUE(colours.insert(p.colour).second) << p.colour;
        EXPECT_EQ(markers.count(p.marker), 1u) << p.marker;
    }
    EXPECT_EQ(std::string(reportPredictors().front().key), "model");
}

// Exact bytes: small magnitudes of either sign in one byte, the rest seven bits a byte, low first.
TEST(PackedNumbersTest, ZigzagVarintsAndBase64) {
    const struct {
        int64_t value;
        std::string bytes;
    } cases[] = {
        {0, std::string(1, '\0')}, {1, "\x02"}, {-1, "\x01"}, {63, "\x7e"}, {-64, "\x7f"},
        {64, "\x80\x01"}, {-65, "\x81\x01"}, {300, "\xd8\x04"},
        {INT64_MAX, "\xfe\xff\xff\xff\xff\xff\xff\xff\xff\x01"}, {INT64_MIN, "\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01"},
    };
    std::string all;
    std::vector<int64_t> values;
    for (const auto& c : cases) {
        std::string bytes;
        PackedNumbers::append(bytes, c.value);
        EXPECT_EQ(bytes, c.bytes) << c.value;
        all += bytes;
        values.push_back(c.value);
    }
    EXPECT_EQ(PackedNumbers::unpack(all), values);
    EXPECT_TRUE(PackedNumbers::unpack("").empty());

    const std::pair<std::string, std::string> base64[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xff\x80", "/4A="},
        {std::string("\0\0\0", 3), "AAAA"}, {"\xfb\xef\xbe", "++++"},
    };
    for (const auto& [bytes, text] : base64) {
        EXPECT_EQ(PackedNumbers::base64(bytes), text);
    }
}

// Edges ascending; every value counted once; a tenth of a decade per bin past a tenfold range.
TEST(ReportFiguresTest, HistogramBinsComeFromTheValues) {
    const struct {
        std::vector<double> values;
        bool logarithmic;
        std::size_t filledBins;
    } cases[] = {
        {{}, false, 0},
        {{5, 5, 5}, false, 1},
        {{100, 150, 199}, false, 3},
        {{0, 0.5, 30}, true, 2},  // below 1 us: in the first bin
        {{50, 60, 5000, 400000}, true, 4},
        {{800, 800, 810, 900, 950, 20000, 31000}, true, 3},  // [794, 1000), [19953, 25119), [25119, 31623)
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.values));
        const ReportFigures::Bins bins = ReportFigures::latencyBins(c.values);
        EXPECT_EQ(bins.logarithmic, c.logarithmic);
        EXPECT_EQ(std::accumulate(bins.counts.begin(), bins.counts.end(), std::size_t{0}), c.values.size());
        EXPECT_EQ(static_cast<std::size_t>(std::count_if(bins.counts.begin(), bins.counts.end(),
                                                         [](std::size_t n) { return n > 0; })),
                  c.filledBins);
        if (c.values.empty()) {
            EXPECT_TRUE(bins.edges.empty());
            continue;
        }
        ASSERT_EQ(bins.edges.size(), bins.counts.size() + 1);
        EXPECT_LE(bins.edges.front(), std::max(1.0, c.values.front()));
        EXPECT_GE(bins.edges.back(), c.values.back());
        EXPECT_GT(bins.counts.back(), 0u);  // the range ends with the largest value
        for (std::size_t i = 1; i < bins.edges.size(); ++i) {
            EXPECT_GT(bins.edges[i], bins.edges[i - 1]);
            if (c.logarithmic) {
                EXPECT_NEAR(bins.edges[i] / bins.edges[i - 1], std::pow(10.0, 0.1), 1e-9);
            }
        }
        EXPECT_LE(bins.counts.size(), 60u);
    }
}
