// Whether the library can keep its metrics file across runs. It replaces the file through a
// temporary in the same folder, so that folder must exist and be writable by this process; on a
// development machine the device's folder usually is neither, and the figures cover one run only.
#pragma once

#include <string>

namespace replay {

struct MetricsFileState {
    std::string path;
    bool kept = false;
    std::string reason;  // why not, when not kept: "<folder>: <the system's reason>"

    static MetricsFileState check(const std::string& path);
    static MetricsFileState checkLibraryFile();  // the library's fixed metrics path
};

}  // namespace replay
