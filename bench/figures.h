// What was measured, against what, and how far from the limits it is.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class judged_by { ratio, value, largest };

// The median of the ratios of two things measured in turns is judged, or that of our own values, or the
// largest of them.
struct figure {
    std::string name;
    std::string unit;  // of `ours` and `theirs`
    std::string against;
    judged_by by = judged_by::ratio;
    double must = 0;           // largest value that is acceptable; 0: there is no limit
    double aim = 0;            // largest value that is good
    std::vector<double> ours;  // one a round, or a case; empty: could not be measured here
    std::vector<double> theirs;
};

[[nodiscard]] double median_of(std::vector<double> values);

// The value below which `part` (0 to 1) of the values lie.
[[nodiscard]] double quantile_of(std::vector<double> values, double part);

// Whether a limit lies between the smallest and the largest judged value: more rounds would tell more.
[[nodiscard]] bool is_in_doubt(const figure& measured);

// Bytes as MiB.
[[nodiscard]] constexpr double mib(double bytes) {
    return bytes / (1024 * 1024);
}

// One table: medians (or the largest), the median of the rounds' ratios with the smallest and the largest
// one, limits, verdict.
void print_figures(const std::vector<figure>& figures);

// The same and every round's values, as JSON. False when `path` cannot be written.
[[nodiscard]] bool write_figures(const std::vector<figure>& figures, const std::string& path);
