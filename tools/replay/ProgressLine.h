// A progress line on standard error for long replays: rewritten in place on a terminal, an
// occasional plain line otherwise, nothing during the first second.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace replay {

class ProgressLine {
public:
    explicit ProgressLine(bool enabled);
    ~ProgressLine();  // ends a line left open

    void update(const std::string& label, std::size_t done, std::size_t total);

private:
    using Clock = std::chrono::steady_clock;
    bool enabled;
    bool terminal;
    bool lineOpen = false;
    Clock::time_point start;
    Clock::time_point lastShown;
};

}  // namespace replay
