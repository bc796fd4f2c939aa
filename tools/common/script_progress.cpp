#include "tools/common/script_progress.h"

#include <algorithm>
#include <charconv>

script_progress read_script_progress(const std::string& line) {
    constexpr int ALL = 100;
    const char* const last = line.data() + line.size();
    int percent = 0;
    const auto [end, error] = std::from_chars(line.data(), last, percent);
    if (error != std::errc() || percent < 0 || percent > ALL || (end != last && *end != ' ')) return {};
    return {percent, std::string(std::find_if(end, last, [](char c) { return c != ' '; }), last)};
}

std::string script_progress_words(const std::string& line) {
    const script_progress said = read_script_progress(line);
    if (said.percent < 0) return "";
    return std::to_string(said.percent) + " %" + (said.text.empty() ? "" : ", " + said.text);
}
