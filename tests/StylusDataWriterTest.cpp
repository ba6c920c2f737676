#include "StylusDataWriter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "RecordingFormat.h"
#include "TestSupport.h"

using testsupport::filesIn;
using testsupport::LogCapture;
using testsupport::readFile;
using testsupport::TempDir;

namespace {

const std::string kHeader = recordingformat::kHeaderLine;
const std::string kPrefix = "stylus_input_events_";

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

// Pushes samples first..last one at a time, then stops the writer and returns its counts.
RecorderCounts record(const StylusDataWriterParams& params, uint64_t first, uint64_t last) {
    StylusDataWriter writer(params);
    for (uint64_t t = first; t <= last; ++t) {
        EXPECT_TRUE(writer.writeData({{t, sample(t)}}));
    }
    writer.stop();
    return writer.counts();
}

void expectCounts(const RecorderCounts& counts, uint64_t accepted, uint64_t written, uint64_t lost, uint64_t refused) {
    EXPECT_EQ(counts.accepted, accepted);
    EXPECT_EQ(counts.written, written);
    EXPECT_EQ(counts.lost, lost);
    EXPECT_EQ(counts.refused, refused);
}

std::string countsLine(uint64_t accepted, uint64_t written, uint64_t lost, uint64_t refused) {
    return "Recorder samples at shutdown : accepted " + std::to_string(accepted) + ", written " +
           std::to_string(written) + ", lost " + std::to_string(lost) + ", refused by the full queue " +
           std::to_string(refused) + ", not numbers 0";
}

// The ".dat.tmp" recording in dir once it holds exactly content; empty if that never happens. A
// recording is created under a name of its own first, which a listing may catch.
std::string waitForRecording(const std::string& dir, const std::string& content) {
    std::string tmp;
    const bool seen = testsupport::waitUntil([&] {
        for (const std::string& name : filesIn(dir)) {
            if (name.size() > 8 && name.compare(name.size() - 8, 8, ".dat.tmp") == 0) {
                std::ifstream file(name);
                std::stringstream text;
                text << file.rdbuf();
                tmp = name;
                return file.is_open() && text.str() == content;
            }
        }
        return false;
    });
    return seen ? tmp : std::string();
}

std::string utcStamp(std::time_t time) {
    std::tm utc{};
    char text[32];
    return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%d_%H-%M-%S", gmtime_r(&time, &utc)));
}

}  // namespace

TEST(StylusDataWriterTest, RecordingBytesAndRowOrder) {
    TempDir dir;
    umask(022);
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
    EXPECT_EQ(info.st_mode & 0777, 0666u);  // whatever the process mask, which stays as it was
    EXPECT_EQ(umask(022), 022u);
}

// A file is finished after the configured number of chunks, but never after fewer than two; a
// second file started in the same second gets a name of its own.
TEST(StylusDataWriterTest, RotationAfterConfiguredChunksWithTwoAtLeast) {
    for (int32_t chunksInFile : {1, 2, 3}) {
        SCOPED_TRACE(chunksInFile);
        TempDir dir;
        LogCapture log;
        const int32_t chunks = std::max(chunksInFile, 2);
        const uint64_t perFile = 2 * static_cast<uint64_t>(chunks);
        // Two files and one spare sample, which never made a chunk and had no file open: lost.
        const RecorderCounts counts = record(recording(dir.path(), 2, chunksInFile), 1, 2 * perFile + 1);
        EXPECT_EQ(log.countPrefix("File "), 4);  // two opened, two closed
        EXPECT_EQ(log.countPrefix("Chunk " + std::to_string(chunks) + " for "), 2);
        EXPECT_EQ(log.countPrefix("Chunk " + std::to_string(chunks + 1) + " "), 0);
        EXPECT_EQ(log.countPrefix("Recorder samples at file rotation : accepted "), 2);
        expectCounts(counts, 2 * perFile + 1, 2 * perFile, 1, 0);
        EXPECT_EQ(log.count(countsLine(2 * perFile + 1, 2 * perFile, 1, 0)), 1);
        const auto files = filesIn(dir.path());
        ASSERT_EQ(files.size(), 2u);
        EXPECT_EQ(readFile(files[0]), kHeader + rows(1, perFile));
        EXPECT_EQ(readFile(files[1]), kHeader + rows(perFile + 1, 2 * perFile));
    }
}

