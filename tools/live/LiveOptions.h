// Options of stylus-live.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace live {

struct LiveOptions {
    std::string address = "127.0.0.1";
    unsigned short port = 8765;          // 0: any free port (printed at start)
    std::string configPath;              // JSON predictor configuration
    std::string recordingsDir = "stylus-live-recordings";
    std::string replayPath;              // stylus-replay, for the session reports; empty: none
    std::string logPath;                 // the library's log lines; empty: <recordingsDir>/stylus-live.log
    bool verbose = false;                // the library's log lines on standard error instead
    std::size_t maxMessageBytes = 64 * 1024;
    std::size_t maxSamplesPerMessage = 256;
    double maxMessagesPerSecond = 250;   // above a display's frame rate
    double messageBurst = 60;
    bool help = false;
};

class LiveCommandLine {
public:
    static const char* const usage;

    // Takes defaults for the configuration and stylus-replay; throws std::invalid_argument naming
    // the option that is unknown, lacks its value or has a bad one.
    static LiveOptions parse(const std::vector<std::string>& args, const std::string& defaultConfig,
                             const std::string& defaultReplay);
};

}  // namespace live
