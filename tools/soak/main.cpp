// stylus-soak: sends a long run of mixed good and bad batches from concurrent senders through the
// library's exported functions, with recording on, then restarts the library many times with bad
// configurations and batches going back in time. Reports what went in, what came out, the resident
// memory over the runs, and whether every sample the recorder accepted was either written or
// reported lost. Exit status 0 when every check holds.

// The JSON parser includes the old Boost.Bind header; this keeps its deprecation note out of the build.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS
#include <algorithm>
#include <atomic>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BatchMix.h"
#include "RecordingCount.h"
#include "ResidentMemory.h"
#include "RestartPhase.h"
#include "SoakOptions.h"
#include "StylusLibHandle.h"
#include "StylusStrokePredictor.h"
#include "velmar/Log.h"
#include "GeneratedModel.h"
#include "JsonText.h"
#include "TempDir.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kKinds = static_cast<int>(soak::BatchKind::Count);
constexpr int kNumPredictionsLimit = 1024;  // sanity bound on a delivered prediction count
// A pen covers far less than this within any prediction horizon: a predicted point farther off the
// area of all samples was thrown by an outlier.
constexpr float kReachMarginPx = 1000.0f;

// What the host callbacks saw.
std::atomic<uint64_t> g_predictions{0};
std::atomic<uint64_t> g_coordinates{0};
std::atomic<uint64_t> g_inputPoints{0};
std::atomic<uint64_t> g_badCallbacks{0};
std::atomic<uint64_t> g_farPoints{0};

