#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "DataQueue.h"
#include "RecordingFile.h"
#include "StylusDataWriterParams.h"
#include "StylusStrokePredictor.h"

// Samples through the recorder. Once the writer has stopped, accepted == written + lost + notNumbers.
struct RecorderCounts {
    uint64_t accepted = 0;  // taken by the queue
    uint64_t refused = 0;   // turned away by the full (or stopped) queue
    uint64_t written = 0;   // rows in recording files published by this writer
    uint64_t lost = 0;      // accepted but in no published file: disk full, write failure, no file open
    uint64_t notNumbers = 0;  // accepted but not written: a NaN or infinite value no reader takes
};

// Records raw stylus samples into chunked CSV files on a thread of its own, so that the inference
// thread only ever copies a sample into a bounded queue that never blocks.
class StylusDataWriter {
public:
    // Throws std::invalid_argument when no directory is configured, and std::system_error when the
    // thread cannot start; the directory and disk checks made here only log. The thread first
    // finishes the .dat.tmp files a previous run left in the directory.
    explicit StylusDataWriter(const StylusDataWriterParams& params);
    // Stops, as stop() does.
    ~StylusDataWriter();
    StylusDataWriter(const StylusDataWriter&) = delete;
    StylusDataWriter& operator=(const StylusDataWriter&) = delete;

    // Queues the batch in key order. An empty batch is true; otherwise the result of the last push
    // alone (an earlier rejected sample does not make it false).
    bool writeData(const std::map<unsigned long, StylusTouchPoint>& points);
    bool writeStrokeBoundary(const StylusTouchPoint& point);
    // Queues the samples in the order given, with the result writeData gives.
    bool writeSamples(const std::vector<StylusTouchPoint>& samples);

    // Drains the queue, finishes the open file and joins the thread; later samples are refused.
    // Call from one thread, after the producer's last call.
    void stop();
    // Safe from any thread; final once stop() has returned.
    RecorderCounts counts() const;
    // True once the leftovers of earlier runs have all been looked at (not when a stop cut it short).
    bool leftoversChecked() const { return leftoversCheckedFlag.load(); }

    // Fill of the file system holding path in whole percent (truncated); 100 when it cannot be told.
    int getDiskFillPercentage(const std::string& path);
    static int fillPercent(uint64_t capacity, uint64_t available);

    // UTC "YYYY-MM-DD_HH-MM-SS" for file names.
    static std::string getCurrentDateTimeString();

private:
    void runDataWrite();
    void recoverLeftoverFiles();
    void openFile();
    void writeChunk();
    // Writes the buffered chunk, and the header first for a new file. On failure the loss is counted
    // and logged and the file finished with what it kept.
    bool appendChunk(bool withHeader);
    void finishFile();
    void loseRows(uint64_t rows);
    bool isWritable(const StylusTouchPoint& sample);
    void logCounts(const char* when);

    std::string logTag;
    std::string diskCheckPath;
    StylusDataWriterParams params;
    std::vector<StylusTouchPoint> chunkBuffer;  // writer thread only
    std::string chunkText;                      // the buffer's rows as written; writer thread only
    RecordingFile file;                         // writer thread only
    uint64_t rowsInFile = 0;                    // writer thread only
    DataQueue<StylusTouchPoint> dataQueue;
    std::thread writerThread;
    int32_t fileState = 0;                      // 0 no file open, 1 a file is open; writer thread only
    int32_t chunkCount = 0;                     // chunks in the open file; writer thread only
    std::atomic<uint64_t> acceptedCount{0};
    std::atomic<uint64_t> refusedCount{0};
    std::atomic<uint64_t> writtenCount{0};
    std::atomic<uint64_t> lostCount{0};
    std::atomic<uint64_t> notNumberCount{0};
    std::atomic<bool> leftoversCheckedFlag{false};
};
