#include "StylusDataWriter.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdlib>
#include <ctime>
#include <regex>

#include "TestSupport.h"

using testsupport::LogCapture;
using testsupport::readFile;
using testsupport::TempDir;

namespace {

const std::string kHeader = "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag\n";

StylusTouchPoint sample(uint64_t timestamp) {
    StylusTouchPoint p{};
    p.timestamp = timestamp;
    p.tag = 2;
    return p;
}

std::string rows(uint64_t first, uint64_t last) {
    std::string text;
    for (uint64_t t = first; t <= last; ++t) {
        text += std::to_string(t) + ",0.0000000,0.0000000,0.0000000,0.0000000,0.0000000,2\n";
    }
    return text;
}

// Recording that always passes the disk check (a fill is never above 100).
StylusDataWriterParams recording(const std::string& dir, int32_t chunk, int32_t chunksInFile) {
    StylusDataWriterParams params;
    params.dataFileDirectory = dir;
    params.chunkSizeInRecords = chunk;
    params.numChunksInFile = chunksInFile;
    params.diskFillPercentTh = 100;
    return params;
}

// Pushes samples first..last one at a time, then lets the destructor drain and finish.
void record(const StylusDataWriterParams& params, uint64_t first, uint64_t last) {
    StylusDataWriter writer(params);
    for (uint64_t t = first; t <= last; ++t) {
        ASSERT_TRUE(writer.writeData({{t, sample(t)}}));
    }
}

std::vector<std::string> filesIn(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir)) {
        names.push_back(entry.path().string());
    }
    std::sort(names.begin(), names.end());  // time-stamped names sort in creation order
    return names;
}

}  // namespace

TEST(StylusDataWriterTest, RecordingBytesAndRowOrder) {
    TempDir dir;
    {
        StylusDataWriter writer(recording(dir.path(), 1, 100));
        StylusTouchPoint boundary{1700000000123ULL, 1.0f, -0.25f, 0.0f, 12.5f, -3.5f, -1, {}};
        StylusTouchPoint big{18446744073709551615ULL, 123456789.0f, 0.1f, 1.0f / 3.0f, -0.0f, 1e-8f, -2147483647, {}};
        StylusTouchPoint down{5, 512.25f, 300.0f, 0.453125f, 0.7853982f, 1.5707964f, 0, {}};
        EXPECT_TRUE(writer.writeStrokeBoundary(boundary));
        EXPECT_TRUE(writer.writeData({{9, big}, {5, down}}));  // map order, not insertion order
    }
    const auto files = filesIn(dir.path());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(std::regex_match(files[0], std::regex(".*/stylus_input_events_\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d\\.dat")));
    EXPECT_EQ(readFile(files[0]), kHeader +
                                      "1700000000123,1.0000000,-0.2500000,0.0000000,12.5000000,-3.5000000,-1\n"
                                      "5,512.2500000,300.0000000,0.4531250,0.7853982,1.5707964,0\n"
                                      "18446744073709551615,123456792.0000000,0.1000000,0.3333333,-0.0000000,0.0000000,-2147483647\n");
    struct stat info {};
    ASSERT_EQ(stat(files[0].c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);  // the writer cleared the process mask
}

// A file is finished after the configured number of chunks, but never after fewer than two.
TEST(StylusDataWriterTest, RotationAfterConfiguredChunksWithTwoAtLeast) {
    for (int32_t chunksInFile : {1, 2, 3}) {
        SCOPED_TRACE(chunksInFile);
        TempDir dir;
        LogCapture log;
        const int32_t chunks = std::max(chunksInFile, 2);
        const uint64_t perFile = 2 * static_cast<uint64_t>(chunks);
        record(recording(dir.path(), 2, chunksInFile), 1, 2 * perFile + 1);  // two files and one spare sample
        EXPECT_EQ(log.countPrefix("File "), 4);  // two opened, two closed
        EXPECT_EQ(log.countPrefix("Chunk " + std::to_string(chunks) + " for "), 2);
        EXPECT_EQ(log.countPrefix("Chunk " + std::to_string(chunks + 1) + " "), 0);
        // The spare sample never made a chunk and no file was open for it: dropped. A second file
        // started in the same second as the first replaces it.
        const auto files = filesIn(dir.path());
        ASSERT_FALSE(files.empty());
        ASSERT_LE(files.size(), 2u);
        EXPECT_EQ(readFile(files.back()), kHeader + rows(perFile + 1, 2 * perFile));
        if (files.size() == 2) {
            EXPECT_EQ(readFile(files[0]), kHeader + rows(1, perFile));
        }
    }
}

TEST(StylusDataWriterTest, NoFileForAPartialChunkOrAboveTheDiskThreshold) {
    TempDir dir;
    LogCapture log;
    record(recording(dir.path(), 5, 10), 1, 4);
    record(recording(dir.path(), -1, 10), 1, 20);  // a negative chunk size never writes
    EXPECT_TRUE(filesIn(dir.path()).empty());
    StylusDataWriterParams full = recording(dir.path(), 2, 2);
    full.diskFillPercentTh = -1;
    record(full, 1, 6);
    const std::regex skip("Disk Fill Percentage : \\d+ greater than allowed \\(-1\\)\\. Skipping data write");
    const auto messages = log.messages();
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(), [&](const std::string& m) { return std::regex_match(m, skip); }), 3);
    EXPECT_TRUE(filesIn(dir.path()).empty());

    full.queueCapacity = 0;  // every push is refused, never waited for
    StylusDataWriter writer(full);
    EXPECT_TRUE(writer.writeData({}));
    EXPECT_FALSE(writer.writeData({{1, sample(1)}, {2, sample(2)}}));
    EXPECT_FALSE(writer.writeStrokeBoundary(sample(3)));
}

