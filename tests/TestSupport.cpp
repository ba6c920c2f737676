#include "TestSupport.h"

#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testsupport {

LogCapture::LogCapture(int32_t globalPriority) : savedPriority(velmar::Log::m_GlobalPriority.load()) {
    velmar::Log::init();
    velmar::Log::m_LoggingEnabled.store(true);
    velmar::Log::m_GlobalPriority.store(globalPriority);
    velmar::Log::setSink([this](const velmar::LogEntry& entry) {
        std::lock_guard<std::mutex> lock(mutex);
        captured.push_back({entry.priority, entry.tag, entry.function, entry.line, entry.message});
    });
}

LogCapture::~LogCapture() {
    velmar::Log::setSink(nullptr);
    velmar::Log::m_GlobalPriority.store(savedPriority);
}

std::vector<CapturedLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex);
    return captured;
}

std::vector<std::string> LogCapture::messages() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> result;
    result.reserve(captured.size());
    for (const auto& line : captured) {
        result.push_back(line.message);
    }
    return result;
}

int LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex);
    int n = 0;
    for (const auto& line : captured) {
        n += line.message == text ? 1 : 0;
    }
    return n;
}

int LogCapture::countPrefix(const std::string& prefix) const {
    std::lock_guard<std::mutex> lock(mutex);
    int n = 0;
    for (const auto& line : captured) {
        n += line.message.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    }
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    captured.clear();
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
    out << content;
}

}  // namespace testsupport
