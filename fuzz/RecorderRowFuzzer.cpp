// The recording row formatting on arbitrary samples (every bit pattern: NaN, infinities, huge
// values, any tag). Each 40-byte slice of the input is one sample. The rows written must be exactly
// what printf gives, into a buffer of ample size, for "%llu" and "%.7f" of each field widened to
// double and "%d" for the tag: the format's fixed row buffer never cuts a row short.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "FuzzSupport.h"
#include "RecordingFormat.h"

namespace {

std::string expectedRow(const StylusTouchPoint& p) {
    char row[512];
    std::snprintf(row, sizeof(row), "%" PRIu64 ",%.7f,%.7f,%.7f,%.7f,%.7f,%" PRId32 "\n", p.timestamp,
                  static_cast<double>(p.x_pos), static_cast<double>(p.y_pos), static_cast<double>(p.pressure),
                  static_cast<double>(p.tilt), static_cast<double>(p.orientation), p.tag);
    return row;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzzsupport::scratchDir() + "/rows.dat";
    std::string expected;
    {
        std::ofstream out(path, std::ios::out | std::ios::trunc);
        for (size_t offset = 0; offset + sizeof(StylusTouchPoint) <= size; offset += sizeof(StylusTouchPoint)) {
            StylusTouchPoint point;
            std::memcpy(&point, data + offset, sizeof(point));
            out << recordingformat::row(point);
            expected += expectedRow(point);
        }
    }
    if (fuzzsupport::readFile(path) != expected) {
        __builtin_trap();
    }
    return 0;
}
