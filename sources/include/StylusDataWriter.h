#pragma once

#include <cstdint>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "DataQueue.h"
#include "StylusDataWriterParams.h"
#include "StylusStrokePredictor.h"

// Records raw stylus samples into chunked CSV files on a thread of its own, so that the inference
// thread only ever copies a sample into a bounded queue that never blocks.
class StylusDataWriter {
public:
    // Starts the writer thread; the directory and disk checks made here only log.
    explicit StylusDataWriter(const StylusDataWriterParams& params);
    // Drains the queue, finishes the open file and joins the thread.
    ~StylusDataWriter();
    StylusDataWriter(const StylusDataWriter&) = delete;
    StylusDataWriter& operator=(const StylusDataWriter&) = delete;

    // Queues the batch in key order. An empty batch is true; otherwise the result of the last push
    // alone (an earlier rejected sample does not make it false).
    bool writeData(const std::map<unsigned long, StylusTouchPoint>& points);
    bool writeStrokeBoundary(const StylusTouchPoint& point);

    // Fill of the file system holding path in whole percent (truncated); 100 when it cannot be told.
    int getDiskFillPercentage(const std::string& path);
    static int fillPercent(uint64_t capacity, uint64_t available);

    // UTC "YYYY-MM-DD_HH-MM-SS" for file names.
    static std::string getCurrentDateTimeString();
    // One CSV row: timestamp, five %.7f floats, tag.
    static void writeStylusPoint(std::ofstream& out, const StylusTouchPoint& point);
    // Byte copy of tmpPath to finalPath (created even when tmpPath cannot be read), then tmpPath removed.
    static void copyAndRemoveTmpFile(const std::string& tmpPath, const std::string& finalPath);

private:
    void runDataWrite();

    std::string logTag;
    std::string diskCheckPath;
    StylusDataWriterParams params;
    std::vector<StylusTouchPoint> chunkBuffer;  // writer thread only
    DataQueue<StylusTouchPoint> dataQueue;
    std::thread writerThread;
    int32_t fileState = 0;                      // 0 no file open, 1 a file is open; writer thread only
    int32_t chunkCount = 0;                     // chunks in the open file; writer thread only
};