TEST(StylusDataWriterTest, PartialChunkFullDiskAndFullQueueAreCountedLostOrRefused) {
    TempDir dir;
    LogCapture log;
    expectCounts(record(recording(dir.path(), 5, 10), 1, 4), 4, 0, 4, 0);
    expectCounts(record(recording(dir.path(), -1, 10), 1, 20), 20, 0, 20, 0);  // a negative chunk size never writes
    EXPECT_TRUE(filesIn(dir.path()).empty());
    StylusDataWriterParams full = recording(dir.path(), 2, 2);
    full.diskFillPercentTh = -1;
    expectCounts(record(full, 1, 6), 6, 0, 6, 0);
    EXPECT_EQ(log.countMatching(std::regex("Disk Fill Percentage : \\d+ greater than allowed \\(-1\\)\\. Skipping data write")),
              3);
    EXPECT_TRUE(filesIn(dir.path()).empty());

    full.queueCapacity = 0;  // every push is refused, never waited for
    StylusDataWriter writer(full);
    EXPECT_TRUE(writer.writeData({}));
    EXPECT_FALSE(writer.writeData({{1, sample(1)}, {2, sample(2)}}));
    EXPECT_FALSE(writer.writeStrokeBoundary(sample(3)));
    writer.stop();
    EXPECT_FALSE(writer.writeStrokeBoundary(sample(4)));  // a stopped writer refuses too
    expectCounts(writer.counts(), 0, 0, 0, 4);
}

TEST(StylusDataWriterTest, ConstructorReportsDirectoryAndDiskAndRefusesNoDirectory) {
    TempDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0775), 0);
    LogCapture log;
    StylusDataWriterParams params = recording(dir.path(), 1, 2);
    params.diskCheckPath = dir.file("");
    { StylusDataWriter writer(params); }
    std::vector<std::string> own;  // without the disk check's own lines
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.tag, "StylusPredictor-DataWriter");
        if (line.function != "getDiskFillPercentage") {
            own.push_back(line.message.rfind("Disk Fill Percent At Startup : ", 0) == 0 ? "(fill)" : line.message);
        }
    }
    EXPECT_EQ(own, (std::vector<std::string>{"\"" + dir.path() + "\" permissions: 775",
                                             "DAC permissions exist for stylus data writing", "(fill)",
                                             "StylusDataWriter constructor", countsLine(0, 0, 0, 0),
                                             "StylusDataWriter destructor"}));
    EXPECT_EQ(log.lines().back().function, "~StylusDataWriter");
    EXPECT_EQ(log.count("pathToCheckDiskSpace : \"" + dir.path() + "/\""), 1);

    params.dataFileDirectory.clear();
    try {
        StylusDataWriter writer(params);
        ADD_FAILURE() << "a writer without a directory was built";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Recording is enabled but no directory is configured: set Pipeline.dataFileDirectory");
    }
}

