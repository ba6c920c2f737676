// A token bucket over messages: a burst of up to `burst`, then `perSecond` on average.
#pragma once

#include <chrono>

namespace live {

class RateLimiter {
public:
    using Clock = std::chrono::steady_clock;

    RateLimiter(double perSecond, double burst);

    // Takes one token when there is one.
    bool allow(Clock::time_point now);

private:
    double perSecond;
    double burst;
    double tokens;
    Clock::time_point last;
    bool started = false;
};

}  // namespace live
