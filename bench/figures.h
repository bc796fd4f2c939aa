// What was measured, against what, and how far from the limits it is.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Either the ratio of two things measured in turns is judged, or, with no `theirs`, our own value.
struct figure {
    std::string name;
    std::string unit;  // of `ours` and `theirs`
    std::string against;
    double must = 0;           // largest value that is acceptable
    double aim = 0;            // largest value that is good
    std::vector<double> ours;  // one a round; empty: could not be measured here
    std::vector<double> theirs;
};

[[nodiscard]] double median_of(std::vector<double> values);

// The value below which `part` (0 to 1) of the values lie.
[[nodiscard]] double quantile_of(std::vector<double> values, double part);

// Bytes as MiB.
[[nodiscard]] constexpr double mib(double bytes) {
    return bytes / (1024 * 1024);
}

// One table: medians, the median of the rounds' ratios with the smallest and the largest one, limits,
// verdict.
void print_figures(const std::vector<figure>& figures);

// The same and every round's values, as JSON. False when `path` cannot be written.
[[nodiscard]] bool write_figures(const std::vector<figure>& figures, const std::string& path);