TEST(StylusDataWriterTest, MissingDirectoryKeepsRunningAndFailsEachOpen) {
    TempDir dir;
    const std::string missing = dir.file("missing");
    LogCapture log;
    expectCounts(record(recording(missing, 2, 2), 1, 4), 4, 0, 4, 0);
    EXPECT_EQ(log.count("\"" + missing + "\" permissions: 0"), 1);
    EXPECT_EQ(log.count("Error code returned when checking directory status.  errorCode.value() : 2, errorCode.message() : "
                        "No such file or directory, errorCode.default_error_condition().value() : 2, "
                        "errorCode.default_error_condition().message() : No such file or directory"), 1);
    // One per chunk: the state stays "no file" and the next chunk tries again.
    const std::regex cannotOpen("Cannot open file : " + missing + "/stylus_input_events_[-_0-9]+\\.dat\\.tmp for writing "
                                "stylus data \\(cannot create .*: No such file or directory\\)");
    EXPECT_EQ(log.countMatching(cannotOpen), 2);
    EXPECT_EQ(log.countPrefix("Chunk "), 0);
    EXPECT_TRUE(filesIn(dir.path()).empty());
}

// A size-limited file system fills up while recording: the file keeps exactly the whole rows that
// fit, later files that cannot even take the header are removed, and the loss is counted and logged.
TEST(StylusDataWriterTest, FullFileSystemKeepsTheWholeRowsThatFit) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "mounting a small tmpfs needs root";
    }
    TempDir dir;
    const std::string small = dir.file("small");
    ASSERT_EQ(mkdir(small.c_str(), 0755), 0);
    if (mount("tmpfs", small.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    }
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{small};
    struct statvfs space {};
    ASSERT_EQ(statvfs(small.c_str(), &space), 0);
    const uint64_t first = 1000000;  // seven digits: every row is 60 bytes
    const uint64_t rowLength = rows(first, first).size();
    ASSERT_EQ(rowLength, 60u);
    const uint64_t fitting = (space.f_blocks * space.f_frsize - kHeader.size()) / rowLength;
    const uint64_t total = fitting + 300;

    LogCapture log;
    StylusDataWriterParams params = recording(small, 7, 1000000);
    params.diskCheckPath = small;
    params.queueCapacity = static_cast<int32_t>(total);
    const RecorderCounts counts = record(params, first, first + total - 1);

    const auto files = filesIn(small);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(readFile(files[0]), kHeader + rows(first, first + fitting - 1));
    expectCounts(counts, total, fitting, total - fitting, 0);
    EXPECT_EQ(log.count(countsLine(total, fitting, total - fitting, 0)), 1);
    const std::string tmp = files[0] + ".tmp";
    EXPECT_EQ(log.count("Recording stopped: cannot write " + tmp + ": No space left on device; " +
                        std::to_string(7 - fitting % 7) + " rows lost, " + std::to_string(fitting) + " kept in the file"),
              1);
    // Every later chunk opens a new file that cannot take its header.
    EXPECT_GE(log.countMatching(std::regex("Recording stopped: cannot write .*: No space left on device; 7 rows lost, "
                                           "0 kept in the file")), 1);
}

TEST(StylusDataWriterTest, RemovedDirectoryIsReportedAndNotRecreated) {
    TempDir dir;
    const std::string recordings = dir.file("rec");
    ASSERT_EQ(mkdir(recordings.c_str(), 0755), 0);
    LogCapture log;
    StylusDataWriterParams params = recording(recordings, 2, 1000);
    params.diskCheckPath = dir.path();
    StylusDataWriter writer(params);
    for (uint64_t t = 1; t <= 4; ++t) {
        ASSERT_TRUE(writer.writeData({{t, sample(t)}}));
    }
    const std::string tmp = waitForRecording(recordings, kHeader + rows(1, 4));
    ASSERT_FALSE(tmp.empty());
    boost::filesystem::remove_all(recordings);
    for (uint64_t t = 5; t <= 8; ++t) {
        ASSERT_TRUE(writer.writeData({{t, sample(t)}}));
    }
    writer.stop();
    expectCounts(writer.counts(), 8, 0, 8, 0);
    // Seen at the next chunk written (6 rows lost) or the one after (8; the arm64 emulator once
    // missed the 6-row report): reported once either way, the whole loss counted above.
    const std::string removed = "Recording " + tmp + " was removed while open (its directory gone?): ";
    EXPECT_EQ(log.count(removed + "6 rows lost") + log.count(removed + "8 rows lost"), 1)
        << ::testing::PrintToString(log.messages());
    EXPECT_EQ(log.countPrefix("Cannot open file : " + recordings + "/"), 1);  // the chunk of 7 and 8
    EXPECT_FALSE(boost::filesystem::exists(recordings));
}

