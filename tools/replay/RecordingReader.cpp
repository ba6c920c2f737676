#include "RecordingReader.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "RecordingFormat.h"
#include "RecordingParse.h"
#include "ReplayError.h"

namespace replay {

const char* const RecordingReader::header = recordingformat::kHeader;

namespace {

std::string quoted(const std::string& text) {
    constexpr std::size_t shown = 60;
    return "\"" + (text.size() > shown ? text.substr(0, shown) + "..." : text) + "\"";
}

class RowParser {
public:
    explicit RowParser(const std::string& name) : name(name) {}

    std::string where(std::size_t lineNumber, const std::string& message) const {
        return name + ":" + std::to_string(lineNumber) + ": " + message;
    }

    [[noreturn]] void fail(std::size_t lineNumber, const std::string& message) const {
        throw ReplayError(where(lineNumber, message));
    }

    // The row's sample, or false with the reason in problem.
    bool parse(const std::string& line, StylusTouchPoint& point, std::string& problem) const {
        const recordingformat::ParsedRow row = recordingformat::parseRow(line);
        if (row.fieldsFound != recordingformat::kFieldCount) {
            problem = "malformed row " + quoted(line) + ": expected 7 fields, found " + std::to_string(row.fieldsFound);
            return false;
        }
        if (row.badField >= 0) {
            const std::string field = quoted(std::string(row.badText));
            const std::string what = row.badField == 0   ? " is not a whole non-negative number of milliseconds"
                                     : row.badField == 6 ? " is not an integer"
                                                         : " is not a finite number";
            problem = std::string("malformed row: ") +
                      recordingformat::kFieldNames[static_cast<std::size_t>(row.badField)] + " " + field + what;
            return false;
        }
        point = row.point;
        return true;
    }

private:
    const std::string& name;
};

void stripLineEnd(std::string& line) {
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
}

}  // namespace

Recording RecordingReader::read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw ReplayError(path + ": cannot open the recording (" + std::strerror(errno) + ")");
    }
    return parse(in, path);
}

Recording RecordingReader::parse(std::istream& in, const std::string& name) {
    Recording recording;
    recording.path = name;
    const RowParser parser(name);

    std::string line;
    if (!std::getline(in, line)) {
        throw ReplayError(name + ":1: empty file, expected the header \"" + header + "\"");
    }
    stripLineEnd(line);
    const std::string byteOrderMark = "\xEF\xBB\xBF";
    if (line.compare(0, byteOrderMark.size(), byteOrderMark) == 0) {
        line.erase(0, byteOrderMark.size());
    }
    if (line != header) {
        parser.fail(1, "wrong header " + quoted(line) + ", expected \"" + header + "\"");
    }

    std::size_t lineNumber = 1;
    std::size_t previousLine = 0;
    while (std::getline(in, line)) {
        ++lineNumber;
        stripLineEnd(line);
        if (line.find_first_not_of(" \t") == std::string::npos) {
            continue;
        }
        StylusTouchPoint point{};
        std::string problem;
        if (!parser.parse(line, point, problem)) {
            recording.skippedRows.push_back(parser.where(lineNumber, problem));
            continue;
        }
        if (!recording.samples.empty() && point.timestamp < recording.samples.back().timestamp) {
            recording.skippedRows.push_back(parser.where(
                lineNumber, "timestamp " + std::to_string(point.timestamp) + " goes backwards (line " +
                                std::to_string(previousLine) + " has " +
                                std::to_string(recording.samples.back().timestamp) + ")"));
            continue;
        }
        recording.samples.push_back(point);
        previousLine = lineNumber;
    }
    if (in.bad()) {
        throw ReplayError(name + ":" + std::to_string(lineNumber) + ": read error");
    }
    return recording;
}

}  // namespace replay
