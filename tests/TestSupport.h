// Shared test fixtures: the test kit's temporary directory and generated models, and a capture of the lines the
// library reports through the logger.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "GeneratedModel.h"
#include "TempDir.h"
#include "velmar/Log.h"

namespace testsupport {

using testkit::TempDir;

struct CapturedLine {
    velmar::LogPriority priority;
    std::string tag;
    std::string function;
    int line;
    std::string message;
};

// Installs a sink for its lifetime; sets the global priority it is given and restores the old one.
class LogCapture {
public:
    explicit LogCapture(int32_t globalPriority = velmar::Verbose);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedLine> lines() const;
    std::vector<std::string> messages() const;
    // Number of reported lines whose message equals text exactly / starts with prefix.
    int count(const std::string& text) const;
    int countPrefix(const std::string& prefix) const;
    bool contains(const std::string& text) const { return count(text) > 0; }
    void clear();

private:
    mutable std::mutex mutex;
    std::vector<CapturedLine> captured;
    int32_t savedPriority;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace testsupport
