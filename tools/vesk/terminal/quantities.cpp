#include "terminal/quantities.hpp"

#include <array>

#include <fmt/format.h>

namespace tolvan::vesk::tool {

namespace {

// Just below the next power of ten "{:.3g}" would round up to "1e+03".
constexpr double almost_thousand = 999.5;

struct time_unit {
    const char* name;
    double seconds;
};

}  // namespace

std::string amount(double value, const char* unit) {
    static constexpr std::array prefixes = {"", "k", "M", "G", "T", "P"};
    std::size_t prefix = 0;
    for (; value >= almost_thousand && prefix + 1 < prefixes.size(); ++prefix) value /= 1000;
    return fmt::format("{:.3g} {}{}", value, prefixes.at(prefix), unit);
}

std::string span(std::chrono::duration<double> time) {
    static constexpr std::array units = {time_unit{"d", 86400}, time_unit{"h", 3600}, time_unit{"min", 60}};
    const double seconds = time.count();
    if (seconds < almost_thousand / 1000) return fmt::format("{:.3g} ms", seconds * 1000);
    for (const auto& unit : units)
        if (seconds >= unit.seconds) return fmt::format("{:.3g} {}", seconds / unit.seconds, unit.name);
    return fmt::format("{:.3g} s", seconds);
}

}  // namespace tolvan::vesk::tool
