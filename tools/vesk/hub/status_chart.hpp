#pragma once

#include <string>
#include <vector>

#include "drawing/quantity.hpp"

namespace tolvan::vesk::tool {

/// A line of a chart: a value for each moment.
struct chart_line {
    const char* name;
    std::vector<double> values;
};

/// Up to two lines over the same ten minutes, and marks at some moments.
struct chart {
    const char* title;
    quantity kind;
    std::vector<chart_line> lines;
    chart_line marks{"", {}};  ///< a stroke from below where the value is not 0
};

/// The chart as an SVG element. `seconds_ago` has the moments, from the oldest to now. The style is the
/// page's: lines have the classes "line" and "first" or "second", marks "mark".
std::string as_svg(const chart& shown, const std::vector<double>& seconds_ago);

}  // namespace tolvan::vesk::tool
