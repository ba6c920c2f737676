#include "ReportRunner.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <boost/filesystem.hpp>

extern char** environ;

namespace live {

namespace {

bool holdsRecording(const std::string& directory) {
    boost::system::error_code code;
    for (boost::filesystem::directory_iterator it(directory, code), end; !code && it != end; it.increment(code)) {
        if (it->path().extension() == ".dat") {
            return true;
        }
    }
    return false;
}

// Spawns and waits; output goes to <directory>/replay.out.
std::string runReplay(const std::vector<std::string>& args, const std::string& outputPath) {
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return args[0] + ": cannot start: " + std::strerror(spawned);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return std::string("waiting for stylus-replay: ") + std::strerror(errno);
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "stylus-replay failed (see " + outputPath + ")";
    }
    return {};
}

}  // namespace

ReportRunner::ReportRunner(std::string replayPath, std::string baseConfig)
    : replayPath(std::move(replayPath)), baseConfig(std::move(baseConfig)) {}

ReportRunner::~ReportRunner() {
    const std::lock_guard<std::mutex> lock(mutex);
    for (std::thread& worker : workers) {
        worker.join();
    }
}

std::string ReportRunner::command(const std::string& directory) const {
    const std::string program = replayPath.empty() ? "stylus-replay" : replayPath;
    // The base configuration: the session's own one would record the replay into the directory.
    return program + " --config '" + baseConfig + "' --report '" + directory + "/report.html' --json '" + directory +
           "/summary.json' --log '" + directory + "/replay.log' '" + directory + "'";
}

void ReportRunner::run(const std::string& directory, std::function<void(const std::string&)> done) {
    if (!holdsRecording(directory)) {
        done("nothing was recorded in this session (switch recording on to keep strokes)");
        return;
    }
    if (replayPath.empty() || access(replayPath.c_str(), X_OK) != 0) {
        done("stylus-replay not found" + (replayPath.empty() ? std::string() : " at " + replayPath) +
             ": run the command by hand");
        return;
    }
    std::vector<std::string> args{replayPath,  "--config", baseConfig, "--report", directory + "/report.html",
                                  "--json",    directory + "/summary.json", "--log", directory + "/replay.log",
                                  "--quiet",   directory};
    const std::string output = directory + "/replay.out";
    const std::lock_guard<std::mutex> lock(mutex);
    workers.emplace_back([args, output, done = std::move(done)] { done(runReplay(args, output)); });
}

}  // namespace live