TEST(StylusDataWriterTest, ConstructorReportsDirectoryAndMask) {
    TempDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0775), 0);
    umask(022);
    LogCapture log;
    { StylusDataWriter writer(recording(dir.path(), 1, 2)); }
    EXPECT_EQ(umask(0), 0u);
    std::vector<std::string> own;  // without the disk check's own lines
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.tag, "StylusPredictor-DataWriter");
        if (line.function != "getDiskFillPercentage") {
            own.push_back(line.message.rfind("Disk Fill Percent At Startup : ", 0) == 0 ? "(fill)" : line.message);
        }
    }
    EXPECT_EQ(own, (std::vector<std::string>{"\"" + dir.path() + "\" permissions: 775",
                                             "DAC permissions exist for stylus data writing", "(fill)", "Old Mask : 18",
                                             "StylusDataWriter constructor", "StylusDataWriter destructor"}));
    EXPECT_EQ(log.lines().back().function, "~StylusDataWriter");
}

TEST(StylusDataWriterTest, MissingDirectoryKeepsRunningAndFailsEachOpen) {
    TempDir dir;
    const std::string missing = dir.file("missing");
    LogCapture log;
    record(recording(missing, 2, 2), 1, 4);
    EXPECT_EQ(log.count("\"" + missing + "\" permissions: 0"), 1);
    EXPECT_EQ(log.count("Error code returned when checking directory status.  errorCode.value() : 2, errorCode.message() : "
                        "No such file or directory, errorCode.default_error_condition().value() : 2, "
                        "errorCode.default_error_condition().message() : No such file or directory"), 1);
    // One per chunk: the state stays "no file" and the next chunk tries again.
    EXPECT_EQ(log.countPrefix("Cannot open file : " + missing + "/stylus_input_events_"), 2);
    EXPECT_EQ(log.countPrefix("Chunk "), 0);
    EXPECT_TRUE(filesIn(dir.path()).empty());
}

TEST(StylusDataWriterTest, CopyAndRemoveTmpFile) {
    TempDir dir;
    const std::string tmp = dir.file("a.dat.tmp");
    const std::string dat = dir.file("a.dat");
    const std::string bytes("x\r\n\0y\xff", 6);
    testsupport::writeFile(dat, "an older, longer file of the same name");
    testsupport::writeFile(tmp, bytes);
    StylusDataWriter::copyAndRemoveTmpFile(tmp, dat);
    EXPECT_EQ(readFile(dat), bytes);
    EXPECT_FALSE(boost::filesystem::exists(tmp));

    StylusDataWriter::copyAndRemoveTmpFile(dir.file("gone.tmp"), dir.file("gone.dat"));
    EXPECT_EQ(readFile(dir.file("gone.dat")), "");
}

TEST(StylusDataWriterTest, DiskFillPercentIsTheUsedShareRoundedDown) {
    const int cases[][3] = {{1000, 700, 30}, {1000, 691, 30}, {1000, 690, 31}, {1000, 1000, 0}, {1000, 0, 100}, {0, 0, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(StylusDataWriter::fillPercent(c[0], c[1]), c[2]) << c[0] << " " << c[1];
    }
    TempDir dir;
    StylusDataWriter writer(recording(dir.path(), 1, 2));
    LogCapture log;
    const std::string missing = dir.file("nowhere/");
    EXPECT_EQ(writer.getDiskFillPercentage(missing), 100);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"pathToCheckDiskSpace : \"" + missing + "\"",
                                                         "Attempt to check disk space for path that does not exist. "
                                                         "Directory Path" + missing}));
    const int fill = writer.getDiskFillPercentage(dir.path());
    EXPECT_NE(log.messages().back().find(", diskSpaceFillPercent : " + std::to_string(fill)), std::string::npos);
}

TEST(StylusDataWriterTest, DateTimeStringIsUtc) {
    setenv("TZ", "XYZ-5", 1);  // local time 5 h ahead: a local-time stamp would differ from UTC
    tzset();
    auto utcNow = [] {
        std::time_t now = std::time(nullptr);
        std::tm utc{};
        char text[32];
        return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%d_%H-%M-%S", gmtime_r(&now, &utc)));
    };
    const std::string before = utcNow();
    const std::string stamp = StylusDataWriter::getCurrentDateTimeString();
    const std::string after = utcNow();
    unsetenv("TZ");
    tzset();
    EXPECT_TRUE(stamp == before || stamp == after) << stamp;
}
