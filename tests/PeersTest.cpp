// The replay's peers: each predictor against answers worked out by hand, the smooth resampling, the
// peers file, the tuning tool on a small directory, and the overshoot past the lift the replay reports
// for every predictor.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include "Batcher.h"
#include "HandwritingGenerator.h"
#include "JsonSummary.h"
#include "PeerFile.h"
#include "PeerTuner.h"
#include "PredictionCsv.h"
#include "PredictionEvaluator.h"
#include "PredictorTable.h"
#include "RecordingWriter.h"
#include "ReportFigures.h"
#include "ReplayConfig.h"
#include "ReplaySummary.h"
#include "SmoothStroke.h"
#include "TestSupport.h"

using namespace replay;

namespace {

const peers::PredictorKind& kindOf(const std::string& key) {
    for (const peers::PredictorKind& kind : peers::predictorKinds()) {
        if (kind.key == key) {
            return kind;
        }
    }
    throw std::invalid_argument("no predictor " + key);
}

// Positions in mm at t seconds.
struct Motion {
    double x0, vx, ax, y0, vy, ay;
    double x(double t) const { return x0 + vx * t + ax * t * t / 2; }
    double y(double t) const { return y0 + vy * t + ay * t * t / 2; }
};

constexpr int32_t D = STYLUS_TAG_PEN_DOWN;
constexpr int32_t U = STYLUS_TAG_PEN_UP;
constexpr int32_t M = STYLUS_TAG_MOVE;

StylusTouchPoint sample(uint64_t t, float x, float y, int32_t tag = M) { return {t, x, y, 0, 0, 0, tag, {}}; }

}  // namespace

