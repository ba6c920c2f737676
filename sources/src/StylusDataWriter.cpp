#include "StylusDataWriter.h"

#include <cstring>
#include <time.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <system_error>

#include "RecordingFormat.h"
#include "velmar/Log.h"

#define VELMAR_LOG_SOURCE "src/StylusDataWriter"

namespace {

constexpr std::chrono::milliseconds kRecoveryTimeOnStop{5};

}  // namespace

StylusDataWriter::StylusDataWriter(const StylusDataWriterParams& writerParams)
    : logTag("StylusPredictor-DataWriter"),
      diskCheckPath(writerParams.diskCheckPath),
      params(writerParams),
      dataQueue(static_cast<uint64_t>(static_cast<int64_t>(writerParams.queueCapacity)),
                QueueFullPolicy::RejectNewest) {
    // An empty directory would put the recordings at the root of the file system.
    if (params.dataFileDirectory.empty()) {
        throw std::invalid_argument(
            "Recording is enabled but no directory is configured: set Pipeline.dataFileDirectory");
    }
    // Started in the body so that every member the thread reads is already initialised; the steps
    // below only read members the thread never writes.
    try {
        writerThread = std::thread(&StylusDataWriter::runDataWrite, this);
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), "thread constructor failed");
    }

    const boost::filesystem::path directory(params.dataFileDirectory);
    boost::system::error_code errorCode;
    const boost::filesystem::file_status directoryStatus = boost::filesystem::status(directory, errorCode);
    VELMAR_LOG(velmar::Info, logTag,
               directory << " permissions: " << std::oct << static_cast<unsigned int>(directoryStatus.permissions())
                         << std::dec);
    if (errorCode) {
        VELMAR_LOG(velmar::Warning, logTag,
                   "Error code returned when checking directory status. "
                       << " errorCode.value() : " << errorCode.value()
                       << ", errorCode.message() : " << errorCode.message()
                       << ", errorCode.default_error_condition().value() : "
                       << errorCode.default_error_condition().value()
                       << ", errorCode.default_error_condition().message() : "
                       << errorCode.default_error_condition().message());
    } else {
        VELMAR_LOG(velmar::Info, logTag, "DAC permissions exist for stylus data writing");
    }

    const int diskFill = getDiskFillPercentage(diskCheckPath);
    VELMAR_LOG(velmar::Info, logTag, "Disk Fill Percent At Startup : " << diskFill);
    VELMAR_LOG(velmar::Info, logTag, "StylusDataWriter constructor");
}

StylusDataWriter::~StylusDataWriter() {
    stop();
    VELMAR_LOG(velmar::Info, logTag, "StylusDataWriter destructor");
}

void StylusDataWriter::stop() {
    dataQueue.stop();
    if (writerThread.joinable()) {
        writerThread.join();
    }
}

RecorderCounts StylusDataWriter::counts() const {
    RecorderCounts result;
    result.accepted = acceptedCount.load(std::memory_order_relaxed);
    result.refused = refusedCount.load(std::memory_order_relaxed);
    result.written = writtenCount.load(std::memory_order_relaxed);
    result.lost = lostCount.load(std::memory_order_relaxed);
    result.notNumbers = notNumberCount.load(std::memory_order_relaxed);
    return result;
}

bool StylusDataWriter::writeData(const std::map<unsigned long, StylusTouchPoint>& points) {
    if (points.empty()) {
        return true;
    }
    bool lastPushed = false;
    uint64_t accepted = 0;
    for (const auto& entry : points) {
        lastPushed = dataQueue.push(entry.second);
        accepted += lastPushed ? 1 : 0;
    }
    acceptedCount.fetch_add(accepted, std::memory_order_relaxed);
    refusedCount.fetch_add(points.size() - accepted, std::memory_order_relaxed);
    return lastPushed;
}

