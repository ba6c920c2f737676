#include "RecordingReader.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

#include "RecordingFormat.h"
#include "ReplayError.h"

namespace replay {

const char* const RecordingReader::header = recordingformat::kHeader;

namespace {

constexpr std::size_t fieldCount = 7;
const std::array<const char*, fieldCount> fieldNames = {"timestamp", "x_pos",       "y_pos", "pressure",
                                                        "tilt",      "orientation", "tag"};

std::string quoted(const std::string& text) {
    constexpr std::size_t shown = 60;
    return "\"" + (text.size() > shown ? text.substr(0, shown) + "..." : text) + "\"";
}

std::string trimmed(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

template <typename T>
bool parseWhole(const std::string& text, T& value) {
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end;
}

class RowParser {
public:
    explicit RowParser(const std::string& name) : name(name) {}

    [[noreturn]] void fail(std::size_t lineNumber, const std::string& message) const {
        throw ReplayError(name + ":" + std::to_string(lineNumber) + ": " + message);
    }

    StylusTouchPoint parse(const std::string& line, std::size_t lineNumber) const {
        std::array<std::string, fieldCount> fields;
        std::size_t found = 0;
        std::stringstream stream(line);
        std::string field;
        while (std::getline(stream, field, ',')) {
            if (found < fieldCount) {
                fields[found] = trimmed(field);
            }
            ++found;
        }
        if (!line.empty() && line.back() == ',') {
            ++found;  // getline does not report the empty last field
        }
        if (found != fieldCount) {
            fail(lineNumber, "malformed row " + quoted(line) + ": expected 7 fields, found " + std::to_string(found));
        }
        StylusTouchPoint point{};
        if (!parseWhole(fields[0], point.timestamp)) {
            fail(lineNumber, "malformed row: timestamp " + quoted(fields[0]) +
                                 " is not a whole non-negative number of milliseconds");
        }
        float* floats[] = {&point.x_pos, &point.y_pos, &point.pressure, &point.tilt, &point.orientation};
        for (std::size_t i = 0; i < 5; ++i) {
            double value = 0.0;
            if (!parseWhole(fields[i + 1], value) || !std::isfinite(value)) {
                fail(lineNumber, std::string("malformed row: ") + fieldNames[i + 1] + " " + quoted(fields[i + 1]) +
                                     " is not a finite number");
            }
            *floats[i] = static_cast<float>(value);
        }
        if (!parseWhole(fields[6], point.tag)) {
            fail(lineNumber, "malformed row: tag " + quoted(fields[6]) + " is not an integer");
        }
        return point;
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
        if (trimmed(line).empty()) {
            continue;
        }
        const StylusTouchPoint point = parser.parse(line, lineNumber);
        if (!recording.samples.empty() && point.timestamp < recording.samples.back().timestamp) {
            parser.fail(lineNumber, "timestamp " + std::to_string(point.timestamp) + " goes backwards (line " +
                                        std::to_string(previousLine) + " has " +
                                        std::to_string(recording.samples.back().timestamp) + ")");
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
