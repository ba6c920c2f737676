#include "ProgressLine.h"

#include <unistd.h>

namespace replay {

ProgressLine::ProgressLine(bool enabled, std::FILE* out)
    : enabled(enabled), out(out), terminal(isatty(fileno(out)) != 0), start(Clock::now()), lastShown(start) {}

// On a terminal the line ends in its final state, however short the run was.
ProgressLine::~ProgressLine() {
    if (enabled && terminal && !lastLabel.empty()) {
        show(lastLabel, lastDone, lastTotal);
    }
    if (lineOpen) {
        std::fputc('\n', out);
    }
}

void ProgressLine::update(const std::string& label, std::size_t done, std::size_t total) {
    if (!enabled) {
        return;
    }
    if (terminal) {
        lastLabel = label;
        lastDone = done;
        lastTotal = total;
    }
    const Clock::time_point now = Clock::now();
    const auto interval = terminal ? std::chrono::milliseconds(250) : std::chrono::milliseconds(10000);
    if (now - start < std::chrono::seconds(1) || now - lastShown < interval) {
        return;
    }
    lastShown = now;
    show(label, done, total);
}

void ProgressLine::show(const std::string& label, std::size_t done, std::size_t total) {
    const double percent = total > 0 ? 100.0 * static_cast<double>(done) / static_cast<double>(total) : 100.0;
    std::fprintf(out, "%s%s: %zu/%zu batches (%.0f%%)%s", terminal ? "\r\033[K" : "", label.c_str(), done, total,
                 percent, terminal ? "" : "\n");
    std::fflush(out);
    lineOpen = terminal;
}

}  // namespace replay
