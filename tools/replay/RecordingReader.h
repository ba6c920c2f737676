// Reads a stylus recording in the CSV form the library's recorder writes.
#pragma once

#include <istream>
#include <string>
#include <vector>

#include "StylusStrokePredictor.h"

namespace replay {

struct Recording {
    std::string path;
    std::vector<StylusTouchPoint> samples;  // file order, timestamps never decreasing
    std::vector<std::string> skippedRows;   // "file:line: what is wrong" for each row left out
};

class RecordingReader {
public:
    static const char* const header;  // the exact first line

    // Throws ReplayError naming the file, and the line for content errors: a file that cannot be
    // opened, an empty file, a wrong header. A row it cannot use (malformed, not finite, a timestamp
    // smaller than the previous row's) is left out and reported in skippedRows; the rest is read.
    // Equal timestamps are accepted (the pipeline keeps the later sample). Blank lines are skipped.
    static Recording read(const std::string& path);
    static Recording parse(std::istream& in, const std::string& name);
};

}  // namespace replay
