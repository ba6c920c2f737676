// Options of stylus-replay.
#pragma once

#include <string>
#include <vector>

namespace replay {

struct ReplayOptions {
    std::string configPath;  // empty: the shipped configuration
    std::vector<std::string> inputs;
    int batchSize = 4;
    bool realtime = false;
    std::string jsonPath;
    std::string predictionsPath;
    std::string reportPath;
    std::string logPath;  // empty: defaultLogPath, unless verbose
    bool peers = false;     // the tuned peers beside the baselines
    std::string peersPath;  // empty: the peers file beside the configuration
    bool verbose = false;  // the library's log lines on the terminal
    bool quiet = false;
    bool help = false;
    std::string checkConfigPath;  // --check-config: only check this configuration
};

class CommandLine {
public:
    static const char* const usage;
    static const char* const defaultLogPath;

    // Options take their value as the next argument or after '='. Throws ReplayError on an unknown
    // option, a missing value, a batch size below 1, --log with --verbose, --peers-file without --peers,
    // or no recording (unless help or a configuration check was asked).
    static ReplayOptions parse(const std::vector<std::string>& args);

    // Files stay as given; a directory stands for its *.csv and *.dat files in name order.
    // Throws ReplayError for a path that does not exist or a directory without recordings.
    static std::vector<std::string> expandInputs(const std::vector<std::string>& inputs);
};

}  // namespace replay
