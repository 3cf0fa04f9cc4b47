#include "observing/rate_table.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "terminal/printable.hpp"
#include "terminal/quantities.hpp"

namespace tolvan::vesk::tool {

namespace {

using row = topic_rates::row;

std::string age_text(std::optional<std::int64_t> age_ms) {
    return age_ms ? span(std::chrono::milliseconds(*age_ms)) : "-";
}

double age_rank(std::optional<std::int64_t> age_ms) {
    return age_ms ? static_cast<double>(*age_ms) : -1;
}

Variant age_variant(std::optional<std::int64_t> age_ms) {
    return age_ms ? Variant::integer(*age_ms) : Variant();
}

Variant::object_t numbers_of(const row& of) {
    return {{"messages_per_s", Variant::number(of.messages_per_second)},
            {"bytes_per_s", Variant::number(of.bytes_per_second)},
            {"messages", Variant::unsigned_integer(of.messages)},
            {"bytes", Variant::unsigned_integer(of.bytes)},
            {"mean_bytes", Variant::number(of.mean_size())},
            {"age_p50_ms", age_variant(of.age_p50_ms)},
            {"age_p99_ms", age_variant(of.age_p99_ms)}};
}

Variant topic_variant(const row& of) {
    Variant::object_t members = {{"topic", Variant::string(std::string(of.topic))}};
    for (auto& number : numbers_of(of)) members.push_back(std::move(number));
    members.emplace_back("last_seen_s", Variant::number(of.since_last.count()));
    return Variant::object(std::move(members));
}

}  // namespace

const std::array<rate_column, 8> rate_columns = {{
    {'m', "messages", "messages", 8, [](const row& r) { return amount(r.messages_per_second, "/s"); },
     [](const row& r) { return r.messages_per_second; }},
    {'b', "bytes", "bytes", 9, [](const row& r) { return amount(r.bytes_per_second, "B/s"); },
     [](const row& r) { return r.bytes_per_second; }},
    {'t', "total", "total", 8, [](const row& r) { return std::to_string(r.messages); },
     [](const row& r) { return static_cast<double>(r.messages); }},
    {'s', "size", "size", 8, [](const row& r) { return amount(r.mean_size(), "B"); },
     [](const row& r) { return r.mean_size(); }},
    {'a', "age", "age p50", 8, [](const row& r) { return age_text(r.age_p50_ms); },
     [](const row& r) { return age_rank(r.age_p50_ms); }},
    {'9', "p99", "age p99", 8, [](const row& r) { return age_text(r.age_p99_ms); },
     [](const row& r) { return age_rank(r.age_p99_ms); }},
    {'l', "last", "last seen", 9, [](const row& r) { return span(r.since_last); },
     [](const row& r) { return -r.since_last.count(); }},
    {'n', "name", "topic", 0, [](const row& r) { return printable(r.topic); },
     [](const row&) { return 0.0; }},
}};

std::string rate_heading() {
    std::string line;
    for (const auto& column : rate_columns)
        line += fmt::format("{:>{}}{}", column.title, column.width, column.width > 0 ? " " : "");
    return line;
}

std::string rate_line(const row& of) {
    std::string line;
    for (const auto& column : rate_columns)
        line += fmt::format("{:>{}}{}", column.text(of), column.width, column.width > 0 ? " " : "");
    return line;
}

void sort_first(std::vector<row>& rows, std::size_t count, std::size_t column) {
    const auto rank = rate_columns.at(column).rank;
    const auto sorted_end = rows.begin() + static_cast<std::ptrdiff_t>(std::min(count, rows.size()));
    const auto precedes = [rank](const row& one, const row& other) {
        const double first = rank(one), second = rank(other);
        return first != second ? first > second : one.topic < other.topic;
    };
    std::nth_element(rows.begin(), sorted_end, rows.end(), precedes);
    std::sort(rows.begin(), sorted_end, precedes);
}

std::string rate_summary(const topic_rates::interval& interval,
                         std::optional<std::size_t> requests_in_flight) {
    const row& total = interval.total;
    std::string line =
        fmt::format("{}, {}; topics: {}, messages: {}", amount(total.messages_per_second, "messages/s"),
                    amount(total.bytes_per_second, "B/s"), interval.rows.size(), total.messages);
    if (requests_in_flight) line += fmt::format("; requests in flight: {}", *requests_in_flight);
    if (total.age_p50_ms)
        line += fmt::format("; age p50 {}, p99 {}", age_text(total.age_p50_ms), age_text(total.age_p99_ms));
    return line;
}

Variant as_variant(const topic_rates::interval& interval, std::optional<std::size_t> requests_in_flight) {
    Variant::array_t topics;
    for (const row& each : interval.rows) topics.push_back(topic_variant(each));
    Variant::object_t members = {{"interval_s", Variant::number(interval.length.count())}};
    for (auto& number : numbers_of(interval.total)) members.push_back(std::move(number));
    members.emplace_back("requests_in_flight",
                         requests_in_flight ? Variant::unsigned_integer(*requests_in_flight) : Variant());
    members.emplace_back("topics", Variant::array(std::move(topics)));
    return Variant::object(std::move(members));
}

}  // namespace tolvan::vesk::tool
