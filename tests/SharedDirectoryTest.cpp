// The files the library keeps in directories another process may write into: whatever is planted
// under their names (a link, a FIFO, a directory, a huge sparse file), nothing outside the directory
// changes, nothing hangs and the reason is logged.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <future>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "PredictiveMetricCalculator.h"
#include "RecordingFormat.h"
#include "StylusDataWriter.h"
#include "StylusStrokePredictor.h"
#include "TestSupport.h"

namespace {

using testsupport::LogCapture;
using testsupport::TempDir;
namespace fs = boost::filesystem;

enum class Kind { Symlink, HardLink, Fifo, Directory, HugeSparse };

const char* nameOf(Kind kind) {
    switch (kind) {
        case Kind::Symlink:
            return "symbolic link";
        case Kind::HardLink:
            return "hard link";
        case Kind::Fifo:
            return "FIFO";
        case Kind::Directory:
            return "directory";
        case Kind::HugeSparse:
            return "huge sparse file";
    }
    return "";
}

const std::string kHeader = recordingformat::kHeaderLine;
// Files outside the directory that links point to: a recording with a torn last row (which a
// followed link would cut and publish) and a state file a followed link would load or overwrite.
const std::string kOutsideRecording = kHeader + "1,1.0000000,2.0000000,0.0000000,0.0000000,0.0000000,0\n2,1.0";
const std::string kOutsideState = "5,1,2,4,0.25";

void plant(Kind kind, const std::string& path, const std::string& outside) {
    switch (kind) {
        case Kind::Symlink:
            ASSERT_EQ(symlink(outside.c_str(), path.c_str()), 0) << path;
            break;
        case Kind::HardLink:
            ASSERT_EQ(link(outside.c_str(), path.c_str()), 0) << path;
            break;
        case Kind::Fifo:
            ASSERT_EQ(mkfifo(path.c_str(), 0666), 0) << path;
            break;
        case Kind::Directory:
            ASSERT_TRUE(fs::create_directory(path)) << path;
            break;
        case Kind::HugeSparse: {
            // A recording's header, then 64 GB of nothing.
            testsupport::writeFile(path, kHeader);
            ASSERT_EQ(truncate(path.c_str(), off_t{64} << 30), 0) << path;
            break;
        }
    }
}

// Runs what may block on a planted FIFO; a hang fails the whole run instead of stalling it.
template <typename Work>
void withinWatchdog(const std::string& what, Work work) {
    auto done = std::async(std::launch::async, work);
    if (done.wait_for(std::chrono::seconds(60)) == std::future_status::timeout) {
        std::fprintf(stderr, "%s did not finish within 60 s: it blocks on a planted file\n", what.c_str());
        std::fflush(stderr);
        _exit(1);
    }
    done.get();
}

std::string writeConfig(const TempDir& dir, const std::string& recordings) {
    const std::string model = "const_n10_p5.tflite";
    fs::copy_file(testkit::generatedModel(model), dir.file(model), fs::copy_options::overwrite_existing);
    const std::string config = dir.file("predictor.json");
    testsupport::writeFile(config, R"({"Pipeline": {"logLevel": "INFO", "enableDataWriting": true,
        "canControlDataWritingAtRunTime": true, "chunkSizeInRecords": 2, "diskFillPercentTh": 100,
        "dataFileDirectory": ")" + recordings + R"("}, "PredictionModel": {"model_name": ")" + model +
                                       R"(", "num_historical_points": 10, "min_num_historical_points": 10,
        "feature_timestamp_min": 0, "feature_timestamp_max": 10, "feature_xpos_min": -5, "feature_xpos_max": 5,
        "feature_ypos_min": -5, "feature_ypos_max": 5, "feature_pressure_min": -1, "feature_pressure_max": 1,
        "feature_tilt_min": -1, "feature_tilt_max": 1, "feature_orientation_min": -1,
        "feature_orientation_max": 1}})");
    return config;
}

void onPredictions(const PredictedStylusTouchPoints*) {}

std::string utcStamp(std::time_t time) {
    std::tm utc{};
    char text[32];
    return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%d_%H-%M-%S", gmtime_r(&time, &utc)));
}

struct Outside {
    std::string path;
    std::string bytes;
};

}  // namespace

