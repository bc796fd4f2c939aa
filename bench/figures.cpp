#include "figures.h"

#include <nlohmann/json.hpp>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "tools/common/output.h"
#include "tools/play/device.h"

namespace {

std::vector<double> judged_values(const figure& measured) {
    std::vector<double> values = measured.ours;
    if (measured.by != judged_by::ratio) return values;
    for (size_t i = 0; i < measured.theirs.size() && i < values.size(); ++i) values[i] /= measured.theirs[i];
    return values;
}

double judged_value(const figure& measured, const std::vector<double>& values) {
    return measured.by == judged_by::largest ? quantile_of(values, 1) : median_of(values);
}

const char* verdict_of(const figure& measured) {
    if (measured.ours.empty()) return "not measured";
    if (measured.must == 0) return "";
    const double value = judged_value(measured, judged_values(measured));
    if (value <= measured.aim) return "aim";
    return value <= measured.must ? "must" : "MISSED";
}

// Two digits behind the point for what is small, fewer for what is large.
std::string number_text(double value, const std::string& unit = "") {
    char text[64];
    const int digits = value == static_cast<int>(value) && value >= 3 ? 0 : value >= 10 ? 1 : 2;
    snprintf(text, sizeof text, "%.*f%s%s", digits, value, unit.empty() ? "" : " ", unit.c_str());
    return text;
}

std::vector<std::string> row_of(const figure& measured) {
    const bool is_ratio = measured.by == judged_by::ratio;
    const std::string limit_unit = is_ratio ? "" : measured.unit;
    std::vector<std::string> row = {measured.name};
    if (measured.ours.empty()) {
        row.insert(row.end(), {"", measured.against, "", ""});
    } else {
        const std::vector<double> judged = judged_values(measured);
        const auto [low, high] = std::minmax_element(judged.begin(), judged.end());
        row.push_back(number_text(judged_value(measured, measured.ours), measured.unit));
        row.push_back(measured.theirs.empty()
                          ? measured.against
                          : measured.against + " " +
                                number_text(judged_value(measured, measured.theirs), measured.unit));
        row.push_back(is_ratio ? number_text(median_of(judged)) : "");
        row.push_back(number_text(*low) + " to " + number_text(*high));
    }
    for (const double limit : {measured.must, measured.aim})
        row.push_back(limit == 0 ? "" : "<= " + number_text(limit, limit_unit));
    row.push_back(verdict_of(measured));
    return row;
}

std::string processor_name() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        const bool names_it = line.starts_with("model name") || line.starts_with("Hardware");
        if (names_it && line.find(": ") != std::string::npos) return line.substr(line.find(": ") + 2);
    }
    return "";
}

nlohmann::json machine() {
    utsname system = {};
    uname(&system);
    return {{"processor", processor_name()},
            {"cores", sysconf(_SC_NPROCESSORS_ONLN)},
            {"memory_mib",
             mib(static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE)))},
            {"kernel", std::string(system.sysname) + " " + system.release + " " + system.machine},
            {"huge_pages", device_read_line("/sys/kernel/mm/transparent_hugepage/enabled")}};
}

}  // namespace

double quantile_of(std::vector<double> values, double part) {
    if (values.empty()) return 0;
    const auto nth = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + nth, values.end());
    return values[static_cast<size_t>(nth)];
}

double median_of(std::vector<double> values) {
    return quantile_of(std::move(values), 0.5);
}

bool is_in_doubt(const figure& measured) {
    const std::vector<double> judged = judged_values(measured);
    const auto range = std::ranges::minmax(judged);
    const auto lies_between = [&range](double limit) { return range.min <= limit && limit < range.max; };
    return lies_between(measured.must) || lies_between(measured.aim);
}

void print_figures(const std::vector<figure>& figures) {
    output_table table = {{"figure", "ours", "against", "ratio", "spread", "must", "aim", "verdict"}, {}};
    for (const figure& measured : figures) {
        const std::vector<std::string> row = row_of(measured);
        table.rows.emplace_back(row.begin(), row.end());
    }
    print_table(stdout, table);
}

bool write_figures(const std::vector<figure>& figures, const std::string& path) {
    nlohmann::json rows = nlohmann::json::array();
    for (const figure& measured : figures) {
        rows.push_back({{"figure", measured.name},
                        {"unit", measured.unit},
                        {"against", measured.against},
                        {"ours", measured.ours},
                        {"theirs", measured.theirs},
                        {"judged", measured.ours.empty()
                                       ? nlohmann::json()
                                       : nlohmann::json(judged_value(measured, judged_values(measured)))},
                        {"must", measured.must},
                        {"aim", measured.aim},
                        {"verdict", verdict_of(measured)}});
    }
    std::ofstream file(path);
    file << nlohmann::json{{"machine", machine()}, {"figures", rows}}.dump(2) << "\n";
    file.close();
    return static_cast<bool>(file);
}
