// Reading rows of the recording format (RecordingFormat.h). Kept apart from the writing side because
// it needs floating-point std::from_chars, which not every device's C++ library has; only host-side
// tools and tests read recordings.
#pragma once

#include <charconv>
#include <cmath>
#include <string_view>
#include <system_error>

#include "RecordingFormat.h"

namespace recordingformat {

struct ParsedRow {
    StylusTouchPoint point{};
    std::size_t fieldsFound = 0;
    int badField = -1;         // index of the first field that does not convert; -1: none
    std::string_view badText;  // that field, blanks around it removed
    bool ok() const { return fieldsFound == kFieldCount && badField < 0; }
};

namespace detail {

inline std::string_view trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

template <typename T>
bool parseWhole(std::string_view text, T& value) {
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end;
}

}  // namespace detail

// Parses one row given without its line end. Fields may have blanks around them; the timestamp is a
// whole non-negative number, the five floats finite numbers, the tag an integer. With the wrong
// number of fields nothing is converted.
inline ParsedRow parseRow(std::string_view line) {
    ParsedRow row;
    std::array<std::string_view, kFieldCount> fields;
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = line.find(',', start);
        const std::string_view field = line.substr(start, comma == std::string_view::npos ? line.npos : comma - start);
        if (row.fieldsFound < kFieldCount) {
            fields[row.fieldsFound] = detail::trimmed(field);
        }
        ++row.fieldsFound;
        if (comma == std::string_view::npos) {
            break;
        }
        start = comma + 1;
    }
    if (row.fieldsFound != kFieldCount) {
        return row;
    }
    const auto fail = [&row, &fields](int index) {
        row.badField = index;
        row.badText = fields[static_cast<std::size_t>(index)];
        return row;
    };
    if (!detail::parseWhole(fields[0], row.point.timestamp)) {
        return fail(0);
    }
    float* floats[] = {&row.point.x_pos, &row.point.y_pos, &row.point.pressure, &row.point.tilt,
                       &row.point.orientation};
    for (int i = 0; i < 5; ++i) {
        double value = 0.0;
        if (!detail::parseWhole(fields[static_cast<std::size_t>(i) + 1], value) || !std::isfinite(value)) {
            return fail(i + 1);
        }
        *floats[i] = static_cast<float>(value);
    }
    if (!detail::parseWhole(fields[6], row.point.tag)) {
        return fail(6);
    }
    return row;
}

}  // namespace recordingformat
