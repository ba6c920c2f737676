// The metrics file loader on arbitrary file contents. After loading, a few ordinary measured points
// are folded in and the calculator is destroyed (which saves the file); the saved file is then
// loaded again. Checked besides memory and undefined behaviour:
//  - the event count never exceeds the target once a point has been measured;
//  - statistics loaded as moderate finite values stay finite when finite errors are folded in;
//  - the saved event count reads back unchanged.
// An input starting with byte 1, 2 or 3 plants, instead of a file, a symbolic link to a file outside
// holding the rest (whose bytes must stay), a FIFO (which must not block) or a directory.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "FuzzSupport.h"
#include "PredictiveMetricCalculator.h"

namespace {

constexpr unsigned int kTargetEventCount = 1000;
constexpr unsigned int kSaveInterval = 3;
constexpr float kModerate = 1e6f;

bool moderate(float value) { return std::isfinite(value) && std::fabs(value) < kModerate; }

// The four loaded means cannot be read directly; the distance mean and the angle mean and spread are.
bool loadedModerate(const styluspipeline::PredictiveMetricCalculator& calculator) {
    return moderate(calculator.getDistanceErrorMean()) && moderate(calculator.getAngleDevMean()) &&
           moderate(calculator.getAngleDevStd());
}

StylusTouchPoint at(float x, float y) {
    StylusTouchPoint point{};
    point.x_pos = x;
    point.y_pos = y;
    return point;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzzsupport::scratchDir() + "/runningMetrics.txt";
    const std::string outside = fuzzsupport::scratchDir() + "/outside";
    std::filesystem::remove_all(path);
    const int planted = size > 0 && data[0] >= 1 && data[0] <= 3 ? data[0] : 0;
    if (planted == 0) {
        fuzzsupport::writeFile(path, data, size);
    } else if (planted == 1) {
        fuzzsupport::writeFile(outside, data + 1, size - 1);
        std::filesystem::create_symlink(outside, path);
    } else if (planted == 2) {
        mkfifo(path.c_str(), 0600);
    } else {
        std::filesystem::create_directory(path);
    }

    unsigned int savedCount = 0;
    {
        styluspipeline::PredictiveMetricCalculator calculator(213.0f, 25.4f, kTargetEventCount, kSaveInterval, path);
        const bool startModerate = loadedModerate(calculator);
        for (int i = 0; i < 4; ++i) {
            const float step = static_cast<float>(i);
            calculator.calculateMetrics(at(100.0f + step, 50.0f), PredictedStylusCoordinate{0, 103.0f, 52.0f + step},
                                        at(90.0f, 45.0f));
        }
        if (calculator.getEventCount() > kTargetEventCount) {
            __builtin_trap();
        }
        if (startModerate && !(std::isfinite(calculator.getDistanceErrorMean()) &&
                               std::isfinite(calculator.getAngleDevMean()))) {
            __builtin_trap();
        }
        savedCount = calculator.getEventCount();
    }  // saves the file
    if (planted == 1 && fuzzsupport::readFile(outside) != std::string(reinterpret_cast<const char*>(data) + 1, size - 1)) {
        __builtin_trap();
    }
    styluspipeline::PredictiveMetricCalculator reloaded(213.0f, 25.4f, kTargetEventCount, 0, path);
    // A directory cannot be replaced by the save: it stays, and reads as nothing.
    if (reloaded.getEventCount() != (planted == 3 ? 0u : savedCount)) {
        __builtin_trap();
    }
    return 0;
}