bool StylusDataWriter::writeSamples(const std::vector<StylusTouchPoint>& samples) {
    if (samples.empty()) {
        return true;
    }
    bool lastPushed = false;
    uint64_t accepted = 0;
    for (const StylusTouchPoint& sample : samples) {
        lastPushed = dataQueue.push(sample);
        accepted += lastPushed ? 1 : 0;
    }
    acceptedCount.fetch_add(accepted, std::memory_order_relaxed);
    refusedCount.fetch_add(samples.size() - accepted, std::memory_order_relaxed);
    return lastPushed;
}

bool StylusDataWriter::writeStrokeBoundary(const StylusTouchPoint& point) {
    const bool pushed = dataQueue.push(point);
    (pushed ? acceptedCount : refusedCount).fetch_add(1, std::memory_order_relaxed);
    return pushed;
}

void StylusDataWriter::runDataWrite() {
    recoverLeftoverFiles();
    StylusTouchPoint point{};
    while (dataQueue.pop(point)) {
        if (!isWritable(point)) {
            continue;
        }
        chunkBuffer.push_back(point);
        // Signed widening on purpose: 0 makes every sample a chunk, a negative size never writes.
        if (chunkBuffer.size() < static_cast<size_t>(static_cast<int64_t>(params.chunkSizeInRecords))) {
            continue;
        }
        if (fileState == 1) {
            writeChunk();
        } else {
            openFile();
        }
        chunkBuffer.clear();
    }

    // Stopped and drained: the partial chunk goes to the open file; with none open it is lost.
    if (fileState == 1) {
        if (chunkBuffer.empty() || appendChunk(false)) {
            finishFile();
        }
    } else {
        loseRows(chunkBuffer.size());
    }
    chunkBuffer.clear();
    logCounts("at shutdown");
}

void StylusDataWriter::openFile() {
    const int diskFill = getDiskFillPercentage(diskCheckPath);
    if (diskFill > params.diskFillPercentTh) {
        VELMAR_LOG(velmar::Warning, logTag,
                   "Disk Fill Percentage : " << diskFill << " greater than allowed (" << params.diskFillPercentTh
                                             << "). Skipping data write");
        loseRows(chunkBuffer.size());
        return;
    }
    const std::string base =
        params.dataFileDirectory + "/" + params.dataFileNameSuffix + "_" + getCurrentDateTimeString();
    std::string error;
    if (!file.create(base, error)) {
        VELMAR_LOG(velmar::Error, logTag,
                   "Cannot open file : " << base << ".dat.tmp for writing stylus data (" << error << ")");
        loseRows(chunkBuffer.size());
        return;
    }
    fileState = 1;
    if (!appendChunk(true)) {
        return;
    }
    VELMAR_LOG(velmar::Info, logTag, "File " << file.tmpPath() << " opened for writing stylus touch data");
    // The first chunk is not compared with numChunksInFile, so every file gets at least two.
    ++chunkCount;
    VELMAR_LOG(velmar::Debug, logTag, "Chunk " << chunkCount << " for " << file.tmpPath());
}

void StylusDataWriter::writeChunk() {
    const auto start = std::chrono::steady_clock::now();
    if (!appendChunk(false)) {
        return;
    }
    const auto end = std::chrono::steady_clock::now();
    ++chunkCount;
    VELMAR_LOG(velmar::Debug, logTag,
               "Chunk " << chunkCount << " for " << file.tmpPath() << " written in "
                        << std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count() / 1000 << " us");
    if (chunkCount < params.numChunksInFile) {
        return;
    }
    const std::string tmpPath = file.tmpPath();
    finishFile();
    VELMAR_LOG(velmar::Info, logTag, "File " << tmpPath << " closed for writing stylus touch data");
    logCounts("at file rotation");
}

