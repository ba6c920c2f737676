// stylus-replay: plays the host of the stylus predictor with recorded pen input and reports how
// far the predictions landed from the real pen. Run with --help for the options.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>

#include "Batcher.h"
#include "CommandLine.h"
#include "ConfigCheck.h"
#include "HtmlReport.h"
#include "JsonSummary.h"
#include "LibraryLog.h"
#include "PeerFile.h"
#include "PredictionCsv.h"
#include "PredictionEvaluator.h"
#include "ProgressLine.h"
#include "RecordingReader.h"
#include "ReplayConfig.h"
#include "ReplayError.h"
#include "ReplayHost.h"
#include "ReplaySummary.h"
#include "SummaryText.h"

namespace {

using namespace replay;

// The shipped configuration: from the repository root, else the one at its installed place relative
// to this executable (in the build tree, a link to the repository's models/).
std::string defaultConfigPath() {
    const std::string relative = "models/stylus_predictor.json";
    std::error_code error;
    if (std::filesystem::exists(relative, error)) {
        return relative;
    }
#ifdef STYLUS_REPLAY_INSTALLED_CONFIG
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path installed = self.parent_path() / STYLUS_REPLAY_INSTALLED_CONFIG;
    if (!error && std::filesystem::exists(installed, error)) {
        const std::filesystem::path resolved = std::filesystem::canonical(installed, error);
        return (error ? installed.lexically_normal() : resolved).string();
    }
#endif
    return relative;
}

std::unique_ptr<std::ofstream> openOutput(const std::string& path) {
    if (path.empty()) {
        return nullptr;
    }
    auto out = std::make_unique<std::ofstream>(path, std::ios::binary | std::ios::trunc);
    if (!*out) {
        throw ReplayError(path + ": cannot write (" + std::strerror(errno) + ")");
    }
    return out;
}

void finishOutput(std::ofstream* out, const std::string& path) {
    if (out == nullptr) {
        return;
    }
    out->close();
    if (!*out) {
        throw ReplayError(path + ": write failed");
    }
}

int run(const ReplayOptions& options) {
    const std::string configPath = options.configPath.empty() ? defaultConfigPath() : options.configPath;
    const ReplayConfig config = ReplayConfig::load(configPath);

    // Every recording is read before the replay starts, so that bad input fails at once.
    const std::vector<std::string> files = CommandLine::expandInputs(options.inputs);
    std::vector<Recording> recordings;
    for (const std::string& file : files) {
        recordings.push_back(RecordingReader::read(file));
        // A row the replay cannot use costs that row, not the recording or the directory.
        for (const std::string& skipped : recordings.back().skippedRows) {
            std::cerr << "stylus-replay: row skipped: " << skipped << "\n";
        }
    }

    const auto jsonOut = openOutput(options.jsonPath);
    const auto predictionsOut = openOutput(options.predictionsPath);
    const auto reportOut = openOutput(options.reportPath);

    std::optional<peers::PeerFile> peerFile;
    const std::string peersPath = options.peersPath.empty() ? peers::peerFileBeside(configPath) : options.peersPath;
    if (options.peers) {
        peerFile = peers::PeerFile::load(peersPath);
    }

    const Batcher batcher(options.batchSize);
    PredictionEvaluator evaluator(config.mmPerPixel(), config.predictionStepMs, config.numPredictions,
                                  peerFile ? &*peerFile : nullptr, peersPath);
    if (predictionsOut) {
        PredictionCsv::writeHeader(*predictionsOut, evaluator.predictors());
    }
    HtmlReport report(config.predictionStepMs, config.numPredictions);
    // Before the library starts, so that its first line is in the log; destroyed after it stops.
    const LibraryLog libraryLog(options.verbose ? std::string()
                                                : options.logPath.empty() ? CommandLine::defaultLogPath
                                                                          : options.logPath);
    // The library finds its model beside the configuration, which a bare file name does not say.
    std::optional<ReplayHost> started;
    try {
        started.emplace(std::filesystem::absolute(configPath).string());
    } catch (const ReplayError& error) {
        throw ReplayError(error.what() + (libraryLog.path().empty() ? "" : " (see " + libraryLog.path() + ")"));
    }
    ReplayHost& host = *started;
    {
        ProgressLine progress(!options.quiet, libraryLog.terminal());
        for (std::size_t r = 0; r < recordings.size(); ++r) {
            const Recording& recording = recordings[r];
            const Batching batching = batcher.cut(recording.samples);
            const std::string label = "recording " + std::to_string(r + 1) + "/" +
                                      std::to_string(recordings.size()) + " " + recording.path;
            const RecordingReplay outcome =
                host.replay(recording, batching, options.realtime, [&](std::size_t done) {
                    progress.update(label, done, batching.batches.size());
                });
            const std::vector<PointResult> results =
                evaluator.evaluate(recording, batching, outcome.sends, outcome.callbacks);
            if (predictionsOut) {
                PredictionCsv::write(*predictionsOut, recording.path, results);
            }
            if (reportOut) {
                report.add(recording, batching, results);
            }
        }
    }

    ReplaySummary summary = ReplaySummary::make(evaluator.totals(), config);
    summary.inputs = files;
    summary.batchSize = options.batchSize;
    summary.realtime = options.realtime;
    summary.numPredictions = host.numPredictedPoints();
    summary.library = host.metrics();
    summary.library.targetEventCount = config.targetEventCount;
    summary.library.file = MetricsFileState::checkLibraryFile();
    summary.libraryLogPath = libraryLog.path();

    SummaryText::print(std::cout, summary);
    if (jsonOut) {
        JsonSummary::write(*jsonOut, summary);
        finishOutput(jsonOut.get(), options.jsonPath);
    }
    finishOutput(predictionsOut.get(), options.predictionsPath);
    if (reportOut) {
        report.write(*reportOut, summary, evaluator.totals());
        finishOutput(reportOut.get(), options.reportPath);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    ReplayOptions options;
    try {
        options = CommandLine::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const ReplayError& error) {
        std::cerr << "stylus-replay: " << error.what() << "\n\n" << CommandLine::usage;
        return 2;
    }
    if (options.help) {
        std::cout << CommandLine::usage;
        return 0;
    }
    if (!options.checkConfigPath.empty()) {
        return ConfigCheck::run(options.checkConfigPath, std::cout) == 0 ? 0 : 1;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "stylus-replay: " << error.what() << "\n";
        return 1;
    }
}
