// stylus-tune-peers: tunes the replay's peers (Kalman filters and least-squares fits) on training
// recordings, per sampling rate, and writes the parameters file stylus-replay --peers reads.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Batcher.h"
#include "CommandLine.h"
#include "PeerFile.h"
#include "PeerTuner.h"
#include "RecordingReader.h"
#include "ReplayConfig.h"
#include "ReplayError.h"

namespace {

const char* const usage =
    "usage: stylus-tune-peers [options] [RECORDING_OR_DIRECTORY...]\n"
    "Tunes the peers stylus-replay --peers sets beside the model (constant-velocity and constant-\n"
    "acceleration Kalman filters, least-squares linear and quadratic fits) on training recordings\n"
    "resampled smoothly to each rate, minimising the mean error over the configured horizons.\n"
    "Evaluation recordings are refused: a directory named eval is never tuned on.\n"
    "\n"
    "  --rates LIST        sampling rates in Hz, comma-separated (default 100,120,...,600)\n"
    "  --out FILE          where the parameters go (default: beside the configuration,\n"
    "                      models/stylus_predictor.peers.json)\n"
    "  --config FILE       predictor configuration giving the pixel size and the horizons\n"
    "                      (default models/stylus_predictor.json)\n"
    "  --max-samples N     resampled samples per rate at most, by keeping every k-th stroke\n"
    "                      (default 400000)\n"
    "  --noise-mm S        Gaussian sensor noise added to the resampled positions (default 0)\n"
    "  --jitter-ms J       each resampled time off by up to J ms before rounding (default 0)\n"
    "  --whole-pixels      resampled positions rounded to whole pixels of the configuration\n"
    "  --seed N            of the noise and jitter (default 1)\n"
    "  --quiet             no progress lines\n"
    "  -h, --help          this text\n"
    "Without recordings, the training directory the build was configured with is used.\n";

struct Options {
    std::vector<double> rates;
    std::string out;
    std::string config = "models/stylus_predictor.json";
    std::size_t maxSamples = 400000;
    double noiseMm = 0.0;
    double jitterMs = 0.0;
    bool wholePixels = false;
    uint64_t seed = 1;
    bool quiet = false;
    bool help = false;
    std::vector<std::string> inputs;
};

std::vector<double> parseRates(const std::string& text) {
    std::vector<double> rates;
    std::stringstream in(text);
    for (std::string item; std::getline(in, item, ',');) {
        char* end = nullptr;
        const double rate = std::strtod(item.c_str(), &end);
        if (item.empty() || *end != '\0' || !(rate >= 1.0 && rate <= 10000.0)) {
            throw replay::ReplayError("--rates needs rates in Hz between 1 and 10000, not \"" + item + "\"");
        }
        rates.push_back(rate);
    }
    std::sort(rates.begin(), rates.end());
    rates.erase(std::unique(rates.begin(), rates.end()), rates.end());
    return rates;
}

Options parse(const std::vector<std::string>& args) {
    Options options;
    for (int rate = 100; rate <= 600; rate += 20) {
        options.rates.push_back(rate);
    }
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i], value;
        bool hasValue = false;
        if (arg.rfind("--", 0) == 0 && arg.find('=') != std::string::npos) {
            value = arg.substr(arg.find('=') + 1);
            arg = arg.substr(0, arg.find('='));
            hasValue = true;
        }
        const auto take = [&]() -> std::string {
            if (hasValue) {
                return value;
            }
            if (i + 1 >= args.size()) {
                throw replay::ReplayError("option " + arg + " needs a value");
            }
            return args[++i];
        };
        if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "--rates") {
            options.rates = parseRates(take());
        } else if (arg == "--out") {
            options.out = take();
        } else if (arg == "--config") {
            options.config = take();
        } else if (arg == "--max-samples") {
            const std::string text = take();
            char* end = nullptr;
            const long long n = std::strtoll(text.c_str(), &end, 10);
            if (text.empty() || *end != '\0' || n < 1) {
                throw replay::ReplayError("--max-samples needs a whole number of at least 1, not \"" + text + "\"");
            }
            options.maxSamples = static_cast<std::size_t>(n);
        } else if (arg == "--noise-mm" || arg == "--jitter-ms") {
            const std::string text = take();
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0' || !(value >= 0.0 && value <= 100.0)) {
                throw replay::ReplayError(arg + " needs a number from 0 to 100, not \"" + text + "\"");
            }
            (arg == "--noise-mm" ? options.noiseMm : options.jitterMs) = value;
        } else if (arg == "--whole-pixels") {
            options.wholePixels = true;
        } else if (arg == "--seed") {
            const std::string text = take();
            char* end = nullptr;
            const unsigned long long n = std::strtoull(text.c_str(), &end, 10);
            if (text.empty() || *end != '\0' || text[0] == '-') {
                throw replay::ReplayError("--seed needs a whole number, not \"" + text + "\"");
            }
            options.seed = n;
        } else if (arg == "--quiet") {
            options.quiet = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw replay::ReplayError("unknown option " + arg);
        } else {
            options.inputs.push_back(args[i]);
        }
    }
    if (options.inputs.empty()) {
        options.inputs.push_back(STYLUS_TUNE_DEFAULT_TRAINING);
    }
    for (const std::string& input : options.inputs) {
        for (const auto& part : std::filesystem::path(input)) {
            if (part == "eval") {
                throw replay::ReplayError(input + ": evaluation recordings are never tuned on");
            }
        }
    }
    if (options.out.empty()) {
        options.out = peers::peerFileBeside(options.config);
    }
    return options;
}

