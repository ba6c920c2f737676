#include "LibraryLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ReplayError.h"

namespace replay {

LibraryLog::LibraryLog(const std::string& path) : logPath(path) {
    if (path.empty()) {
        return;
    }
    const int logFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (logFd < 0) {
        throw ReplayError(path + ": cannot write the library log (" + std::strerror(errno) + ")");
    }
    std::fflush(stderr);
    savedStderr = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    std::FILE* terminal = savedStderr >= 0 ? ::fdopen(savedStderr, "w") : nullptr;
    if (terminal == nullptr || ::dup2(logFd, STDERR_FILENO) < 0) {
        const std::string reason = std::strerror(errno);
        if (terminal != nullptr) {
            std::fclose(terminal);
        } else if (savedStderr >= 0) {
            ::close(savedStderr);
        }
        ::close(logFd);
        throw ReplayError(path + ": cannot send the library log there (" + reason + ")");
    }
    ::close(logFd);
    std::setvbuf(terminal, nullptr, _IONBF, 0);
    terminalStream = terminal;
}

LibraryLog::~LibraryLog() {
    if (savedStderr < 0) {
        return;
    }
    std::fflush(stderr);
    ::dup2(savedStderr, STDERR_FILENO);
    std::fclose(terminalStream);  // closes savedStderr
}

}  // namespace replay
