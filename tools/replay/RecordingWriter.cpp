#include "RecordingWriter.h"

#include <cinttypes>
#include <cstdio>
#include <fstream>

#include "RecordingReader.h"
#include "ReplayError.h"

namespace replay {

std::string RecordingWriter::row(const StylusTouchPoint& sample) {
    char text[512];
    const int length = std::snprintf(text, sizeof(text), "%" PRIu64 ",%.7f,%.7f,%.7f,%.7f,%.7f,%" PRId32 "\n",
                                     sample.timestamp, static_cast<double>(sample.x_pos),
                                     static_cast<double>(sample.y_pos), static_cast<double>(sample.pressure),
                                     static_cast<double>(sample.tilt), static_cast<double>(sample.orientation),
                                     sample.tag);
    return std::string(text, static_cast<std::size_t>(length));
}

void RecordingWriter::write(std::ostream& out, const std::vector<StylusTouchPoint>& samples) {
    out << RecordingReader::header << '\n';
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
