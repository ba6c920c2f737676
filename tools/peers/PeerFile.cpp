#include "PeerFile.h"

#include <algorithm>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "JsonText.h"
#include "PredictorTable.h"

namespace peers {

namespace {

std::string real(double value) { return jsonNumber(value, 8); }

std::string quoted(const std::string& text) { return jsonString(text); }

double optionalReal(const boost::property_tree::ptree& tree, const std::string& key) {
    const auto text = tree.get_optional<std::string>(key);
    if (!text || *text == "null") {
        return std::nan("");
    }
    return tree.get<double>(key);
}

}  // namespace

const char* const PeerFile::format = "stylus-peers 1";

PeerFile PeerFile::load(const std::string& path) {
    namespace pt = boost::property_tree;
    pt::ptree tree;
    try {
        pt::read_json(path, tree);
    } catch (const pt::json_parser_error& error) {
        throw std::runtime_error(path + ": " + (error.line() > 0 ? std::to_string(error.line()) + ": " : "") +
                                 error.message());
    }
    PeerFile file;
    try {
        if (tree.get<std::string>("format", "") != format) {
            throw std::runtime_error(std::string("not a peers file (\"format\" is not \"") + format + "\")");
        }
        file.mmPerPixel = tree.get<double>("mm_per_pixel");
        file.conditions.noiseMm = tree.get<double>("conditions.noise_mm", 0.0);
        file.conditions.jitterMs = tree.get<double>("conditions.jitter_ms", 0.0);
        file.conditions.pixelMm = tree.get<double>("conditions.whole_pixel_mm", 0.0);
        file.conditions.seed = tree.get<uint64_t>("conditions.seed", 0);
        for (const auto& item : tree.get_child("training")) {
            file.training.push_back(item.second.get_value<std::string>());
        }
        for (const auto& item : tree.get_child("horizons_ms")) {
            file.horizonsMs.push_back(item.second.get_value<int>());
        }
        for (const auto& item : tree.get_child("rates")) {
            const pt::ptree& node = item.second;
            TunedRate rate;
            rate.rateHz = node.get<double>("rate_hz");
            rate.strokes = node.get<std::size_t>("strokes", 0);
            rate.points = node.get<std::size_t>("points", 0);
            for (const PredictorKind& kind : predictorKinds()) {
                if (!kind.tuned) {
                    continue;
                }
                const pt::ptree& own = node.get_child(std::string("peers.") + kind.key);
                TunedPeer peer;
                for (const Parameter& p : kind.parameters) {
                    const double value = own.get<double>(p.name);
                    if (!(value >= p.min && value <= p.max)) {
                        throw std::runtime_error(std::string(kind.key) + "." + p.name + " at " +
                                                 real(rate.rateHz) + " Hz lies outside its range");
                    }
                    peer.values.push_back(value);
                }
                peer.errorMm = optionalReal(own, "mean_error_mm");
                peer.initialErrorMm = optionalReal(own, "untuned_error_mm");
                rate.peers[kind.key] = peer;
            }
            file.rates.push_back(rate);
        }
    } catch (const pt::ptree_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
    if (file.rates.empty()) {
        throw std::runtime_error(path + ": no tuned rate");
    }
    std::sort(file.rates.begin(), file.rates.end(),
              [](const TunedRate& a, const TunedRate& b) { return a.rateHz < b.rateHz; });
    return file;
}

void PeerFile::write(std::ostream& out) const {
    out << "{\n  \"format\": " << quoted(format) << ",\n";
    out << "  \"tool\": \"stylus-tune-peers\",\n";
    out << "  \"units\": \"seconds and millimetres\",\n";
    out << "  \"objective\": \"mean over the horizons of the mean distance to the pen, training strokes "
           "resampled smoothly to each rate\",\n";
    out << "  \"mm_per_pixel\": " << real(mmPerPixel) << ",\n";
    out << "  \"conditions\": {\"noise_mm\": " << real(conditions.noiseMm) << ", \"jitter_ms\": "
        << real(conditions.jitterMs) << ", \"whole_pixel_mm\": " << real(conditions.pixelMm)
        << ", \"seed\": " << conditions.seed << "},\n";
    out << "  \"horizons_ms\": [";
    for (std::size_t i = 0; i < horizonsMs.size(); ++i) {
        out << (i > 0 ? ", " : "") << horizonsMs[i];
    }
    out << "],\n  \"training\": [";
    for (std::size_t i = 0; i < training.size(); ++i) {
        out << (i > 0 ? ",\n    " : "\n    ") << quoted(training[i]);
    }
    out << (training.empty() ? "],\n" : "\n  ],\n");
    out << "  \"rates\": [";
    for (std::size_t r = 0; r < rates.size(); ++r) {
        const TunedRate& rate = rates[r];
        out << (r > 0 ? ",\n" : "\n") << "    {\"rate_hz\": " << real(rate.rateHz) << ", \"strokes\": " << rate.strokes
            << ", \"points\": " << rate.points << ", \"peers\": {";
        bool first = true;
        for (const PredictorKind& kind : predictorKinds()) {
            const auto found = rate.peers.find(kind.key);
            if (!kind.tuned || found == rate.peers.end()) {
                continue;
            }
            out << (first ? "\n" : ",\n") << "      " << quoted(kind.key) << ": {";
            first = false;
            for (std::size_t p = 0; p < kind.parameters.size() && p < found->second.values.size(); ++p) {
                out << quoted(kind.parameters[p].name) << ": " << real(found->second.values[p]) << ", ";
            }
            out << "\"mean_error_mm\": " << real(found->second.errorMm)
                << ", \"untuned_error_mm\": " << real(found->second.initialErrorMm) << "}";
        }
        out << "}}";
    }
    out << (rates.empty() ? "]\n" : "\n  ]\n") << "}\n";
}

const TunedRate& PeerFile::nearest(double rateHz) const {
    if (rates.empty()) {
        throw std::runtime_error("no tuned rate");
    }
    const TunedRate* best = &rates.front();
    for (const TunedRate& rate : rates) {
        if (std::fabs(1.0 / rate.rateHz - 1.0 / rateHz) < std::fabs(1.0 / best->rateHz - 1.0 / rateHz)) {
            best = &rate;
        }
    }
    return *best;
}

std::string peerFileBeside(const std::string& configPath) {
    std::filesystem::path path(configPath);
    path.replace_extension(".peers.json");
    return path.string();
}

}  // namespace peers
