#pragma once

#include <cstdint>
#include <filesystem>

namespace soak {

// What a recording directory holds, read back from disk.
struct RecordingCount {
    uint64_t datFiles = 0;
    uint64_t tmpFiles = 0;
    uint64_t rows = 0;
    uint64_t badHeaders = 0;
    uint64_t malformedRows = 0;

    // Counts the .dat and .tmp files of dir; other files (the consent file) are ignored.
    static RecordingCount of(const std::filesystem::path& dir);
    bool whole() const { return tmpFiles == 0 && badHeaders == 0 && malformedRows == 0; }
};

}  // namespace soak
