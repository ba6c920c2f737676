#include "ErrorStats.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace replay {

void ErrorStats::add(double value) {
    if (!values.empty() && value < values.back()) {
        sorted = false;
    }
    values.push_back(value);
    sum += value;
}

double ErrorStats::mean() const {
    return values.empty() ? std::numeric_limits<double>::quiet_NaN() : sum / static_cast<double>(values.size());
}

const std::vector<double>& ErrorStats::sortedValues() const {
    if (!sorted) {
        std::sort(values.begin(), values.end());
        sorted = true;
    }
    return values;
}

double ErrorStats::percentile(double p) const {
    const std::vector<double>& ordered = sortedValues();
    if (ordered.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const double rank = std::clamp(p, 0.0, 100.0) / 100.0 * static_cast<double>(ordered.size() - 1);
    const std::size_t below = static_cast<std::size_t>(std::floor(rank));
    const std::size_t above = std::min(below + 1, ordered.size() - 1);
    const double fraction = rank - static_cast<double>(below);
    return ordered[below] + fraction * (ordered[above] - ordered[below]);
}

double ErrorStats::max() const {
    const std::vector<double>& ordered = sortedValues();
    return ordered.empty() ? std::numeric_limits<double>::quiet_NaN() : ordered.back();
}

}  // namespace replay
