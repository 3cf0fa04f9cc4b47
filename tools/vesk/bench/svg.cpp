#include "bench/svg.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>

#include <fmt/format.h>

#include "bench/histogram.hpp"
#include "drawing/round_step.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr double width = 860, plot_left = 90, plot_right = 830;
constexpr double header_height = 50, panel_height = 250, plot_top = 50, plot_height = 140;
constexpr double tick_length = 5;
constexpr int most_count_ticks = 5;

constexpr const char* style =
    "text { font: 12px sans-serif; fill: #333 } .title { font-size: 18px } .panel { font-size: 14px } "
    ".axis { stroke: #333; fill: none } .grid { stroke: #ddd } .bar { fill: #4c78a8 } "
    ".mark { stroke: #c0392b; stroke-dasharray: 5 3 } .mark-label { fill: #c0392b } "
    ".middle { text-anchor: middle } .end { text-anchor: end }";

// The bins that the picture shows, the first and the last included.
struct bin_range {
    int first;
    int last;

    int count() const { return last - first + 1; }
    double x_of_bin(int bin) const { return plot_left + (plot_right - plot_left) * (bin - first) / count(); }
    double x_of(double ms) const {
        return plot_left + (plot_right - plot_left) * (std::log10(ms) * bins_a_decade - first) / count();
    }
    bool shows(double ms) const { return bin_begin(first) <= ms && ms <= bin_begin(last + 1); }
};

std::string line(const char* kind, double x1, double y1, double x2, double y2) {
    return fmt::format(R"(<line class="{}" x1="{:.1f}" y1="{:.1f}" x2="{:.1f}" y2="{:.1f}"/>)"
                       "\n",
                       kind, x1, y1, x2, y2);
}

std::string text(const char* kind, double x, double y, const std::string& content) {
    return fmt::format(R"(<text class="{}" x="{:.1f}" y="{:.1f}">{}</text>)"
                       "\n",
                       kind, x, y, content);
}

// A histogram with its axes. `top` is where its title begins.
class panel {
  public:
    panel(const measured_times& shown, const bin_range& shown_bins, double panel_top)
        : times(shown),
          bins(shown_bins),
          counts(histogram(times.ms, bins.first, bins.last)),
          top(panel_top + plot_top),
          bottom(top + plot_height),
          count_step(std::max(1.0, round_step_from(static_cast<double>(highest()) / most_count_ticks))),
          count_limit(std::ceil(static_cast<double>(highest()) / count_step) * count_step) {}

    std::string svg() const {
        return text("panel", plot_left, top - 28, title()) + count_axis() + bars() + time_axis() +
               mark("p50", 500, "mark-label end", -4) + mark("p99", 990, "mark-label", 4);
    }

  private:
    std::uint64_t highest() const { return *std::max_element(counts.begin(), counts.end()); }
    double y_of(double count) const { return bottom - plot_height * count / count_limit; }

    std::string title() const {
        std::string title = fmt::format("{}, {} times", times.title, times.ms.size());
        title.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(title.front())));
        return title;
    }

    std::string count_axis() const {
        std::string svg;
        for (int tick = 0; tick * count_step <= count_limit; ++tick) svg += count_tick(tick * count_step);
        const double middle = (top + bottom) / 2;
        return svg + line("axis", plot_left, top, plot_left, bottom) +
               fmt::format(
                   R"svg(<text class="middle" transform="translate(25 {}) rotate(-90)">messages</text>)svg"
                   "\n",
                   middle);
    }

    std::string count_tick(double count) const {
        const double y = y_of(count);
        return line("grid", plot_left, y, plot_right, y) +
               line("axis", plot_left - tick_length, y, plot_left, y) +
               text("end", plot_left - 8, y + 4, fmt::format("{:.0f}", count));
    }

    std::string bars() const {
        std::string svg;
        for (int bin = bins.first; bin <= bins.last; ++bin) {
            const auto count = static_cast<double>(counts[static_cast<std::size_t>(bin - bins.first)]);
            if (count == 0) continue;
            const double x = bins.x_of_bin(bin);
            svg += fmt::format(R"(<rect class="bar" x="{:.1f}" y="{:.1f}" width="{:.1f}" height="{:.1f}"/>)"
                               "\n",
                               x, y_of(count), bins.x_of_bin(bin + 1) - x - 0.5, bottom - y_of(count));
        }
        return svg;
    }

    std::string time_axis() const {
        std::string svg = line("axis", plot_left, bottom, plot_right, bottom);
        for (int decade = bins.first; decade <= bins.last + 1; decade += bins_a_decade)
            for (const double digit : {1.0, 2.0, 5.0}) svg += time_tick(digit * bin_begin(decade));
        return svg + text("middle", (plot_left + plot_right) / 2, bottom + 40, "milliseconds, logarithmic");
    }

    std::string time_tick(double ms) const {
        if (!bins.shows(ms)) return "";
        const double x = bins.x_of(ms);
        return line("axis", x, bottom, x, bottom + tick_length) +
               text("middle", x, bottom + 20, fmt::format("{:g}", ms));
    }

    std::string mark(const char* name, unsigned per_mille, const char* label, double label_offset) const {
        const double ms = value_at(per_mille, times.ms);
        const double x = bins.x_of(ms);
        return line("mark", x, top - 10, x, bottom) +
               text(label, x + label_offset, top - 4, fmt::format("{} {:.3f} ms", name, ms));
    }

    const measured_times& times;
    const bin_range bins;
    const std::vector<std::uint64_t> counts;
    const double top, bottom;
    const double count_step, count_limit;
};

std::vector<const measured_times*> measured(const bench_report& report) {
    std::vector<const measured_times*> measured;
    for (const auto& phase : report.phases)
        for (const auto& times : phase.times)
            if (!times.ms.empty()) measured.push_back(&times);
    return measured;
}

// Whole decades, so that the axis begins and ends with a labelled tick.
bin_range bins_of(const std::vector<const measured_times*>& measured) {
    double least = 1, most = 1;
    for (const auto* times : measured) {
        least = std::min(least, times->ms.front());
        most = std::max(most, times->ms.back());
    }
    const auto decade = [](double value) { return static_cast<int>(std::floor(std::log10(value))); };
    return {decade(least) * bins_a_decade, (decade(most) + 1) * bins_a_decade - 1};
}

}  // namespace

std::string as_svg(const bench_report& report) {
    const auto shown = measured(report);
    const bin_range bins = bins_of(shown);
    const double height = header_height + panel_height * static_cast<double>(shown.size());
    std::string svg = fmt::format(
        R"(<svg xmlns="http://www.w3.org/2000/svg" width="{0}" height="{1}" viewBox="0 0 {0} {1}">)"
        "\n<style>{2}</style>\n"
        R"(<rect width="{0}" height="{1}" fill="white"/>)"
        "\n",
        width, height, style);
    svg += text("title middle", width / 2, 34,
                fmt::format("Times through the hub, messages of {} bytes", report.size));
    double top = header_height;
    for (const auto* times : shown) {
        svg += panel(*times, bins, top).svg();
        top += panel_height;
    }
    return svg + "</svg>\n";
}

}  // namespace tolvan::vesk::tool
