#include "bench/report.hpp"

#include <utility>

#include <fmt/format.h>

#include <tolvan/Variant.hpp>

#include "bench/histogram.hpp"

namespace tolvan::vesk::tool {

namespace {

std::string heading() {
    std::string line = fmt::format("{:32}", "milliseconds");
    for (const auto& [name, rank] : percentiles) line += fmt::format("{:>10}", name);
    return line + "\n";
}

std::string row(const measured_times& times) {
    std::string line = fmt::format("{:32}", times.title);
    for (const auto& [name, rank] : percentiles)
        line +=
            times.ms.empty() ? fmt::format("{:>10}", "-") : fmt::format("{:10.3f}", value_at(rank, times.ms));
    return line + "\n";
}

Variant percentiles_of(const measured_times& times) {
    Variant::object_t values;
    for (const auto& [name, rank] : percentiles)
        values.emplace_back(name, times.ms.empty() ? Variant() : Variant::number(value_at(rank, times.ms)));
    return Variant::object(std::move(values));
}

Variant result_of(const phase_result& phase) {
    Variant::object_t values = {{"sent", Variant::unsigned_integer(phase.sent)},
                                {"lost", Variant::unsigned_integer(phase.lost)},
                                {"per_second", Variant::number(phase.per_second)}};
    for (const auto& times : phase.times) values.emplace_back(times.key, percentiles_of(times));
    return Variant::object(std::move(values));
}

}  // namespace

std::string as_table(const bench_report& report) {
    std::string table =
        fmt::format("{:32}{:>10}{:>10}{:>10}\n", fmt::format("messages of {} bytes", report.size), "sent",
                    "lost", "a second");
    for (const auto& phase : report.phases)
        table +=
            fmt::format("{:32}{:10}{:10}{:10.0f}\n", phase.title, phase.sent, phase.lost, phase.per_second);
    table += "\n" + heading();
    for (const auto& phase : report.phases)
        for (const auto& times : phase.times) table += row(times);
    return table;
}

std::string as_json(const bench_report& report) {
    Variant::object_t values = {{"size", Variant::unsigned_integer(report.size)}};
    for (const auto& phase : report.phases) values.emplace_back(phase.key, result_of(phase));
    return Variant::object(std::move(values)).toJson() + "\n";
}

}  // namespace tolvan::vesk::tool
