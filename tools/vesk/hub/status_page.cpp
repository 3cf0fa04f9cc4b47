#include "hub/status_page.hpp"

#include <algorithm>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "hub/status_chart.hpp"
#include "hub/status_page_parts.hpp"

namespace tolvan::vesk::tool {

namespace {

constexpr int minutes_shown = 10;
constexpr double history_seconds = 60.0 * minutes_shown;

// Above so much of what is allowed a meter turns yellow.
constexpr double high_use = 0.8;

std::string escaped(const std::string& text) {
    std::string html;
    for (const char each : text) html += each == '<' ? "&lt;" : each == '&' ? "&amp;" : std::string(1, each);
    return html;
}

std::string count(std::uint64_t number) {
    return as_text(static_cast<double>(number), quantity::count);
}

std::string bytes(double number) {
    return as_text(number, quantity::bytes);
}

std::string duration(double seconds) {
    const auto whole = static_cast<std::uint64_t>(seconds);
    const auto days = whole / 86400, hours = whole / 3600 % 24, minutes = whole / 60 % 60;
    if (days > 0) return fmt::format("{} d {} h", days, hours);
    if (hours > 0) return fmt::format("{} h {} min", hours, minutes);
    return minutes > 0 ? fmt::format("{} min {} s", minutes, whole % 60) : fmt::format("{} s", whole);
}

/// What happened between two looks.
struct stretch {
    const hub_sample& from;
    const hub_sample& to;

