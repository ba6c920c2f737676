// The recording file format, shared by the recorder and every tool that reads or writes its files:
// a header line, then one line per sample of seven comma-separated fields ended by "\n".
// Header-only, so that tools which see only the records can use it without the library.
#pragma once

#include <array>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <string>

#include "StylusStrokePredictor.h"

namespace recordingformat {

#define RECORDING_FORMAT_HEADER "timestamp,x_pos,y_pos,pressure,tilt,orientation,tag"
// The first line of every recording, without its line end.
constexpr const char* kHeader = RECORDING_FORMAT_HEADER;
// The same line as it stands in the file.
constexpr const char* kHeaderLine = RECORDING_FORMAT_HEADER "\n";
#undef RECORDING_FORMAT_HEADER
constexpr std::size_t kFieldCount = 7;
// The header's field names, in row order.
constexpr std::array<const char*, kFieldCount> kFieldNames = {"timestamp", "x_pos",       "y_pos", "pressure",
                                                              "tilt",      "orientation", "tag"};

// Longest row: a 20-digit timestamp, five floats of up to 39 integer digits, sign and 7 decimals,
// an 11-character tag, six commas and the line end.
constexpr std::size_t kMaxRowLength = 320;

// Writes one row into text (at least kMaxRowLength bytes) and returns its length: the timestamp and
// tag as decimal integers, each float widened to double as "%.7f" prints it.
inline std::size_t formatRow(const StylusTouchPoint& point, char* text) {
    const int length = std::snprintf(text, kMaxRowLength, "%" PRIu64 ",%.7f,%.7f,%.7f,%.7f,%.7f,%" PRId32 "\n",
                                     point.timestamp, static_cast<double>(point.x_pos),
                                     static_cast<double>(point.y_pos), static_cast<double>(point.pressure),
                                     static_cast<double>(point.tilt), static_cast<double>(point.orientation),
                                     point.tag);
    return length > 0 ? static_cast<std::size_t>(length) : 0;
}

// Appends one row to out; no allocation once out has the capacity.
inline void appendRow(std::string& out, const StylusTouchPoint& point) {
    char text[kMaxRowLength];
    out.append(text, formatRow(point, text));
}

inline std::string row(const StylusTouchPoint& point) {
    std::string text;
    appendRow(text, point);
    return text;
}

}  // namespace recordingformat
