#pragma once

#include <cstdint>
#include <string>

// The recorder's share of the configuration, copied into the writer when it is built.
struct StylusDataWriterParams {
    std::string dataFileDirectory;                            // no trailing slash: "/" is inserted after it
    std::string dataFileNameSuffix = "stylus_input_events";   // starts every file name (a prefix in effect)
    int32_t queueCapacity = 100;                              // samples the hand-off queue holds
    int32_t chunkSizeInRecords = 100;                         // samples gathered before one write
    int32_t numChunksInFile = 10000;                          // chunks after which a file is finished
    int32_t diskFillPercentTh = 30;                           // highest fill at which a new file may open
    std::string diskCheckPath = "/data/";                     // a path on the file system whose fill is checked
};
