// A drawing of what was measured against the size of the content, as SVG.
#pragma once

#include <string>
#include <vector>

struct chart_point {
    double x = 0, y = 0;
};

struct chart_line {
    std::string name;
    std::string color;  // as CSS names it
    std::vector<chart_point> points;
};

// Axes from zero, and lines through their points, each of which carries its value.
struct chart_panel {
    std::string title;
    std::string x_axis, y_axis;  // what they count, and in which unit
    std::vector<chart_line> lines;
};

// One panel beside the other. False when `path` cannot be written.
[[nodiscard]] bool write_chart(const std::vector<chart_panel>& panels, const std::string& path);
