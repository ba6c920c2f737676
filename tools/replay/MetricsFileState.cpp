#include "MetricsFileState.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "PredictiveMetricCalculator.h"

namespace replay {

MetricsFileState MetricsFileState::check(const std::string& path) {
    MetricsFileState state;
    state.path = path;
    std::string folder = std::filesystem::path(path).parent_path().string();
    if (folder.empty()) {
        folder = ".";
    }
    struct stat info {};
    int error = 0;
    if (::stat(folder.c_str(), &info) != 0) {
        error = errno;
    } else if (!S_ISDIR(info.st_mode)) {
        error = ENOTDIR;
    } else if (::access(folder.c_str(), W_OK) != 0) {
        error = errno;
    }
    state.kept = error == 0;
    if (!state.kept) {
        state.reason = folder + ": " + std::strerror(error);
    }
    return state;
}

MetricsFileState MetricsFileState::checkLibraryFile() {
    return check(styluspipeline::PredictiveMetricCalculator::kRunningMetricsPath);
}

}  // namespace replay