bool StylusDataWriter::appendChunk(bool withHeader) {
    // Without its name the file can never be published: a removed directory takes it along.
    if (!withHeader && !file.isLinked()) {
        VELMAR_LOG(velmar::Error, logTag,
                   "Recording " << file.tmpPath() << " was removed while open (its directory gone?): "
                                << rowsInFile + chunkBuffer.size() << " rows lost");
        loseRows(rowsInFile + chunkBuffer.size());
        rowsInFile = 0;
        file.discard();
        fileState = 0;
        chunkCount = 0;
        return false;
    }
    chunkText.clear();
    if (withHeader) {
        chunkText += recordingformat::kHeaderLine;
    }
    for (const StylusTouchPoint& sample : chunkBuffer) {
        recordingformat::appendRow(chunkText, sample);
    }
    size_t keptBytes = 0;
    std::string error;
    if (file.append(chunkText, keptBytes, error)) {
        rowsInFile += chunkBuffer.size();
        return true;
    }
    const size_t keptLines = static_cast<size_t>(std::count(chunkText.begin(), chunkText.begin() + keptBytes, '\n'));
    const size_t keptRows = withHeader && keptLines > 0 ? keptLines - 1 : keptLines;
    rowsInFile += keptRows;
    loseRows(chunkBuffer.size() - keptRows);
    VELMAR_LOG(velmar::Error, logTag,
               "Recording stopped: " << error << "; " << chunkBuffer.size() - keptRows << " rows lost, "
                                     << rowsInFile << " kept in the file");
    finishFile();
    return false;
}

void StylusDataWriter::finishFile() {
    std::string error;
    if (rowsInFile == 0) {
        file.discard();
    } else if (file.finish(error)) {
        writtenCount.fetch_add(rowsInFile, std::memory_order_relaxed);
        // Someone else's file under the name meant for this one: say where the rows went.
        const std::string& tmp = file.tmpPath();
        const std::string meant = tmp.substr(0, tmp.size() - std::strlen(".tmp"));
        if (file.datPath() != meant) {
            VELMAR_LOG(velmar::Warning, logTag,
                       "Recording " << tmp << " published as " << file.datPath() << ": " << meant << " was taken");
        }
    } else {
        VELMAR_LOG(velmar::Error, logTag,
                   "Cannot finish recording: " << error << "; " << rowsInFile << " rows lost");
        loseRows(rowsInFile);
    }
    rowsInFile = 0;
    fileState = 0;
    chunkCount = 0;
}

// A NaN or infinity would print as text no reader of recordings takes as a number.
bool StylusDataWriter::isWritable(const StylusTouchPoint& sample) {
    if (std::isfinite(sample.x_pos) && std::isfinite(sample.y_pos) && std::isfinite(sample.pressure) &&
        std::isfinite(sample.tilt) && std::isfinite(sample.orientation)) {
        return true;
    }
    const uint64_t count = notNumberCount.fetch_add(1, std::memory_order_relaxed) + 1;
    // The 1st, 2nd, 4th, 8th ...: a stream of them cannot flood the log.
    if ((count & (count - 1)) == 0) {
        VELMAR_LOG(velmar::Warning, logTag,
                   "Sample at timestamp " << sample.timestamp << " not recorded: a value is not a number (" << count
                                          << " so far)");
    }
    return false;
}

void StylusDataWriter::loseRows(uint64_t rows) {
    lostCount.fetch_add(rows, std::memory_order_relaxed);
}

void StylusDataWriter::logCounts(const char* when) {
    VELMAR_LOG(velmar::Info, logTag,
               "Recorder samples " << when << " : accepted " << acceptedCount.load() << ", written "
                                   << writtenCount.load() << ", lost " << lostCount.load()
                                   << ", refused by the full queue " << refusedCount.load() << ", not numbers "
                                   << notNumberCount.load());
}

