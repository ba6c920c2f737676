// stylus-live: draw in a browser and watch the library predict. Serves one page and runs the
// library behind it; see LiveCommandLine::usage.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "LiveOptions.h"
#include "LiveServer.h"

namespace {

// The library logs to descriptor 2; the server's own lines go to standard output.
bool sendLibraryLogTo(const std::string& path) {
    boost::system::error_code ignored;
    boost::filesystem::create_directories(boost::filesystem::path(path).parent_path(), ignored);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::cerr << "stylus-live: " << path << ": cannot write the library log: " << std::strerror(errno) << std::endl;
        return false;
    }
    const bool moved = ::dup2(fd, STDERR_FILENO) >= 0;
    ::close(fd);
    return moved;
}

}  // namespace

int main(int argc, char** argv) {
    live::LiveOptions options;
    try {
        options = live::LiveCommandLine::parse(std::vector<std::string>(argv + 1, argv + argc),
                                               STYLUS_LIVE_DEFAULT_CONFIG, STYLUS_LIVE_DEFAULT_REPLAY);
    } catch (const std::invalid_argument& error) {
        std::cerr << "stylus-live: " << error.what() << "\n" << live::LiveCommandLine::usage;
        return 2;
    }
    if (options.help) {
        std::cout << live::LiveCommandLine::usage;
        return 0;
    }
    if (!std::ifstream(options.configPath)) {
        std::cerr << "stylus-live: " << options.configPath << ": cannot read the predictor configuration" << std::endl;
        return 1;
    }
    try {
        live::LiveServer server(options);
        const std::string logPath =
            options.logPath.empty() ? options.recordingsDir + "/stylus-live.log" : options.logPath;
        if (!options.verbose && !sendLibraryLogTo(logPath)) {
            return 1;
        }
        const bool ipv6 = options.address.find(':') != std::string::npos;
        std::cout << "stylus-live: listening on http://" << (ipv6 ? "[" + options.address + "]" : options.address)
                  << ":" << server.port() << "/ (recordings in " << options.recordingsDir << ", library log "
                  << (options.verbose ? std::string("on standard error") : logPath) << ")" << std::endl;
        server.run();
    } catch (const std::exception& error) {
        std::cout << "stylus-live: " << error.what() << std::endl;
        return 1;
    }
    std::cout << "stylus-live: stopped" << std::endl;
    return 0;
}