// Names already taken in this second and the next two, as by an earlier run: the recorder's files
// get a suffix and the older files stay as they were. Two recorders at once share the names too.
TEST(StylusDataWriterTest, TakenNamesGetASuffixAndAreNeverReplaced) {
    TempDir dir;
    const std::time_t now = std::time(nullptr);
    std::set<std::string> earlier;
    for (std::time_t second = now; second <= now + 2; ++second) {
        const std::string name = dir.file(kPrefix + utcStamp(second) + ".dat");
        testsupport::writeFile(name, "earlier");
        earlier.insert(name);
    }
    record(recording(dir.path(), 2, 1), 1, 12);  // three files of four rows
    std::vector<std::string> mine;
    for (const std::string& name : filesIn(dir.path())) {
        if (earlier.count(name) == 1) {
            EXPECT_EQ(readFile(name), "earlier");
        } else {
            mine.push_back(name);
        }
    }
    ASSERT_EQ(mine.size(), 3u);
    for (size_t i = 0; i < mine.size(); ++i) {
        EXPECT_EQ(readFile(mine[i]), kHeader + rows(4 * i + 1, 4 * i + 4));
        const std::string unsuffixed = std::regex_replace(mine[i], std::regex("_\\d+\\.dat$"), ".dat");
        if (earlier.count(unsuffixed) == 0) {
            EXPECT_EQ(earlier.count(mine[i]), 0u);  // a later second than the names taken
        } else {
            EXPECT_NE(unsuffixed, mine[i]);
        }
    }

    TempDir shared;
    {
        StylusDataWriter one(recording(shared.path(), 2, 1));
        StylusDataWriter two(recording(shared.path(), 2, 1));
        for (uint64_t t = 1; t <= 12; ++t) {
            ASSERT_TRUE(one.writeData({{t, sample(t)}}));
            ASSERT_TRUE(two.writeData({{100 + t, sample(100 + t)}}));
        }
    }
    // Every row of both recorders once, each file whole.
    std::multiset<std::string> recorded;
    for (const std::string& name : filesIn(shared.path())) {
        std::istringstream content(readFile(name));
        std::string line;
        ASSERT_TRUE(std::getline(content, line));
        EXPECT_EQ(line + "\n", kHeader);
        while (std::getline(content, line)) {
            recorded.insert(line + "\n");
        }
    }
    std::multiset<std::string> expected;
    for (uint64_t t : {0, 100}) {
        for (uint64_t i = 1; i <= 12; ++i) {
            expected.insert(rows(t + i, t + i));
        }
    }
    EXPECT_EQ(recorded, expected);
}

// A file planted under the name a recording is about to be published as stays, and the log says
// where the rows went instead.
TEST(StylusDataWriterTest, NameTakenWhileRecordingIsLoggedAndKept) {
    TempDir dir;
    LogCapture log;
    StylusDataWriter writer(recording(dir.path(), 2, 1000));
    for (uint64_t t = 1; t <= 4; ++t) {
        ASSERT_TRUE(writer.writeData({{t, sample(t)}}));
    }
    const std::string tmp = waitForRecording(dir.path(), kHeader + rows(1, 4));
    ASSERT_FALSE(tmp.empty());
    ASSERT_EQ(tmp.substr(tmp.size() - 8), ".dat.tmp");
    const std::string meant = tmp.substr(0, tmp.size() - 4);
    const std::string instead = tmp.substr(0, tmp.size() - 8) + "_1.dat";
    testsupport::writeFile(meant, "planted");
    writer.stop();
    EXPECT_EQ(readFile(meant), "planted");
    EXPECT_EQ(readFile(instead), kHeader + rows(1, 4));
    EXPECT_EQ(log.count("Recording " + tmp + " published as " + instead + ": " + meant + " was taken"), 1);
}

