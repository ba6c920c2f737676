// A progress line for the person at the terminal: rewritten in place on a terminal and left there in
// its final state; off a terminal an occasional plain line, nothing during the first second.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>

namespace replay {

class ProgressLine {
public:
    // out: the terminal's standard error, which need not be descriptor 2 any more.
    ProgressLine(bool enabled, std::FILE* out);
    ~ProgressLine();  // ends a line left open

    void update(const std::string& label, std::size_t done, std::size_t total);

private:
    void show(const std::string& label, std::size_t done, std::size_t total);

    using Clock = std::chrono::steady_clock;
    bool enabled;
    std::FILE* out;
    bool terminal;
    bool lineOpen = false;
    std::string lastLabel;  // kept on a terminal only, for the final state
    std::size_t lastDone = 0;
    std::size_t lastTotal = 0;
    Clock::time_point start;
    Clock::time_point lastShown;
};

}  // namespace replay
