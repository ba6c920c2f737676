// Makes a finished session's stylus-replay report in the background, one child process per
// session, and says when it is done.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace live {

class ReportRunner {
public:
    // replayPath empty: no report is made, only the command is shown.
    ReportRunner(std::string replayPath, std::string baseConfig);
    ~ReportRunner();  // waits for the reports under way
    ReportRunner(const ReportRunner&) = delete;
    ReportRunner& operator=(const ReportRunner&) = delete;

    // The command that makes the report of a session directory, for a person to run.
    std::string command(const std::string& directory) const;

    // done(problem) runs on a thread of the runner, with an empty problem once
    // <directory>/report.html is written, else why not.
    void run(const std::string& directory, std::function<void(const std::string& problem)> done);

private:
    std::string replayPath;
    std::string baseConfig;
    std::mutex mutex;
    std::vector<std::thread> workers;
};

}  // namespace live
