#include "SoakOptions.h"

#include <stdexcept>

namespace soak {

const char* SoakOptions::usage() {
    return "usage: stylus-soak (--config FILE | --model FILE) [--batches N] [--senders N] [--pause-us N]\n"
           "                   [--policy Block|'Reject Newest'] [--work-dir DIR] [--json FILE]\n"
           "                   [--rss-limit-mib X] [--seed N] [--restarts N]\n";
}

SoakOptions SoakOptions::parse(int argc, char** argv) {
    SoakOptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help" || flag == "-h") {
            throw std::invalid_argument("");
        }
        if (i + 1 >= argc) {
            throw std::invalid_argument("missing value after " + flag);
        }
        const std::string value = argv[++i];
        const auto number = [&](auto convert) {
            try {
                return convert(value);
            } catch (const std::logic_error&) {
                throw std::invalid_argument("bad value for " + flag + ": " + value);
            }
        };
        if (flag == "--batches") {
            options.batches = number([](const std::string& v) { return std::stoull(v); });
        } else if (flag == "--senders") {
            options.senders = number([](const std::string& v) { return std::stoi(v); });
        } else if (flag == "--pause-us") {
            options.paceMicroseconds = number([](const std::string& v) { return std::stoi(v); });
        } else if (flag == "--rss-limit-mib") {
            options.rssLimitMiB = number([](const std::string& v) { return std::stod(v); });
        } else if (flag == "--restarts") {
            options.restarts = number([](const std::string& v) { return std::stoi(v); });
        } else if (flag == "--seed") {
            options.seed = static_cast<uint32_t>(number([](const std::string& v) { return std::stoul(v); }));
        } else if (flag == "--config") {
            options.config = value;
        } else if (flag == "--model") {
            options.model = value;
        } else if (flag == "--policy") {
            options.policy = value;
        } else if (flag == "--work-dir") {
            options.workDir = value;
        } else if (flag == "--json") {
            options.jsonOut = value;
        } else {
            throw std::invalid_argument("unknown option " + flag);
        }
    }
    if (options.config.empty() == options.model.empty()) {
        throw std::invalid_argument("give exactly one of --config and --model");
    }
    if (options.senders < 1 || options.batches < 1) {
        throw std::invalid_argument("--batches and --senders must be at least 1");
    }
    if (options.restarts < 0) {
        throw std::invalid_argument("--restarts must not be negative");
    }
    return options;
}

}  // namespace soak
