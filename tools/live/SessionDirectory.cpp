#include "SessionDirectory.h"

#include <ctime>
#include <stdexcept>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

namespace live {

namespace fs = boost::filesystem;

namespace {

std::string utcStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y%m%d-%H%M%S", &utc);
    return text;
}

}  // namespace

SessionSetup SessionDirectory::create(const std::string& root, const std::string& baseConfig) {
    boost::property_tree::ptree config;
    try {
        boost::property_tree::read_json(baseConfig, config);
    } catch (const boost::property_tree::json_parser_error& error) {
        throw std::runtime_error(baseConfig + ": not a readable JSON configuration: " + error.what());
    }
    boost::system::error_code code;
    fs::create_directories(root, code);
    if (code) {
        throw std::runtime_error(root + ": cannot create the recording directory: " + code.message());
    }
    SessionSetup setup;
    const std::string stamp = "live-" + utcStamp();
    const fs::path rootPath = fs::absolute(root);
    fs::path directory;
    for (int attempt = 1;; ++attempt) {
        setup.name = attempt == 1 ? stamp : stamp + "-" + std::to_string(attempt);
        directory = rootPath / setup.name;
        if (fs::create_directory(directory, code)) {
            break;
        }
        if (code || attempt >= 1000) {
            throw std::runtime_error(directory.string() + ": cannot create the session directory" +
                                     (code ? ": " + code.message() : std::string()));
        }
    }
    setup.directory = directory.string();
    const fs::path predictorDir = directory / "predictor";
    fs::create_directory(predictorDir, code);
    if (code) {
        throw std::runtime_error(predictorDir.string() + ": cannot create: " + code.message());
    }

    const std::string modelName = config.get<std::string>("PredictionModel.model_name", "");
    const fs::path model = fs::absolute(fs::path(baseConfig).parent_path() / modelName);
    fs::create_symlink(model, predictorDir / modelName, code);
    if (code) {
        throw std::runtime_error((predictorDir / modelName).string() + ": cannot link the model " + model.string() +
                                 ": " + code.message());
    }
    config.put("Pipeline.enableDataWriting", "true");
    config.put("Pipeline.canControlDataWritingAtRunTime", "true");
    config.put("Pipeline.dataFileDirectory", setup.directory);
    config.put("Pipeline.dataFileNameSuffix", "live");
    config.put("Pipeline.chunkSizeInRecords", "1");
    config.put("Pipeline.diskCheckPath", setup.directory);
    // The library's default stops recording on a disk 30 % full; a session is small.
    if (!config.get_child_optional("Pipeline.diskFillPercentTh")) {
        config.put("Pipeline.diskFillPercentTh", "95");
    }
    setup.stepMs = config.get<int>("PredictionModel.prediction_time_delta_ms", 4);
    setup.pixelPerInch = config.get<int>("PredictionModel.pixel_per_inch", 213);
    setup.configPath = (predictorDir / "stylus_predictor.json").string();
    try {
        boost::property_tree::write_json(setup.configPath, config);
    } catch (const boost::property_tree::json_parser_error& error) {
        throw std::runtime_error(setup.configPath + ": cannot write: " + error.what());
    }
    return setup;
}

void SessionDirectory::removeIfUnrecorded(const std::string& directory) {
    boost::system::error_code code;
    for (fs::directory_iterator it(directory, code), end; !code && it != end; it.increment(code)) {
        const std::string name = it->path().filename().string();
        if (name != "predictor" && name != "data_collect_user_pref") {
            return;
        }
    }
    if (!code) {
        fs::remove_all(directory, code);
    }
}

}  // namespace live
