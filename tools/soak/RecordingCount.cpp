#include "RecordingCount.h"

#include <fstream>
#include <string>

#include "RecordingFormat.h"
#include "RecordingParse.h"

namespace soak {

RecordingCount RecordingCount::of(const std::filesystem::path& dir) {
    RecordingCount result;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() == ".tmp") {
            ++result.tmpFiles;
            continue;
        }
        if (entry.path().extension() != ".dat") {
            continue;
        }
        ++result.datFiles;
        std::ifstream in(entry.path());
        std::string line;
        std::getline(in, line);
        if (line != recordingformat::kHeader) {
            ++result.badHeaders;
        }
        while (std::getline(in, line)) {
            ++result.rows;
            // Every row must read back as numbers: the recorder counts, rather than writes, the rest.
            const recordingformat::ParsedRow row = recordingformat::parseRow(line);
            if (!row.ok()) {
                ++result.malformedRows;
            }
        }
    }
    return result;
}

}  // namespace soak
