#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <numeric>
#include <vector>

namespace velmorand::bench {

struct Distribution {
    std::size_t count = 0;
    double p50 = NAN;
    double p95 = NAN;
    double p99 = NAN;
    double mean = NAN;
    double min = NAN;
    double max = NAN;
};

// Percentiles by linear interpolation between the closest ranks.
inline double percentile(const std::vector<double>& sorted, double fraction) {
    if (sorted.empty()) {
        return NAN;
    }
    const double rank = fraction * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<std::size_t>(std::floor(rank));
    const auto above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (sorted[above] - sorted[below]) * (rank - static_cast<double>(below));
}

inline Distribution summarize(std::vector<double> samples) {
    Distribution d;
    d.count = samples.size();
    if (samples.empty()) {
        return d;
    }
    std::sort(samples.begin(), samples.end());
    d.p50 = percentile(samples, 0.50);
    d.p95 = percentile(samples, 0.95);
    d.p99 = percentile(samples, 0.99);
    d.mean =
        std::accumulate(samples.begin(), samples.end(), 0.0) / static_cast<double>(samples.size());
    d.min = samples.front();
    d.max = samples.back();
    return d;
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return percentile(values, 0.5);
}

inline nlohmann::json toJson(const Distribution& d) {
    // JSON has no NaN; an empty distribution is null.
    const auto number = [](double value) {
        return std::isfinite(value) ? nlohmann::json(value) : nlohmann::json(nullptr);
    };
    return {{"count", d.count},     {"p50", number(d.p50)},   {"p95", number(d.p95)},
            {"p99", number(d.p99)}, {"mean", number(d.mean)}, {"min", number(d.min)},
            {"max", number(d.max)}};
}

}  // namespace velmorand::bench