void onPredictions(const PredictedStylusTouchPoints* predictions) {
    g_predictions.fetch_add(1, std::memory_order_relaxed);
    if (predictions->numCoordinates < 0 || predictions->numCoordinates > kNumPredictionsLimit ||
        (predictions->numCoordinates > 0 && predictions->coordinates == nullptr)) {
        g_badCallbacks.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    g_coordinates.fetch_add(static_cast<uint64_t>(predictions->numCoordinates), std::memory_order_relaxed);
    for (int i = 0; i < predictions->numCoordinates; ++i) {
        const PredictedStylusCoordinate& c = predictions->coordinates[i];
        if (!(c.x >= soak::kSampleAreaMinX - kReachMarginPx && c.x <= soak::kSampleAreaMaxX + kReachMarginPx &&
              c.y >= soak::kSampleAreaMinY - kReachMarginPx && c.y <= soak::kSampleAreaMaxY + kReachMarginPx)) {
            g_farPoints.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

void onInputPoints(const StylusTouchPoint* points, int numPoints) {
    if (numPoints < 0 || (numPoints > 0 && points == nullptr)) {
        g_badCallbacks.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    g_inputPoints.fetch_add(static_cast<uint64_t>(numPoints), std::memory_order_relaxed);
}

// Counts log lines instead of printing them: the run produces far too many to read.
struct LogCounts {
    std::mutex mutex;
    uint64_t byPriority[5] = {};
    uint64_t dataDropped = 0;
    uint64_t predictionFailed = 0;
    std::map<std::string, uint64_t> byText;  // leading text of each message, for the report

    void install() {
        velmar::Log::init();
        velmar::Log::setSink([this](const velmar::LogEntry& entry) {
            std::lock_guard<std::mutex> lock(mutex);
            if (entry.priority >= velmar::Verbose && entry.priority <= velmar::Error) {
                ++byPriority[entry.priority];
            }
            // Up to the first digit: lines that differ only in their figures count together, and the
            // map stays small (it would otherwise grow with the run and show in its memory figures).
            ++byText[entry.message.substr(0, std::min<size_t>(48, entry.message.find_first_of("0123456789")))];
            if (entry.message == "Data dropped for writing stylus touch data") {
                ++dataDropped;
            } else if (entry.message.rfind("Prediction failed", 0) == 0) {
                ++predictionFailed;
            }
        });
    }
};
LogCounts g_log;

// The model keys of the given configuration (or generic ones for a bare model) and pipeline keys that
// record every accepted batch into one file: chunks never complete a file.
boost::property_tree::ptree configTree(const soak::SoakOptions& options, const fs::path& dir,
                                       const fs::path& recordings) {
    boost::property_tree::ptree modelKeys;
    fs::path model;
    if (!options.config.empty()) {
        boost::property_tree::ptree source;
        boost::property_tree::read_json(options.config, source);
        modelKeys = source.get_child("PredictionModel");
        model = fs::path(options.config).parent_path() / modelKeys.get<std::string>("model_name");
    } else {
        modelKeys = testkit::generatedModelKeys();
        model = options.model;
    }
    fs::copy_file(model, dir / model.filename(), fs::copy_options::overwrite_existing);
    modelKeys.put("model_name", model.filename().string());

    boost::property_tree::ptree tree;
    tree.put_child("PredictionModel", modelKeys);
    tree.put("Pipeline.logLevel", "INFO");
    tree.put("Pipeline.QueueFullPolicy", options.policy);
    tree.put("Pipeline.enableDataWriting", true);
    tree.put("Pipeline.canControlDataWritingAtRunTime", false);
    tree.put("Pipeline.chunkSizeInRecords", 100);
    tree.put("Pipeline.numChunksInFile", 2000000000);
    tree.put("Pipeline.diskFillPercentTh", 100);
    tree.put("Pipeline.dataFileDirectory", recordings.string());
    tree.put("Pipeline.diskCheckPath", recordings.string());
    return tree;
}

struct SenderCounts {
    uint64_t sent[kKinds] = {};
    uint64_t refused[kKinds] = {};
    uint64_t recorderSamples = 0;  // handed to the recorder by the accepted batches
};

class Report {
public:
    template <typename T>
    void add(const std::string& key, const T& value) {
        std::ostringstream text;
        text << value;
        entries.emplace_back(key, text.str());
    }
    void print(std::ostream& out) const {
        for (const auto& [key, value] : entries) {
            out << key << ": " << value << "\n";
        }
    }
    void writeJson(const std::string& path) const {
        std::ofstream out(path);
        out << "{\n";
        for (size_t i = 0; i < entries.size(); ++i) {
            const auto& [key, value] = entries[i];
            const bool numeric = !value.empty() && value.find_first_not_of("0123456789.-e+") == std::string::npos;
            const bool boolean = value == "true" || value == "false";
            out << "  \"" << key << "\": " << (numeric || boolean ? value : "\"" + jsonEscape(value) + "\"")
                << (i + 1 < entries.size() ? ",\n" : "\n");
        }
        out << "}\n";
    }

private:
    std::vector<std::pair<std::string, std::string>> entries;
};

int run(const soak::SoakOptions& options) {
    fs::path dir = options.workDir;
    std::optional<testkit::TempDir> ownDir;
    if (dir.empty()) {
        dir = ownDir.emplace().path();
    }
    const fs::path recordings = dir / "rec";
    fs::create_directories(recordings);
    const boost::property_tree::ptree tree = configTree(options, dir, recordings);
    const std::string config = (dir / "predictor.json").string();
    boost::property_tree::write_json(config, tree);

    g_log.install();
    const double rssBeforeInit = soak::residentMiB();
    const StylusPredictionParams params{config.c_str(), &onPredictions, &onInputPoints};
    StylusLibHandle* handle = InitStylusLib(&params);
    const double rssAfterInit = soak::residentMiB();

    std::atomic<uint64_t> claimed{0};
    std::atomic<uint64_t> finished{0};
    std::vector<SenderCounts> counts(static_cast<size_t>(options.senders));
    std::vector<std::thread> senders;
    const auto start = Clock::now();
    for (int s = 0; s < options.senders; ++s) {
        senders.emplace_back([&, s] {
            soak::BatchMix mix(options.seed * 7919u + static_cast<uint32_t>(s));
            soak::Batch batch;
            SenderCounts& mine = counts[static_cast<size_t>(s)];
            while (claimed.fetch_add(1) < options.batches) {
                mix.next(batch);
                const int kind = static_cast<int>(batch.kind);
                const StylusTouchPoint* points = batch.points.empty() ? nullptr : batch.points.data();
                ++mine.sent[kind];
                if (sendInputTouchPoints(handle, points, batch.count) == 0) {
                    mine.recorderSamples += soak::BatchMix::recorderSamples(batch);
                } else {
                    ++mine.refused[kind];
                }
                finished.fetch_add(1, std::memory_order_relaxed);
                if (options.paceMicroseconds > 0) {
                    std::this_thread::sleep_for(std::chrono::microseconds(options.paceMicroseconds));
                }
            }
        });
    }

    // Resident memory at every tenth of the run; the first tenth is the warm-up.
    std::vector<double> rssAtTenth;
    uint64_t queries = 0;
    for (int tenth = 1; tenth <= 10; ++tenth) {
        const uint64_t mark = options.batches * static_cast<uint64_t>(tenth) / 10;
        while (finished.load() < mark) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            // Host-side queries race the inference thread, as a host's would.
            volatile float sink = getMetricsDistanceError(handle) + getMetricsAngleDevError(handle);
            (void)sink;
            (void)getMetricsAreValid(handle);
            (void)areAllInputPointsProcessed(handle);
            ++queries;
        }
        rssAtTenth.push_back(soak::residentMiB());
    }
    for (auto& sender : senders) {
        sender.join();
    }
    const auto sendDone = Clock::now();
    while (areAllInputPointsProcessed(handle) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const double rssEnd = soak::residentMiB();
    const int numPredictions = numPredictedPoints(handle);
    handle->impl->stop();
    const RecorderCounts recorder = handle->impl->recorderCounts();
    DeInitStylusLib(handle);
    const auto end = Clock::now();
    const uint64_t predictions = g_predictions.load();

    soak::RestartPhase restartPhase(tree, dir, &onPredictions, &onInputPoints);
    const soak::RestartPhaseReport restarts =
        restartPhase.run(options.restarts, 2000, options.seed * 104729u);
    velmar::Log::setSink(nullptr);

    SenderCounts total;
    for (const auto& c : counts) {
        for (int k = 0; k < kKinds; ++k) {
            total.sent[k] += c.sent[k];
            total.refused[k] += c.refused[k];
        }
        total.recorderSamples += c.recorderSamples;
    }
    uint64_t sent = 0;
    uint64_t refused = 0;
    for (int k = 0; k < kKinds; ++k) {
        sent += total.sent[k];
        refused += total.refused[k];
    }
    const soak::RecordingCount recorded = soak::RecordingCount::of(recordings);
    const double rssStart = rssAtTenth.front();
    const double rssGrowth = rssEnd - rssStart;
    const double seconds = std::chrono::duration<double>(end - start).count();

    const bool recorderBalanced = recorded.rows == recorder.written &&
                                  recorder.written + recorder.lost + recorder.notNumbers == recorder.accepted &&
                                  restarts.recorderBalanced;
    const bool restartsRan = restarts.goodConfigsRefused == 0;
    const bool handOffMatches = recorder.accepted + recorder.refused == total.recorderSamples;
    const bool filesWhole = recorded.whole() && recorded.datFiles <= 1 && restarts.filesWhole;
    const double restartRssGrowth = restarts.rssEndMiB - restarts.rssStartMiB;
    const bool memoryFlat = rssGrowth <= options.rssLimitMiB && restartRssGrowth <= options.rssLimitMiB;
    const bool callbacksSane =
        g_badCallbacks.load() == 0 && g_farPoints.load() == 0 && predictions <= sent - refused;
    const bool pass = restartsRan && recorderBalanced && handOffMatches && filesWhole && memoryFlat && callbacksSane &&
                      restarts.plantedUntouched;

    Report report;
    report.add("model", options.config.empty() ? options.model : options.config);
    report.add("queue_full_policy", options.policy);
    report.add("senders", options.senders);
    report.add("sender_pause_us", options.paceMicroseconds);
    report.add("batches_sent", sent);
    for (int k = 0; k < kKinds; ++k) {
        report.add(std::string("batches_sent_") + soak::kindName(static_cast<soak::BatchKind>(k)), total.sent[k]);
    }
    report.add("batches_refused", refused);
    report.add("batches_accepted", sent - refused);
    report.add("predictions_received", predictions);
    report.add("predicted_points_received", g_coordinates.load());
    report.add("predicted_points_off_the_sample_area", g_farPoints.load());
    report.add("input_points_received", g_inputPoints.load());
    report.add("num_predicted_points", numPredictions);
    report.add("host_queries", queries);
    report.add("recorder_samples_expected_from_accepted_batches", total.recorderSamples);
    report.add("recorder_samples_accepted", recorder.accepted);
    report.add("recorder_samples_refused_by_queue", recorder.refused);
    report.add("recorder_rows_written", recorder.written);
    report.add("recorder_rows_reported_lost", recorder.lost);
    report.add("recorder_samples_not_numbers", recorder.notNumbers);
    report.add("rows_recorded", recorded.rows);
    report.add("recording_files", recorded.datFiles);
    report.add("recording_tmp_files_left", recorded.tmpFiles);
    report.add("malformed_rows", recorded.malformedRows + recorded.badHeaders);
    report.add("log_data_dropped_lines", g_log.dataDropped);
    report.add("log_prediction_failed_lines", g_log.predictionFailed);
    report.add("log_error_lines", g_log.byPriority[velmar::Error]);
    report.add("log_info_lines", g_log.byPriority[velmar::Info]);
    std::vector<std::pair<uint64_t, std::string>> frequent;
    for (const auto& [text, n] : g_log.byText) {
        frequent.emplace_back(n, text);
    }
    std::sort(frequent.rbegin(), frequent.rend());
    std::ostringstream top;
    for (size_t i = 0; i < frequent.size() && i < 6; ++i) {
        top << (i == 0 ? "" : " | ") << frequent[i].first << "x " << frequent[i].second;
    }
    report.add("log_most_frequent", top.str());
    report.add("rss_mib_before_init", rssBeforeInit);
    report.add("rss_mib_after_init", rssAfterInit);
    report.add("rss_mib_start", rssStart);
    std::ostringstream tenths;
    for (size_t i = 0; i < rssAtTenth.size(); ++i) {
        tenths << (i == 0 ? "" : " ") << rssAtTenth[i];
    }
    report.add("rss_mib_each_tenth", tenths.str());
    report.add("rss_mib_end", rssEnd);
    report.add("rss_mib_growth", rssGrowth);
    report.add("rss_mib_growth_limit", options.rssLimitMiB);
    report.add("send_seconds", std::chrono::duration<double>(sendDone - start).count());
    report.add("wall_seconds", seconds);
    report.add("batches_per_second", static_cast<double>(sent) / seconds);
    report.add("restart_rounds", restarts.rounds);
    report.add("restart_bad_configs_tried", restarts.badConfigsTried);
    report.add("restart_bad_configs_refused_by_init", restarts.badConfigsRefused);
    report.add("restart_good_configs_refused_by_init", restarts.goodConfigsRefused);
    report.add("restart_pipelines_run", restarts.pipelinesRun);
    report.add("restart_batches_sent", restarts.batchesSent);
    report.add("restart_batches_refused", restarts.batchesRefused);
    report.add("restart_batches_going_back", restarts.batchesGoingBack);
    report.add("restart_recorder_samples_accepted", restarts.recorder.accepted);
    report.add("restart_recorder_samples_refused_by_queue", restarts.recorder.refused);
    report.add("restart_recorder_rows_reported_lost", restarts.recorder.lost);
    report.add("restart_rows_recorded", restarts.rowsRecorded);
    report.add("restart_rss_mib_start", restarts.rssStartMiB);
    report.add("restart_rss_mib_end", restarts.rssEndMiB);
    report.add("restart_rss_mib_growth", restartRssGrowth);
    report.add("check_restarts_ran", restartsRan ? "true" : "false");
    report.add("restart_deinit_ms_max", restarts.deInitMsMax);
    report.add("check_planted_files_untouched", restarts.plantedUntouched ? "true" : "false");
    report.add("check_rows_recorded_plus_lost_equal_accepted", recorderBalanced ? "true" : "false");
    report.add("check_recorder_hand_off_matches_batches", handOffMatches ? "true" : "false");
    report.add("check_recording_files_whole", filesWhole ? "true" : "false");
    report.add("check_memory_flat", memoryFlat ? "true" : "false");
    report.add("check_callbacks_sane", callbacksSane ? "true" : "false");
    report.add("result", pass ? "PASS" : "FAIL");
    report.print(std::cout);
    if (!options.jsonOut.empty()) {
        report.writeJson(options.jsonOut);
    }
    return pass ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    soak::SoakOptions options;
    try {
        options = soak::SoakOptions::parse(argc, argv);
    } catch (const std::invalid_argument& error) {
        if (*error.what() != '\0') {
            std::cerr << "stylus-soak: " << error.what() << "\n";
        }
        std::cerr << soak::SoakOptions::usage();
        return 2;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "stylus-soak: " << error.what() << "\n";
        return 2;
    }
}
