// One drawing session's directory: the library records into it, and the configuration it runs with
// lies in its predictor/ subdirectory beside a link to the model (the library looks for the model
// beside its configuration).
#pragma once

#include <string>

namespace live {

struct SessionSetup {
    std::string name;        // live-<UTC time>, with -2, -3, ... when taken
    std::string directory;   // absolute
    std::string configPath;  // the session's configuration
    int stepMs = 4;
    int pixelPerInch = 213;
};

class SessionDirectory {
public:
    // Copies the JSON configuration baseConfig with recording on under run-time consent (off until
    // the page switches it on), one row per write so that a short session loses nothing, and the
    // free-space check made on the session's own file system. Throws std::runtime_error naming the
    // file or directory that could not be read or made.
    static SessionSetup create(const std::string& root, const std::string& baseConfig);

    // Removes a finished session's directory when it holds no recording (nothing but the
    // configuration and the consent file): pages opened and closed leave nothing behind.
    static void removeIfUnrecorded(const std::string& directory);
};

}  // namespace live