// Every name the library uses, each kind planted under all of them at once; the table holds the line
// logged for each name (P: the planted path, D: the directory).
TEST(SharedDirectoryTest, PlantedFilesAreNeverFollowedBlockedOnOrWrittenThrough) {
    const std::string prefix = "stylus_input_events_";
    const std::string leftover = prefix + "2020-01-01_00-00-00.dat.tmp";
    const std::string hidden = prefix + "2020-01-01_00-00-01.dat.tmp.new-Plant1";
    const std::string metricsTemporary = "runningMetrics.txt.tmp.Plant1";
    const std::string notRegular = "not a regular file";
    const std::map<Kind, std::map<std::string, std::string>> expected = {
        {Kind::Symlink,
         {{"metrics", "Metrics file P not used (a symbolic link, not followed), starting fresh"},
          {"temporary", "Left " + metricsTemporary + " beside D/runningMetrics.txt as it is: named like a temporary "
                        "file but not a regular file of this user"},
          {"consent", "Consent file P not read (a symbolic link, not followed)"},
          {"leftover", "Leftover recording P not finished: left as it is, a symbolic link: P"},
          {"hidden", "Left P as it is: a symbolic link"}}},
        {Kind::HardLink,
         {{"metrics", "Metrics file P not used (a file with other names (a hard link)), starting fresh"},
          {"temporary", "Removed 1 temporary files an interrupted save left beside D/runningMetrics.txt"},
          {"consent", "Consent file P not read (a file with other names (a hard link))"},
          {"leftover", "Leftover recording P not finished: has other names (published already, or a hard link), "
                       "only the name P removed"},
          {"hidden", "Left P as it is: not a regular file of this user with one name"}}},
        {Kind::Fifo,
         {{"metrics", "Metrics file P not used (" + notRegular + "), starting fresh"},
          {"temporary", "Left " + metricsTemporary + " beside D/runningMetrics.txt as it is: named like a temporary "
                        "file but not a regular file of this user"},
          {"consent", "Consent file P not read (" + notRegular + ")"},
          {"leftover", "Leftover recording P not finished: left as it is, not a regular file of this user: P"},
          {"hidden", "Left P as it is: not a regular file of this user with one name"}}},
        {Kind::Directory,
         {{"metrics", "Error in writing file : P (cannot rename the temporary file: Is a directory)"},
          {"temporary", "Left " + metricsTemporary + " beside D/runningMetrics.txt as it is: named like a temporary "
                        "file but not a regular file of this user"},
          {"consent", "Consent file P not written (cannot rename the temporary file: Is a directory)"},
          {"leftover", "Leftover recording P not finished: cannot open P: Is a directory"},
          {"hidden", "Left P as it is: not a regular file of this user with one name"}}},
        {Kind::HugeSparse,
         {{"metrics", "Metrics file P not used (longer than 256 bytes), starting fresh"},
          {"temporary", "Removed 1 temporary files an interrupted save left beside D/runningMetrics.txt"},
          {"consent", "Consent file P not read (longer than 4096 bytes)"},
          {"leftover", "Leftover recording P not finished: left as it is, not a recording (a sparse file): P"},
          {"hidden", "Left P as it is: recent or locked, perhaps being created"}}},
    };
    for (const auto& [kind, lines] : expected) {
        SCOPED_TRACE(nameOf(kind));
        TempDir outsideDir;
        TempDir dir;
        const Outside recordingTarget{outsideDir.file("recording"), kOutsideRecording};
        const Outside stateTarget{outsideDir.file("state"), kOutsideState};
        for (const Outside& target : {recordingTarget, stateTarget}) {
            testsupport::writeFile(target.path, target.bytes);
        }
        const std::string recordings = dir.file("rec");
        fs::create_directory(recordings);
        const std::map<std::string, std::pair<std::string, const Outside*>> names = {
            {"metrics", {dir.file("runningMetrics.txt"), &stateTarget}},
            {"temporary", {dir.file(metricsTemporary), &stateTarget}},
            {"consent", {recordings + "/data_collect_user_pref", &stateTarget}},
            {"leftover", {recordings + "/" + leftover, &recordingTarget}},
            {"hidden", {recordings + "/" + hidden, &recordingTarget}},
        };
        for (const auto& [role, planted] : names) {
            plant(kind, planted.first, planted.second->path);
        }
        // The names the recorder is about to give its file, taken as well.
        std::vector<std::string> taken;
        for (std::time_t second = std::time(nullptr); taken.size() < 3; ++second) {
            taken.push_back(recordings + "/" + prefix + utcStamp(second) + ".dat");
            plant(kind, taken.back(), recordingTarget.path);
        }

        LogCapture log(velmar::Info);
        withinWatchdog("the metrics", [&] {
            styluspipeline::PredictiveMetricCalculator metrics(254.0f, 25.4f, 1000, 0, names.at("metrics").first);
        });
        const std::string config = writeConfig(dir, recordings);
        withinWatchdog("a pipeline", [&] {
            StylusPredictionParams params{config.c_str(), &onPredictions, nullptr};
            StylusLibHandle* handle = InitStylusLib(&params);
            EXPECT_EQ(controlDataWriting(handle, 1), 0);
            // The recorder looks at the leftovers on its own thread; the last one it logs is the hidden.
            EXPECT_TRUE(testsupport::waitUntil([&] {
                return log.countPrefix("Left " + names.at("hidden").first) + log.countPrefix("Abandoned") > 0;
            }));
            std::vector<StylusTouchPoint> batch(4);
            for (size_t i = 0; i < batch.size(); ++i) {
                batch[i].timestamp = 10 + i;
                batch[i].tag = i == 0 ? STYLUS_TAG_PEN_DOWN : STYLUS_TAG_MOVE;
            }
            EXPECT_EQ(sendInputTouchPoints(handle, batch.data(), static_cast<int>(batch.size())), 0);
            DeInitStylusLib(handle);
        });

        for (const auto& [role, line] : lines) {
            SCOPED_TRACE(role);
            std::string text = std::regex_replace(line, std::regex("\\bD/"), dir.path() + "/");
            text = std::regex_replace(text, std::regex("\\bP\\b"), names.at(role).first);
            EXPECT_EQ(log.count(text), 1) << text;
        }
        for (const Outside& target : {recordingTarget, stateTarget}) {
            EXPECT_EQ(testsupport::readFile(target.path), target.bytes) << target.path;
        }
        if (kind != Kind::Directory) {
            EXPECT_EQ(testsupport::readFile(names.at("metrics").first), "0,0,0,0,0");
            EXPECT_EQ(testsupport::readFile(names.at("consent").first), "1");
            for (const char* role : {"metrics", "consent"}) {
                struct stat info {};
                ASSERT_EQ(lstat(names.at(role).first.c_str(), &info), 0);
                EXPECT_TRUE(S_ISREG(info.st_mode)) << role;
                EXPECT_EQ(info.st_mode & 0777, 0644u) << role;
            }
        }
        // The recorder's rows are in a file of its own, under none of the names planted.
        std::vector<std::string> published;
        for (const std::string& file : testsupport::filesIn(recordings)) {
            struct stat info {};
            if (lstat(file.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1 &&
                std::regex_search(file, std::regex("_\\d+\\.dat$|\\d\\.dat$")) &&
                std::find(taken.begin(), taken.end(), file) == taken.end()) {
                published.push_back(testsupport::readFile(file));
            }
        }
        EXPECT_EQ(published,
                  std::vector<std::string>{kHeader + "10,0.0000000,0.0000000,0.0000000,0.0000000,0.0000000,0\n" +
                                           "11,0.0000000,0.0000000,0.0000000,0.0000000,0.0000000,2\n" +
                                           "12,0.0000000,0.0000000,0.0000000,0.0000000,0.0000000,2\n" +
                                           "13,0.0000000,0.0000000,0.0000000,0.0000000,0.0000000,2\n"});
    }
}

// Files of another user, however well named, are not this library's to finish or remove.
TEST(SharedDirectoryTest, FilesOfAnotherUserAreLeftAlone) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a file to another user";
    }
    TempDir dir;
    const std::string leftover = dir.file("stylus_input_events_2020-01-01_00-00-00.dat.tmp");
    const std::string temporary = dir.file("runningMetrics.txt.tmp.Plant1");
    const std::string content = kHeader + "1,1.0000000,2.0000000,0.0000000,0.0000000,0.0000000,0\n2,1.0";
    for (const std::string& path : {leftover, temporary}) {
        testsupport::writeFile(path, content);
        ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
    }
    LogCapture log(velmar::Info);
    { styluspipeline::PredictiveMetricCalculator metrics(254.0f, 25.4f, 1000, 0, dir.file("runningMetrics.txt")); }
    {
        StylusDataWriterParams params;
        params.dataFileDirectory = dir.path();
        StylusDataWriter writer(params);
        ASSERT_TRUE(testsupport::waitUntil([&] { return writer.leftoversChecked(); }));
    }
    EXPECT_EQ(log.count("Leftover recording " + leftover + " not finished: left as it is, not a regular file of "
                        "this user: " + leftover),
              1);
    for (const std::string& path : {leftover, temporary}) {
        EXPECT_EQ(testsupport::readFile(path), content);
    }
}