    double seconds() const { return to.uptime - from.uptime; }
    bool is_empty() const { return seconds() <= 0; }
    double a_second(std::uint64_t relay::hub::counters::*counter) const {
        return is_empty() ? 0 : static_cast<double>(to.counted.*counter - from.counted.*counter) / seconds();
    }
    std::uint64_t jams() const { return to.counted.jams - from.counted.jams; }
    std::uint64_t refused() const { return to.refused - from.refused; }
};

// The last look at or before that time, or else the first.
const hub_sample& look_at(const hub_status& status, double uptime) {
    const auto later =
        std::upper_bound(status.samples.begin(), status.samples.end(), uptime,
                         [](double time, const hub_sample& each) { return time < each.uptime; });
    return later == status.samples.begin() ? *later : *std::prev(later);
}

stretch stretch_of(const hub_status& status, double from_seconds_ago, double to_seconds_ago) {
    const double now = status.now().uptime;
    return {look_at(status, now - from_seconds_ago), look_at(status, now - to_seconds_ago)};
}

// Of a few seconds: single ones jump.
stretch present(const hub_status& status) {
    return stretch_of(status, 3, 0);
}

std::string pill(const hub_status& status, hub_status::clock::time_point moment) {
    const stretch minute = stretch_of(status, 60, 0);
    if (const auto trouble = status.trouble(moment))
        return fmt::format(R"(<span class="pill bad">{}</span>)", *trouble);
    if (minute.refused() > 0) return R"(<span class="pill fair">refuses connections</span>)";
    if (minute.jams() > 0) return R"(<span class="pill fair">drops for slow subscribers</span>)";
    return R"(<span class="pill good">relaying</span>)";
}

std::string header(const hub_status& status, hub_status::clock::time_point moment) {
    return fmt::format("<header><h1>vesk hub</h1>{}<span class=\"up\">up {} · version {}</span></header>\n",
                       pill(status, moment), duration(status.now().uptime), VESK_VERSION);
}

std::string tile(const char* name, const std::string& value, const std::string& more) {
    return fmt::format("<div class=\"card tile\"><span>{}</span><b>{}</b><span>{}</span></div>\n", name,
                       value, more);
}

std::string a_second(const std::string& amount) {
    return amount + "<small>/s</small>";
}

std::string descriptors_tile(const process_usage& used, std::uint64_t refused) {
    const auto allowed = static_cast<double>(used.allowed_descriptors);
    return tile("Descriptors", count(used.open_descriptors),
                fmt::format(R"(of {} allowed{}<meter value="{}" max="{}" high="{:.0f}"></meter>)",
                            count(used.allowed_descriptors),
                            refused > 0 ? fmt::format("; {} connections refused", count(refused)) : "",
                            used.open_descriptors, used.allowed_descriptors, allowed * high_use));
}

std::string tiles(const hub_status& status) {
    const auto& [uptime, counted, refused, used] = status.now();
    const stretch now = present(status);
    return "<section class=\"grid tiles\">\n" +
           tile("Messages",
                a_second(as_text(now.a_second(&relay::hub::counters::messages_in), quantity::count)),
                count(counted.messages_in) + " since the start") +
           tile("Data", a_second(bytes(now.a_second(&relay::hub::counters::bytes_in))),
                bytes(static_cast<double>(counted.bytes_in)) + " since the start") +
           tile("Connections", count(counted.publishers + counted.subscribers),
                fmt::format("{} publishers, {} subscribers", counted.publishers, counted.subscribers)) +
           tile("Jams", count(counted.jams),
                count(stretch_of(status, history_seconds, 0).jams()) + " in the last ten minutes") +
           tile("Memory", bytes(static_cast<double>(used.resident_bytes)), "resident") +
           descriptors_tile(used, refused) + "</section>\n";
}

std::vector<chart> charts_of(const std::vector<hub_sample>& samples) {
    const auto rate = [&](auto counter) {
        return rates(samples, [&](const hub_sample& each) { return each.counted.*counter; });
    };
    using counters = relay::hub::counters;
    return {
        {"Messages a second",
         quantity::count,
         {{"relayed", rate(&counters::messages_in)}},
         {"jams", rate(&counters::jams)}},
        {"Data a second", quantity::bytes, {{"relayed", rate(&counters::bytes_in)}}},
        {"Connections",
         quantity::count,
         {{"publishers", values(samples, [](auto& each) { return each.counted.publishers; })},
          {"subscribers", values(samples, [](auto& each) { return each.counted.subscribers; })}}},
        {"Memory",
         quantity::bytes,
         {{"resident", values(samples, [](auto& each) { return each.used.resident_bytes; })}}},
    };
}

std::string legend(const chart& shown) {
    std::string html;
    for (const auto& line : shown.lines)
        html +=
            fmt::format("<i{}></i>{}", &line == &shown.lines.front() ? "" : " class=\"second\"", line.name);
    const auto& marks = shown.marks.values;
    if (std::any_of(marks.begin(), marks.end(), [](double each) { return each > 0; }))
        html += fmt::format("<i class=\"mark\"></i>{}", shown.marks.name);
    return html;
}

std::string charts(const hub_status& status) {
    const auto seconds_ago = values(
        status.samples, [now = status.now().uptime](const hub_sample& each) { return now - each.uptime; });
    std::string html = "<section class=\"grid charts\">\n";
    for (const chart& each : charts_of(status.samples))
        html += fmt::format(
            "<div class=\"card\"><div class=\"head\"><h2>{}</h2><span "
            "class=\"legend\">{}</span></div>\n{}</div>\n",
            each.title, legend(each), as_svg(each, seconds_ago));
    return html + "</section>\n";
}

std::string minute_row(const hub_status& status, int minutes_ago) {
    const stretch minute = stretch_of(status, 60.0 * (minutes_ago + 1), 60.0 * minutes_ago);
    if (minute.is_empty()) return "";
    const auto& [uptime, counted, refused, used] = minute.to;
    return fmt::format(
        "<tr><th>{}</th><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n",
        minutes_ago == 0 ? "the last minute" : fmt::format("−{} to −{} min", minutes_ago + 1, minutes_ago),
        as_text(minute.a_second(&relay::hub::counters::messages_in), quantity::count),
        bytes(minute.a_second(&relay::hub::counters::bytes_in)), counted.publishers, counted.subscribers,
        minute.jams(), bytes(static_cast<double>(used.resident_bytes)), used.open_descriptors);
}

std::string minutes(const hub_status& status) {
    std::string html =
        "<section class=\"card wide\"><h2>By the minute</h2><table>\n"
        "<tr><th></th><th>messages a second</th><th>data a second</th><th>publishers</th>"
        "<th>subscribers</th><th>jams</th><th>memory</th><th>descriptors</th></tr>\n";
    for (int ago = 0; ago < minutes_shown; ++ago) html += minute_row(status, ago);
    return html + "</table></section>\n";
}

std::string fact(const char* name, const std::string& value) {
    return fmt::format("<tr><th>{}</th><td>{}</td></tr>\n", name, value);
}

std::string facts(const hub_status& status) {
    const hub_facts& facts = status.facts;
    return "<section class=\"card wide\"><h2>This hub</h2><table class=\"facts\">\n" +
           fact("Publishing endpoint", escaped(facts.pub_endpoint)) +
           fact("Subscription endpoint", escaped(facts.sub_endpoint)) +
           fact("Started", fmt::format("{:%Y-%m-%d %H:%M:%S} UTC",
                                       std::chrono::time_point_cast<std::chrono::seconds>(facts.started))) +
           fact("Memory for a slow subscriber", bytes(static_cast<double>(facts.queue_bytes))) +
           fact("Largest message part", bytes(static_cast<double>(relay::hub::largest_message))) +
           "</table></section>\n";
}

constexpr std::string_view footer =
    "<footer>The same for programs: <a href=\"status.json\">status.json</a>, <a "
    "href=\"metrics\">metrics</a>, "
    "<a href=\"healthz\">healthz</a></footer>\n";

}  // namespace

std::string as_page(const hub_status& status, hub_status::clock::time_point moment) {
    return fmt::format(
        "{}<style>{}</style>\n</head>\n<body>\n<div id=\"lost\">The hub does not answer; below is what it "
        "said last.</div>\n<main>\n{}{}{}{}{}</main>\n{}<script>{}</script>\n</body>\n</html>\n",
        page_begin, page_style, header(status, moment), tiles(status), charts(status), minutes(status),
        facts(status), footer, page_script);
}

}  // namespace tolvan::vesk::tool
