#include "CommandLine.h"

#include <algorithm>
#include <filesystem>

#include "ReplayError.h"

namespace replay {

const char* const CommandLine::usage =
    "usage: stylus-replay [options] RECORDING...\n"
    "Plays the host of the stylus predictor: sends each recording (CSV, or a directory of .csv/.dat\n"
    "files) batch by batch through the library and measures every prediction against the real pen.\n"
    "\n"
    "  --config FILE           predictor configuration (default: models/stylus_predictor.json)\n"
    "  --batch-size N          samples per batch, a pen-down or pen-up also ends one (default 4)\n"
    "  --realtime              send at the recording's own pace instead of as fast as accepted\n"
    "  --json FILE             write the summary as JSON\n"
    "  --predictions-out FILE  write every prediction as CSV\n"
    "  --report FILE.html      write an HTML page with drawings and charts\n"
    "  --peers                 also measure the tuned peers (Kalman filters, least-squares fits), with\n"
    "                          the parameters tuned for the rate nearest each recording's own\n"
    "  --peers-file FILE       their parameters (default: beside the configuration,\n"
    "                          models/stylus_predictor.peers.json; made by stylus-tune-peers)\n"
    "  --log FILE              where the library's log lines go (default: stylus-replay.log in the\n"
    "                          current directory)\n"
    "  --verbose               the library's log lines on the terminal instead\n"
    "  --quiet                 no progress line on standard error\n"
    "  --check-config FILE     only check a configuration: print its warnings and refusals, exit 1\n"
    "                          if there is any, 0 if it is clean\n"
    "  -h, --help              this text\n";

const char* const CommandLine::defaultLogPath = "stylus-replay.log";

ReplayOptions CommandLine::parse(const std::vector<std::string>& args) {
    ReplayOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        std::string value;
        bool hasValue = false;
        const auto equals = arg.find('=');
        if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = arg.substr(equals + 1);
            arg = arg.substr(0, equals);
            hasValue = true;
        }
        const auto takeValue = [&]() -> std::string {
            if (hasValue) {
                return value;
            }
            if (i + 1 >= args.size()) {
                throw ReplayError("option " + arg + " needs a value");
            }
            return args[++i];
        };
        const auto noValue = [&]() {
            if (hasValue) {
                throw ReplayError("option " + arg + " takes no value");
            }
        };
        if (arg == "-h" || arg == "--help") {
            noValue();
            options.help = true;
        } else if (arg == "--config") {
            options.configPath = takeValue();
        } else if (arg == "--check-config") {
            options.checkConfigPath = takeValue();
        } else if (arg == "--batch-size") {
            const std::string text = takeValue();
            std::size_t used = 0;
            int size = 0;
            try {
                size = std::stoi(text, &used);
            } catch (const std::exception&) {
                used = 0;
            }
            if (used == 0 || used != text.size() || size < 1) {
                throw ReplayError("--batch-size needs a whole number of at least 1, not \"" + text + "\"");
            }
            options.batchSize = size;
        } else if (arg == "--realtime") {
            noValue();
            options.realtime = true;
        } else if (arg == "--json") {
            options.jsonPath = takeValue();
        } else if (arg == "--predictions-out") {
            options.predictionsPath = takeValue();
        } else if (arg == "--report") {
            options.reportPath = takeValue();
        } else if (arg == "--peers") {
            noValue();
            options.peers = true;
        } else if (arg == "--peers-file") {
            options.peersPath = takeValue();
            if (options.peersPath.empty()) {
                throw ReplayError("--peers-file needs a file name");
            }
        } else if (arg == "--log") {
            options.logPath = takeValue();
            if (options.logPath.empty()) {
                throw ReplayError("--log needs a file name");
            }
        } else if (arg == "--verbose") {
            noValue();
            options.verbose = true;
        } else if (arg == "--quiet") {
            noValue();
            options.quiet = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw ReplayError("unknown option " + arg);
        } else {
            options.inputs.push_back(args[i]);
        }
    }
    if (options.verbose && !options.logPath.empty()) {
        throw ReplayError("--log and --verbose exclude each other");
    }
    if (!options.peersPath.empty() && !options.peers) {
        throw ReplayError("--peers-file needs --peers");
    }
    if (options.inputs.empty() && !options.help && options.checkConfigPath.empty()) {
        throw ReplayError("no recording given");
    }
    return options;
}

std::vector<std::string> CommandLine::expandInputs(const std::vector<std::string>& inputs) {
    namespace fs = std::filesystem;
    std::vector<std::string> files;
    for (const std::string& input : inputs) {
        std::error_code error;
        if (!fs::is_directory(input, error)) {
            if (!fs::exists(input, error)) {
                throw ReplayError(input + ": no such file or directory");
            }
            files.push_back(input);
            continue;
        }
        std::vector<std::string> found;
        for (const fs::directory_entry& entry : fs::directory_iterator(input, error)) {
            const std::string extension = entry.path().extension().string();
            if (entry.is_regular_file(error) && (extension == ".csv" || extension == ".dat")) {
                found.push_back(entry.path().string());
            }
        }
        if (error) {
            throw ReplayError(input + ": cannot list the directory (" + error.message() + ")");
        }
        if (found.empty()) {
            throw ReplayError(input + ": no .csv or .dat recording in this directory");
        }
        std::sort(found.begin(), found.end());
        files.insert(files.end(), found.begin(), found.end());
    }
    return files;
}

}  // namespace replay