// A recorder starting in a directory finishes leftovers; one already recording there creates a file
// every second sample meanwhile. None of its files is taken for a leftover: every row arrives once.
TEST(StylusDataWriterTest, RecordersSharingADirectoryNeverRemoveEachOthersFiles) {
    TempDir shared;
    std::atomic<bool> done{false};
    std::atomic<int> starts{0};
    std::thread starter([&] {
        while (!done.load()) {
            StylusDataWriter other(recording(shared.path(), 1, 2));
            starts.fetch_add(1);
        }
    });
    constexpr uint64_t kSamples = 400;
    RecorderCounts counts;
    {
        StylusDataWriter writer(recording(shared.path(), 1, 2));
        for (uint64_t t = 1; t <= kSamples; ++t) {
            while (!writer.writeData({{t, sample(t)}})) {
                std::this_thread::yield();
            }
        }
        writer.stop();
        counts = writer.counts();
    }
    done.store(true);
    starter.join();
    EXPECT_GT(starts.load(), 0);
    EXPECT_EQ(counts.written, kSamples);
    EXPECT_EQ(counts.lost, 0u);
    std::multiset<std::string> recorded;
    std::multiset<std::string> expected;
    for (const std::string& name : filesIn(shared.path())) {
        std::istringstream content(readFile(name));
        std::string line;
        ASSERT_TRUE(std::getline(content, line));
        EXPECT_EQ(line + "\n", kHeader) << name;
        while (std::getline(content, line)) {
            recorded.insert(line + "\n");
        }
    }
    for (uint64_t t = 1; t <= kSamples; ++t) {
        expected.insert(rows(t, t));
    }
    EXPECT_EQ(recorded, expected);
}