// A recording's strokes in seconds and mm; of samples sharing a timestamp the last counts, as in the
// library's input.
std::vector<peers::SmoothStroke> strokesOf(const replay::Recording& recording, double mmPerPixel) {
    std::vector<peers::SmoothStroke> strokes;
    const replay::Batching batching = replay::Batcher().cut(recording.samples);
    for (const replay::Stroke& stroke : batching.strokes) {
        std::vector<peers::StrokeSample> samples;
        for (std::size_t i = stroke.first; i < stroke.first + stroke.count; ++i) {
            const StylusTouchPoint& p = recording.samples[i];
            const peers::StrokeSample s{static_cast<double>(p.timestamp) / 1000.0, p.x_pos * mmPerPixel,
                                        p.y_pos * mmPerPixel};
            if (!samples.empty() && samples.back().t == s.t) {
                samples.back() = s;
            } else {
                samples.push_back(s);
            }
        }
        if (samples.size() >= 2) {
            strokes.emplace_back(std::move(samples));
        }
    }
    return strokes;
}

int run(const Options& options) {
    const auto started = std::chrono::steady_clock::now();
    const replay::ReplayConfig config = replay::ReplayConfig::load(options.config);
    peers::PeerFile file;
    file.mmPerPixel = config.mmPerPixel();
    file.conditions = {options.noiseMm, options.jitterMs, options.wholePixels ? file.mmPerPixel : 0.0, options.seed};
    for (int k = 1; k <= config.numPredictions; ++k) {
        file.horizonsMs.push_back(k * config.predictionStepMs);
    }
    std::vector<peers::SmoothStroke> strokes;
    for (const std::string& path : replay::CommandLine::expandInputs(options.inputs)) {
        std::vector<peers::SmoothStroke> own = strokesOf(replay::RecordingReader::read(path), file.mmPerPixel);
        strokes.insert(strokes.end(), std::make_move_iterator(own.begin()), std::make_move_iterator(own.end()));
        // Named by directory and file only: the file is installed, and no machine's paths belong in it.
        const std::filesystem::path normal = std::filesystem::path(path).lexically_normal();
        file.training.push_back((normal.parent_path().filename() / normal.filename()).string());
    }
    if (strokes.empty()) {
        throw replay::ReplayError("no stroke of two samples or more in the recordings");
    }
    if (!options.quiet) {
        std::cerr << "stylus-tune-peers: " << strokes.size() << " strokes from " << file.training.size()
                  << " recordings, " << options.rates.size() << " rates\n";
    }
    const peers::PeerTuner tuner(std::move(strokes), file.horizonsMs, options.maxSamples, file.conditions);
    for (std::size_t r = 0; r < options.rates.size(); ++r) {
        if (!options.quiet) {
            std::cerr << "rate " << options.rates[r] << " Hz (" << r + 1 << "/" << options.rates.size() << ")\n";
        }
        file.rates.push_back(tuner.tune(options.rates[r], file.rates.empty() ? nullptr : &file.rates.back(),
                                        options.quiet ? nullptr : &std::cerr));
    }
    std::ofstream out(options.out, std::ios::binary | std::ios::trunc);
    file.write(out);
    out.close();
    if (!out) {
        throw replay::ReplayError(options.out + ": cannot write");
    }
    if (!options.quiet) {
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        std::cerr << "stylus-tune-peers: wrote " << options.out << " in " << static_cast<long>(seconds) << " s\n";
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        options = parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& error) {
        std::cerr << "stylus-tune-peers: " << error.what() << "\n\n" << usage;
        return 2;
    }
    if (options.help) {
        std::cout << usage;
        return 0;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "stylus-tune-peers: " << error.what() << "\n";
        return 1;
    }
}
