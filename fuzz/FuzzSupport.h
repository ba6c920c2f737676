// Shared by the fuzz targets: a private scratch directory that lives for the whole run, and a
// silenced logger (a fuzz run executes millions of statements; formatting them would dominate).
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

#include "TempDir.h"
#include "velmar/Log.h"

namespace fuzzsupport {

inline void silenceLog() {
    velmar::Log::init();  // reads the environment once; nothing may switch logging back on after this
    velmar::Log::m_LoggingEnabled.store(false);
}

// Created on first use, removed when the process exits normally (a crashing run leaves it behind).
inline const std::string& scratchDir() {
    static const testkit::TempDir dir;
    return dir.path();
}

inline void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace fuzzsupport