// Files a process left while recording are finished when the next recorder starts; a torn last
// row is cut off, and a file still held by a live recorder is left alone, and so is a file with
// another name than a recorder with this prefix gives.
TEST(StylusDataWriterTest, LeftoverTmpFilesAreFinishedAtStart) {
    TempDir dir;
    const std::string stem = kPrefix + "2020-01-01_00-00-0";
    struct Case {
        const char* name;
        std::string content;
        const char* finishedAs;  // nullptr: no .dat made from it
        std::string finished;
        const char* logLine;     // after "Leftover recording <dir>/<name>"
    };
    const std::string torn = "3,0.00";
    const std::vector<Case> cases = {
        {"1.dat.tmp", kHeader + rows(1, 2) + torn, "1.dat", kHeader + rows(1, 2),
         " finished as DIR/1.dat, 6 bytes of a torn last row dropped"},
        {"2.dat.tmp", kHeader + rows(1, 1), "2.dat", kHeader + rows(1, 1),
         " finished as DIR/2.dat, 0 bytes of a torn last row dropped"},
        {"3.dat.tmp", "timest", nullptr, "", " not finished: removed, no whole header in DIR/3.dat.tmp: No data available"},
        {"4.dat.tmp", "not a recording\n", nullptr, "",
         " not finished: left as it is, not a recording: DIR/4.dat.tmp: Invalid argument"},
        {"5.dat.tmp", kHeader + torn, "5_1.dat", kHeader, " finished as DIR/5_1.dat, 6 bytes of a torn last row dropped"},
        {"6.dat.tmp", kHeader + rows(1, 1), nullptr, "", " is still being written"},
        {"7.dat.tmp", kHeader + rows(1, 1), nullptr, "",
         " not finished: has other names (published already, or a hard link), only the name DIR/7.dat.tmp removed"},
    };
    for (const Case& c : cases) {
        testsupport::writeFile(dir.file(stem + c.name), c.content);
    }
    testsupport::writeFile(dir.file(stem + "5.dat"), "taken");
    const std::vector<std::string> foreign = {"notes.dat.tmp", "other_2020-01-01_00-00-00.dat.tmp",
                                              kPrefix + "2020-01-01_00-00-0x.dat.tmp"};
    for (const std::string& name : foreign) {
        testsupport::writeFile(dir.file(name), kHeader + rows(1, 2) + torn);
    }
    ASSERT_EQ(link(dir.file(stem + "7.dat.tmp").c_str(), dir.file(stem + "7.dat").c_str()), 0);  // ended before removing it
    // Files a recorder killed while creating one left under their hidden names: gone once a minute old.
    const std::string abandoned = dir.file(stem + "8.dat.tmp.new-AbCd12");
    const std::string recent = dir.file(stem + "9.dat.tmp.new-AbCd12");
    testsupport::writeFile(abandoned, "");
    testsupport::writeFile(recent, "");
    const timespec twoMinutesAgo[2] = {{std::time(nullptr) - 120, 0}, {std::time(nullptr) - 120, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, abandoned.c_str(), twoMinutesAgo, 0), 0);
    const int held = open(dir.file(stem + "6.dat.tmp").c_str(), O_RDWR);
    ASSERT_EQ(flock(held, LOCK_EX | LOCK_NB), 0);
    LogCapture log;
    {
        StylusDataWriter writer(recording(dir.path(), 1, 2));
        ASSERT_TRUE(testsupport::waitUntil([&] { return writer.leftoversChecked(); }));
    }
    close(held);

    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string line = std::regex_replace(c.logLine, std::regex("DIR/"), dir.path() + "/" + stem);
        EXPECT_EQ(log.count("Leftover recording " + dir.file(stem + c.name) + line), 1);
        if (c.finishedAs != nullptr) {
            EXPECT_EQ(readFile(dir.file(stem + c.finishedAs)), c.finished);
            EXPECT_FALSE(boost::filesystem::exists(dir.file(stem + c.name)));
        }
    }
    EXPECT_FALSE(boost::filesystem::exists(dir.file(stem + "3.dat.tmp")));
    EXPECT_EQ(readFile(dir.file(stem + "4.dat.tmp")), "not a recording\n");
    EXPECT_EQ(readFile(dir.file(stem + "5.dat")), "taken");
    EXPECT_EQ(readFile(dir.file(stem + "6.dat.tmp")), kHeader + rows(1, 1));
    EXPECT_FALSE(boost::filesystem::exists(dir.file(stem + "7.dat.tmp")));
    EXPECT_EQ(readFile(dir.file(stem + "7.dat")), kHeader + rows(1, 1));
    for (const std::string& name : foreign) {
        EXPECT_EQ(readFile(dir.file(name)), kHeader + rows(1, 2) + torn);
        EXPECT_EQ(log.countMatching(std::regex(".*" + name + ".*")), 0);
    }
    EXPECT_EQ(log.count("Abandoned recording " + abandoned + " removed"), 1);
    EXPECT_EQ(log.count("Left " + recent + " as it is: recent or locked, perhaps being created"), 1);
    EXPECT_FALSE(boost::filesystem::exists(abandoned));
    EXPECT_EQ(filesIn(dir.path()).size(), 11u);  // 1, 2, 4, 5, 5_1, 6, 7, the recent hidden and three foreign
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
    // The same clock the writer reads: time() is the coarse clock, which can still show the previous
    // second after the precise one has moved on.
    auto utcNow = [] { return utcStamp(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now())); };
    const std::string before = utcNow();
    const std::string stamp = StylusDataWriter::getCurrentDateTimeString();
    const std::string after = utcNow();
    unsetenv("TZ");
    tzset();
    EXPECT_TRUE(stamp == before || stamp == after) << stamp;
}
