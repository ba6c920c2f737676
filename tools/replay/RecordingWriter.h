// Writes samples in the recorder's CSV form, byte for byte as the library's recorder would.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "StylusStrokePredictor.h"

namespace replay {

class RecordingWriter {
public:
    static void write(std::ostream& out, const std::vector<StylusTouchPoint>& samples);
    // Throws ReplayError when the file cannot be written.
    static void write(const std::string& path, const std::vector<StylusTouchPoint>& samples);
    static std::string row(const StylusTouchPoint& sample);
};

}  // namespace replay
