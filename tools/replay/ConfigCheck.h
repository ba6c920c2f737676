// stylus-replay --check-config: reads a predictor configuration as the library does at start and
// reports every warning and refusal, so that a device's configuration can be checked in its CI.
#pragma once

#include <ostream>
#include <string>

namespace replay {

class ConfigCheck {
public:
    // Writes each warning or refusal (the library's own text) to out, then a last line saying
    // whether the configuration is clean, and loads the model it names. Returns the number of
    // problems: 0 for a clean configuration.
    static int run(const std::string& configPath, std::ostream& out);
};

}  // namespace replay
