// Shared test fixtures: the test kit's temporary directory and generated models, a capture of the lines the
// library reports through the logger, and the file and waiting helpers several suites need.
#pragma once

#include <functional>
#include <mutex>
#include <regex>
#include <stdexcept>
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
    int countMatching(const std::regex& pattern) const;
    // Priority of the first line whose message equals text, -1 when there is none.
    int priorityOf(const std::string& text) const;
    std::vector<std::string> messagesAt(velmar::LogPriority priority) const;
    void clear();

private:
    int countIf(const std::function<bool(const std::string&)>& matches) const;

    mutable std::mutex mutex;
    std::vector<CapturedLine> captured;
    int32_t savedPriority;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
// Full paths of the directory's entries, sorted (time-stamped names sort in creation order).
std::vector<std::string> filesIn(const std::string& dir);
// What the exception of type Exception that run() throws says; "(no exception)" when run() returns.
// An exception of another type passes through and fails the test.
template <typename Exception = std::exception, typename Run>
std::string thrownText(Run run) {
    try {
        run();
    } catch (const Exception& e) {
        return e.what();
    }
    return "(no exception)";
}

// Polls until reached() holds; false after 30 s, which only keeps a broken build from hanging.
bool waitUntil(const std::function<bool()>& reached);

// Sets (or, given null, unsets) an environment variable for one scope and restores the previous state.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const char* value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    const char* name;
    std::string saved;
    bool hadValue = false;
};

}  // namespace testsupport
