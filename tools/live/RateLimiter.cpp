#include "RateLimiter.h"

#include <algorithm>

namespace live {

RateLimiter::RateLimiter(double perSecond, double burst) : perSecond(perSecond), burst(burst), tokens(burst) {}

bool RateLimiter::allow(Clock::time_point now) {
    if (started && now > last) {
        const double seconds = std::chrono::duration<double>(now - last).count();
        tokens = std::min(burst, tokens + seconds * perSecond);
    }
    if (!started || now > last) {
        last = now;
    }
    started = true;
    if (tokens < 1.0) {
        return false;
    }
    tokens -= 1.0;
    return true;
}

}  // namespace live
