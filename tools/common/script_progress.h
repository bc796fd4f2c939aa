// What the scripts of a package, and an installer, may say of how far they are.
#pragma once

#include <string>

// Where: a number of per cent, a blank and a text, on one line.
inline constexpr char SCRIPT_PROGRESS[] = "/opt/qast/data/fota/staging/install_progress";

struct script_progress {
    int percent = -1;  // -1: nothing that can be read
    std::string text = {};
};
[[nodiscard]] script_progress read_script_progress(const std::string& line);

// As "40 %, writing the modem's image"; empty when nothing can be read.
[[nodiscard]] std::string script_progress_words(const std::string& line);
