#include "RecordingWriter.h"

#include <fstream>

#include "RecordingFormat.h"
#include "ReplayError.h"

namespace replay {

std::string RecordingWriter::row(const StylusTouchPoint& sample) { return recordingformat::row(sample); }

void RecordingWriter::write(std::ostream& out, const std::vector<StylusTouchPoint>& samples) {
    out << recordingformat::kHeaderLine;
    for (const StylusTouchPoint& sample : samples) {
        out << row(sample);
    }
}

void RecordingWriter::write(const std::string& path, const std::vector<StylusTouchPoint>& samples) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (out) {
        write(out, samples);
        out.close();
    }
    if (!out) {
        throw ReplayError(path + ": cannot write the recording");
    }
}

}  // namespace replay