void StylusDataWriter::recoverLeftoverFiles() {
    // Only names this recorder gives its files: anything else in the directory is not ours to touch.
    // Once stopped, the work ends between two files after its first few milliseconds, so that a
    // crowded directory never holds up shutdown; what is left waits for the next start.
    const auto start = std::chrono::steady_clock::now();
    const auto mayGoOn = [this, start] {
        return !dataQueue.isStopped() || std::chrono::steady_clock::now() - start < kRecoveryTimeOnStop;
    };
    boost::system::error_code errorCode;
    boost::filesystem::directory_iterator entry(params.dataFileDirectory, errorCode);
    std::vector<std::string> leftovers;
    std::vector<std::string> hidden;
    for (; !errorCode && entry != boost::filesystem::directory_iterator() && mayGoOn();
         entry.increment(errorCode)) {
        const std::string name = entry->path().filename().string();
        if (RecordingFile::isLeftoverName(name, params.dataFileNameSuffix)) {
            leftovers.push_back(entry->path().string());
        } else if (RecordingFile::isHiddenName(name, params.dataFileNameSuffix)) {
            hidden.push_back(entry->path().string());
        }
    }
    std::sort(leftovers.begin(), leftovers.end());
    for (const std::string& leftover : leftovers) {
        if (!mayGoOn()) {
            VELMAR_LOG(velmar::Info, logTag, "Leftover recordings not finished: stopping");
            return;
        }
        std::string datPath;
        std::string error;
        uint64_t droppedBytes = 0;
        if (RecordingFile::recover(leftover, datPath, droppedBytes, error)) {
            VELMAR_LOG(velmar::Warning, logTag,
                       "Leftover recording " << leftover << " finished as " << datPath << ", " << droppedBytes
                                             << " bytes of a torn last row dropped");
        } else if (!error.empty()) {
            VELMAR_LOG(velmar::Error, logTag, "Leftover recording " << leftover << " not finished: " << error);
        } else {
            VELMAR_LOG(velmar::Info, logTag, "Leftover recording " << leftover << " is still being written");
        }
    }
    for (const std::string& path : hidden) {
        std::string error;
        if (!mayGoOn()) {
            return;
        }
        if (RecordingFile::removeAbandonedHidden(path, error)) {
            VELMAR_LOG(velmar::Warning, logTag, "Abandoned recording " << path << " removed");
        } else {
            VELMAR_LOG(velmar::Info, logTag, "Left " << path << " as it is: " << error);
        }
    }
    leftoversCheckedFlag.store(true);
}

std::string StylusDataWriter::getCurrentDateTimeString() {
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm utc{};
    char text[200];
    size_t length = 0;
    if (gmtime_r(&now, &utc) != nullptr) {
        length = std::strftime(text, sizeof(text), "%F_%H-%M-%S", &utc);
    }
    if (length > 0) {
        return std::string(text, length);
    }
    // Milliseconds of the raw monotonic clock: unique enough to keep files apart.
    timespec raw{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &raw);
    const double nanoseconds = static_cast<double>(raw.tv_sec) * 1e9 + static_cast<double>(raw.tv_nsec);
    const uint64_t wholeNanoseconds = static_cast<uint64_t>(nanoseconds);
    return std::to_string(static_cast<uint64_t>(static_cast<double>(wholeNanoseconds) / 1e6));
}

int StylusDataWriter::fillPercent(uint64_t capacity, uint64_t available) {
    if (capacity == 0) {
        return 0;
    }
    return static_cast<int>(((capacity - available) * 100) / capacity);
}

int StylusDataWriter::getDiskFillPercentage(const std::string& path) {
    const boost::filesystem::path diskPath(path);
    VELMAR_LOG(velmar::Info, logTag, "pathToCheckDiskSpace : " << diskPath);
    try {
        const boost::filesystem::file_type type = boost::filesystem::status(diskPath).type();
        if (type == boost::filesystem::status_error || type == boost::filesystem::file_not_found) {
            VELMAR_LOG(velmar::Warning, logTag,
                       "Attempt to check disk space for path that does not exist. Directory Path" << path);
            return 100;
        }
        const boost::filesystem::space_info space = boost::filesystem::space(diskPath);
        const int percent = fillPercent(space.capacity, space.available);
        VELMAR_LOG(velmar::Info, logTag,
                   "diskSpaceTotal : " << space.capacity << ", diskSpaceAvailable : " << space.available
                                       << ", diskSpaceFillPercent : " << percent);
        return percent;
    } catch (const boost::filesystem::filesystem_error& error) {
        VELMAR_LOG(velmar::Error, logTag, "Encounter error while checking disk space : " << error.what());
        return 100;
    }
}
