// The recorder on arbitrary samples and an arbitrary leftover of an earlier run. The input is a
// two-byte length, that many bytes of a ".dat.tmp" leftover planted in the recording directory, then
// 40-byte samples (every bit pattern: NaN, infinities, huge values, repeated timestamps, any tag).
// Checked besides memory and undefined behaviour:
//  - each row is exactly what printf gives into an ample buffer ("%llu", "%.7f" of each field widened
//    to double, "%d"), and reads back as a whole row;
//  - the recording holds the finite samples in the order sent, and the others are counted;
//  - the leftover is either finished as its bytes up to its last line end (header first), removed
//    when shorter than the header and a start of it, or left exactly as it was.
#include <unistd.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "RecordingFormat.h"
#include "RecordingParse.h"
#include "StylusDataWriter.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxSamples = 1000;
const std::string kLeftoverStem = "stylus_input_events_2020-01-01_00-00-00";

std::string expectedRow(const StylusTouchPoint& p) {
    char row[512];
    std::snprintf(row, sizeof(row), "%" PRIu64 ",%.7f,%.7f,%.7f,%.7f,%.7f,%" PRId32 "\n", p.timestamp,
                  static_cast<double>(p.x_pos), static_cast<double>(p.y_pos), static_cast<double>(p.pressure),
                  static_cast<double>(p.tilt), static_cast<double>(p.orientation), p.tag);
    return row;
}

bool finite(const StylusTouchPoint& p) {
    return std::isfinite(p.x_pos) && std::isfinite(p.y_pos) && std::isfinite(p.pressure) && std::isfinite(p.tilt) &&
           std::isfinite(p.orientation);
}

void checkLeftover(const std::string& dir, const std::string& leftover) {
    const std::string header = recordingformat::kHeaderLine;
    const std::string tmp = dir + "/" + kLeftoverStem + ".dat.tmp";
    const std::string dat = dir + "/" + kLeftoverStem + ".dat";
    if (fs::exists(dat)) {
        const size_t end = leftover.rfind('\n');
        if (fs::exists(tmp) || leftover.compare(0, header.size(), header) != 0 || end == std::string::npos ||
            fuzzsupport::readFile(dat) != leftover.substr(0, end + 1)) {
            __builtin_trap();
        }
    } else if (fs::exists(tmp)) {
        if (fuzzsupport::readFile(tmp) != leftover) {
            __builtin_trap();
        }
    } else if (leftover.size() >= header.size() || header.compare(0, leftover.size(), leftover) != 0) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const size_t leftoverSize = std::min<size_t>(size - 2, static_cast<size_t>(data[0]) << 8 | data[1]);
    const std::string leftover(reinterpret_cast<const char*>(data) + 2, leftoverSize);
    std::vector<StylusTouchPoint> samples;
    std::string expected;
    for (size_t offset = 2 + leftoverSize;
         offset + sizeof(StylusTouchPoint) <= size && samples.size() < kMaxSamples;
         offset += sizeof(StylusTouchPoint)) {
        StylusTouchPoint point;
        std::memcpy(&point, data + offset, sizeof(point));
        const std::string row = recordingformat::row(point);
        if (row != expectedRow(point)) {
            __builtin_trap();
        }
        if (finite(point)) {
            if (!recordingformat::parseRow(std::string_view(row).substr(0, row.size() - 1)).ok()) {
                __builtin_trap();
            }
            expected += row;
        }
        samples.push_back(point);
    }

    const std::string dir = fuzzsupport::scratchDir() + "/recordings";
    fs::remove_all(dir);
    fs::create_directory(dir);
    fuzzsupport::writeFile(dir + "/" + kLeftoverStem + ".dat.tmp", reinterpret_cast<const uint8_t*>(leftover.data()),
                           leftover.size());
    StylusDataWriterParams params;
    params.dataFileDirectory = dir;
    params.queueCapacity = static_cast<int32_t>(samples.size()) + 1;
    params.chunkSizeInRecords = 1;
    params.numChunksInFile = 1 << 30;
    params.diskFillPercentTh = 100;
    params.diskCheckPath = dir;
    RecorderCounts counts;
    {
        StylusDataWriter writer(params);
        while (!writer.leftoversChecked()) {
            usleep(100);
        }
        writer.writeSamples(samples);
        writer.stop();
        counts = writer.counts();
    }
    checkLeftover(dir, leftover);
    std::string recorded;
    for (const auto& entry : fs::directory_iterator(dir)) {
        if (entry.path().filename().string().compare(0, kLeftoverStem.size(), kLeftoverStem) != 0) {
            recorded += fuzzsupport::readFile(entry.path().string());
        }
    }
    const std::string header = recordingformat::kHeaderLine;
    if (counts.accepted != samples.size() || counts.lost != 0 ||
        counts.notNumbers + counts.written != samples.size() ||
        recorded != (expected.empty() ? std::string() : header + expected)) {
        __builtin_trap();
    }
    return 0;
}