// Every predictor fed a short stroke with uneven steps, then asked for two horizons; tiny measurement
// noise makes the Kalman filters follow the samples, so once they have seen enough samples their guess
// is the motion's own polynomial.
TEST(PeerPredictorTest, KnownAnswersOnShortStrokes) {
    const Motion line{1.0, 30.0, 0.0, 2.0, -40.0, 0.0};            // mm, mm/s
    const Motion curve{5.0, 10.0, 1600.0, 3.0, -20.0, 600.0};      // mm/s^2 in x and y
    const std::vector<double> uneven = {0.0, 0.004, 0.009, 0.012, 0.016, 0.021, 0.025};
    const double newest = uneven.back();
    // What a line through the last two samples of the curve gives: slope (x(t6) - x(t5)) / 0.004.
    const auto chord = [&](double h, const std::function<double(double)>& f) {
        return f(newest) + (f(newest) - f(uneven[uneven.size() - 2])) / (newest - uneven[uneven.size() - 2]) * h;
    };
    const auto curveX = [&](double t) { return curve.x(t); };
    const auto curveY = [&](double t) { return curve.y(t); };
    const struct {
        const char* name;
        const char* key;
        std::vector<double> values;
        const Motion* motion;
        std::size_t samples;  // fed from the start of uneven
        std::function<double(double)> x, y;  // expected at h seconds after the newest sample fed
    } cases[] = {
        // A constant velocity: every predictor exact.
        {"cv baseline on a line", "constant_velocity", {}, &line, 7, nullptr, nullptr},
        {"least squares (3) on a line", "least_squares_3", {}, &line, 7, nullptr, nullptr},
        {"Kalman CV on a line", "kalman_constant_velocity", {1e5, 1e-6}, &line, 7, nullptr, nullptr},
        {"Kalman CA on a line", "kalman_constant_acceleration", {1e8, 1e-6}, &line, 7, nullptr, nullptr},
        {"LS linear on a line", "least_squares_linear", {5, 1.0}, &line, 7, nullptr, nullptr},
        {"LS quadratic on a line", "least_squares_quadratic", {6, 1.0}, &line, 7, nullptr, nullptr},
        // A constant acceleration: exact for the quadratic fit and the constant-acceleration filter,
        // whatever its process noise, from three samples on.
        {"Kalman CA on a curve", "kalman_constant_acceleration", {1e8, 1e-6}, &curve, 7, nullptr, nullptr},
        {"Kalman CA, other noise", "kalman_constant_acceleration", {1e4, 1e-6}, &curve, 3, nullptr, nullptr},
        {"LS quadratic on a curve", "least_squares_quadratic", {5, 1.0}, &curve, 7, nullptr, nullptr},
        {"LS quadratic, window of 3", "least_squares_quadratic", {3, 1.0}, &curve, 7, nullptr, nullptr},
        // A line through the last two samples, whatever the curve did before.
        {"cv baseline on a curve", "constant_velocity", {}, &curve, 7, [&](double h) { return chord(h, curveX); },
         [&](double h) { return chord(h, curveY); }},
        {"LS linear, window of 2", "least_squares_linear", {2, 1.0}, &curve, 7,
         [&](double h) { return chord(h, curveX); }, [&](double h) { return chord(h, curveY); }},
        // Damping scales the fitted displacement: half of it from the (exact) fitted newest point.
        {"LS linear damped", "least_squares_linear", {4, 0.5}, &line, 7,
         [&](double h) { return line.x(newest) + 0.5 * 30.0 * h; },
         [&](double h) { return line.y(newest) - 0.5 * 40.0 * h; }},
        {"LS quadratic damped", "least_squares_quadratic", {7, 0.5}, &curve, 7,
         [&](double h) { return curve.x(newest) + 0.5 * (curve.x(newest + h) - curve.x(newest)); },
         [&](double h) { return curve.y(newest) + 0.5 * (curve.y(newest + h) - curve.y(newest)); }},
        // Fewer samples than the degree needs: a quadratic through two samples is their line, one
        // sample stays where it is (t = 0 to 0.004 on the line).
        {"LS quadratic, two samples", "least_squares_quadratic", {6, 1.0}, &line, 2,
         [&](double h) { return line.x(0.004 + h); }, [&](double h) { return line.y(0.004 + h); }},
        {"LS quadratic, one sample", "least_squares_quadratic", {6, 1.0}, &curve, 1, [&](double) { return 5.0; },
         [&](double) { return 3.0; }},
        {"Kalman CA, one sample", "kalman_constant_acceleration", {1e8, 1e-6}, &curve, 1,
         [&](double) { return 5.0; }, [&](double) { return 3.0; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::unique_ptr<peers::StrokePredictor> predictor = kindOf(c.key).make(c.values);
        // Twice, the second time after a reset on another stroke: nothing of it may remain.
        for (int round = 0; round < 2; ++round) {
            predictor->reset();
            if (round == 1) {
                predictor->add(0.0, 500.0, -500.0);
                predictor->add(0.01, 800.0, 900.0);
                predictor->reset();
            }
            for (std::size_t i = 0; i < c.samples; ++i) {
                predictor->add(uneven[i], c.motion->x(uneven[i]), c.motion->y(uneven[i]));
            }
            const double last = uneven[c.samples - 1];
            for (const double h : {0.008, 0.020}) {
                double x = 0.0, y = 0.0;
                ASSERT_TRUE(predictor->predict(h, x, y));
                EXPECT_NEAR(x, c.x ? c.x(h) : c.motion->x(last + h), 1e-6) << "h " << h;
                EXPECT_NEAR(y, c.y ? c.y(h) : c.motion->y(last + h), 1e-6) << "h " << h;
            }
        }
    }
    // Without samples nothing guesses; the constant-velocity baseline needs two.
    for (const peers::PredictorKind& kind : peers::predictorKinds()) {
        SCOPED_TRACE(kind.key);
        const auto predictor = kind.make(kind.initialValues());
        double x = 0.0, y = 0.0;
        EXPECT_FALSE(predictor->predict(0.01, x, y));
        predictor->add(0.0, 1.0, 2.0);
        EXPECT_EQ(predictor->predict(0.01, x, y), kind.key != std::string("constant_velocity"));
    }
}

// Keys and CSV prefixes name one predictor each; baselines come first; untuned values lie in range.
TEST(PeerPredictorTest, TableRowsAreDistinctAndInRange) {
    std::set<std::string> keys, prefixes;
    bool tunedSeen = false;
    for (const peers::PredictorKind& kind : peers::predictorKinds()) {
        SCOPED_TRACE(kind.key);
        EXPECT_TRUE(keys.insert(kind.key).second);
        EXPECT_TRUE(prefixes.insert(kind.csvPrefix).second);
        EXPECT_FALSE(!kind.tuned && tunedSeen) << "a baseline after a tuned peer";
        tunedSeen = tunedSeen || kind.tuned;
        EXPECT_EQ(kind.parameters.empty(), !kind.tuned);
        for (const peers::Parameter& p : kind.parameters) {
            EXPECT_TRUE(p.min <= p.initial && p.initial <= p.max) << p.name;
            EXPECT_FALSE(p.logScale && p.min <= 0.0) << p.name;
        }
    }
    EXPECT_EQ(std::string(peers::predictorKinds()[0].key), "constant_velocity");
    EXPECT_EQ(std::string(peers::predictorKinds()[1].key), "least_squares_3");
    EXPECT_TRUE(tunedSeen);
}

// x = 1000 t^2 mm is a parabola, which the three-point slopes follow exactly between inner samples.
TEST(SmoothStrokeTest, ResamplesOnTheCurveWithTimesInWholeMilliseconds) {
    std::vector<peers::StrokeSample> samples;
    for (int ms = 0; ms <= 40; ms += 8) {
        const double t = ms / 1000.0;
        samples.push_back({t, 1000.0 * t * t, 7.0});
    }
    const peers::SmoothStroke stroke(samples);
    // 240 Hz: exact times 0, 4.17, 8.33, 12.5, 16.67, ... ms, reported as 0, 4, 8, 13, 17.
    const std::vector<peers::StrokeSample> resampled = stroke.resample(240.0);
    ASSERT_EQ(resampled.size(), 10u);  // up to 37.5 ms
    const double reported[] = {0.0, 0.004, 0.008, 0.013, 0.017, 0.021, 0.025, 0.029, 0.033, 0.038};
    for (std::size_t k = 0; k < resampled.size(); ++k) {
        SCOPED_TRACE(k);
        EXPECT_DOUBLE_EQ(resampled[k].t, reported[k]);
        const double exact = static_cast<double>(k) / 240.0;
        if (exact >= 0.008 && exact <= 0.032) {  // the ends use one-sided slopes
            EXPECT_NEAR(resampled[k].x, 1000.0 * exact * exact, 1e-9);  // where the pen was, not where reported
        }
        EXPECT_NEAR(resampled[k].y, 7.0, 1e-12);
    }
    // The samples themselves stay; outside the stroke the ends hold.
    EXPECT_NEAR(stroke.at(0.016).x, 0.256, 1e-12);
    EXPECT_NEAR(stroke.at(-1.0).x, 0.0, 1e-12);
    EXPECT_NEAR(stroke.at(1.0).x, 1.6, 1e-12);

    // As a host reports it: jittered times still whole ms and increasing, within the jitter and the
    // rounding of the exact time; positions on a 0.1 mm grid within noise of the curve; the same seed
    // the same samples, another seed others.
    const peers::SensorConditions conditions{0.02, 1.0, 0.1, 7};
    const std::vector<peers::StrokeSample> noisy = stroke.resample(240.0, conditions);
    EXPECT_GE(noisy.size(), 8u);
    for (std::size_t k = 0; k < noisy.size(); ++k) {
        SCOPED_TRACE(k);
        const double ms = noisy[k].t * 1000.0;
        EXPECT_DOUBLE_EQ(ms, std::round(ms));
        EXPECT_TRUE(k == 0 || noisy[k].t > noisy[k - 1].t);
        EXPECT_NEAR(noisy[k].x * 10.0, std::round(noisy[k].x * 10.0), 1e-9);
        EXPECT_NEAR(noisy[k].y, 7.0, 0.05 + 0.02 * 6);  // half a pixel and six standard deviations
    }
    const auto same = stroke.resample(240.0, conditions);
    ASSERT_EQ(same.size(), noisy.size());
    for (std::size_t k = 0; k < same.size(); ++k) {
        EXPECT_EQ(std::make_tuple(same[k].t, same[k].x, same[k].y), std::make_tuple(noisy[k].t, noisy[k].x, noisy[k].y));
    }
    peers::SensorConditions other = conditions;
    other.seed = 8;
    const auto different = stroke.resample(240.0, other);
    bool differs = different.size() != noisy.size();
    for (std::size_t k = 0; !differs && k < noisy.size(); ++k) {
        differs = different[k].x != noisy[k].x || different[k].y != noisy[k].y || different[k].t != noisy[k].t;
    }
    EXPECT_TRUE(differs);
    EXPECT_THROW(peers::SmoothStroke({{0.0, 0, 0}, {0.0, 1, 1}}), std::invalid_argument);
    EXPECT_THROW(peers::SmoothStroke({}), std::invalid_argument);
}

namespace {

// A peers file with two rates whose values are the untuned ones, the Kalman filters' measurement noise
// tiny (so that they follow a line exactly) and the fits undamped.
peers::PeerFile twoRates() {
    peers::PeerFile file;
    file.mmPerPixel = 0.5;
    file.horizonsMs = {4, 8};
    file.training = {"a.csv", "dir/b \"quoted\".csv"};
    file.conditions = {0.03, 1.0, 0.25, 99};
    for (const double rate : {100.0, 240.0}) {
        peers::TunedRate tuned;
        tuned.rateHz = rate;
        tuned.strokes = 3;
        tuned.points = 40;
        for (const peers::PredictorKind& kind : peers::predictorKinds()) {
            if (kind.tuned) {
                peers::TunedPeer peer{kind.initialValues(), 0.25, 0.5};
                if (std::string(kind.key).rfind("kalman", 0) == 0) {
                    peer.values[1] = 1e-4;
                }
                tuned.peers[kind.key] = peer;
            }
        }
        file.rates.push_back(tuned);
    }
    return file;
}

std::string loadError(const std::string& path) {
    try {
        peers::PeerFile::load(path);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(no error)";
}

}  // namespace

TEST(PeerFileTest, RoundTripNearestRateAndBadFiles) {
    testsupport::TempDir dir;
    std::ostringstream written;
    twoRates().write(written);
    testsupport::writeFile(dir.file("peers.json"), written.str());
    const peers::PeerFile file = peers::PeerFile::load(dir.file("peers.json"));
    EXPECT_EQ(file.training, twoRates().training);
    EXPECT_EQ(file.horizonsMs, (std::vector<int>{4, 8}));
    EXPECT_DOUBLE_EQ(file.mmPerPixel, 0.5);
    EXPECT_EQ(std::make_tuple(file.conditions.noiseMm, file.conditions.jitterMs, file.conditions.pixelMm,
                              file.conditions.seed),
              std::make_tuple(0.03, 1.0, 0.25, uint64_t{99}));
    ASSERT_EQ(file.rates.size(), 2u);
    const peers::TunedPeer& kalman = file.rates[1].peers.at("kalman_constant_acceleration");
    EXPECT_EQ(kalman.values, (std::vector<double>{1e8, 1e-4}));
    EXPECT_EQ(std::make_tuple(kalman.errorMm, kalman.initialErrorMm, file.rates[1].strokes, file.rates[1].points),
              std::make_tuple(0.25, 0.5, std::size_t{3}, std::size_t{40}));
    // Nearest in sample interval: 165 Hz (6.1 ms) is nearer 240 Hz (4.2 ms) than 100 Hz (10 ms),
    // although nearer 100 Hz in Hz.
    const struct {
        double rate, chosen;
    } nearest[] = {{50, 100}, {133, 100}, {165, 240}, {240, 240}, {609, 240}};
    for (const auto& n : nearest) {
        EXPECT_EQ(file.nearest(n.rate).rateHz, n.chosen) << n.rate;
    }
    EXPECT_EQ(peers::peerFileBeside("models/stylus_predictor.json"), "models/stylus_predictor.peers.json");

    const std::string good = written.str();
    const auto replaced = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        text.replace(text.find(from), from.size(), to);
        return text;
    };
    const struct {
        const char* name;
        std::string content;
        std::string error;
    } bad[] = {
        {"other format", replaced("stylus-peers 1", "stylus-peers 2"), "not a peers file"},
        {"missing parameter", replaced("\"damping\"", "\"dampening\""), "damping"},
        {"out of range", replaced("\"window\": 4", "\"window\": 400"), "least_squares_linear.window at 100 Hz lies outside"},
        {"no rate", good.substr(0, good.find("\"rates\"")) + "\"rates\": []}", "no tuned rate"},
        {"not json", "{\"format\": ", ""},
    };
    for (const auto& b : bad) {
        SCOPED_TRACE(b.name);
        testsupport::writeFile(dir.file("bad.json"), b.content);
        const std::string error = loadError(dir.file("bad.json"));
        EXPECT_EQ(error.rfind(dir.file("bad.json") + ": ", 0), 0u) << error;
        EXPECT_NE(error.find(b.error), std::string::npos) << error;
    }
    EXPECT_NE(loadError(dir.file("missing.json")).find("missing.json"), std::string::npos);
}

namespace {

std::vector<peers::SmoothStroke> strokesOf(const std::vector<StylusTouchPoint>& samples, double mmPerPixel) {
    std::vector<peers::SmoothStroke> strokes;
    for (const Stroke& stroke : Batcher().cut(samples).strokes) {
        std::vector<peers::StrokeSample> own;
        for (std::size_t i = stroke.first; i < stroke.first + stroke.count; ++i) {
            own.push_back({samples[i].timestamp / 1000.0, samples[i].x_pos * mmPerPixel, samples[i].y_pos * mmPerPixel});
        }
        if (own.size() >= 2) {
            strokes.emplace_back(std::move(own));
        }
    }
    return strokes;
}

int runTool(const std::string& arguments, const std::string& output) {
    const int status = std::system((std::string(STYLUS_TUNE_PEERS_EXE) + " " + arguments + " > " + output + " 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

// The tool on a directory of two small generated recordings at 200 Hz: it writes a file whose tuned
// values do better than the untuned ones on the same strokes, and the file's figures are what the
// values give.
TEST(PeerTunerTest, TheToolTunesASmallDirectoryBetterThanUntuned) {
    testsupport::TempDir dir;
    std::filesystem::create_directory(dir.file("train"));
    const ReplayConfig config = ReplayConfig::load(STYLUS_SHIPPED_CONFIG);
    std::vector<peers::SmoothStroke> strokes;
    for (const uint64_t seed : {3u, 4u}) {
        GeneratorSettings settings;
        settings.seed = seed;
        settings.words = 2;
        settings.sampleRateHz = 200.0;
        settings.pixelsPerMm = 1.0 / config.mmPerPixel();
        const std::vector<StylusTouchPoint> samples = HandwritingGenerator(settings).generate();
        RecordingWriter::write(dir.file("train/r" + std::to_string(seed) + ".csv"), samples);
        for (peers::SmoothStroke& stroke : strokesOf(samples, config.mmPerPixel())) {
            strokes.push_back(std::move(stroke));
        }
    }
    const std::string out = dir.file("peers.json");
    ASSERT_EQ(runTool("--quiet --rates 240,120 --config " + std::string(STYLUS_SHIPPED_CONFIG) + " --out " + out +
                          " " + dir.file("train"),
                      dir.file("log")),
              0)
        << testsupport::readFile(dir.file("log"));
    const peers::PeerFile file = peers::PeerFile::load(out);
    EXPECT_EQ(file.training, (std::vector<std::string>{"train/r3.csv", "train/r4.csv"}));
    EXPECT_EQ(file.horizonsMs, (std::vector<int>{4, 8, 12, 16, 20}));
    ASSERT_EQ(file.rates.size(), 2u);
    const peers::PeerTuner tuner(std::move(strokes), file.horizonsMs, 400000);
    for (const peers::TunedRate& rate : file.rates) {
        for (const peers::PredictorKind& kind : peers::predictorKinds()) {
            if (!kind.tuned) {
                continue;
            }
            SCOPED_TRACE(::testing::Message() << rate.rateHz << " Hz " << kind.key);
            const peers::TunedPeer& peer = rate.peers.at(kind.key);
            const double tuned = tuner.objective(rate.rateHz, kind, peer.values);
            const double untuned = tuner.objective(rate.rateHz, kind, kind.initialValues());
            EXPECT_LT(tuned, untuned);
            EXPECT_NEAR(peer.errorMm, tuned, 1e-6);
            EXPECT_NEAR(peer.initialErrorMm, untuned, 1e-6);
        }
    }
    EXPECT_EQ(file.rates[0].rateHz, 120.0);

    // Evaluation recordings are never tuned on; bad options are refused with the usage.
    std::filesystem::create_directories(dir.file("data/eval"));
    std::filesystem::copy_file(dir.file("train/r3.csv"), dir.file("data/eval/r3.csv"));
    EXPECT_EQ(runTool("--out " + dir.file("x.json") + " " + dir.file("data/eval"), dir.file("log")), 2);
    EXPECT_NE(testsupport::readFile(dir.file("log")).find("evaluation recordings are never tuned on"), std::string::npos);
    for (const std::string bad : {"--rates 0,100", "--noise-mm -1", "--jitter-ms x", "--seed -3", "--max-samples 0"}) {
        EXPECT_EQ(runTool(bad + " --out " + dir.file("x.json") + " " + dir.file("train"), dir.file("log")), 2) << bad;
    }
    // Under sensor conditions the file says which.
    ASSERT_EQ(runTool("--quiet --rates 200 --noise-mm 0.02 --jitter-ms 1 --whole-pixels --seed 5 --max-samples 3000 "
                      "--config " + std::string(STYLUS_SHIPPED_CONFIG) + " --out " + dir.file("noisy.json") + " " +
                          dir.file("train"),
                      dir.file("log")),
              0)
        << testsupport::readFile(dir.file("log"));
    const peers::PeerFile noisy = peers::PeerFile::load(dir.file("noisy.json"));
    EXPECT_EQ(std::make_tuple(noisy.conditions.noiseMm, noisy.conditions.jitterMs, noisy.conditions.seed),
              std::make_tuple(0.02, 1.0, uint64_t{5}));
    EXPECT_NEAR(noisy.conditions.pixelMm, config.mmPerPixel(), 1e-8);
    EXPECT_FALSE(std::filesystem::exists(dir.file("x.json")));
}

namespace {

// One stroke along x = t px, 0.5 mm per pixel, sampled every 4 ms up to its pen-up at 40, batches of 4
// (newest samples at 12, 28 and 40).
Recording lineTo40() {
    Recording line;
    line.path = "line.csv";
    for (uint64_t t = 0; t <= 40; t += 4) {
        line.samples.push_back(sample(t, static_cast<float>(t), 0, t == 0 ? D : (t == 40 ? U : M)));
    }
    return line;
}

CallbackRecord callbackAt(uint64_t base, std::vector<PredictedStylusCoordinate> points) {
    CallbackRecord record;
    record.timestamp = base;
    record.coordinates = std::move(points);
    return record;
}

}  // namespace

// Points due past the lift at 40: beyond it along the stroke's final direction counts, short of it or
// beside it does not, a drop counts 0. The constant-velocity baseline runs on at 1 px per ms.
TEST(OvershootTest, PerHorizonForTheModelAndEveryPredictor) {
    const Recording line = lineTo40();
    const Batching batching = Batcher(4).cut(line.samples);
    const std::vector<SendRecord> sends(batching.batches.size(), SendRecord{true, {}});
    PredictionEvaluator evaluator(0.5, 4, 4);
    // From 28: 44 delivered 7 px beyond the lift (3.5 mm). From 40: 44 short of the lift, 48 beside it,
    // 52 beyond it by 2 px (1 mm) and 10 px aside, 56 dropped.
    const auto results = evaluator.evaluate(
        line, batching, sends,
        {callbackAt(28, {{32, 32, 0}, {36, 36, 0}, {40, 40, 0}, {44, 47, 0}}),
         callbackAt(40, {{44, 38, 0}, {48, 40, 6}, {52, 42, 10}})});
    ASSERT_EQ(results.size(), 8u);
    ReplayConfig config;
    config.numPredictions = 4;
    const ReplaySummary summary = ReplaySummary::make(evaluator.totals(), config);
    ASSERT_EQ(summary.predictors.size(), 2u);  // the baselines, without peers
    const struct {
        std::size_t horizon;
        std::size_t count;
        double modelMean, modelP95, cvMean;
    } expected[] = {
        {0, 1, 0.0, 0.0, 2.0},                          // 44 from 40: short; cv at 44: 4 px
        {1, 1, 0.0, 0.0, 4.0},                          // 48 beside the lift point
        {2, 1, 1.0, 1.0, 6.0},                          // 52: 2 px along the line
        {3, 2, 1.75, 3.5 * 0.95, (2.0 + 8.0) / 2},      // 44 from 28: 3.5 mm; 56 dropped: 0
    };
    for (const auto& e : expected) {
        SCOPED_TRACE(e.horizon);
        const OvershootSummary& o = summary.horizons[e.horizon].overshoot;
        EXPECT_EQ(o.count, e.count);
        EXPECT_NEAR(o.model.mean, e.modelMean, 1e-9);
        EXPECT_NEAR(o.model.p95, e.modelP95, 1e-9);
        ASSERT_EQ(o.predictors.size(), 2u);
        EXPECT_NEAR(o.predictors[0].mean, e.cvMean, 1e-5);
    }
    EXPECT_NEAR(results[3].overshootMm, 3.5, 1e-9);
    // The report's table: the model, then least squares (exact on the line, like CV), then CV.
    std::ostringstream html;
    ReportFigures::overshootTable(html, summary);
    EXPECT_NE(html.str().find("<tr><td>+16 ms</td><td>2</td><td title='p95 3.325 mm'>1.750</td>"
                              "<td title='p95 7.700 mm'>5.000</td><td title='p95 7.700 mm'>5.000</td></tr>"),
              std::string::npos)
        << html.str();

    // A stroke that never moved 0.2 mm from its lift point has no direction: the distance counts.
    // The last sample only wobbles 0.1 px, so the direction comes from the one before it.
    const struct {
        const char* name;
        std::vector<StylusTouchPoint> stroke;
        PredictedStylusCoordinate point;
        double overshoot;
    } shapes[] = {
        {"a dot", {sample(0, 10, 10, D), sample(4, 10.1f, 10), sample(8, 10, 10, U)}, {12, 13, 14}, 2.5},
        {"a wobble at the end", {sample(0, 0, 0, D), sample(4, 0, 8), sample(8, 0, 8.1f, U)}, {12, 3, 12.1f}, 2.0},
    };
    for (const auto& s : shapes) {
        SCOPED_TRACE(s.name);
        Recording recording;
        recording.samples = s.stroke;
        const Batching one = Batcher(8).cut(recording.samples);
        PredictionEvaluator own(0.5, 4, 1);
        const auto points = own.evaluate(recording, one, std::vector<SendRecord>(one.batches.size(), {true, {}}),
                                         {callbackAt(8, {s.point})});
        ASSERT_EQ(points.size(), 1u);
        EXPECT_NEAR(points[0].overshootMm, s.overshoot, 1e-5);
    }
}

// With a peers file the tuned peers join the baselines: parameters of the rate nearest the recording's,
// exact on a line, in the point sets, the overshoot, the JSON summary and the CSV columns.
TEST(OvershootTest, TunedPeersJoinEveryOutput) {
    const Recording line = lineTo40();
    const Batching batching = Batcher(4).cut(line.samples);
    const std::vector<SendRecord> sends(batching.batches.size(), SendRecord{true, {}});
    const peers::PeerFile file = twoRates();
    PredictionEvaluator evaluator(0.5, 4, 4, &file, "peers.json");
    ASSERT_EQ(evaluator.predictors().size(), peers::predictorKinds().size());
    const auto results = evaluator.evaluate(line, batching, sends,
                                            {callbackAt(12, {{16, 19, 4}, {20, 20, 0}, {24, 24, 0}, {28, 28, 0}}),
                                             callbackAt(40, {})});
    const RecordingTotals& recording = evaluator.totals().recordings.at(0);
    EXPECT_EQ(std::make_pair(recording.rateHz, recording.peerRateHz), std::make_pair(250.0, 240.0));
    for (const PointResult& r : results) {
        SCOPED_TRACE(r.timestamp);
        ASSERT_EQ(r.guesses.size(), peers::predictorKinds().size());
        for (std::size_t i = 0; i < r.guesses.size(); ++i) {
            ASSERT_TRUE(r.guesses[i].has);
            EXPECT_NEAR(r.guesses[i].x, static_cast<double>(r.timestamp), 1e-3) << peers::predictorKinds()[i].key;
            EXPECT_NEAR(r.guesses[i].overshootMm, r.timestamp > 40 ? (r.timestamp - 40) * 0.5 : 0.0, 1e-3);
        }
    }
    ReplayConfig config;
    config.numPredictions = 4;
    const ReplaySummary summary = ReplaySummary::make(evaluator.totals(), config);
    const HorizonSummary& first = summary.horizons[0];
    ASSERT_EQ(first.common.peers.size(), 4u);
    EXPECT_EQ(first.common.peers[3].count, 1u);   // 16 from 12 (the drops at 44.. lie past the end)
    EXPECT_NEAR(first.common.model.mean, 2.5, 1e-9);
    EXPECT_NEAR(first.common.peers[3].mean, 0.0, 1e-3);
    EXPECT_EQ(first.overshoot.predictors.size(), 6u);
    EXPECT_NEAR(summary.horizons[3].overshoot.predictors[5].mean, 8.0, 1e-3);  // 56 from 40: 16 px on

    std::ostringstream json;
    JsonSummary::write(json, summary);
    boost::property_tree::ptree tree;
    std::istringstream in(json.str());
    boost::property_tree::read_json(in, tree);
    EXPECT_EQ(tree.get<std::string>("peers_file"), "peers.json");
    const auto& pooled = tree.get_child("horizons").front().second;
    EXPECT_EQ(pooled.get<std::size_t>("predicted_by_all.least_squares_quadratic.count"), 1u);
    EXPECT_EQ(pooled.get<std::size_t>("overshoot.kalman_constant_acceleration.count"), 1u);  // 44 from 40
    EXPECT_EQ(tree.get_child("recordings").front().second.get<double>("peers_rate_hz"), 240.0);
    std::vector<std::string> keys;
    for (const auto& item : tree.get_child("predictors")) {
        keys.push_back(item.second.get<std::string>("key"));
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"constant_velocity", "least_squares_3", "kalman_constant_velocity",
                                              "kalman_constant_acceleration", "least_squares_linear",
                                              "least_squares_quadratic"}));

    std::ostringstream csv;
    PredictionCsv::writeHeader(csv, evaluator.predictors());
    PredictionCsv::write(csv, line.path, std::vector<PointResult>(results.begin(), results.begin() + 1));
    const std::string text = csv.str();
    EXPECT_EQ(text.substr(0, std::string(PredictionCsv::header).size()), PredictionCsv::header);
    EXPECT_NE(text.find(",ls_error_mm,overshoot_mm,kalman_cv_x,kalman_cv_y,kalman_cv_error_mm,kalman_cv_overshoot_mm,"
                        "kalman_ca_x"),
              std::string::npos);
    EXPECT_NE(text.find(",ls_quadratic_overshoot_mm\n"), std::string::npos);
    // The row: the model's point 2.5 mm off, then each peer's at x 16 (exact to 1e-5 mm), no overshoot
    // inside the stroke.
    const auto fields = [](const std::string& row) {
        std::vector<std::string> out;
        std::stringstream in(row);
        for (std::string field; std::getline(in, field, ',');) {
            out.push_back(field);
        }
        if (!row.empty() && row.back() == ',') {
            out.emplace_back();
        }
        return out;
    };
    const std::string header = text.substr(0, text.find('\n'));
    const std::vector<std::string> row = fields(text.substr(header.size() + 1, text.size() - header.size() - 2));
    ASSERT_EQ(row.size(), fields(header).size()) << text;
    EXPECT_EQ(std::vector<std::string>(row.begin() + 5, row.begin() + 18),
              (std::vector<std::string>{"19.0000", "4.0000", "16.0000", "0.0000", "2.50000", "16.0000", "0.0000",
                                        "0.00000", "inside", "16.0000", "0.0000", "0.00000", ""}));
    for (std::size_t peer = 0; peer < 4; ++peer) {
        SCOPED_TRACE(peer);
        const std::size_t at = 18 + 4 * peer;
        EXPECT_EQ(std::make_tuple(row[at], row[at + 1], row[at + 3]), std::make_tuple("16.0000", "0.0000", ""));
        EXPECT_LT(std::stod(row[at + 2]), 2e-5);
    }
}

// A recording's rate: steps inside strokes, those over three times the median left out; the pause
// between strokes is no step.
TEST(OvershootTest, SamplingRateLeavesOutPausesAndStrokeGaps) {
    const struct {
        const char* name;
        std::vector<uint64_t> times;  // one stroke each, unless tagged apart below
        double rate;
    } cases[] = {
        {"even 5 ms", {0, 5, 10, 15, 20}, 200.0},
        {"1 and 2 ms", {0, 1, 3, 4, 6, 7, 9}, 1000.0 * 6 / 9},
        {"a resting pen logged late", {0, 8, 16, 24, 100, 108, 116}, 125.0},
        {"repeated timestamps", {0, 4, 4, 8, 12}, 250.0},
        {"one sample", {0}, 0.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Recording recording;
        for (std::size_t i = 0; i < c.times.size(); ++i) {
            recording.samples.push_back(sample(c.times[i], 0, 0, i == 0 ? D : (i + 1 == c.times.size() ? U : M)));
        }
        EXPECT_NEAR(samplingRate(recording, Batcher().cut(recording.samples)), c.rate, 1e-9);
    }
    // Two strokes 1 s apart at 100 Hz: the pause between them counts for nothing.
    Recording two;
    const uint64_t times[] = {0, 10, 20, 1020, 1030, 1040};
    const int32_t tags[] = {D, M, U, D, M, U};
    for (std::size_t i = 0; i < 6; ++i) {
        two.samples.push_back(sample(times[i], 0, 0, tags[i]));
    }
    ASSERT_EQ(Batcher().cut(two.samples).strokes.size(), 2u);
    EXPECT_NEAR(samplingRate(two, Batcher().cut(two.samples)), 100.0, 1e-9);
}
