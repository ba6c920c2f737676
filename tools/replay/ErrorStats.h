// Distribution of a measured quantity: mean and percentiles over every value added.
#pragma once

#include <cstddef>
#include <vector>

namespace replay {

class ErrorStats {
public:
    void add(double value);

    std::size_t count() const { return values.size(); }
    // All three are NaN when nothing was added.
    double mean() const;
    // p in [0, 100]; linear interpolation between the closest ranks (rank p/100 * (n - 1)).
    double percentile(double p) const;
    double median() const { return percentile(50.0); }
    double max() const;

    // Sorted ascending.
    const std::vector<double>& sortedValues() const;

private:
    // Sorted lazily so that adding stays cheap; queries sort once.
    mutable std::vector<double> values;
    mutable bool sorted = true;
    double sum = 0.0;
};

}  // namespace replay
