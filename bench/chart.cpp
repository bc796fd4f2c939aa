#include "chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

namespace {

// Of one panel, in pixels: about half of what a page shows.
constexpr double PANEL_WIDTH = 430, PANEL_HEIGHT = 330;
constexpr double LEFT = 62, RIGHT = 24, TOP = 64, BOTTOM = 50;
constexpr double LABEL_HEIGHT = 20;
constexpr double HEADROOM = 1.08;  // for the label of the highest point
constexpr double PLOT_WIDTH = PANEL_WIDTH - LEFT - RIGHT, PLOT_HEIGHT = PANEL_HEIGHT - TOP - BOTTOM;

std::string number(double value, int digits) {
    char text[32];
    snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string label(double value) {
    const int digits = value == std::floor(value) || value >= 10 ? 0 : value < 1 ? 2 : 1;
    return number(value, digits);
}

// 1, 2 or 5 and zeros: a step that cuts `range` into at most six.
double tick_step(double range) {
    const double power = std::pow(10, std::floor(std::log10(range / 6)));
    for (const double digit : {1, 2, 5}) {
        if (range / (digit * power) <= 6) return digit * power;
    }
    return 10 * power;
}

struct axis {
    explicit axis(double largest) : step(tick_step(largest)), end(std::ceil(largest / step) * step) {}
    double step, end;
};

class panel_drawing {
public:
    panel_drawing(const chart_panel& panel, double offset)
        : x_(largest(panel, &chart_point::x)),
          y_(HEADROOM * largest(panel, &chart_point::y)),
          offset_(offset) {
        add_text(LEFT, 24, "start", "title", panel.title);
        add_grid(panel);
        double legend = LEFT;
        for (const chart_line& line : panel.lines) {
            add_line(line, &line == &panel.lines.front());
            add_segment(legend, 42, legend + 20, 42, line.color, 2.5);
            add_text(legend + 26, 46, "start", "", line.name);
            legend += 50 + 7.0 * static_cast<double>(line.name.size());
        }
    }

    [[nodiscard]] const std::string& svg() const { return svg_; }

private:
    static double largest(const chart_panel& panel, double chart_point::*part) {
        double found = 0;
        for (const chart_line& line : panel.lines) {
            for (const chart_point& point : line.points) found = std::max(found, point.*part);
        }
        return found;
    }
    [[nodiscard]] double x_of(double value) const { return LEFT + PLOT_WIDTH * value / x_.end; }
    [[nodiscard]] double y_of(double value) const { return TOP + PLOT_HEIGHT * (1 - value / y_.end); }

    void add_text(double x, double y, const char* anchor, const char* style, const std::string& text) {
        svg_ += "<text x=\"" + number(offset_ + x, 1) + "\" y=\"" + number(y, 1) + "\" text-anchor=\"" +
                anchor + "\" class=\"" + style + "\">" + text + "</text>\n";
    }
    void add_segment(double x1, double y1, double x2, double y2, const std::string& color, double width) {
        svg_ += "<line x1=\"" + number(offset_ + x1, 1) + "\" y1=\"" + number(y1, 1) + "\" x2=\"" +
                number(offset_ + x2, 1) + "\" y2=\"" + number(y2, 1) + "\" stroke=\"" + color +
                "\" stroke-width=\"" + number(width, 1) + "\"/>\n";
    }

    void add_grid(const chart_panel& panel) {
        for (double value = 0; value <= y_.end * 1.001; value += y_.step) {
            add_segment(LEFT, y_of(value), LEFT + PLOT_WIDTH, y_of(value), value == 0 ? "#57606a" : "#d8dee4",
                        1);
            add_text(LEFT - 8, y_of(value) + 4, "end", "", label(value));
        }
        for (double value = 0; value <= x_.end * 1.001; value += x_.step) {
            add_segment(x_of(value), TOP + PLOT_HEIGHT, x_of(value), TOP + PLOT_HEIGHT + 5, "#57606a", 1);
            add_text(x_of(value), TOP + PLOT_HEIGHT + 19, "middle", "", label(value));
        }
        add_text(LEFT + PLOT_WIDTH / 2, PANEL_HEIGHT - 10, "middle", "", panel.x_axis);
        const std::string x = number(offset_ + 14, 1), y = number(TOP + PLOT_HEIGHT / 2, 1);
        svg_ += "<text text-anchor=\"middle\" transform=\"translate(" + x + " " + y + ") rotate(-90)\">" +
                panel.y_axis + "</text>\n";
    }

    // The values of the first line stand below it where there is room, those of the others above.
    void add_line(const chart_line& line, bool below) {
        std::string path;
        for (const chart_point& point : line.points) {
            path += number(offset_ + x_of(point.x), 1) + "," + number(y_of(point.y), 1) + " ";
        }
        svg_ += "<polyline points=\"" + path + "\" fill=\"none\" stroke=\"" + line.color +
                "\" stroke-width=\"2.5\"/>\n";
        for (const chart_point& point : line.points) {
            const double x = x_of(point.x), y = y_of(point.y);
            svg_ += "<circle cx=\"" + number(offset_ + x, 1) + "\" cy=\"" + number(y, 1) +
                    "\" r=\"3.5\" fill=\"" + line.color + "\"/>\n";
            // Near the origin the lines meet, and labels would be written over each other.
            if (point.x < x_.end / 5) continue;
            const bool fits_below = y + LABEL_HEIGHT < TOP + PLOT_HEIGHT;
            add_text(x, below && fits_below ? y + LABEL_HEIGHT : y - 9, "middle", "value", label(point.y));
        }
    }

    axis x_, y_;
    double offset_;
    std::string svg_;
};

}  // namespace

bool write_chart(const std::vector<chart_panel>& panels, const std::string& path) {
    const std::string width = number(PANEL_WIDTH * static_cast<double>(panels.size()), 0);
    const std::string height = number(PANEL_HEIGHT, 0);
    std::ofstream file(path);
    file << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
         << "\" viewBox=\"0 0 " << width << " " << height << "\">\n"
         << "<style>text { font: 12px sans-serif; fill: #24292f; } .title { font-size: 15px; font-weight: "
            "bold; } "
            ".value { font-size: 11px; fill: #57606a; }</style>\n"
         << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    double offset = 0;
    for (const chart_panel& panel : panels) {
        file << panel_drawing(panel, offset).svg();
        offset += PANEL_WIDTH;
    }
    file << "</svg>\n";
    file.close();
    return static_cast<bool>(file);
}
