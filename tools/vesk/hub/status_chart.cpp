#include "hub/status_chart.hpp"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "drawing/round_step.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr double width = 500, height = 186, left = 62, right = 492, top = 10, bottom = 158, mark_height = 14;
constexpr double shown_seconds = 600;
constexpr int wanted_steps = 4;

double x_of(double seconds_ago) {
    return right - (right - left) * seconds_ago / shown_seconds;
}

double largest_of(const chart& shown) {
    double largest = 0;
    for (const auto& line : shown.lines)
        for (const double value : line.values) largest = std::max(largest, value);
    return largest;
}

/// The upright axis: from 0 to the first round number above everything.
class value_axis {
  public:
    value_axis(double largest, quantity kind)
        : shown_unit(unit_for(largest, kind)),
          step(step_for(largest)),
          limit(std::max(1.0, std::ceil(largest / step)) * step) {}

    double y_of(double value) const { return bottom - (bottom - top) * value / limit; }

    std::string svg() const {
        std::string svg;
        for (int tick = 0; tick * step <= limit * 1.001; ++tick) svg += line_at(tick * step);
        return svg;
    }

  private:
    // Nothing that is counted here comes in fractions of the smallest unit.
    double step_for(double largest) const {
        const double least = largest / shown_unit.size / wanted_steps;
        return std::max(1.0, round_step_from(std::max(least, 0.001)) * shown_unit.size);
    }

    std::string line_at(double value) const {
        const double y = y_of(value);
        const std::string name = value == 0 || shown_unit.name.empty() ? "" : " " + shown_unit.name;
        return fmt::format(R"(<line class="grid" x1="{}" y1="{y:.1f}" x2="{}" y2="{y:.1f}"/>)"
                           R"(<text class="end" x="{}" y="{:.1f}">{:g}{}</text>)"
                           "\n",
                           left, right, left - 8, y + 4, value / shown_unit.size, name, fmt::arg("y", y));
    }

    const unit shown_unit;
    const double step, limit;
};

std::string time_axis() {
    std::string svg;
    for (int minutes = 10; minutes >= 0; minutes -= 2)
        svg += fmt::format(R"(<text class="{}" x="{:.1f}" y="{}">{}</text>)", minutes == 0 ? "end" : "middle",
                           x_of(60.0 * minutes), bottom + 22,
                           minutes == 0 ? "now" : fmt::format("−{} min", minutes));
    return svg + "\n";
}

std::string points(const std::vector<double>& values, const std::vector<double>& seconds_ago,
                   const value_axis& axis) {
    std::string text;
    for (std::size_t i = 0; i < values.size(); ++i)
        text += fmt::format("{}{:.1f} {:.1f}", i == 0 ? "M" : "L",
                            x_of(std::min(seconds_ago[i], shown_seconds)), axis.y_of(values[i]));
    return text;
}

// What lies below the first line is tinted.
std::string drawn(const chart_line& line, bool is_first, const std::vector<double>& seconds_ago,
                  const value_axis& axis) {
    if (line.values.empty()) return "";
    const std::string path = points(line.values, seconds_ago, axis);
    std::string svg;
    if (is_first)
        svg = fmt::format("<path class=\"area\" d=\"{}V{}H{:.1f}Z\"/>\n", path, bottom,
                          x_of(std::min(seconds_ago.front(), shown_seconds)));
    return svg + fmt::format("<path class=\"line {}\" d=\"{}\"/>\n", is_first ? "first" : "second", path);
}

std::string drawn_marks(const chart_line& marks, const std::vector<double>& seconds_ago) {
    std::string path;
    for (std::size_t i = 0; i < marks.values.size(); ++i)
        if (marks.values[i] > 0)
            path += fmt::format("M{:.1f} {}v-{}", x_of(std::min(seconds_ago[i], shown_seconds)), bottom,
                                mark_height);
    return path.empty() ? "" : fmt::format("<path class=\"mark\" d=\"{}\"/>\n", path);
}

}  // namespace

std::string as_svg(const chart& shown, const std::vector<double>& seconds_ago) {
    const value_axis axis(largest_of(shown), shown.kind);
    std::string svg =
        fmt::format(R"(<svg viewBox="0 0 {} {}" role="img" aria-label="{}, the last ten minutes">)"
                    "\n",
                    width, height, shown.title) +
        axis.svg() + time_axis();
    for (const auto& line : shown.lines) svg += drawn(line, &line == &shown.lines.front(), seconds_ago, axis);
    return svg + drawn_marks(shown.marks, seconds_ago) + "</svg>";
}

}  // namespace tolvan::vesk::tool
