#include "TestSupport.h"

#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

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

int LogCapture::countIf(const std::function<bool(const std::string&)>& matches) const {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(std::count_if(captured.begin(), captured.end(),
                                          [&](const CapturedLine& line) { return matches(line.message); }));
}

int LogCapture::count(const std::string& text) const {
    return countIf([&](const std::string& message) { return message == text; });
}

int LogCapture::countPrefix(const std::string& prefix) const {
    return countIf([&](const std::string& message) { return message.compare(0, prefix.size(), prefix) == 0; });
}

int LogCapture::countMatching(const std::regex& pattern) const {
    return countIf([&](const std::string& message) { return std::regex_match(message, pattern); });
}

int LogCapture::priorityOf(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& line : captured) {
        if (line.message == text) {
            return line.priority;
        }
    }
    return -1;
}

std::vector<std::string> LogCapture::messagesAt(velmar::LogPriority priority) const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> result;
    for (const auto& line : captured) {
        if (line.priority == priority) {
            result.push_back(line.message);
        }
    }
    return result;
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

std::vector<std::string> filesIn(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir)) {
        names.push_back(entry.path().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool waitUntil(const std::function<bool()>& reached) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!reached()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

ScopedEnvironment::ScopedEnvironment(const char* name, const char* value) : name(name) {
    if (const char* old = std::getenv(name)) {
        saved = old;
        hadValue = true;
    }
    if (value == nullptr) {
        unsetenv(name);
    } else {
        setenv(name, value, 1);
    }
}

ScopedEnvironment::~ScopedEnvironment() {
    if (hadValue) {
        setenv(name, saved.c_str(), 1);
    } else {
        unsetenv(name);
    }
}

}  // namespace testsupport
