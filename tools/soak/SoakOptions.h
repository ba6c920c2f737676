#pragma once

#include <cstdint>
#include <string>

namespace soak {

struct SoakOptions {
    uint64_t batches = 1000000;
    int senders = 3;
    int paceMicroseconds = 50;      // each sender pauses this long after every batch; 0: flat out
    std::string config;             // a configuration whose model lies beside it
    std::string model;              // or a bare model, run with generic normalisation ranges
    std::string policy = "Reject Newest";
    std::string workDir;            // default: a new temporary directory, removed afterwards
    std::string jsonOut;            // also write the report as JSON here
    double rssLimitMiB = 4.0;       // resident growth from warm-up to end still counted as noise
    uint32_t seed = 1;
    int restarts = 24;              // rounds of the restart phase: a bad configuration, then batches going back

    // Throws std::invalid_argument with a message for the user.
    static SoakOptions parse(int argc, char** argv);
    static const char* usage();
};

}  // namespace soak
