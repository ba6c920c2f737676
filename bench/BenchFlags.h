#pragma once
#include <cstring>
#include <string>

namespace benchflags {

// "--name=value" for this benchmark; anything else is left to Google Benchmark's own parser.
inline bool takeFlag(const char* arg, const char* name, std::string& value) {
    const size_t length = std::strlen(name);
    if (std::strncmp(arg, name, length) == 0 && arg[length] == '=') {
        value = arg + length + 1;
        return true;
    }
    return false;
}

}  // namespace benchflags
