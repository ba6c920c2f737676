// Keeps the library's log lines off the terminal: the library writes them to file descriptor 2, so
// while this object lives, descriptor 2 is the log file and the terminal's standard error stays
// reachable through terminal() for the tool's own progress and errors.
#pragma once

#include <cstdio>
#include <string>

namespace replay {

class LibraryLog {
public:
    // Empty path: nothing is redirected and terminal() is stderr. Throws ReplayError when the file
    // cannot be created or the descriptors cannot be moved.
    explicit LibraryLog(const std::string& path);
    ~LibraryLog();  // descriptor 2 is the terminal's again
    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;

    std::FILE* terminal() const { return terminalStream; }
    const std::string& path() const { return logPath; }

private:
    std::string logPath;
    int savedStderr = -1;
    std::FILE* terminalStream = stderr;
};

}  // namespace replay
