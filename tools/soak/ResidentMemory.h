// The process's resident set, for the soak's memory checks.
#pragma once

#include <unistd.h>

#include <fstream>

namespace soak {

inline double residentMiB() {
    std::ifstream statm("/proc/self/statm");
    long long size = 0;
    long long resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

}  // namespace soak
