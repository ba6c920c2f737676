#include "StylusDataWriter.h"

#include <sys/stat.h>
#include <time.h>

#include <boost/filesystem.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <locale>
#include <system_error>

#include "velmar/Log.h"

#define VELMAR_LOG_SOURCE "src/StylusDataWriter"

namespace {

const char* const kHeader = "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag\n";

}  // namespace

StylusDataWriter::StylusDataWriter(const StylusDataWriterParams& writerParams)
    : logTag("StylusPredictor-DataWriter"),
      diskCheckPath("/data/"),
      params(writerParams),
      dataQueue(static_cast<uint64_t>(static_cast<int64_t>(writerParams.queueCapacity)),
                QueueFullPolicy::RejectNewest) {
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

    // Left at 0 on purpose: recordings are created 0666 so that any user of the device can collect them.
    const mode_t oldMask = umask(0);
    VELMAR_LOG(velmar::Info, logTag, "Old Mask : " << static_cast<unsigned int>(oldMask));

    VELMAR_LOG(velmar::Info, logTag, "StylusDataWriter constructor");
}

StylusDataWriter::~StylusDataWriter() {
    dataQueue.stop();
    if (writerThread.joinable()) {
        writerThread.join();
    }
    VELMAR_LOG(velmar::Info, logTag, "StylusDataWriter destructor");
}

bool StylusDataWriter::writeData(const std::map<unsigned long, StylusTouchPoint>& points) {
    if (points.empty()) {
        return true;
    }
    bool lastPushed = false;
    for (const auto& entry : points) {
        lastPushed = dataQueue.push(entry.second);
    }
    return lastPushed;
}

bool StylusDataWriter::writeStrokeBoundary(const StylusTouchPoint& point) {
    return dataQueue.push(point);
}

void StylusDataWriter::runDataWrite() {
    std::ofstream dataFile;
    dataFile.imbue(std::locale::classic());  // no digit grouping whatever the host's global locale
    std::string dataFileName;
    std::string tmpFileName;
    StylusTouchPoint point{};

    while (dataQueue.pop(point)) {
        chunkBuffer.push_back(point);
        // Signed widening on purpose: 0 makes every sample a chunk, a negative size never writes.
        if (chunkBuffer.size() < static_cast<size_t>(static_cast<int64_t>(params.chunkSizeInRecords))) {
            continue;
        }

        if (fileState == 1) {
            if (!dataFile.is_open()) {
                VELMAR_LOG(velmar::Error, logTag, " File not opened for writing stylus data");
                chunkBuffer.clear();
                continue;
            }
            const auto start = std::chrono::steady_clock::now();
            for (const StylusTouchPoint& sample : chunkBuffer) {
                writeStylusPoint(dataFile, sample);
            }
            const auto end = std::chrono::steady_clock::now();
            ++chunkCount;
            VELMAR_LOG(velmar::Debug, logTag,
                       "Chunk " << chunkCount << " for " << tmpFileName << " written in "
                                << std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count() / 1000
                                << " us");
            if (chunkCount < params.numChunksInFile) {
                chunkBuffer.clear();
                continue;
            }
            dataFile.close();
            copyAndRemoveTmpFile(tmpFileName, dataFileName);
            fileState = 0;
            chunkCount = 0;
            VELMAR_LOG(velmar::Info, logTag, "File " << tmpFileName << " closed for writing stylus touch data");
            chunkBuffer.clear();
        } else if (fileState == 0) {
            const int diskFill = getDiskFillPercentage(diskCheckPath);
            if (diskFill > params.diskFillPercentTh) {
                VELMAR_LOG(velmar::Warning, logTag,
                           "Disk Fill Percentage : " << diskFill << " greater than allowed ("
                                                     << params.diskFillPercentTh << "). Skipping data write");
                chunkBuffer.clear();
                continue;
            }
            dataFileName = params.dataFileDirectory + "/" + params.dataFileNameSuffix + "_" +
                           getCurrentDateTimeString() + ".dat";
            tmpFileName = dataFileName + ".tmp";
            dataFile.open(tmpFileName, std::ios::out | std::ios::trunc);
            if (!dataFile.is_open()) {
                VELMAR_LOG(velmar::Error, logTag, "Cannot open file : " << tmpFileName << " for writing stylus data");
                chunkBuffer.clear();
                continue;
            }
            dataFile << kHeader;
            for (const StylusTouchPoint& sample : chunkBuffer) {
                writeStylusPoint(dataFile, sample);
            }
            VELMAR_LOG(velmar::Info, logTag, "File " << tmpFileName << " opened for writing stylus touch data");
            // The first chunk is not compared with numChunksInFile, so every file gets at least two.
            ++chunkCount;
            VELMAR_LOG(velmar::Debug, logTag, "Chunk " << chunkCount << " for " << tmpFileName);
            fileState = 1;
            chunkBuffer.clear();
        } else {
            chunkBuffer.clear();
        }
    }

    // Stopped and drained: the partial chunk goes to the open file; with none open it is dropped.
    if (dataFile.is_open()) {
        for (const StylusTouchPoint& sample : chunkBuffer) {
            writeStylusPoint(dataFile, sample);
        }
        dataFile.close();
        copyAndRemoveTmpFile(tmpFileName, dataFileName);
    }
    chunkBuffer.clear();
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

void StylusDataWriter::writeStylusPoint(std::ofstream& out, const StylusTouchPoint& point) {
    // Floats are widened to double by the stream, so each field reads as printf's %.7f.
    out << std::fixed << std::setprecision(7) << point.timestamp;
    out << ',' << std::fixed << std::setprecision(7) << point.x_pos;
    out << ',' << std::fixed << std::setprecision(7) << point.y_pos;
    out << ',' << std::fixed << std::setprecision(7) << point.pressure;
    out << ',' << std::fixed << std::setprecision(7) << point.tilt;
    out << ',' << std::fixed << std::setprecision(7) << point.orientation;
    out << ',' << std::fixed << std::setprecision(7) << point.tag << '\n';
}

void StylusDataWriter::copyAndRemoveTmpFile(const std::string& tmpPath, const std::string& finalPath) {
    {
        std::ifstream in(tmpPath, std::ios::in | std::ios::binary);
        std::ofstream out(finalPath, std::ios::out | std::ios::binary | std::ios::trunc);
        if (in.is_open()) {
            out << in.rdbuf();
        }
        in.close();
        out.close();
    }
    std::remove(tmpPath.c_str());
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
